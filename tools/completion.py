"""Writes the bash completions of the tools from their option tables.

    completion.py FOLDER

Each file has the name of its tool, as bash-completion requires.
"""

import pathlib
import re
import sys
from collections.abc import Iterable, Iterator

sys.path.insert(0, str(pathlib.Path(__file__).parent))
from zancgi_doctor.cli import make_parser  # noqa: E402
from zancgi_doctor.findings import CHECKS, GROUPS  # noqa: E402
from zancgi_request.options import OPTIONS, SERVERS, STDIN_KINDS  # noqa: E402

# The values of options that are a choice.
CHOICES = {
    "--check": (*sorted(GROUPS), *CHECKS),
    "--server": SERVERS,
    "--stdin": STDIN_KINDS,
}

TEMPLATE = """\
# bash completion for {tool}, made from its options
_{function}() {{
  local word=${{COMP_WORDS[COMP_CWORD]}} before=${{COMP_WORDS[COMP_CWORD - 1]}}
  # bash splits "--option=value" into three words.
  if [[ $word == "=" ]]; then
    word=
  elif [[ $before == "=" ]]; then
    before=${{COMP_WORDS[COMP_CWORD - 2]}}
  fi
  COMPREPLY=()
  case $before in
{cases}  esac
  if [[ $word == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "{options}" -- "$word")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  fi
}}
complete -o filenames -F _{function} {tool}
"""

CASE = """\
    {names})
      {action}
      return
      ;;
"""


def request_options() -> Iterator[tuple[list[str], str]]:
    """The names of each option, and the name of its value."""
    for option in OPTIONS:
        yield [f"--{option.name}", *([f"-{option.letter}"] if option.letter else [])], option.value
    yield from ((["--help", "-h"], ""), (["--version", "-V"], ""))


def doctor_options() -> Iterator[tuple[list[str], str]]:
    for action in make_parser()._actions:
        value = "" if action.nargs == 0 else action.metavar or "VALUE"
        yield sorted(action.option_strings, key=len, reverse=True), value


def action_for(name: str, value: str) -> str:
    if name in CHOICES:
        return f'mapfile -t COMPREPLY < <(compgen -W "{" ".join(CHOICES[name])}" -- "$word")'
    if re.search("FILE|FOLDER|PATH|DIR", value):
        return 'mapfile -t COMPREPLY < <(compgen -f -- "$word")'
    # Any value is possible.
    return ":"


def cases(options: Iterable[tuple[list[str], str]]) -> Iterator[str]:
    for names, value in options:
        if value:
            yield CASE.format(names=" | ".join(names), action=action_for(names[0], value))


def completion(tool: str, options: Iterable[tuple[list[str], str]]) -> str:
    options = list(options)
    return TEMPLATE.format(
        tool=tool,
        function=tool.replace("-", "_"),
        cases="".join(cases(options)),
        options=" ".join(name for names, _ in options for name in names),
    )


def main() -> None:
    (folder,) = map(pathlib.Path, sys.argv[1:])
    folder.mkdir(parents=True, exist_ok=True)
    by_tool = {"zancgi-request": request_options(), "zancgi-doctor": doctor_options()}
    for tool, options in by_tool.items():
        (folder / tool).write_text(completion(tool, options))


if __name__ == "__main__":
    main()
