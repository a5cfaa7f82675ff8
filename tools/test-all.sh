#!/bin/sh
# Sets everything up, builds from clean and runs every test: the unit,
# kernel and end-to-end suites through ctest on this machine, each fuzz
# target for 20 s (ASan and UBSan; any report fails), then the full-kernel
# suite under qemu.
set -eu
cd "$(dirname "$0")/.."
./tools/setup.sh
rm -rf build
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)"
cd build
ctest --output-on-failure -j"$(nproc)"
cd ..
rm -rf build-fuzz
./tools/fuzz.sh 20
if [ -x rig/run-suite.sh ]; then
	./rig/run-suite.sh build
fi
