#!/bin/sh
# Runs one kernel test in network and mount namespaces of its own (root):
# a fresh loopback, no IPv6 chatter on new interfaces, private tmpfs on /run
# and /tmp, /etc as an overlay whose changes vanish with the test, the new
# namespace's own sysfs, and no way to the machine's syslog. The build and
# source trees (ZALK_BUILD, ZALK_SRC) stay reachable under their own paths,
# even when they lie below /tmp or /run.
#   tests/kernel/netns.sh PROGRAM [ARGS...]
set -eu
if [ -z "${ZALK_NETNS:-}" ]; then
	ZALK_NETNS=1 exec unshare --net --mount --propagation private "$0" "$@"
fi
exec 3<"${ZALK_BUILD:-/}" 4<"${ZALK_SRC:-/}"
mount -t tmpfs -o mode=0755 zalk-run /run
mount -t tmpfs -o mode=1777 zalk-tmp /tmp
keep() { # descriptor, directory: put back what the tmpfs hid
	[ -z "$2" ] || [ -d "$2" ] || { mkdir -p "$2" && mount -c --bind "/proc/self/fd/$1" "$2"; }
}
keep 3 "${ZALK_BUILD:-}"
keep 4 "${ZALK_SRC:-}"
exec 3<&- 4<&-
mkdir /tmp/.etc-upper /tmp/.etc-work
mount -t overlay -o lowerdir=/etc,upperdir=/tmp/.etc-upper,workdir=/tmp/.etc-work zalk-etc /etc
mount -t sysfs zalk-sys /sys
[ ! -S /dev/log ] || mount --bind /dev/null /dev/log
ip link set lo up
sysctl -qw net.ipv6.conf.default.disable_ipv6=1 2>/dev/null || true
exec "$@"
