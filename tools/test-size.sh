#!/bin/sh
# How big the C++ tests are against the C++ code they test: non-blank
# lines of the tracked .cpp/.h files under tests/ (unit, kernel, fakes,
# fixtures, benchmarks, fuzz targets) and outside it. The aim is at most
# 40%. With --check, fails unless README.md states both figures as they are.
#
#   tools/test-size.sh [--check]
set -eu
cd "$(dirname "$0")/.."
lines() { git ls-files -- '*.cpp' '*.h' | grep $1 '^tests/' | tr '\n' '\0' | xargs -0 cat | grep -cv '^[[:space:]]*$'; }
code=$(lines -v)
tests=$(lines -e)
pct=$(((tests * 200 / code + 1) / 2))
echo "C++ code outside tests/: $code lines; C++ tests: $tests lines ($pct%, aim: at most 40%)"
[ "${1:-}" = --check ] || exit 0
line="C++ tests: $tests lines against $code lines of C++ code"
grep -qF "$line" README.md || { echo "test-size: README.md does not say \"$line\"" >&2; exit 1; }
