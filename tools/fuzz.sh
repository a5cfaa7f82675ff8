#!/bin/sh
# Builds the libFuzzer targets with ASan and UBSan (clang, in build-fuzz/)
# and runs each for SECONDS (default 25) on a copy of its seed corpus.
# Fails when any target reports (crash, leak, sanitizer finding, timeout).
#   tools/fuzz.sh [SECONDS] [TARGET...]      e.g. tools/fuzz.sh 600 fuzz_config
# FUZZ_BUILD=dir picks the build directory; FUZZ_OUT=dir keeps the grown
# corpora, logs and any reports (default: a directory in the build
# directory, removed afterwards unless something was reported).
set -eu
cd "$(dirname "$0")/.."
secs=${1:-25}
[ $# -gt 0 ] && shift
targets=${*:-"fuzz_receive fuzz_linkmon fuzz_config"}
build=${FUZZ_BUILD:-build-fuzz}
san="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"
if [ ! -f "$build/CMakeCache.txt" ]; then
	CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZALK_FUZZ=ON \
		-DZALK_BENCH=OFF -DCMAKE_CXX_FLAGS="$san -fsanitize=fuzzer-no-link" \
		-DCMAKE_EXE_LINKER_FLAGS="$san" >/dev/null
fi
# shellcheck disable=SC2086
cmake --build "$build" -j2 --target $targets >/dev/null
out=${FUZZ_OUT:-$(mktemp -d "$PWD/$build/run.XXXXXX")}
mkdir -p "$out"
out=$(realpath "$out")

# The fakes keep their files below /tmp: as root, a private tmpfs there (in
# a mount namespace of its own) makes the targets several times faster and
# leaves the machine's /tmp alone.
run() {
	if [ "$(id -u)" = 0 ] && command -v unshare >/dev/null; then
		unshare -m sh -c 'mount -t tmpfs zalk-fuzz /tmp && exec "$0" "$@"' "$@"
	else
		"$@"
	fi
}

status=0
for t in $targets; do
	mkdir -p "$out/$t"
	cp -n tests/fuzz/seeds_"${t#fuzz_}"/* "$out/$t/" 2>/dev/null || true
	# -close_fd_mask=1: the configuration reader's complaints go to stdout.
	if run "$PWD/$build/tests/$t" -max_total_time="$secs" -timeout=5 -rss_limit_mb=1024 -close_fd_mask=1 \
		-artifact_prefix="$out/$t-" -print_final_stats=1 "$out/$t" >"$out/$t.log" 2>&1; then
		printf '%s: %s\n' "$t" "$(grep -E '^#[0-9]+.*DONE' "$out/$t.log" | sed 's/  */ /g')"
	else
		echo "$t: REPORT (log and input in $out)"
		tail -40 "$out/$t.log"
		status=1
	fi
done
[ -n "${FUZZ_OUT:-}" ] || [ $status != 0 ] || rm -rf "$out"
exit $status
