"""MainLogging and ArboliteAPI as installed under a root, in a plain
python3.11 (PYTHONPATH=<root>/bin/python). The logging tests run a child
interpreter, because the process log writes straight to file descriptor 2."""

import os
import subprocess
import sys
import textwrap
import unittest

import ArboliteAPI as A
import MainLogging


def runLogged(code, verbosity=None, threshold="debug"):
    """Runs `code` in a child interpreter after MainLogging.Init(); returns
    the lines of its standard error."""
    prelude = "import sys\n"
    if verbosity is not None:
        prelude += "sys.selvane_verbosityLevel = %d\n" % verbosity
    prelude += "import MainLogging\nMainLogging.Init()\n"
    env = dict(os.environ, SELVANE_LOG_LEVEL=threshold)
    result = subprocess.run([sys.executable, "-c", prelude + textwrap.dedent(code)],
                            env=env, stderr=subprocess.PIPE, stdout=subprocess.PIPE,
                            check=True, universal_newlines=True)
    return result.stderr.splitlines()


LOG_EVERY_LEVEL = """
import logging
log = logging.getLogger("shader.cache")
logging.debug("d")
logging.info("i")
log.warning("w %s", 1)
logging.error("e")
"""


class MainLoggingTest(unittest.TestCase):
    def test_verbosity_selects_levels_under_the_process_threshold(self):
        everything = ["[DEBUG Python] d", "[INFO Python] i",
                      "[WARNING Python] shader.cache: w 1", "[ERROR Python] e"]
        for verbosity, threshold, expected in ((2, "debug", everything), (1, "debug", everything[1:]),
                                               (None, "debug", everything[1:]),
                                               (0, "debug", everything[2:]),
                                               (2, "error", everything[3:])):
            self.assertEqual(runLogged(LOG_EVERY_LEVEL, verbosity, threshold), expected,
                             (verbosity, threshold))

    def test_logging_is_connected_when_first_imported_or_at_once(self):
        lines = runLogged("""
            assert "logging" not in sys.modules, "Init must not import logging"
            import logging
            logging.info("late")
        """)
        self.assertEqual(lines, ["[INFO Python] late"])
        lines = runLogged("""
            import logging, MainLogging
            sys.selvane_verbosityLevel = 2
            MainLogging.Init()
            MainLogging.Init()
            logging.debug("once")
        """, verbosity=0)
        self.assertEqual(lines, ["[DEBUG Python] once"])

    def test_multi_line_records_and_warnings_stay_one_record(self):
        lines = runLogged("""
            import logging, warnings
            try:
                raise ValueError("bad")
            except ValueError:
                logging.exception("failed")
            warnings.warn("careful")
        """)
        self.assertEqual(lines[0], "[ERROR Python] failed")
        self.assertTrue(all(line.startswith("    ") for line in lines[1:-1]), lines)
        self.assertEqual(lines[-2], "    ValueError: bad")
        self.assertTrue(lines[-1].startswith("[WARNING Python] py.warnings: "), lines)
        self.assertTrue(lines[-1].endswith("UserWarning: careful"), lines)


class ArboliteAPITest(unittest.TestCase):
    def sample(self):
        b = A.GroupBuilder()
        b.set("camera.fov", A.FloatAttribute(45.5))
        b.set("camera.name", A.StringAttribute("persp"))
        b.set("resolution", A.IntAttribute([1920, 1080], 2))
        b.set("weights", A.DoubleAttribute([0.25, 0.5, 0.75]))
        b.set("nothing", A.NullAttribute())
        return b.build()

    def test_values_and_types_survive_building(self):
        g = self.sample()
        self.assertIsInstance(g, A.GroupAttribute)
        self.assertEqual([name for name, _ in g], ["camera", "resolution", "weights", "nothing"])
        self.assertEqual(g.getChildByName("camera.fov").getValue(), 45.5)
        self.assertEqual(g.getChildByName("camera.name").getValues(), ["persp"])
        resolution = g.getChildByName("resolution")
        self.assertIsInstance(resolution, A.IntAttribute)
        self.assertEqual(resolution.getTupleSize(), 2)
        self.assertEqual(resolution.getTuples(), [(1920, 1080)])
        self.assertEqual(g.getChildByName("weights").getValues(), [0.25, 0.5, 0.75])
        self.assertEqual(g.getChildByName("nothing").getType(), A.TYPE_NULL)
        self.assertFalse(g.getChildByName("camera.missing").isValid())

    def test_binary_round_trip_and_bad_input(self):
        g = self.sample()
        data = g.getBinary()
        self.assertEqual(A.Attribute.parseBinary(data), g)
        self.assertEqual(A.Attribute.parseBinary(data).getXML(), g.getXML())
        for bad in (b"", b"garbage", data[:-1], data[:len(data) // 2]):
            self.assertFalse(A.Attribute.parseBinary(bad).isValid(), bad)

    def test_builder_update_delete_modes_and_bad_values(self):
        b = A.GroupBuilder()
        b.set("a", A.IntAttribute(1)).set("b", A.IntAttribute(2))
        first = b.build(A.GroupBuilder.BuildAndRetain)
        b.update(A.GroupBuilder().set("a", A.StringAttribute("x")).build())
        b.delete("b").delete("absent")
        second = b.build()
        self.assertEqual([n for n, _ in first], ["a", "b"])
        self.assertEqual([(n, c.getValue()) for n, c in second], [("a", "x")])
        self.assertEqual(len(b.build()), 0)
        values = ["a\x00b", "\u00e9t\u00e9", ""]
        self.assertEqual(A.StringAttribute(values, 3).getValues(), values)
        for bad in (lambda: A.IntAttribute([1, 2, 3], 2), lambda: A.FloatAttribute([1.0], 0)):
            self.assertRaises(ValueError, bad)

    def test_handles_cross_to_c_and_back(self):
        g = self.sample()
        again = A.Attribute.fromHandle(g.getHandle())
        camera = g.getChildByName("camera")
        del g
        self.assertEqual(again.getChildByName("camera.fov").getValue(), 45.5)
        self.assertEqual(camera.getChildByName("name").getValue(), "persp")
        self.assertFalse(A.Attribute.fromHandle(None).isValid())


if __name__ == "__main__":
    unittest.main()
