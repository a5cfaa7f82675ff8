#!/bin/sh
# The main job's demonstration: a ring of 6 emulated switches running the
# given zalkv2d, a link failure and its return under traffic.
# Usage: lab/demo.sh build/zalkv2d   (as root)
set -eu
here="$(cd "$(dirname "$0")" && pwd)"
daemon="${1:?usage: lab/demo.sh PATH-TO-zalkv2d}"
export ZALK_BUILD="${ZALK_BUILD:-$(cd "$(dirname "$daemon")" && pwd)}"
exec /usr/bin/python3 "$here/demo.py" "$daemon"
