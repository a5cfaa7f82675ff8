#!/bin/sh
# Installs every build and test dependency from Debian's packages.
# Idempotent; run as root on Debian 12.
set -eu
PKGS="build-essential cmake pkg-config g++ \
 libev-dev libconfuse-dev libmnl-dev libite-dev \
 libgtest-dev libgmock-dev googletest libbenchmark-dev ninja-build \
 iproute2 nftables kmod util-linux procps python3 graphviz tcpdump tshark \
 dpkg-dev lintian man-db groff-base systemd init-system-helpers mmdebstrap \
 clang libclang-rt-14-dev"
missing=""
for p in $PKGS; do
	dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
	export DEBIAN_FRONTEND=noninteractive
	# tshark's package asks whether to install dumpcap setuid; no
	echo "wireshark-common wireshark-common/install-setuid boolean false" | debconf-set-selections
	apt-get update -qq
	apt-get install -y -qq --no-install-recommends $missing
fi
