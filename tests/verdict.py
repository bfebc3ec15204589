"""Says what has come of tests, from the files that CTest writes of them.

  verdict.py NAME FILE     a line for the run, its slowest tests, and the last
                           lines of each test that failed
  verdict.py --sum FILE... one line for all
"""

import pathlib
import sys
import xml.etree.ElementTree as ElementTree

LINES_OF_A_FAILURE = 30
SLOWEST = 10


def cases_in(path):
    return ElementTree.parse(path).getroot().findall("testcase")


def has_skipped_itself(case):
    """Unlike one that could not be started, which CTest also calls skipped."""
    skipped = case.find("skipped")
    return skipped is not None and skipped.get("message", "").startswith("SKIP_")


def by_status(cases):
    """Passed, failed and skipped ones."""
    passed, failed, skipped = [], [], []
    for case in cases:
        if case.get("status") == "run":
            passed.append(case)
        elif has_skipped_itself(case):
            skipped.append(case)
        else:
            failed.append(case)
    return passed, failed, skipped


def seconds(case):
    return float(case.get("time") or 0)


def counts(cases):
    passed, failed, skipped = map(len, by_status(cases))
    return f"{passed} passed, {failed} failed, {skipped} skipped"


def show_run(name, path):
    cases = cases_in(path)
    print(f"         {name}: {counts(cases)}")
    slowest = sorted(cases, key=seconds, reverse=True)[:SLOWEST]
    times = [f"{case.get('name')} {seconds(case):.0f} s" for case in slowest]
    print("         slowest:", ", ".join(times))
    for case in by_status(cases)[1]:
        print(f"-- {case.get('name')} failed:")
        output = (case.findtext("system-out") or "no output").splitlines()
        print("\n".join(output[-LINES_OF_A_FAILURE:]))


def main(arguments):
    if arguments[0] == "--sum":
        files = [path for path in arguments[1:] if pathlib.Path(path).is_file()]
        print(counts([case for path in files for case in cases_in(path)]))
    else:
        show_run(*arguments)


main(sys.argv[1:])
