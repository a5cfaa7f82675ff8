#!/bin/bash
# How big the tests are against the code, every language counted: non-blank
# lines of the tracked source files (C++, C, Python, shell, Lua, CMake, and
# any script with a #! line) under tests/ and rig/checks/ (the fuzz targets'
# seed directories left out) against all other source files. Documents,
# data, pictures, manuals and configuration files are not code. The aim is
# at most 33%. It prints the figures per language and the line that
# docs/testing.md states; with --check it fails unless docs/testing.md
# states that line as it is.
#
#   tools/test-size.sh [--check]
set -eu
mode=${1:-}
cd "$(dirname "$0")/.."

# The language of a source file, or nothing for a file that is not code.
language() {
	case "$1" in
	*.cpp|*.cc|*.h|*.hpp) lang=C++ ;;
	*.c) lang=C ;;
	*.py) lang=Python ;;
	*.sh) lang=shell ;;
	*.lua) lang=Lua ;;
	*CMakeLists.txt|*.cmake) lang=CMake ;;
	*.md|*.json|*.svg|*.png|*.txt|*.in|*.conf*|*.5|*.8) lang= ;;
	*) read -r first <"$1" 2>/dev/null || true
		case "$first" in
		'#!'*python*) lang=Python ;;
		'#!'*) lang=shell ;;
		*) lang= ;;
		esac ;;
	esac
}

declare -A files
while read -r f; do
	language "$f"
	[ -n "$lang" ] || continue
	case "$f" in
	*/seeds_*) continue ;;
	tests/*|rig/checks/*) side=tests ;;
	*) side=code ;;
	esac
	files[$side $lang]+="$f"$'\n'
done < <(git ls-files)

count() { printf '%s' "${files[$1]:-}" | tr '\n' '\0' | xargs -0 -r cat | grep -cv '^[[:space:]]*$' || true; }
table=$(for k in "${!files[@]}"; do echo "$k $(count "$k")"; done | awk '
	{ n[$2] += 0; s[$1 " " $2] += $3; t[$1] += $3 }
	END { for (l in n) printf "%s %d %d\n", l, s["tests " l], s["code " l]; printf "ALL %d %d\n", t["tests"], t["code"] }')

echo "language  tests  code"
echo "$table" | grep -v '^ALL ' | sort | awk '{ printf "%-8s %6d %6d\n", $1, $2, $3 }'
tests=$(echo "$table" | awk '/^ALL / { print $2 }')
code=$(echo "$table" | awk '/^ALL / { print $3 }')
pct=$((100 * tests / code))  # whole per cent, rounded down
line="Tests, every language: $tests lines against $code lines of other code ($pct%)."
echo "$line"
echo "(aim: at most 33%; docs/testing.md states the line above)"
[ "$mode" = --check ] || exit 0
grep -qF "$line" docs/testing.md || { echo "test-size: docs/testing.md does not say \"$line\"" >&2; exit 1; }
