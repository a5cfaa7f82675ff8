#!/bin/sh
# Runs one test script inside Debian's own kernel under qemu and returns
# the script's exit status.
#
#   rig/run.sh SCRIPT [BUILD_DIR]
#
# The guest shares this machine's /usr and /etc and the source and build
# trees read-only over 9p (at their own paths, so host binaries and the
# built daemon run unchanged), a job directory read-write, and runs SCRIPT
# with /bin/sh as root in a fresh tmpfs root. Inside, the script finds:
#   RIG_SRC, RIG_BUILD   the source and build trees
#   ZALKV2D, RIGCTL      the built daemon and the rig's netlink tool
#   ZALKV2D_LAB          the daemon's lab build (BLOCKING set as DISABLED)
#   RIG_JOB              a directory that survives the guest (read-write)
#   ZALKCTL              the operator's tool
# and a fake `runlevel` first in PATH that prints "N $(cat /run/rig-runlevel)"
# (5 when that file is missing).
#
# With RIG_DEB set to a Debian package of zalkv2d, the guest installs it
# with dpkg -i before the script runs (over the host's package database,
# in a writable layer), and ZALKV2D and ZALKCTL name the installed
# /usr/sbin/zalkv2d and /usr/sbin/zalkctl; RIG_PACKAGE is then 1.
#
# Exit status: the script's; 124 when the guest did not finish within
# RIG_TIMEOUT seconds (default 300) or died without reporting; 125 when
# the rig itself could not be set up (never a silent skip).
#
# Kernel, modules and initramfs are cached in .rig-cache/ at the top of
# the source tree and rebuilt when their inputs change (prepare.sh).
set -eu

RIG_DIR=$(cd "$(dirname "$0")" && pwd)
SRC=$(cd "$RIG_DIR/.." && pwd)

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
	echo "usage: $0 SCRIPT [BUILD_DIR]" >&2
	exit 2
fi
SCRIPT=$1
BUILD=$(cd "${2:-$SRC/build}" && pwd)
[ -f "$SCRIPT" ] || { echo "rig: no script $SCRIPT" >&2; exit 2; }

fail_setup() {
	echo "rig: FAILED TO START: $*" >&2
	exit 125
}

# prepare.sh prints the two artefacts: the kernel image and the initramfs.
ART=$("$RIG_DIR/prepare.sh") || fail_setup "preparing the kernel and initramfs (see above)"
KERNEL=$(echo "$ART" | sed -n 1p)
INITRD=$(echo "$ART" | sed -n 2p)
[ -f "$KERNEL" ] && [ -f "$INITRD" ] || fail_setup "prepare.sh gave no kernel/initramfs"
command -v qemu-system-x86_64 >/dev/null || fail_setup "qemu-system-x86_64 missing"

JOB=$(mktemp -d /tmp/zalk-rig.XXXXXX)
trap 'rm -rf "$JOB"' EXIT INT TERM
cp "$SCRIPT" "$JOB/script.sh"
if [ -n "${RIG_DEB:-}" ]; then
	cp "$RIG_DEB" "$JOB/package.deb" || fail_setup "no package $RIG_DEB"
fi
cat > "$JOB/env" <<EOF
RIG_SRC=$SRC
RIG_BUILD=$BUILD
EOF

# Same-path shares: the guest sees the trees where the host has them.
share() { # tag path [rw]
	ro=",readonly=on"
	[ "${3:-}" = rw ] && ro=""
	echo "-fsdev local,id=$1,path=$2,security_model=none$ro -device virtio-9p-pci,fsdev=$1,mount_tag=$1"
}

# A check that starts with "# rig: systemd" boots a Debian root of its own
# with systemd as PID 1 instead of sharing this machine's /usr and /etc.
if head -1 "$SCRIPT" | grep -q '^# rig: systemd'; then
	ROOTFS=$("$RIG_DIR/prepare-root.sh") || fail_setup "preparing the Debian root (see above)"
	echo "RIG_SYSTEMD=1" >> "$JOB/env"
	SHARES="$(share root "$ROOTFS")"
else
	SHARES="$(share usr /usr) $(share etc /etc) $(share dpkg /var/lib/dpkg)"
fi

TIMEOUT=${RIG_TIMEOUT:-300}
# Emulated, never KVM (nested virtualisation fails on these machines); the
# plain qemu64 CPU runs process start-up a quarter faster than "max".
start=$(date +%s.%N)
set +e
# shellcheck disable=SC2046
timeout --foreground -k 5 "$TIMEOUT" qemu-system-x86_64 \
	-machine pc,accel=${RIG_ACCEL:-tcg} -cpu ${RIG_CPU:-qemu64} -smp 1 -m 1024 \
	-nodefaults -display none -serial stdio -no-reboot \
	-kernel "$KERNEL" -initrd "$INITRD" \
	-append "console=ttyS0 quiet loglevel=1 mitigations=off panic=-1 tsc=reliable no_timer_check cryptomgr.notests acpi=off" \
	$SHARES $(share src "$SRC") $(share build "$BUILD") $(share job "$JOB" rw) \
	</dev/null
qrc=$?
set -e
end=$(date +%s.%N)

if [ -f "$JOB/boot-ms" ]; then
	echo "rig: boot to script $(cat "$JOB/boot-ms") ms (guest uptime)"
fi
echo "rig: $(basename "$SCRIPT") took $(echo "$start $end" | awk '{printf "%.1f", $2 - $1}') s in all"
if [ ! -f "$JOB/status" ]; then
	if [ $qrc -eq 124 ] || [ $qrc -eq 137 ]; then
		echo "rig: TIMEOUT after ${TIMEOUT}s running $SCRIPT" >&2
	else
		echo "rig: guest ended without a status (qemu status $qrc): crash or panic" >&2
	fi
	exit 124
fi
exit "$(cat "$JOB/status")"
