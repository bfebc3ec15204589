"""The cost of a request from the start of the process to its end."""

from frame import Bench, Case, Experiment
from request import get

REQUEST = get("a=one+two&b=%C3%A4%26%3D&c=3", "session=0123456789abcdef")
ANSWER = "a=one two\nb=ä&=\nc=3\nsession=0123456789abcdef\n".encode()


def run(bench: Bench) -> None:
    cases = [Case(program, get("", ""), answer=None) for program in bench.programs_of("empty")]
    cases += [
        Case(program, REQUEST, ANSWER, every=10 if program.is_slow else 1)
        for program in bench.programs_of("get")
    ]
    bench.record(
        Experiment(
            "startup/get",
            "GET with three parameters and a cookie",
            bench.measure(cases, rounds=100 if bench.quick else 600),
            references=("empty_c", "empty_c_static", "empty_cpp", "cgicc_get"),
        )
    )
