"""``vorlinkit completion bash|zsh|fish``: a script, made from the parser, that completes words.

The script knows sub-commands, options, machine commands, their fields, and payload types, as they are now; after a
change of the catalogue it is printed again.
"""

from __future__ import annotations

import argparse
from argparse import Namespace
from collections.abc import Iterator, Mapping
from dataclasses import dataclass
from typing import Final

from vorlinkit.catalogue import Catalogue, load
from vorlinkit.client.layouts import layouts
from vorlinkit.simulator.options import _parser as simulator_parser

from .arguments import build_parser, subparsers
from .exits import OK
from .output import Output


@dataclass(frozen=True)
class Words:
    """What may follow a sub-command: options, those of them that take a value, and the choices for each place, of
    which the last repeats if `endless`. A choice is a word, or the name of a list in capitals."""

    options: tuple[str, ...]
    valued: tuple[str, ...]
    places: tuple[tuple[str, ...], ...]
    endless: bool


LISTS: Final[Mapping[str, str]] = {"command": "COMMANDS", "type": "TYPES", "fields": "FIELDS"}


def run(arguments: Namespace, output: Output) -> int:
    catalogue = load()
    table = {name: words_of(one) for name, one in subparsers(build_parser()).items()}
    table["simulate"] = words_of(simulator_parser())
    table[""] = words_of(build_parser())
    script = {"bash": _bash, "zsh": _zsh, "fish": _fish}[arguments.shell]
    for line in script(table, catalogue):
        output.line(line)
    return OK


def words_of(parser: argparse.ArgumentParser) -> Words:
    """The words that a parser takes. argparse has no public way to its parts."""
    options: list[str] = []
    valued: list[str] = []
    places: list[tuple[str, ...]] = []
    endless = False
    for action in parser._actions:
        if action.option_strings:
            options += action.option_strings
            valued += action.option_strings if action.nargs != 0 else []
        else:
            choices = tuple(action.choices or ())
            places.append(choices or ((LISTS[action.dest],) if action.dest in LISTS else ()))
            endless = action.nargs == "*"
    return Words(tuple(options), tuple(valued), tuple(places), endless)


def _fields(catalogue: Catalogue) -> Iterator[tuple[str, str]]:
    """The fields of each command that takes any, as ``name=`` words."""
    for command in catalogue.commands:
        given = layouts()[command.request.type].given if command.request else ()
        if given:
            yield command.name, " ".join(f"{field.attribute}=" for field in given)


def _lists(catalogue: Catalogue) -> dict[str, str]:
    return {
        "COMMANDS": " ".join(command.name for command in catalogue.commands),
        "TYPES": " ".join(message.type for _, _, message in catalogue.layouts()),
    }


# -- bash and zsh ------------------------------------------------------------------------------------

_SHARED: Final = """\
# Sets `found` to the words that may stand behind the words given.
__vorlinkit_words() {
  local sub= command= place=0 word skip=
  for word in "$@"; do
    if [ -n "$skip" ]; then skip=; continue; fi
    case $word in
      -*) case " $(__vorlinkit_valued "$sub") " in *" $word "*) skip=1 ;; esac ;;
      *)
        if [ -z "$sub" ]; then sub=$word
        else
          place=$((place + 1))
          [ $place = 2 ] && command=$word
        fi ;;
    esac
  done
  found=
  [ -n "$skip" ] && return
  found="$(__vorlinkit_place "$sub" "$place" "$command") $(__vorlinkit_options "$sub")"
}"""

_BASH: Final = """\
_vorlinkit() {
  local found line=${COMP_LINE:0:COMP_POINT} words
  read -ra words <<< "$line"
  [[ $line == *[[:space:]] ]] && words+=("")
  local current=${words[-1]}
  __vorlinkit_words "${words[@]:1:${#words[@]}-2}"
  COMPREPLY=($(compgen -W "$found" -- "$current"))
  [[ ${COMPREPLY[0]} == *= ]] && compopt -o nospace
  return 0
}
complete -o default -F _vorlinkit vorlinkit"""

_ZSH: Final = """\
_vorlinkit() {
  local found
  __vorlinkit_words "${(@)words[2,CURRENT-1]}"
  local -a plain open
  plain=(${${=found}:#*=})
  open=(${(M)${=found}:#*=})
  compadd -- $plain
  compadd -S '' -- $open
}
(( $+functions[compdef] )) && compdef _vorlinkit vorlinkit"""


