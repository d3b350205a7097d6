"""What `jornctl schema` prints is what `jornctl apply` takes: a validator that isn't ours and jornctl
agree on the examples, on documents at the bounds and on wrong ones.

Usage: test_jornctl_schema.py JORNCTL EXAMPLES
"""
import glob
import json
import re
import subprocess
import sys
import unittest

import jsonschema

from wrong_documents import RIGHT, WRONG

EXAMPLES = sys.argv.pop(2)
JORNCTL = sys.argv.pop(1)
SCHEMA_FILE = EXAMPLES + "/jorn.schema.json"


def read(path):
    with open(path) as file:
        return file.read()


def without_comments(text):
    return re.sub(r'("(?:[^"\\]|\\.)*")|//[^\n]*', r"\1", text)


def check(text):
    """Exit status, standard output and standard error."""
    done = subprocess.run([JORNCTL, "apply", "--check", "-"], input=text.encode(), timeout=120,
                          capture_output=True)
    return done.returncode, done.stdout.decode(), done.stderr.decode()


class Schema(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.validator = jsonschema.Draft7Validator(json.loads(read(SCHEMA_FILE)))
        cls.validator.check_schema(cls.validator.schema)

    def test_the_file_is_what_jornctl_prints(self):
        printed = subprocess.run([JORNCTL, "schema"], check=True, capture_output=True, text=True)
        self.assertEqual(printed.stdout, read(SCHEMA_FILE))

    def test_what_both_take(self):
        texts = {path: read(path) for path in glob.glob(EXAMPLES + "/*.json")
                 if not path.endswith(".schema.json")}
        self.assertGreater(len(texts), 3)
        texts |= {f"RIGHT[{i}]": json.dumps(document) for i, document in enumerate(RIGHT)}
        for name, text in texts.items():
            with self.subTest(name):
                self.assertEqual(check(text)[:2], (0, ""))
                self.validator.validate(json.loads(without_comments(text)))

    def test_what_both_refuse(self):
        for document, path, reason, *unsaid in WRONG:
            is_json = not isinstance(document, str)
            text = json.dumps(document) if is_json else document
            with self.subTest(text[:200]):
                status, out, said = check(text)
                self.assertEqual((status, out), (1, ""))
                self.assertTrue(said.startswith(f"jornctl: -: {path}"), said)
                self.assertIn(reason, said)
                if is_json:
                    self.assertEqual(self.validator.is_valid(document), bool(unsaid))


if __name__ == "__main__":
    unittest.main()
