#!/bin/sh
# The full-kernel suite: every check script in rig/checks/ (lib.sh is
# their library), each in its own guest, RIG_JOBS guests at a time
# (default: the number of processors). Every guest first installs the
# Debian package built from this tree (tools/build-deb.sh, in BUILD_DIR/deb)
# with dpkg -i, and the scripts run the installed /usr/sbin/zalkv2d and
# /usr/sbin/zalkctl (the members' lab build and rigctl come from BUILD_DIR).
# Fails when any script fails or the rig cannot start; never skips.
#
#   rig/run-suite.sh BUILD_DIR
set -eu
RIG_DIR=$(cd "$(dirname "$0")" && pwd)
SRC=$(cd "$RIG_DIR/.." && pwd)
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
BUILD=$(cd "$1" && pwd)

# The daemon, its lab build and the rig's netlink tool; a no-op after a
# full build.
cmake --build "$BUILD" --target zalkv2d zalkv2d-lab rigctl >/dev/null ||
	{ echo "rig: cannot build zalkv2d, zalkv2d-lab and rigctl in $BUILD" >&2; exit 1; }
RIG_DEB=$("$SRC/tools/build-deb.sh" "$BUILD/deb") ||
	{ echo "rig: cannot build the Debian package in $BUILD/deb" >&2; exit 1; }
export RIG_DEB
# Installing the package costs each guest some 25 s of emulated dpkg; the
# package check boots systemd and restarts the daemon under it three times
# (about 14 minutes on a loaded machine).
export RIG_TIMEOUT=${RIG_TIMEOUT:-1200}
# The cache is made once, before guests start side by side.
"$RIG_DIR/prepare.sh" >/dev/null || { echo "rig: FAILED TO START: preparation failed" >&2; exit 1; }

LOGS=$(mktemp -d /tmp/zalk-rig-suite.XXXXXX)
trap 'rm -rf "$LOGS"' EXIT INT TERM
start=$(date +%s)
ls "$RIG_DIR"/checks/*.sh | grep -v '/lib\.sh$' |
	xargs -P "${RIG_JOBS:-$(nproc)}" -I{} sh -c '
		n=$(basename {} .sh)
		"$1/run.sh" {} "$2" > "$3/$n.log" 2>&1
		echo $? > "$3/$n.rc"' sh "$RIG_DIR" "$BUILD" "$LOGS"

failed=""
for rc in "$LOGS"/*.rc; do
	n=$(basename "$rc" .rc)
	echo "======== full kernel: $n ========"
	cat "$LOGS/$n.log"
	[ "$(cat "$rc")" = 0 ] || failed="$failed $n"
done
echo "======== full-kernel suite: $(($(date +%s) - start)) s, ${failed:-all passed}${failed:+ FAILED:$failed} ========"
[ -z "$failed" ]
