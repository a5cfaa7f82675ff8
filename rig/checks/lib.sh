# Shared by the full-kernel checks (sourced; runs in the guest under dash).
# Every check reads the kernel's own view (netlink dumps through rigctl,
# tc, bridge), never the daemon's messages; those only help diagnosis.

CHECKS=0
FAILS=0
T0=$(date +%s.%N)

say() { echo "[$(echo "$T0 $(date +%s.%N)" | awk '{printf "%6.1f", $2 - $1}')] $*"; }

pass() { CHECKS=$((CHECKS + 1)); say "ok   $1"; }
fail() {
	CHECKS=$((CHECKS + 1))
	FAILS=$((FAILS + 1))
	say "FAIL $1"
	shift
	[ $# -gt 0 ] && printf '%s\n' "$@" | sed 's/^/       /'
	return 0
}

# same DESC EXPECTED ACTUAL: exact comparison of two texts (line sets are
# sorted by the callers), with a diff on failure.
same() {
	if [ "$2" = "$3" ]; then
		pass "$1"
	else
		printf '%s\n' "$2" > /tmp/rig-expected
		printf '%s\n' "$3" > /tmp/rig-actual
		fail "$1" "expected (-) against the kernel's (+):" "$(diff -u /tmp/rig-expected /tmp/rig-actual | tail -n +3)"
	fi
}

# has DESC PATTERN TEXT: an extended regular expression matches a line.
has() {
	if printf '%s\n' "$3" | grep -Eq -- "$2"; then pass "$1"; else fail "$1" "no line matches /$2/ in:" "$3"; fi
}
hasnt() {
	if printf '%s\n' "$3" | grep -Eq -- "$2"; then fail "$1" "unexpected /$2/ in:" "$3"; else pass "$1"; fi
}

# wait_for SECONDS COMMAND...: polls until the command succeeds.
wait_for() {
	_end=$(($(date +%s) + $1))
	shift
	while ! "$@" >/dev/null 2>&1; do
		[ "$(date +%s)" -ge "$_end" ] && return 1
		sleep 0.5
	done
}

finish() {
	say "$CHECKS checks, $FAILS failed"
	if [ $FAILS -ne 0 ] && [ -s /tmp/rig-syslog ]; then
		echo "--- the daemons' syslog, for diagnosis (last 60 lines) ---"
		tail -n 60 /tmp/rig-syslog
	fi
	[ $FAILS -eq 0 ]
	exit $?
}

# The daemons have no syslog daemon in the guest; rigctl stands in.
start_syslog() {
	"$RIGCTL" syslog /tmp/rig-syslog &
	SYSLOG_PID=$!
	wait_for 5 test -S /dev/log
}

# mkbridge [NS]: br0 as the platform sets it up before the daemon runs:
# VLAN filtering without a default PVID (ports must not get VLAN 1
# before MST is on), MST mode and per-VLAN multicast snooping on, and STP
# handed to user space. Without that last one the kernel undoes every
# BLOCKING the daemon sets (no STP: ports are put back to forwarding at
# once; kernel STP: the request is refused). The kernel grants user-space
# STP only to bridges of the initial network namespace, so a br0 inside a
# namespace (NS given) cannot hold a blocked port.
mkbridge() {
	ip ${1:+-n $1} link add br0 type bridge vlan_filtering 1 vlan_default_pvid 0
	${1:+ip netns exec $1} "$RIGCTL" mst-enable br0
	if [ -z "${1:-}" ]; then
		ip link set br0 type bridge stp_state 1
		[ "$(cat /sys/class/net/br0/bridge/stp_state)" = 2 ] ||
			fail "br0: user-space STP refused (stp_state $(cat /sys/class/net/br0/bridge/stp_state))"
	fi
	ip ${1:+-n $1} link set br0 up
}

# Group address k of ring R as text.
group() { printf '03:4b:a1:01:%.2x:%.2x' "$1" "$2"; }

# filters DEV: the ingress filters of DEV, one line each:
# "pref P proto X mac M vlan V flags F" (flags "skip_hw" or "-").
filters() {
	tc filter show dev "$1" ingress 2>/dev/null | awk -v dev="$1" '
		function flush() { if (pref != "") print dev, "pref", pref, "proto", proto, "mac", mac, "vlan", vlan, "flags", flags; pref = "" }
		/^filter .*handle/ { flush(); proto = $3; pref = $5; mac = "-"; vlan = "-"; flags = "-" }
		/^ +dst_mac / { mac = $2 }
		/^ +vlan_id / { vlan = $2 }
		/^ +skip_hw/ { flags = "skip_hw" }
		END { flush() }'
}

# drops DEV PREF: packets counted by the action of filter PREF on DEV.
drops() {
	tc -s filter show dev "$1" ingress pref "$2" 2>/dev/null |
		awk '/Sent [0-9]+ bytes [0-9]+ pkt/ { for (i = 1; i <= NF; i++) if ($i == "pkt") n = $(i - 1) } END { print n + 0 }'
}

# pref_of DEV MAC VLAN: the priority of the filter for MAC (and VLAN, "-"
# for none) on DEV.
pref_of() { filters "$1" | awk -v m="$2" -v v="$3" '$7 == m && $9 == v { print $3 }'; }

# vlans [NS]: "port vid flags" for every bridge VLAN.
vlans() {
	bridge ${1:+-n $1} vlan show | awk 'NR > 1 && NF {
		if ($0 !~ /^[ \t]/) { port = $1; $1 = "" }
		sub(/^[ \t]+/, ""); vid = $1; $1 = ""; sub(/^[ \t]+/, "")
		print port, vid, ($0 == "" ? "-" : $0) }' | sort
}

# mdb [NS]: "port group vid" for every multicast database entry of br0.
mdb() {
	bridge ${1:+-n $1} mdb show dev br0 | awk '{ port = grp = vid = "-"
		for (i = 1; i < NF; i++) { if ($i == "port") port = $(i + 1); if ($i == "grp") grp = $(i + 1); if ($i == "vid") vid = $(i + 1) }
		print port, grp, vid }' | sort
}

# backup_of [NS] DEV: DEV's backup port, "-" for none.
backup_of() {
	if [ $# -eq 2 ]; then set -- "-n $1" "$2"; else set -- "" "$1"; fi
	bridge $1 -d link show dev "$2" | awk '{ for (i = 1; i < NF; i++) if ($i == "backup_port") b = $(i + 1) } END { print (b == "" ? "-" : b) }'
}

# port_state [NS] DEV: the bridge port state word (forwarding, blocking...).
port_state() {
	if [ $# -eq 2 ]; then set -- "-n $1" "$2"; else set -- "" "$1"; fi
	bridge $1 link show dev "$2" | awk '{ for (i = 1; i < NF; i++) if ($i == "state") print $(i + 1) }'
}
