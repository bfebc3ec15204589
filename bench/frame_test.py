"""Tests that the benchmark detects wrong programs and does not time them."""

import contextlib
import io
import os
import pathlib
import shutil
import tempfile
import unittest
from unittest import mock

import plots
import report
import start
from frame import Bench, Case, Experiment, Stored
from programs import Program
from request import Piece, get, post
from spawner import Failed
from summary import Summaries, Summary
from targets import Medians, Target, Verdict

BUILT = pathlib.Path(os.environ["BUILT"])

RIGHT = r"printf 'Content-Type: text/plain\r\n\r\n'; echo right"


class FrameTest(unittest.TestCase):
    def setUp(self) -> None:
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        self.bench = self.make_bench()

    def make_bench(self, only_checks: bool = False) -> Bench:
        return Bench(BUILT, self.folder, self.folder, quick=True, only_checks=only_checks)

    def case(self, script: str, name: str = "program", **options) -> Case:
        program = Program(name, "test", name, ("/bin/sh", "-c", script))
        return Case(program, **{"request": get("", ""), "answer": b"right\n", **options})

    def measure(self, *cases: Case, rounds: int = 1) -> dict[str, Summaries]:
        with contextlib.redirect_stdout(io.StringIO()):
            return self.bench.measure(cases, rounds)

    def file(self, name: str, content: bytes) -> pathlib.Path:
        path = self.folder / name
        path.write_bytes(content)
        return path

    def assert_fails(self, failure: str, case: Case) -> None:
        self.bench = self.make_bench()
        self.assertEqual(self.measure(case), {})
        (reported,) = self.bench.failures
        self.assertIn(failure, reported)


class Checks(FrameTest):
    def test_a_correct_program_is_timed(self) -> None:
        self.assertIn("program", self.measure(self.case(RIGHT)))
        self.assertEqual(self.bench.failures, [])

    def test_a_wrong_program_fails(self) -> None:
        for script, failure in (
            (f"{RIGHT}; echo more", "answers b'right\\nmore\\n'"),
            ("echo right", "no text/plain header"),
            (RIGHT.replace("plain", "html"), "no text/plain header"),
            (f"{RIGHT}; exit 3", "exit status 3"),
            (f"{RIGHT}; kill -9 $$", "signal 9"),
        ):
            with self.subTest(script):
                self.assert_fails(failure, self.case(script))

    def test_a_missing_program_fails(self) -> None:
        program = Program("gone", "test", "gone", (str(self.folder / "gone"),))
        self.assert_fails("gone", Case(program, get("", ""), b""))

    def test_only_the_wrong_program_is_left_out(self) -> None:
        measured = self.measure(self.case(RIGHT), self.case("exit 1", name="wrong"))
        self.assertEqual(list(measured), ["program"])
        self.assertEqual(len(self.bench.failures), 1)

    def test_a_check_times_nothing(self) -> None:
        self.bench = self.make_bench(only_checks=True)
        self.assertEqual(self.measure(self.case(RIGHT)), {})
        self.assertEqual((self.bench.passed_checks, self.bench.failures), (1, []))


class StoredFiles(FrameTest):
    def setUp(self) -> None:
        super().setUp()
        self.store = self.folder / "stored"
        piece = Piece(self.file("piece", b"abc"), 2)
        self.options = {
            "stored": Stored(self.store, (piece,)),
            "request": post("text/plain", (piece,)),
        }

    def stores(self, script: str, **options) -> Case:
        return self.case(f"{script} > {self.store}; {RIGHT}", **self.options, **options)

    def test_the_stored_file_is_removed(self) -> None:
        self.assertIn("program", self.measure(self.stores("cat"), rounds=2))
        self.assertFalse(self.store.exists())

    def test_wrong_bytes_fail(self) -> None:
        for script in "tr b x", "(cat; echo)", "head -c 5":
            with self.subTest(script):
                self.assert_fails("stored bytes differ", self.stores(script))

    def test_a_missing_file_fails(self) -> None:
        self.assert_fails("stored no file", self.case(RIGHT, **self.options))

    def test_a_wrong_size_in_a_timed_run_fails(self) -> None:
        case = self.stores("head -c 5", trial=self.case(RIGHT))
        with self.assertRaisesRegex(Failed, "stored 5 of 6 bytes"):
            self.measure(case)


class Runs(FrameTest):
    def test_the_body_comes_from_a_file_or_a_pipe(self) -> None:
        body = self.file("body", b"right\n")
        header = r"printf 'Content-Type: text/plain\n\n'; cat"
        for request in post("text/plain", body), post("text/plain", (Piece(body),)):
            self.measure(self.case(header, request=request))
            self.assertEqual(self.bench.failures, [])

    def test_the_environment_is_not_inherited(self) -> None:
        os.environ["FROM_OUTSIDE"] = "1"
        self.addCleanup(os.environ.pop, "FROM_OUTSIDE")
        self.measure(self.case(f'test -z "$FROM_OUTSIDE$HOME" && {RIGHT}'))
        self.assertEqual(self.bench.failures, [])

    def test_programs_take_turns(self) -> None:
        log = self.folder / "log"
        cases = [
            self.case(f"echo {name} >> {log}; {RIGHT}", name=name, every=every)
            for name, every in (("a", 1), ("b", 1), ("c", 2))
        ]
        measured = self.measure(*cases, rounds=3)
        # The first three runs are the checks.
        self.assertEqual(log.read_text().split(), "a b c  a b c  b a  c a b".split())
        self.assertEqual([measured[name]["wall_ms"].runs for name in "abc"], [3, 3, 2])

    def test_processor_time_excludes_sleep(self) -> None:
        measured = self.measure(self.case(f"sleep 0.2; {RIGHT}"))["program"]
        self.assertGreater(measured["wall_ms"].median, 200)
        self.assertLess(measured["cpu_ms"].median, 100)

    def test_peak_memory_excludes_the_benchmarks_own(self) -> None:
        small = self.case(RIGHT, name="small")
        large = self.case(f"x=$(head -c 20000000 /dev/zero | tr '\\0' x); {RIGHT}", name="large")
        held = bytearray(b"x" * 50_000_000)
        measured = self.measure(small, large)
        del held
        self.assertLess(measured["small"]["peak_kb"].median, 5_000)
        self.assertGreater(measured["large"]["peak_kb"].median, 20_000)


