// kindlet's live viewer. Frames come as binary WebSocket messages (header and
// half-float pixels, docs/viewer.md); edits go as small JSON texts. Nothing
// here is fetched from elsewhere: render machines are often offline.
"use strict";

const $ = (id) => document.getElementById(id);

// What a test (or a curious user in the console) can read.
const kv = window.kindletViewer = {
  frames: 0,            // frames painted
  frame: null,          // the last one's header
  latencies: [],        // edit to its first painted pixels, ms
  renders: [],
  errors: [],
  sent: 0,              // updates the controller sent for this page
  state: 0,             // the newest scene state they lead to
  saved: null,
};

// ---- half floats and the display table ----------------------------------

const halfToFloat = new Float32Array(65536);
for (let h = 0; h < 65536; ++h) {
  const sign = h & 0x8000 ? -1 : 1, exponent = (h >> 10) & 31, mantissa = h & 1023;
  halfToFloat[h] = exponent === 0 ? sign * Math.pow(2, -14) * (mantissa / 1024)
                 : exponent === 31 ? (mantissa ? NaN : sign * Infinity)
                 : sign * Math.pow(2, exponent - 15) * (1 + mantissa / 1024);
}
// Half bits to the 8-bit value shown, for the current exposure and display.
const display = new Uint8ClampedArray(65536);
function buildDisplay() {
  const scale = Math.pow(2, Number($("exposure").value));
  const srgb = $("srgb").checked;
  for (let h = 0; h < 65536; ++h) {
    let v = halfToFloat[h] * scale;
    if (!(v > 0)) v = 0;
    if (v > 1) v = 1;
    if (srgb) v = v <= 0.0031308 ? 12.92 * v : 1.055 * Math.pow(v, 1 / 2.4) - 0.055;
    display[h] = Math.round(v * 255);
  }
  $("exposureValue").textContent = Number($("exposure").value).toFixed(1);
}

// ---- frames ---------------------------------------------------------------

let current = null;   // {info, pixels: Uint16Array, rgb: [r, g, b]}
let passTiming = null;

function readFrame(buffer) {
  const view = new DataView(buffer);
  if (buffer.byteLength < 64 || view.getUint32(0, true) !== 0x3146564b) return null;  // "KVF1"
  const headerBytes = view.getUint32(4, true);
  const textBytes = view.getUint32(24, true);
  const text = new TextDecoder().decode(new Uint8Array(buffer, 64, textBytes)).split("\n");
  const info = {
    sequenceID: view.getInt32(8, true), width: view.getUint32(12, true),
    height: view.getUint32(16, true), channels: view.getUint32(20, true),
    pass: view.getFloat64(32, true), samples: view.getFloat64(40, true),
    sceneState: view.getFloat64(48, true), receivedMs: view.getFloat64(56, true),
    image: text[0], channelNames: (text[1] || "").split(","),
  };
  const pixels = new Uint16Array(buffer, headerBytes, info.width * info.height * info.channels);
  const pick = (name, fallback) => {
    const i = info.channelNames.indexOf(name);
    return i >= 0 ? i : Math.min(fallback, info.channels - 1);
  };
  return {info, pixels, rgb: [pick("R", 0), pick("G", 1), pick("B", 2)]};
}

let imageData = null;
function paint() {
  if (!current) return;
  const {info, pixels, rgb} = current;
  const canvas = $("image");
  if (canvas.width !== info.width || canvas.height !== info.height || !imageData) {
    canvas.width = info.width;
    canvas.height = info.height;
    imageData = canvas.getContext("2d").createImageData(info.width, info.height);
    fit();
  }
  const out = imageData.data, c = info.channels, [r, g, b] = rgb;
  for (let i = 0, o = 0, n = info.width * info.height; i < n; ++i, o += 4) {
    const p = i * c;
    out[o] = display[pixels[p + r]];
    out[o + 1] = display[pixels[p + g]];
    out[o + 2] = display[pixels[p + b]];
    out[o + 3] = 255;
  }
  canvas.getContext("2d").putImageData(imageData, 0, 0);
}

// The image as large as the stage allows, its pixels square.
function fit() {
  const canvas = $("image"), stage = $("stage");
  const scale = Math.min(stage.clientWidth / canvas.width, stage.clientHeight / canvas.height);
  canvas.style.width = Math.floor(canvas.width * scale) + "px";
  canvas.style.height = Math.floor(canvas.height * scale) + "px";
}

