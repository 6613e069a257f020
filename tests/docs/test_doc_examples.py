"""Every `sh` and `python` example of README.md and docs/*.md runs as written,
from a clean environment (env -i PATH=/usr/bin:/bin), so that docs that drift
from the code fail. The examples' installed root /tmp/kroot is the test root
(KINDLET_TEST_ROOT) and their /tmp a scratch folder holding a link to the
checkout's examples/; shell variables that a file's earlier examples set
(root=...) hold in its later ones. An HTML comment right before a block says
when it is not run whole (docs/testing.md)."""

import glob
import os
import re
import subprocess
import sys

import pytest

ROOT = os.environ["KINDLET_TEST_ROOT"]
SOURCE = os.environ["KINDLET_SOURCE_DIR"]
BLOCK = re.compile(r"(?:<!-- example: (?P<note>.*?) -->\n)?```(?P<lang>\w*)\n(?P<code>.*?)^```",
                   re.M | re.S)
PART = re.compile(r"the (first|last) (\d+) lines? (?:is|are) (not run|typed into it)")
ASSIGNMENT = re.compile(r"^[A-Za-z_]\w*=\S+(\s+#.*)?$", re.M)


def examples():
    for path in ["README.md"] + sorted(glob.glob("docs/*.md", root_dir=SOURCE)):
        text, assignments = open(os.path.join(SOURCE, path)).read(), []
        for block in BLOCK.finditer(text):
            if block["lang"] not in ("sh", "python"):
                continue
            line = text.count("\n", 0, block.start("lang")) + 1
            note = block["note"] or ""
            yield pytest.param(path, block["lang"], block["code"], note, "\n".join(assignments),
                               id="%s:%d" % (path, line),
                               marks=[pytest.mark.skip(note)] if note.startswith("not run") else [])
            if block["lang"] == "sh":
                assignments += [m.group(0) for m in ASSIGNMENT.finditer(block["code"])]


@pytest.mark.parametrize("path,lang,code,note,prelude", examples())
def test_example_runs(tmp_path, path, lang, code, note, prelude):
    lines, typed = code.splitlines(), []
    for first, count, what in PART.findall(note):
        count = int(count)
        part = lines[:count] if first == "first" else lines[-count:]
        lines = lines[count:] if first == "first" else lines[:-count]
        typed = part if what == "typed into it" else typed
    source = "\n".join(([prelude] if lang == "sh" else []) + lines) + "\n"
    source = re.sub(r"/tmp(?=[/\s\"']|$)", str(tmp_path),
                    source.replace("/tmp/kroot", ROOT), flags=re.M)
    os.symlink(os.path.join(SOURCE, "examples"), tmp_path / "examples")
    program = ["bash", "-e", "-c"] if lang == "sh" else [sys.executable, "-c"]
    result = subprocess.run(program + [source], cwd=tmp_path, input="\n".join(typed) + "\n",
                            env={"PATH": "/usr/bin:/bin"}, universal_newlines=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=300)
    assert result.returncode == 0, "%s\n--- output:\n%s" % (source, result.stdout)