class Targets(unittest.TestCase):
    def setUp(self) -> None:
        self.medians = Medians(
            [
                Experiment("few", "few", self.summaries(ours=2, other=8)),
                Experiment("many", "many", self.summaries(ours=20, other=10)),
            ]
        )

    def summaries(self, **medians: float) -> dict[str, Summaries]:
        return {name: {"wall_ms": Summary.of([median])} for name, median in medians.items()}

    def value(self, **relation: str) -> float | None:
        return self.medians.value(Target("", "many", "ours", 1, **relation), "many")

    def test_a_value_may_relate_to_another_median(self) -> None:
        self.assertEqual(self.value(), 20)
        self.assertEqual(self.value(against="other"), 2)
        self.assertEqual(self.value(over="few"), 10)
        self.assertEqual(self.value(since="few"), 18)

    def test_a_missing_median_gives_no_value(self) -> None:
        for relation in ({"against": "x"}, {"over": "x"}, {"since": "x"}, {"quantity": "x"}):
            self.assertIsNone(self.value(**relation))
        self.assertIsNone(Verdict(Target("", "many", "ours", 1), "many", None).is_met)

    def test_the_limit_itself_meets_the_target(self) -> None:
        for at_least, expected in (False, [True, True, False]), (True, [False, True, True]):
            target = Target("", "many", "ours", 2, at_least=at_least)
            verdicts = [Verdict(target, "many", value).is_met for value in (1.9, 2, 2.1)]
            self.assertEqual(verdicts, expected)


class Reports(FrameTest):
    def setUp(self) -> None:
        super().setUp()
        summaries = {
            "get_shared": {"wall_ms": Summary.of([1, 2, 4]), "peak_kb": Summary.of([3000])},
            "cgicc_get": {"wall_ms": Summary.of([4, 4, 4])},
        }
        self.experiment = Experiment("a/b", "Title", summaries, ("cgicc_get", "absent"))

    def test_the_table_has_quantities_and_ratios(self) -> None:
        lines = report.experiment_table(self.experiment).splitlines()
        cells = [[cell.strip() for cell in line.split("|")[1:-1]] for line in lines]
        self.assertEqual(cells[0], ["Title", "time, ms", "peak memory, KB", "/ libcgicc"])
        self.assertEqual(cells[2], ["libzancgi, shared", "2.000", "3000", "0.500"])
        self.assertEqual(cells[3], ["libcgicc", "4.000", "-", "1.000"])

    def test_the_plot_is_an_svg_file(self) -> None:
        with contextlib.redirect_stdout(io.StringIO()) as output:
            plots.draw([self.experiment], self.folder / "plots")
        if output.getvalue():
            self.skipTest(output.getvalue())
        self.assertIn("<svg", (self.folder / "plots/a-b.svg").read_text())


class RecordOfStart(unittest.TestCase):
    RECORDED = {"size": {"made with": {"compiler": "1"}, "counts": {"a": 1000, "b": 100}}}

    def outcome(self, counts: object, compiler: str = "1") -> start.Outcome:
        def count(_: pathlib.Path) -> start.Counts:
            if isinstance(counts, Exception):
                raise counts
            return counts

        quantity = start.Quantity("size", lambda _: {"compiler": compiler}, count)
        with (
            mock.patch("start.QUANTITIES", (quantity,)),
            mock.patch("start.prepare"),
        ):
            return start.compare(BUILT, self.RECORDED)

    def test_growth_of_one_percent_is_allowed(self) -> None:
        outcome = self.outcome({"a": 1010, "b": 100})
        self.assertEqual((outcome.compared, outcome.has_grown), (1, False))
        self.assertTrue(all(line.endswith("as recorded") for line in outcome.lines))

    def test_growth_of_one_program_fails(self) -> None:
        outcome = self.outcome({"a": 1000, "b": 102})
        self.assertTrue(outcome.has_grown)
        self.assertRegex(outcome.lines[1], "b: 102, 100 recorded: GROWN by 2.0 %")
        self.assertIn("scripts/bench --record", outcome.lines[-1])

    def test_a_decrease_suggests_a_new_record(self) -> None:
        outcome = self.outcome({"a": 900, "b": 100})
        self.assertFalse(outcome.has_grown)
        self.assertRegex(outcome.lines[0], "10.0 % less: record it with scripts/bench --record")

    def test_counts_of_another_compiler_are_not_compared(self) -> None:
        outcome = self.outcome({"a": 2000, "b": 200}, compiler="2")
        self.assertEqual((outcome.compared, outcome.has_grown), (0, False))
        self.assertIn("not compared: recorded with compiler '1', here '2'", outcome.lines[0])

    def test_nothing_is_compared_if_a_tool_is_missing(self) -> None:
        outcome = self.outcome(start.Missing("valgrind is not installed"))
        self.assertEqual((outcome.compared, outcome.has_grown), (0, False))
        self.assertIn("not compared: valgrind is not installed", outcome.lines[0])


# The base class has no tests of its own.
del FrameTest

if __name__ == "__main__":
    unittest.main()
