#!/usr/bin/env python3
"""Writes the path tracer's showcase scene into a folder: a sky image for the
dome (generated here), a sphere mesh (generated here) and the Op tree file,
which also uses files of Debian's assimp-testmodels package.

    make_showcase.py OUTPUT_FOLDER
"""
import json
import math
import os
import struct
import sys

MODELS = "/usr/share/assimp/models"
SUN = (math.radians(150.0), math.radians(32.0))  # azimuth from -Z toward +X, elevation


def sky(direction):
    """Radiance of the generated sky toward a unit direction (x, y, z)."""
    x, y, z = direction
    sun_x = math.cos(SUN[1]) * math.sin(SUN[0])
    sun_y = math.sin(SUN[1])
    sun_z = -math.cos(SUN[1]) * math.cos(SUN[0])
    if x * sun_x + y * sun_y + z * sun_z > math.cos(math.radians(1.5)):
        return (3000.0, 2700.0, 2200.0)
    if y < 0:  # the ground seen below the horizon
        return (0.3, 0.25, 0.2)
    h = 1.0 - y
    return (0.2 + 0.45 * h ** 4, 0.35 + 0.4 * h ** 4, 0.8 + 0.1 * h ** 4)


def rgbe(rgb):
    top = max(rgb)
    if top < 1e-32:
        return bytes(4)
    mantissa, exponent = math.frexp(top)
    scale = mantissa * 256.0 / top
    return bytes([min(255, int(c * scale)) for c in rgb] + [exponent + 128])


def write_hdr(path, width, height):
    """A lat-long Radiance HDR: row 0 is +Y, the middle column -Z."""
    with open(path, "wb") as out:
        out.write(b"#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y %d +X %d\n" % (height, width))
        for row in range(height):
            theta = math.pi * (row + 0.5) / height
            pixels = []
            for column in range(width):
                phi = 2 * math.pi * ((column + 0.5) / width - 0.5)
                d = (math.sin(theta) * math.sin(phi), math.cos(theta), -math.sin(theta) * math.cos(phi))
                pixels.append(rgbe(sky(d)))
            # Run-length scanline with literal runs only: what every reader takes.
            out.write(bytes([2, 2, width >> 8, width & 255]))
            for channel in range(4):
                values = bytes(p[channel] for p in pixels)
                for start in range(0, width, 128):
                    chunk = values[start:start + 128]
                    out.write(bytes([len(chunk)]) + chunk)


def write_sphere(path, rings=48, segments=96):
    """A unit sphere with its normals, faces counter-clockwise seen from outside."""
    lines = []
    for i in range(rings + 1):
        theta = math.pi * i / rings
        for j in range(segments):
            phi = 2 * math.pi * j / segments
            p = (math.sin(theta) * math.cos(phi), math.cos(theta), math.sin(theta) * math.sin(phi))
            lines.append("v %.6f %.6f %.6f" % p)
            lines.append("vn %.6f %.6f %.6f" % p)
    for i in range(rings):
        for j in range(segments):
            a = i * segments + j + 1
            b = i * segments + (j + 1) % segments + 1
            quad = (a, b, b + segments, a + segments)
            lines.append("f " + " ".join("%d//%d" % (k, k) for k in quad))
    with open(path, "w") as out:
        out.write("\n".join(lines) + "\n")


def location(name, kind, attributes, children=()):
    node = {"name": name, "type": kind, "attributes": attributes}
    if children:
        node["children"] = list(children)
    return node


def mesh_file(name, path, translate, scale, params, rotate=(0.0, 0.0, 0.0)):
    return location(name, "polymesh", {
        "geometry": {"file": path},
        "xform": {"translate": list(translate), "rotate": list(rotate), "scale": scale},
        "material": {"params": params}})


def scene(folder):
    floor = location("floor", "polymesh", {
        "geometry": {
            "point": {"P": [-500.0, 0.0, 500.0, 500.0, 0.0, 500.0, 500.0, 0.0, -500.0,
                            -500.0, 0.0, -500.0],
                      "st": [0.0, 0.0, 250.0, 0.0, 250.0, 250.0, 0.0, 250.0]},
            "poly": {"faceCounts": [4], "vertexList": [0, 1, 2, 3]}},
        "material": {"params": {"baseColorTexture": MODELS + "/OBJ/drkwood2.jpg",
                                "specular": 0.6, "roughness": 0.35}}})
    ball = os.path.join(folder, "ball.obj")
    return {"optree": 1, "root": {"type": "root", "attributes": {"renderSettings": {
        "camera": "/root/cam", "resolution": [640, 360], "samples": 128, "maxDepth": 8}},
        "children": [
            location("cam", "camera", {"geometry": {"fov": 34.0},
                                       "xform": {"translate": [0.0, 2.1, 6.4],
                                                 "rotate": [-14.0, 0.0, 0.0]}}),
            location("sky", "light", {"xform": {"rotate": [0.0, 0.0, 0.0]},
                                      "material": {"lightShader": "domeLight",
                                                   "params": {"file": os.path.join(folder, "sky.hdr")}}}),
            location("geo", "group", {}, [
                floor,
                mesh_file("gold", MODELS + "/PLY/Wuson.ply", (-1.55, 0.0, 0.2), 0.7,
                          {"baseColor": [1.0, 0.78, 0.34], "metallic": 1.0, "roughness": 0.3},
                          rotate=(0.0, 35.0, 0.0)),
                mesh_file("glass", ball, (0.35, 0.75, 0.6), 0.75,
                          {"baseColor": 1.0, "transmission": 1.0, "ior": 1.5}),
                mesh_file("chrome", ball, (1.95, 0.55, -0.4), 0.55,
                          {"baseColor": 0.95, "metallic": 1.0, "roughness": 0.05}),
                mesh_file("clay", ball, (1.15, 0.35, 1.55), 0.35,
                          {"baseColor": [0.7, 0.16, 0.1], "specular": 1.0, "roughness": 0.25}),
            ])]}}


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    folder = os.path.abspath(sys.argv[1])
    os.makedirs(folder, exist_ok=True)
    write_hdr(os.path.join(folder, "sky.hdr"), 512, 256)
    write_sphere(os.path.join(folder, "ball.obj"))
    with open(os.path.join(folder, "showcase.optree.json"), "w") as out:
        json.dump(scene(folder), out, indent=1)
    print(os.path.join(folder, "showcase.optree.json"))


if __name__ == "__main__":
    main()
