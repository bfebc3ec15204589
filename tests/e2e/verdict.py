"""Runs the tests of a module, and says at the end of each that failed what was
expected and what came."""

import re
import sys
import unittest


def reason(traceback):
    """What the exception says: its first line, and its last."""
    lines = re.split(r"\n(?=[\w.]+(?:Error|Exception)\b)", traceback)[-1].strip().splitlines()
    return "\n    ".join(dict.fromkeys((lines[0], lines[-1])))


def main():
    result = unittest.main(exit=False).result
    for test, traceback in result.failures + result.errors:
        print(f"{test.id()}\n    {reason(traceback)}", file=sys.stderr)
    sys.exit(not result.wasSuccessful())
