#!/bin/sh
# Sets everything up, builds, and runs the demonstration.
set -eu
cd "$(dirname "$0")/.."
./tools/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)" --target zalkv2d zalkv2d-lab zalkctl
if [ -x lab/demo.sh ]; then
	exec ./lab/demo.sh build/zalkv2d
fi
# Until the ring lab exists, the main job is the daemon's own usage text.
./build/zalkv2d --help || true