function onFrame(buffer) {
  const frame = readFrame(buffer);
  if (!frame) return;
  const info = frame.info;
  // Time per pass: between two passes of one scene state, from the
  // controller's receive times (passes in between may have been skipped).
  if (passTiming && passTiming.sceneState === info.sceneState && info.pass > passTiming.pass &&
      info.samples > 0 && passTiming.samples > 0)
    kv.msPerPass = (info.receivedMs - passTiming.receivedMs) / (info.pass - passTiming.pass);
  passTiming = info;
  current = frame;
  paint();
  kv.frames += 1;
  kv.frame = info;
  const now = performance.now();
  const still = [];
  for (const edit of pendingStates) {
    if (edit.render === info.sequenceID && info.sceneState >= edit.state)
      kv.latencies.push(now - edit.t0);
    else still.push(edit);
  }
  pendingStates = still;
  showStatus();
}

function showStatus() {
  const info = current && current.info;
  if (!info) return;
  const last = kv.latencies.length ? kv.latencies[kv.latencies.length - 1].toFixed(0) + " ms" : "–";
  $("status").textContent =
      `${info.width}×${info.height} · ${info.samples} samples · pass ${info.pass} · ` +
      `${kv.msPerPass ? kv.msPerPass.toFixed(0) + " ms/pass" : "– ms/pass"} · ` +
      `edit→pixels ${last} · state ${info.sceneState}` + (paused ? " · paused" : "");
}

// ---- the connection ---------------------------------------------------------

let socket = null;
function connect() {
  const scheme = location.protocol === "https:" ? "wss" : "ws";
  socket = new WebSocket(`${scheme}://${location.host}/ws${location.search}`);
  socket.binaryType = "arraybuffer";
  socket.onopen = () => { $("status").textContent = "waiting for the first image…"; };
  socket.onclose = () => {
    $("status").textContent = "disconnected from kindlet-control";
    setTimeout(connect, 2000);
  };
  socket.onmessage = (event) => {
    if (typeof event.data !== "string") onFrame(event.data);
    else onText(JSON.parse(event.data));
  };
}

function send(message) {
  if (socket && socket.readyState === WebSocket.OPEN) socket.send(JSON.stringify(message));
}

function say(text) { $("message").textContent = text; }

function onText(message) {
  if (message.type === "renders") onRenders(message.renders);
  else if (message.type === "sent") onSent(message);
  else if (message.type === "saved") { kv.saved = message.path; say("saved " + message.path); }
  else if (message.type === "stopping") say("the render is stopping");
  else if (message.type === "error") { kv.errors.push(message.message); say(message.message); }
}

// ---- renders and outputs ----------------------------------------------------

let render = null;  // the chosen render's entry
function onRenders(renders) {
  kv.renders = renders;
  const select = $("render");
  const chosen = select.value;
  select.innerHTML = "";
  for (const r of renders) {
    const option = document.createElement("option");
    option.value = r.sequenceID;
    option.textContent = `${r.sequenceID}: ${r.opTreeFile.split("/").pop()} (${r.renderer})`;
    select.appendChild(option);
  }
  if (renders.some((r) => String(r.sequenceID) === chosen)) select.value = chosen;
  chooseRender(false);
}

function chooseRender(userChoice) {
  const id = Number($("render").value);
  const next = kv.renders.find((r) => r.sequenceID === id) || null;
  const changed = !render || !next || render.sequenceID !== next.sequenceID ||
                  render.pid !== next.pid || render.session !== next.session;
  render = next;
  const output = $("output"), chosen = output.value;
  output.innerHTML = "";
  for (const name of render ? render.images : []) {
    const option = document.createElement("option");
    option.value = option.textContent = name;
    output.appendChild(option);
  }
  if (render && render.images.includes(chosen)) output.value = chosen;
  if (changed || userChoice) {
    setUpCamera();
    buildLights();
  }
  if (userChoice || changed) watch();
}

function watch() {
  if (render && $("output").value) kv.watchKey(`${render.sequenceID}/${$("output").value}`);
}
kv.watchKey = (key) => send({type: "watch", key});

// ---- edits: coalesced, timed ---------------------------------------------------

let nextId = 1;
const inFlight = new Map();    // coalescing key -> id of the edit the controller has not taken
const waiting = new Map();     // coalescing key -> the newest edit not yet sent
const started = new Map();     // id -> {t0, key}
let pendingStates = [];        // {render, state, t0}: edits whose pixels have not come

// At most one edit of each thing (the camera, a light) waits: the newest
// replaces it. It goes when the one before it has been sent on.
function edit(key, update) {
  if (!render) return;
  waiting.set(key, {update, t0: performance.now()});
  if (!inFlight.has(key)) flush(key);
}

function flush(key) {
  const next = waiting.get(key);
  if (!next) return;
  waiting.delete(key);
  const id = nextId++;
  inFlight.set(key, id);
  started.set(id, {t0: next.t0, key});
  send({type: "update", id, render: render.sequenceID, coalesce: key, update: next.update});
}

