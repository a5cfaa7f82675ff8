#!/bin/sh
# Prepares the Debian root that the rig's systemd guests boot (checks that
# start with "# rig: systemd") and prints its directory: Debian 12's
# minimal base with systemd as PID 1 and what the package depends on, made
# with mmdebstrap from Debian's own packages. It is cached outside the
# source tree, so that fresh clones on the same machine share it:
#   ${RIG_ROOT_CACHE:-/var/cache/zalkv2d-rig}/root-<hash>/
# where the hash covers the package list and this script; a change of
# either makes a new root, and stale ones are removed. The guest mounts it
# read-only below a writable layer, so it is never changed by a check.
set -eu

RIG_DIR=$(cd "$(dirname "$0")" && pwd)
CACHE=${RIG_ROOT_CACHE:-/var/cache/zalkv2d-rig}
log() { echo "rig: $*" >&2; }

# systemd as init; the package's dependencies (dpkg -i in the guest must
# find them); procps for pgrep.
PKGS="systemd systemd-sysv iproute2 libev4 libconfuse2 libmnl0 libite5 procps"

hash=$({ echo "$PKGS"; cat "$0"; } | sha256sum | cut -c1-16)
ROOT=$CACHE/root-$hash
mkdir -p "$CACHE"
exec 9>"$CACHE/lock"
flock 9
if [ ! -f "$ROOT/.rig-done" ]; then
	command -v mmdebstrap >/dev/null 2>&1 || {
		log "installing mmdebstrap"
		DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends mmdebstrap >&2 ||
			{ log "cannot install mmdebstrap"; exit 1; }
	}
	log "building the Debian root $hash (once; some minutes)"
	rm -rf "$CACHE"/root-* "$CACHE"/tmp.*
	tmp=$CACHE/tmp.$$
	# The host's own package sources: the same archive and snapshot.
	sources=$(ls /etc/apt/sources.list.d/debian.sources /etc/apt/sources.list 2>/dev/null | head -1)
	mmdebstrap --variant=minbase --include="$(echo $PKGS | tr ' ' ,)" \
		--dpkgopt='path-exclude=/usr/share/doc/*' --dpkgopt='path-exclude=/usr/share/man/*' \
		--dpkgopt='path-exclude=/usr/share/locale/*' \
		bookworm "$tmp" ${sources:+"$sources"} >&2 || { rm -rf "$tmp"; log "mmdebstrap failed"; exit 1; }
	# Nothing waits for a network the guest does not configure, and the
	# serial console has no login.
	chroot "$tmp" systemctl mask systemd-networkd-wait-online.service serial-getty@ttyS0.service \
		getty@tty1.service systemd-timesyncd.service apt-daily.timer apt-daily-upgrade.timer \
		e2scrub_reap.service >/dev/null 2>&1 || true
	echo rig > "$tmp/etc/hostname"
	mv "$tmp" "$ROOT"
	touch "$ROOT/.rig-done"
fi
echo "$ROOT"
