"""Forms of many small fields, and of a few large ones."""

import dataclasses
import pathlib
import random
import string
from collections.abc import Iterator, Sequence
from urllib.parse import quote_plus

from frame import Bench, Case, Experiment
from request import MULTIPART, URLENCODED, form_end, part_head, post

REFERENCES = ("cgicc_form", "rude_form")

# Its time grows with the square of the number of fields.
QUADRATIC = "rude_form"

# Line ends are left out: what becomes of them differs from library to library.
CHARACTERS = string.ascii_letters + string.digits + string.punctuation + " " * 16

# So much of a file is read at once.
CHUNK = 65536


@dataclasses.dataclass(frozen=True)
class Form:
    name: str
    title: str
    values: Sequence[str]
    rounds: int
    # A slow program runs in each so many-th round only.
    slow_every: int


def run(bench: Bench) -> None:
    for form in forms(bench.quick):
        for kind, content_type, encode in (
            ("multipart", MULTIPART, multipart),
            ("urlencoded", URLENCODED, urlencoded),
        ):
            path = bench.memory / "form"
            path.write_bytes(encode(form.values))
            measured = bench.measure(cases(bench, content_type, path, form), form.rounds)
            name = f"forms/{kind}-{form.name}"
            bench.record(Experiment(name, f"{form.title}, {kind}", measured, REFERENCES))


def forms(quick: bool) -> Iterator[Form]:
    small = uncut(f"value {i} & more" for i in range(100_000))
    large = uncut(large_values())
    yield Form("10000", "10,000 small fields", small[:10_000], 11 if quick else 41, 10)
    yield Form("100000", "100,000 small fields", small, 3 if quick else 21, 10)
    yield Form("large", "40 fields of 250 kB", large, 3 if quick else 21, 10)


def large_values() -> Iterator[str]:
    chance = random.Random(1)
    for _ in range(40):
        yield "".join(chance.choices(CHARACTERS, k=250_000))


def uncut(values: Iterator[str]) -> list[str]:
    """The same, some a little longer, so that in a multipart form no read ends
    between CR and LF. Our library then takes the line for unfinished, which is
    kept for compatibility."""
    position = len(part_head("f0"))
    longer = []
    for value in values:
        next_head = part_head(f"f{len(longer) + 1}").decode()
        while cuts_line_end(position, f"{value}\r\n{next_head}"):
            value += "."
        position += len(f"{value}\r\n{next_head}")
        longer.append(value)
    return longer


def cuts_line_end(position: int, text: str) -> bool:
    """Whether a read ends there, if the text is at this position of a file."""
    last = CHUNK - 1 - position % CHUNK
    return any(text[i] == "\r" for i in range(last, len(text), CHUNK))


def multipart(values: Sequence[str]) -> bytes:
    parts = (part_head(f"f{i}") + value.encode() for i, value in enumerate(values))
    return b"\r\n".join(parts) + form_end()


def urlencoded(values: Sequence[str]) -> bytes:
    return "&".join(f"f{i}={quote_plus(value)}" for i, value in enumerate(values)).encode()


def cases(bench: Bench, content_type: str, path: pathlib.Path, form: Form) -> list[Case]:
    """Timed without the hash of the values, which may take longer than all
    else, and checked with it."""
    with_hash = post(content_type, path)
    without = dataclasses.replace(with_hash, variables={**with_hash.variables, "HASH": "no"})
    answer = form_answer(form.values)
    return [
        Case(
            program,
            without,
            answer=None,
            every=form.slow_every if program.is_slow or program.name == QUADRATIC else 1,
            trial=Case(program, with_hash, answer),
        )
        for program in bench.programs_of("form")
    ]


def form_answer(values: Sequence[str]) -> bytes:
    together = "".join(values).encode()
    return f"{len(values)} {len(together)} {fnv1a(together):016x}\n".encode()


def fnv1a(data: bytes) -> int:
    state = 14695981039346656037
    for byte in data:
        state = (state ^ byte) * 1099511628211 & 0xFFFFFFFFFFFFFFFF
    return state