function onSent(message) {
  const edit = started.get(message.id);
  if (!edit) return;
  started.delete(message.id);
  if (inFlight.get(edit.key) === message.id) inFlight.delete(edit.key);
  for (const [render, state] of Object.entries(message.states)) {
    kv.sent += 1;
    kv.state = Math.max(kv.state, state);
    pendingStates.push({render: Number(render), state, t0: edit.t0});
  }
  flush(edit.key);
}

// ---- camera ---------------------------------------------------------------------

const rad = Math.PI / 180;
let camera = null;  // {path, target, distance, yaw, pitch, roll, initial}

// The values of an attribute as the renders' list gives it (attribute JSON:
// a number, an array, or {"$type": ..., "$value": [...]}); `fallback` when absent.
function values(attribute, fallback) {
  if (attribute === undefined || attribute === null) return fallback;
  if (typeof attribute === "object" && !Array.isArray(attribute) && "$value" in attribute)
    attribute = attribute["$value"];
  return Array.isArray(attribute) ? attribute.map(Number) : [Number(attribute)];
}

function setUpCamera() {
  camera = null;
  const facts = render && render.scene && render.scene.camera;
  if (!facts) return;
  const xform = (facts.attributes && facts.attributes.xform) || {};
  const t = values(xform.translate, [0, 0, 0]), r = values(xform.rotate, [0, 0, 0]);
  const pitch = r[0], yaw = r[1];
  const f = forward(yaw, pitch);
  // Orbit about the point in front of the camera nearest the origin.
  const along = -(t[0] * f[0] + t[1] * f[1] + t[2] * f[2]);
  const distance = along > 0.1 ? along : 5;
  camera = {path: facts.path, yaw, pitch, roll: r[2], distance,
            target: [t[0] + f[0] * distance, t[1] + f[1] * distance, t[2] + f[2] * distance]};
  camera.initial = JSON.stringify(camera);
}

// The camera looks down its -Z; rotations apply about X, then Y.
function forward(yaw, pitch) {
  return [-Math.cos(pitch * rad) * Math.sin(yaw * rad), Math.sin(pitch * rad),
          -Math.cos(pitch * rad) * Math.cos(yaw * rad)];
}

function sendCamera() {
  const f = forward(camera.yaw, camera.pitch);
  const p = camera.target.map((v, i) => v - f[i] * camera.distance);
  const update = {};
  update[camera.path] = {attributes: {xform: {translate: floats(p),
                                              rotate: floats([camera.pitch, camera.yaw, camera.roll])}}};
  kv.camera = {translate: p, rotate: [camera.pitch, camera.yaw, camera.roll]};
  edit("camera", update);
}

// Floats as the attribute JSON spells them (JSON.stringify writes 3.0 as 3,
// which would be an int).
function floats(list) { return {"$type": "float", "$value": list.map(Number)}; }
function decimal(v) { return floats([v]); }

let drag = null;
function onPointerDown(event) {
  if (!camera) return;
  drag = {x: event.clientX, y: event.clientY, pan: event.shiftKey || event.button === 2};
  $("image").setPointerCapture(event.pointerId);
  event.preventDefault();
}
function onPointerMove(event) {
  showPixel(event);
  if (!drag) return;
  const dx = event.clientX - drag.x, dy = event.clientY - drag.y;
  drag.x = event.clientX;
  drag.y = event.clientY;
  if (drag.pan) {
    const y = camera.yaw * rad, p = camera.pitch * rad;
    const right = [Math.cos(y), 0, -Math.sin(y)];
    const up = [Math.sin(p) * Math.sin(y), Math.cos(p), Math.sin(p) * Math.cos(y)];
    const k = camera.distance * 0.002;
    camera.target = camera.target.map((v, i) => v - right[i] * dx * k + up[i] * dy * k);
  } else {
    camera.yaw -= dx * 0.3;
    camera.pitch = Math.max(-89, Math.min(89, camera.pitch - dy * 0.3));
  }
  sendCamera();
}
function onPointerUp() { drag = null; }
function onWheel(event) {
  if (!camera) return;
  event.preventDefault();
  camera.distance = Math.max(0.05, camera.distance * Math.exp(event.deltaY * 0.001));
  sendCamera();
}

function showPixel(event) {
  if (!current) return;
  const canvas = $("image"), box = canvas.getBoundingClientRect();
  const x = Math.floor((event.clientX - box.left) / box.width * canvas.width);
  const y = Math.floor((event.clientY - box.top) / box.height * canvas.height);
  const {info, pixels} = current;
  if (x < 0 || y < 0 || x >= info.width || y >= info.height) return;
  const at = (y * info.width + x) * info.channels;
  const values = info.channelNames.map((name, c) => `${name} ${halfToFloat[pixels[at + c]].toFixed(4)}`);
  $("pixel").textContent = `${x}, ${y}  ${values.join("  ")}`;
}

