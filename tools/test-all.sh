#!/bin/sh
# Sets everything up, builds from clean and runs every test: the unit,
# kernel and end-to-end suites through ctest on this machine, then the
# full-kernel suite under qemu.
set -eu
cd "$(dirname "$0")/.."
./tools/setup.sh
rm -rf build
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)"
cd build
ctest --output-on-failure -j"$(nproc)"
cd ..
if [ -x rig/run-suite.sh ]; then
	./rig/run-suite.sh build
fi
