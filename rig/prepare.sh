#!/bin/sh
# Prepares what the rig boots and prints two lines: the kernel image and
# the initramfs. Everything is cached in .rig-cache/ at the top of the
# source tree:
#   kernel-<package>_<version>/   vmlinux, the needed modules (signatures
#                                 stripped), their load order
#   initramfs-<hash>.cpio         busybox, init, modules; the hash covers
#                                 the kernel, the module list, init and busybox
# A new Debian kernel or a change of the init script or module list makes
# new ones; stale ones are removed.
#
# The kernel package is unpacked here rather than installed, so that this
# machine's own boot set-up is never touched. Host packages the rig needs
# (qemu, busybox, kmod, binutils, xz) are installed when missing.
set -eu

RIG_DIR=$(cd "$(dirname "$0")" && pwd)
SRC=$(cd "$RIG_DIR/.." && pwd)
CACHE=$SRC/.rig-cache
mkdir -p "$CACHE"
log() { echo "rig: $*" >&2; }

# Modules for 9p over virtio, the bridge with VLANs, veth, 802.1Q, the
# ingress hook, flower and gact, overlayfs (writable /etc); dependencies
# are found by modprobe and come first.
MODULES="virtio_pci 9p 9pnet_virtio overlay bridge veth 8021q sch_ingress cls_flower act_gact"

need_pkgs=""
for p in qemu-system-x86:qemu-system-x86_64 busybox-static:busybox kmod:depmod binutils:strip xz-utils:xz cpio:; do
	pkg=${p%%:*}
	cmd=${p#*:}
	if [ -n "$cmd" ]; then
		command -v "$cmd" >/dev/null 2>&1 && continue
	fi
	dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" && continue
	need_pkgs="$need_pkgs $pkg"
done
# cpio itself is optional: busybox makes the archive.
need_pkgs=$(echo "$need_pkgs" | sed 's/ cpio//')
if [ -n "$need_pkgs" ]; then
	log "installing$need_pkgs"
	export DEBIAN_FRONTEND=noninteractive
	apt-get install -y -qq --no-install-recommends $need_pkgs >&2 ||
		{ apt-get update -qq >&2 && apt-get install -y -qq --no-install-recommends $need_pkgs >&2; } ||
		{ log "cannot install$need_pkgs"; exit 1; }
fi
for c in qemu-system-x86_64 busybox depmod modprobe strip xz; do
	command -v $c >/dev/null 2>&1 || { log "$c missing after installation"; exit 1; }
done

kernel_pkg() {
	apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/ {print $2; exit}'
}
pkg=$(kernel_pkg)
if [ -z "$pkg" ]; then
	apt-get update -qq >&2 || true
	pkg=$(kernel_pkg)
fi
if [ -n "$pkg" ]; then
	ver=$(apt-cache show --no-all-versions "$pkg" 2>/dev/null | awk '/^Version:/ {print $2; exit}')
	KDIR=$CACHE/kernel-${pkg}_$ver
else
	# No package lists at all: fall back on a kernel prepared earlier.
	KDIR=$(ls -d "$CACHE"/kernel-*/ 2>/dev/null | head -1 | sed 's:/$::')
	[ -n "$KDIR" ] || { log "cannot find Debian's kernel package"; exit 1; }
fi

if [ ! -f "$KDIR/done" ]; then
	log "preparing $(basename "$KDIR")"
	rm -rf "$KDIR" "$CACHE"/kernel-* "$CACHE"/unpack.*
	work=$CACHE/unpack.$$
	rm -rf "$work"
	mkdir -p "$work/x" "$KDIR/mods"
	(cd "$work" && apt-get download "$pkg" >&2 2>/dev/null) || { log "apt-get download $pkg failed"; exit 1; }
	dpkg -x "$work"/*.deb "$work/x"
	kver=$(ls "$work/x/lib/modules")
	# Booting the ELF inside the bzImage saves the decompression, which
	# under emulation costs seconds.
	vmlinuz=$(ls "$work"/x/boot/vmlinuz-*)
	off=$(LC_ALL=C grep -obUaP '\xfd7zXZ\x00' "$vmlinuz" | head -1 | cut -d: -f1)
	[ -n "$off" ] || { log "no xz payload in $vmlinuz"; exit 1; }
	tail -c +$((off + 1)) "$vmlinuz" | xz -dc > "$KDIR/vmlinux" 2>/dev/null || true
	[ "$(head -c 4 "$KDIR/vmlinux" | od -An -c | tr -d ' ')" = '177ELF' ] || { log "vmlinux extraction failed"; exit 1; }
	depmod -b "$work/x" "$kver"
	for m in $MODULES; do
		modprobe -d "$work/x" -S "$kver" --show-depends "$m" | awk '$1 == "insmod" {print $2}'
	done | awk '!seen[$0]++' > "$work/order"
	: > "$KDIR/order"
	while read -r ko; do
		name=$(basename "$ko")
		# Stripping drops the appended signature (and any debug data):
		# less to load, nothing to verify.
		strip --strip-debug -o "$KDIR/mods/$name" "$ko"
		echo "$name" >> "$KDIR/order"
	done < "$work/order"
	echo "$kver" > "$KDIR/version"
	rm -rf "$work"
	touch "$KDIR/done"
fi

hash=$({
	basename "$KDIR"
	cat "$KDIR/order"
	cat "$RIG_DIR/guest/init"
	sha256sum < "$(command -v busybox)"
} | sha256sum | cut -c1-16)
INITRD=$CACHE/initramfs-$hash.cpio
if [ ! -f "$INITRD" ]; then
	log "building initramfs $hash"
	rm -f "$CACHE"/initramfs-*.cpio
	tree=$CACHE/initramfs.$$
	rm -rf "$tree"
	mkdir -p "$tree/bin" "$tree/mods" "$tree/proc" "$tree/sys" "$tree/dev" "$tree/newroot" "$tree/job"
	cp "$(command -v busybox)" "$tree/bin/busybox"
	cp "$RIG_DIR/guest/init" "$tree/init"
	chmod 755 "$tree/init"
	cp "$KDIR"/mods/*.ko "$tree/mods/"
	cp "$KDIR/order" "$tree/mods/order"
	# Uncompressed: unpacking costs the guest less than decompressing.
	(cd "$tree" && find . | busybox cpio -o -H newc > "$INITRD.tmp" 2>/dev/null)
	mv "$INITRD.tmp" "$INITRD"
	rm -rf "$tree"
fi

echo "$KDIR/vmlinux"
echo "$INITRD"
