"""Reports the lines of src/ that no test runs, from a tracefile as lcov has it.

    report.py TRACEFILE

Each missed line must stand in unreached.txt, beside this file, under a reason;
what stands there must be missed. Exit status 0 only if all is well.
"""

import collections
import pathlib
import sys

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
LEAST_SHARE = 0.95


def read_counts(tracefile):
    """How often each line was run: {file: {line: count}}."""
    counts = collections.defaultdict(collections.Counter)
    for record in tracefile.read_text().splitlines():
        kind, _, value = record.partition(":")
        if kind == "SF":
            lines = counts[source_name(value)]
        elif kind == "DA":
            line, count = value.split(",")[:2]
            lines[int(line)] += int(count)
    return {name: lines for name, lines in counts.items() if name.startswith("src/")}


def source_name(path):
    """A path as the compiler has noted it, below the folder of the sources."""
    return path[path.find("src/") :] if "src/" in path else path


def missed_lines(counts):
    """(file, number, text) of each; lines of punctuation alone go with others."""
    for name, lines in sorted(counts.items()):
        texts = (ROOT / name).read_text().splitlines()
        for number, count in sorted(lines.items()):
            text = texts[number - 1].strip()
            if count == 0 and any(map(str.isalnum, text)):
                yield name, number, text


def explained_lines():
    """(file, text) of each line in unreached.txt."""
    explained = collections.Counter()
    name = ""
    for entry in (HERE / "unreached.txt").read_text().splitlines():
        if entry.startswith("src/"):
            name = entry
        elif entry.startswith("  "):
            explained[name, entry.strip()] += 1
    return explained


def main(tracefile):
    counts = read_counts(tracefile)
    explained = explained_lines()
    unexplained = []
    for name, number, text in missed_lines(counts):
        if explained[name, text] > 0:
            explained[name, text] -= 1
        else:
            unexplained.append(f"{name}:{number}: {text}")
    out_of_date = [f"{name}: {text}" for (name, text) in explained.elements()]
    return report(counts, unexplained, out_of_date)


def report(counts, unexplained, out_of_date):
    for name, lines in sorted(counts.items()):
        print(f"{share_of([lines]):7.1%}  {name}")
    share = share_of(counts.values())
    print(f"{share:7.1%}  of the lines of src/ are run by tests")
    for title, lines in (
        ("Run by no test, and not explained:", unexplained),
        ("Explained in tests/coverage/unreached.txt, but run, or not there:", out_of_date),
    ):
        if lines:
            print(title, *lines, sep="\n  ")
    return 1 if share < LEAST_SHARE or unexplained or out_of_date else 0


def share_of(files):
    counts = [count for lines in files for count in lines.values()]
    return sum(count > 0 for count in counts) / len(counts)


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