def _bash(table: Mapping[str, Words], catalogue: Catalogue) -> Iterator[str]:
    yield '# Completion for bash: eval "$(vorlinkit completion bash)", or keep it in a file and source that.'
    yield from _tables(table, catalogue)
    yield _SHARED
    yield _BASH


def _zsh(table: Mapping[str, Words], catalogue: Catalogue) -> Iterator[str]:
    yield "#compdef vorlinkit"
    yield '# Completion for zsh: eval "$(vorlinkit completion zsh)" behind compinit in .zshrc.'
    yield from _tables(table, catalogue)
    yield _SHARED
    yield _ZSH


def _tables(table: Mapping[str, Words], catalogue: Catalogue) -> Iterator[str]:
    """Functions that print words, in what bash and zsh have in common."""
    yield from _case(
        "__vorlinkit_options", '"$1"', {_quoted(name): _echo(one.options) for name, one in table.items()}
    )
    yield from _case(
        "__vorlinkit_valued", '"$1"', {_quoted(name): _echo(one.valued) for name, one in table.items()}
    )
    lists = _lists(catalogue)
    places = {}
    for name, one in table.items():
        for at, choices in enumerate(one.places):
            last = one.endless and at == len(one.places) - 1
            words = [lists.get(choice, choice) for choice in choices]
            echo = '__vorlinkit_fields "$3"' if words == ["FIELDS"] else _echo(words)
            places[f"{name}:{'*' if last else at}"] = echo
    yield from _case("__vorlinkit_place", '"$1:$2"', places)
    yield from _case(
        "__vorlinkit_fields", '"$1"', {name: f"echo '{words}'" for name, words in _fields(catalogue)}
    )


def _quoted(name: str) -> str:
    return name or "''"


def _echo(words: list[str] | tuple[str, ...]) -> str:
    return f"echo '{' '.join(words)}'" if words else ":"


def _case(function: str, subject: str, cases: Mapping[str, str]) -> Iterator[str]:
    yield f"{function}() {{"
    yield f"  case {subject} in"
    for pattern, does in cases.items():
        yield f"    {pattern}) {does} ;;"
    yield "  esac"
    yield "}"


# -- fish --------------------------------------------------------------------------------------------

_FISH: Final = """\
# Prints the words that may stand behind the words typed so far.
function __vorlinkit_words
  set -l sub ''
  set -l command ''
  set -l place 0
  set -l skip 0
  for word in (commandline -opc)[2..-1]
    if test $skip = 1
      set skip 0
    else if string match -q -- '-*' $word
      contains -- $word (__vorlinkit_valued $sub); and set skip 1
    else if test -z $sub
      set sub $word
    else
      set place (math $place + 1)
      test $place = 2; and set command $word
    end
  end
  if test $skip = 0
    __vorlinkit_place $sub $place $command
    __vorlinkit_options $sub
  end
end
complete -c vorlinkit -f -a '(__vorlinkit_words)'"""


def _fish(table: Mapping[str, Words], catalogue: Catalogue) -> Iterator[str]:
    yield "# Completion for fish: vorlinkit completion fish > ~/.config/fish/completions/vorlinkit.fish"
    yield from _switch("__vorlinkit_options", "$argv[1]", {name: one.options for name, one in table.items()})
    yield from _switch("__vorlinkit_valued", "$argv[1]", {name: one.valued for name, one in table.items()})
    yield from _switch(
        "__vorlinkit_fields", "$argv[1]", {name: words.split() for name, words in _fields(catalogue)}
    )
    lists = _lists(catalogue)
    yield "function __vorlinkit_place"
    yield "  switch $argv[1]:$argv[2]"
    for name, one in table.items():
        for at, choices in enumerate(one.places):
            last = one.endless and at == len(one.places) - 1
            words = [lists.get(choice, choice) for choice in choices]
            yield f"    case '{name}:{'*' if last else at}'"
            yield "      __vorlinkit_fields $argv[3]" if words == ["FIELDS"] else f"      {_print(words)}"
    yield "  end"
    yield "end"
    yield _FISH


def _switch(function: str, subject: str, cases: Mapping[str, list[str] | tuple[str, ...]]) -> Iterator[str]:
    yield f"function {function}"
    yield f"  switch {subject}"
    for pattern, words in cases.items():
        yield f"    case '{pattern}'"
        yield f"      {_print(words)}"
    yield "  end"
    yield "end"


def _print(words: list[str] | tuple[str, ...]) -> str:
    return "string split ' ' -- '" + " ".join(words) + "'" if words else "true"