// ---- lights --------------------------------------------------------------------------

function buildLights() {
  const box = $("lights");
  box.innerHTML = "";
  const lights = (render && render.scene && render.scene.lights) || [];
  for (const light of lights) box.appendChild(lightPanel(light));
}

function lightPanel(light) {
  const attributes = light.attributes || {};
  const params = (attributes.material && attributes.material.params) || {};
  const value = values;
  const intensity = value(params.intensity, [1])[0];
  const exposure = value(params.exposure, [0])[0];
  let color = value(params.color, [1, 1, 1]);
  if (color.length === 1) color = [color[0], color[0], color[0]];
  const mute = value(attributes.mute, [0])[0];
  const div = document.createElement("div");
  div.className = "light";
  div.dataset.path = light.path;
  const max = Math.max(1, intensity * 4);
  div.innerHTML = `<div class="name">${light.path.split("/").pop()}
      <small>${(attributes.material && attributes.material.lightShader) || ""}</small></div>
    <label><input class="mute" type="checkbox" ${mute ? "checked" : ""}> mute</label>
    <label>Intensity <input class="intensity" type="range" min="0" max="${max}"
      step="${max / 1000}" value="${intensity}"> <output>${intensity}</output></label>
    <label>Exposure <input class="exposure" type="range" min="-6" max="6" step="0.1"
      value="${exposure}"> <output>${exposure}</output></label>
    <label>Colour <input class="color" type="color" value="${toHex(color)}"></label>`;
  const send = (params) => {
    const update = {};
    update[light.path] = {attributes: {material: {params}}};
    edit("light:" + light.path, update);
  };
  const show = (input) => { input.nextElementSibling.textContent = Number(input.value).toFixed(2); };
  div.querySelector(".intensity").addEventListener("input", (e) => {
    show(e.target);
    send({intensity: decimal(e.target.value)});
  });
  div.querySelector(".exposure").addEventListener("input", (e) => {
    show(e.target);
    send({exposure: decimal(e.target.value)});
  });
  div.querySelector(".color").addEventListener("input", (e) => {
    send({color: floats(fromHex(e.target.value))});
  });
  div.querySelector(".mute").addEventListener("change", (e) => {
    const update = {};
    update[light.path] = {attributes: {mute: e.target.checked ? 1 : 0}};
    edit("mute:" + light.path, update);
  });
  return div;
}

// The renderer's colours are linear; the picker shows and gives sRGB.
function linearToSrgb(v) {
  v = Math.max(0, Math.min(1, v));
  return v <= 0.0031308 ? 12.92 * v : 1.055 * Math.pow(v, 1 / 2.4) - 0.055;
}
function srgbToLinear(v) {
  return v <= 0.04045 ? v / 12.92 : Math.pow((v + 0.055) / 1.055, 2.4);
}
function toHex(color) {
  return "#" + color.map((v) => Math.round(linearToSrgb(v) * 255)
                                    .toString(16).padStart(2, "0")).join("");
}
function fromHex(hex) {
  return [1, 3, 5].map((i) => srgbToLinear(parseInt(hex.substr(i, 2), 16) / 255));
}

// ---- buttons -----------------------------------------------------------------------------

let paused = false;
function setUp() {
  buildDisplay();
  $("exposure").addEventListener("input", () => { buildDisplay(); paint(); });
  $("srgb").addEventListener("change", () => { buildDisplay(); paint(); });
  $("render").addEventListener("change", () => chooseRender(true));
  $("output").addEventListener("change", watch);
  $("pause").addEventListener("click", () => {
    paused = !paused;
    $("pause").textContent = paused ? "Resume" : "Pause";
    send({type: "refine", render: render ? render.sequenceID : null, paused});
    showStatus();
  });
  $("saveExr").addEventListener("click", () => send({type: "save", format: "exr"}));
  $("savePng").addEventListener("click",
                                () => send({type: "save", format: "png", exposure: Number($("exposure").value)}));
  $("resetCamera").addEventListener("click", () => {
    if (!camera) return;
    const path = camera.path;
    camera = JSON.parse(camera.initial);
    camera.initial = JSON.stringify(camera);
    camera.path = path;
    sendCamera();
  });
  $("stop").addEventListener("click", () => send({type: "stop"}));
  const canvas = $("image");
  canvas.addEventListener("pointerdown", onPointerDown);
  canvas.addEventListener("pointermove", onPointerMove);
  canvas.addEventListener("pointerup", onPointerUp);
  canvas.addEventListener("wheel", onWheel, {passive: false});
  canvas.addEventListener("contextmenu", (e) => e.preventDefault());
  window.addEventListener("resize", fit);
  connect();
}

setUp();
