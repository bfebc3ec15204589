"""Forms of many small fields, and of a few large ones."""

import dataclasses
import random
import string
from collections.abc import Iterator, Sequence
from urllib.parse import quote_plus

from frame import Bench, Case, Experiment
from request import MULTIPART, URLENCODED, Request, form_end, part_head, post

REFERENCES = ("cgicc_form", "rude_form")

# The time of this program grows with the square of the number of fields.
QUADRATIC = "rude_form"

# No line ends: libraries treat them differently.
CHARACTERS = string.ascii_letters + string.digits + string.punctuation + " " * 16

# The size of one read of a file.
CHUNK = 65536


@dataclasses.dataclass(frozen=True)
class Form:
    name: str
    title: str
    values: Sequence[str]
    rounds: int
    # Slow programs run once in this number of rounds.
    slow_every: int


def run(bench: Bench) -> None:
    for form in forms(bench.quick):
        answers = answers_to(form.values)
        for kind, content_type, encode in (
            ("multipart", MULTIPART, multipart),
            ("urlencoded", URLENCODED, urlencoded),
        ):
            path = bench.memory / "form"
            path.write_bytes(encode(form.values))
            measured = bench.measure(
                cases(bench, post(content_type, path), answers, form.slow_every), form.rounds
            )
            name = f"forms/{kind}-{form.name}"
            bench.record(Experiment(name, f"{form.title}, {kind}", measured, REFERENCES))


def forms(quick: bool) -> Iterator[Form]:
    small = with_whole_line_ends(f"value {i} & more" for i in range(100_000))
    large = with_whole_line_ends(large_values())
    yield Form("10000", "10,000 small fields", small[:10_000], 11 if quick else 41, 10)
    yield Form("100000", "100,000 small fields", small, 3 if quick else 21, 10)
    yield Form("large", "40 fields of 250 kB", large, 3 if quick else 21, 10)


def large_values() -> Iterator[str]:
    generator = random.Random(1)
    for _ in range(40):
        yield "".join(generator.choices(CHARACTERS, k=250_000))


def with_whole_line_ends(values: Iterator[str]) -> list[str]:
    """Lengthens some values, so that no read of the multipart form ends between
    CR and LF. The parser of `Cgi` then treats the line as unfinished, which is
    kept for compatibility."""
    position = len(part_head("f0"))
    longer = []
    for value in values:
        next_head = part_head(f"f{len(longer) + 1}").decode()
        while splits_line_end(position, f"{value}\r\n{next_head}"):
            value += "."
        position += len(f"{value}\r\n{next_head}")
        longer.append(value)
    return longer


def splits_line_end(position: int, text: str) -> bool:
    """Whether a read ends after a CR of a text at this offset of a file."""
    last = CHUNK - 1 - position % CHUNK
    return any(text[i] == "\r" for i in range(last, len(text), CHUNK))


def multipart(values: Sequence[str]) -> bytes:
    parts = (part_head(f"f{i}") + value.encode() for i, value in enumerate(values))
    return b"\r\n".join(parts) + form_end()


def urlencoded(values: Sequence[str]) -> bytes:
    return "&".join(f"f{i}={quote_plus(value)}" for i, value in enumerate(values)).encode()


@dataclasses.dataclass(frozen=True)
class Answers:
    as_sent: bytes
    # `Cgi` sorts the fields by the bytes of their names: f10 before f2.
    by_name: bytes


def answers_to(values: Sequence[str]) -> Answers:
    by_name = sorted(range(len(values)), key=lambda i: f"f{i}")
    return Answers(form_answer(values), form_answer([values[i] for i in by_name]))


def form_answer(values: Sequence[str]) -> bytes:
    concatenated = "".join(values).encode()
    return f"{len(values)} {len(concatenated)} {fnv1a(concatenated):016x}\n".encode()


def cases(bench: Bench, request: Request, answers: Answers, slow_every: int) -> list[Case]:
    """The check includes the hash of the values. The timed runs omit it, because
    it may take longer than the rest of the request."""
    without_hash = dataclasses.replace(request, variables={**request.variables, "HASH": "no"})
    return [
        Case(
            program,
            without_hash,
            answer=None,
            every=slow_every if program.is_slow or program.name == QUADRATIC else 1,
            trial=Case(
                program, request, answers.by_name if program.sorts_fields else answers.as_sent
            ),
        )
        for program in bench.programs_of("form")
    ]


def fnv1a(data: bytes) -> int:
    state = 14695981039346656037
    for byte in data:
        state = (state ^ byte) * 1099511628211 & 0xFFFFFFFFFFFFFFFF
    return state
