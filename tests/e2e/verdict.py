"""Runs the tests of a module, and says at the end of each that failed what was
expected and what came.

Classes marked with "full" take long, and what they add to the others is not needed
at every change. PART=usual in the environment leaves them out, and PART=full the
others.
"""

import os
import re
import sys
import unittest


def reason(traceback):
    """What the exception says: its first line, and its last."""
    lines = re.split(r"\n(?=[\w.]+(?:Error|Exception)\b)", traceback)[-1].strip().splitlines()
    return "\n    ".join(dict.fromkeys((lines[0], lines[-1])))


def full(case):
    case.part = "full"
    return case


class PartLoader(unittest.TestLoader):
    def loadTestsFromTestCase(self, case):
        part = vars(case).get("part", "usual")
        if os.environ.get("PART", part) != part:
            return self.suiteClass()
        return super().loadTestsFromTestCase(case)


def main():
    result = unittest.main(exit=False, testLoader=PartLoader()).result
    for test, traceback in result.failures + result.errors:
        print(f"{test.id()}\n    {reason(traceback)}", file=sys.stderr)
    has_run = result.testsRun > 0 or result.skipped
    sys.exit(not (has_run and result.wasSuccessful()))
