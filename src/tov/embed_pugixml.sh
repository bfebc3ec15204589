#!/bin/sh
# Joins our XML code and the pugixml that it uses into one object file.
#
#   embed_pugixml.sh OUTPUT XML_OBJECT PUGIXML_ARCHIVE
#
# The tools are AR, LD, NM and OBJCOPY from the environment.
#
# pugixml's symbols become local, because a front end may link a pugixml of its
# own. The parts that are not needed for parsing and XPath are removed, because
# they would slow down each start of a front end:
# - Reading and writing of streams and files is never called here. It would pull
#   the standard library's streams and locales into a front end that is linked
#   from archives, and would add symbols to look up to the others.
# - Its one static object, an empty set of nodes, serves XPath variables of the
#   wrong type. We use no variables.
#
# Section groups that the linker would link only once (COMDAT) are dissolved,
# too. A linker compares such groups by name alone: it would keep either ours or
# the front end's, and the other pugixml would lack its code.
set -eu

output=$1
xml_object=$2
archive=$3

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

(cd "$work" && "$AR" x "$archive" pugixml.cpp.o)
pugixml=$work/pugixml.cpp.o

symbols=$("$NM" "$pugixml")
if echo "$symbols" | grep ' [bB] ' | grep -qv dummy_node_set; then
  echo "embed_pugixml.sh: this pugixml has another static object" >&2
  exit 1
fi
"$OBJCOPY" --remove-section=.init_array --remove-section=.rela.init_array \
  "$pugixml"

# std::istream, std::ostream and their wide variants, std::wstring, and stdio.
unused=$(echo "$symbols" | sed -n -E 's/^ +U //p' | grep -E \
  '^_ZN(S[io]|St13basic_[io]streamIw|St9basic_iosI|St7__cxx1112basic_stringIw)|^f(close|error|flush|open|read|seek|tell|write)$') || {
  echo "embed_pugixml.sh: this pugixml has no streams to take out" >&2
  exit 1
}

absent=tov_internal_absent
set --
for symbol in $unused; do set -- "$@" "--defsym=$symbol=$absent"; done
"$LD" -r --force-group-allocation -o "$work/joined.o" \
  "$xml_object" "$pugixml" "$@"

set -- '--localize-symbol=*4pugi*' "--localize-symbol=$absent"
for symbol in $unused; do set -- "$@" "--localize-symbol=$symbol"; done
"$OBJCOPY" --wildcard "$@" "$work/joined.o" "$output"
