"""The generator refuses faulty descriptions with "file:line: what is wrong" and writes nothing."""

import contextlib
import io
import os
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import idlgen  # noqa: E402

HEAD = """interface Probe_v1
namespace probe as probe
service 4660 version 1.0
proxy ProbeProxy
skeleton ProbeSkeleton
logtag PROBE
"""


class BadDescriptions(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()

    def tearDown(self):
        self.tmp.cleanup()

    def run_on(self, body, head=HEAD):
        idl = os.path.join(self.tmp.name, "probe.idl")
        with open(idl, "w") as f:
            f.write(head + body)
        out = os.path.join(self.tmp.name, "out")
        with contextlib.redirect_stderr(io.StringIO()):
            code = idlgen.main(["--out-dir", out, "--include-dir", "x", "--name", "probe", idl])
        return code, idl, os.path.exists(out)

    def test_faults_name_file_and_line(self):
        rows = [
            ("duplicate method id",
             "method 1 a {\n}\nmethod 1 b {\n}\n", 9, "duplicate id 1: method a and method b"),
            ("getter shares the method ids",
             "method 2 a {\n}\nfield UInt8 f [notifier = 0x8001, getter = 2, eventgroup = 1]\n", 9,
             "duplicate id 2: method a and getter of f"),
            ("duplicate type name", "typedef T is UInt8\ntypedef T is UInt16\n", 8,
             "duplicate name 'T' (first declared on line 7)"),
            ("unknown type", "struct S {\n  Uint8 x\n}\n", 8, "unknown type 'Uint8'"),
            ("type used before its declaration", "typedef A is B\ntypedef B is UInt8\n", 7,
             "type 'B' is used before its declaration on line 8"),
            ("method id with the event bit", "method 0x8001 a {\n}\n", 7,
             "method a 32769 out of range 1..32767"),
            ("event id without it", "event 5 e [eventgroup = 1] {\n}\n", 7,
             "event e 5 out of range 32768..65535"),
            ("enumerator out of its base", "enum E : UInt8 {\n  big = 256\n}\n", 8,
             "value 256 of 'big' out of range 0..255"),
            ("syntax error", "struct S {\n  UInt8\n}\n", 8, "expected 'Type name' in 'S'"),
            ("unclosed block", "struct S {\n  UInt8 x\n", 9, "'S' is not closed with '}'"),
            ("unknown declaration", "structure S {\n}\n", 7, "unknown declaration 'structure'"),
        ]
        for proves, body, line, message in rows:
            with self.subTest(proves):
                code, idl, wrote = self.run_on(body)
                self.assertEqual(code, 1)
                self.assertFalse(wrote)
                with self.assertRaises(idlgen.IdlError) as caught:
                    idlgen.generate(idl, "probe", "x")
                self.assertTrue(str(caught.exception).startswith("%s:%d: %s" % (idl, line, message)),
                                str(caught.exception))

    def test_service_id_out_of_range(self):
        code, idl, _ = self.run_on("", HEAD.replace("4660", "65535"))
        self.assertEqual(code, 1)
        with self.assertRaises(idlgen.IdlError) as caught:
            idlgen.generate(idl, "probe", "x")
        self.assertEqual(str(caught.exception), idl + ":3: service id 65535 out of range 1..65534")


if __name__ == "__main__":
    unittest.main()
