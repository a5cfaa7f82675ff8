# A ring of three switches on the full kernel, each with its own br0
# (VLAN filtering, MST) and its own daemon:
#
#   s1.rb -- s2.ra    s2.rb -- s3.ra    s3.rb -- s1.ra
#
# s1 is the focal point of ring 3 and keeps its port A (ra) blocked while
# the ring is closed. s1 also has an observer: bridge port hs, whose far
# end ho (not bridged) counts what the bridge delivers in VLANs 10 and 4021.
# Test frames enter s1.ra from s3's side, sent straight out of s3.rb.
#
# s1 lives in the guest's initial network namespace, s2 and s3 in their
# own. Only a bridge of the initial namespace can hand STP to user space,
# and only there does a BLOCKING set by the daemon stay (see mkbridge):
# the members' bridges put their ports back to forwarding, so what is
# checked of them is the ring as the focal point keeps it.

# in_sw S COMMAND...: runs COMMAND in switch S's network namespace.
in_sw() {
	s=$1
	shift
	if [ "$s" = s1 ]; then "$@"; else ip netns exec "$s" "$@"; fi
}
. "$RIG_SRC/rig/checks/lib.sh"
start_syslog

OBS=02:00:00:00:00:99
mkbridge
for s in s2 s3; do
	ip netns add $s
	mkbridge $s
done
# wire SA PA SB PB: a veth from port PA of switch SA to PB of SB; made
# under unique names first, since both ends share names across switches.
wire() {
	ip link add t$1 type veth peer name t$3
	for e in "$1 $2" "$3 $4"; do
		set -- $e
		[ $1 = s1 ] || ip link set t$1 netns $1
		in_sw $1 ip link set t$1 name $2
	done
}
wire s1 rb s2 ra
wire s2 rb s3 ra
wire s3 rb s1 ra
for s in s1 s2 s3; do
	for p in ra rb; do
		in_sw $s ip link set $p master br0
		in_sw $s ip link set $p up
		in_sw $s bridge vlan add dev $p vid 10
	done
	role=member
	[ $s = s1 ] && role=focal
	cat > /etc/rig-$s.conf <<EOF
zalk ring3 {
	ring-id = 3
	ring-role = "$role"
	ring-interval = 200
	response-delay = 500
	port a { name = "ra"
		hello-time = 200 }
	port b { name = "rb"
		hello-time = 200 }
}
EOF
done
ip link add hs type veth peer name ho
ip link set hs master br0
ip link set hs up
ip link set ho up
# With STP in user space a new port starts blocking; nothing runs STP here.
bridge link set dev hs state 3
bridge vlan add dev hs vid 10
bridge fdb add $OBS dev hs master static vlan 10

: > /etc/zalkv2d.conf
for s in s1 s2 s3; do
	# Each daemon gets its own /var/run, /tmp and configuration file.
	ns="ip netns exec $s"
	[ $s = s1 ] && ns="unshare -m"
	$ns sh -c "mount -t tmpfs run /run && mount -t tmpfs tmp /tmp &&
		mount --bind /etc/rig-$s.conf /etc/zalkv2d.conf && exec \"$ZALKV2D\"" > /tmp/zalkv2d-$s.out 2>&1 &
	eval D$s=$!
done

# "s1 ra forwarding" lines for all six ring ports.
states() {
	for s in s1 s2 s3; do
		in_sw $s bridge link show | awk -v s=$s '{ n = $2; sub(/@.*/, "", n); sub(/:$/, "", n)
			for (i = 1; i < NF; i++) if ($i == "state") st = $(i + 1)
			if (n == "ra" || n == "rb") print s, n, st }'
	done
}
blocked() { states | awk '$3 != "forwarding" { printf "%s.%s ", $1, $2 }'; }
closed() { [ "$(blocked)" = "s1.ra " ]; }
# observe VID COUNT: sends COUNT frames in VID out of s3.rb into s1.ra and
# prints what reaches the observer: the count, then each frame's VID.
observe() {
	"$RIGCTL" count ho $OBS 3000 > /tmp/observed &
	sleep 0.3
	ip netns exec s3 "$RIGCTL" send rb $OBS "$1" "$2"
	wait $!
	cat /tmp/observed
}

t=$(date +%s)
wait_for 120 closed
same "closes with exactly one blocked port, the focal point's port A" "s1.ra " "$(blocked)"
say "ring closed $(($(date +%s) - t)) s after the daemons started"

# The management VLAN passes the blocked port (MSTI 4021 forwarding); the
# observer port joins VLAN 4021 now that the daemon has made its MSTI.
bridge vlan add dev hs vid 4021
bridge fdb add $OBS dev hs master static vlan 4021
"$RIGCTL" mst-set hs 4021 forwarding
same "s1.ra: blocking as a port, forwarding in MSTI 4021" "blocking 4021 FORWARDING" \
	"$(port_state ra) $("$RIGCTL" mst-show ra | awk '$2 == 4021 { print $2, $3 }')"
same "VLAN 4021 passes the blocked port" "3 4021 4021 4021" "$(observe 4021 3)"
same "VLAN 10 does not pass the blocked port" "0" "$(observe 10 3)"

# Foreign and version-0 frames are dropped at s1.ra; the ring's own
# frames still pass: it stays closed.
ip netns exec s3 "$RIGCTL" send rb "$(group 9 1)" 4021 5
ip netns exec s3 "$RIGCTL" send rb 01:00:5e:05:0a:02 4021 4
sleep 0.3
same "foreign ring 9 dropped at s1.ra" 5 \
	"$(drops ra "$(pref_of ra "$(group 9 1)" 4021)")"
same "version-0 frame dropped at s1.ra" 4 "$(drops ra 300)"
sleep 2
same "the ring stays closed: its own protocol still runs" "s1.ra " "$(blocked)"

# Cut s2 -- s3: the focal point opens its port, the ports at the cut block.
ip -n s2 link set rb down
t=$(date +%s%N)
wait_for 30 sh -c '[ "$(bridge link show dev ra | grep -o "state [a-z]*")" = "state forwarding" ]'
say "s1.ra forwarding $((($(date +%s%N) - t) / 1000000)) ms after the cut (sampled)"
sleep 1
same "cut: the focal point's port is open, the cut ends block" "s2.rb s3.ra " "$(blocked)"
same "cut: VLAN 10 passes s1.ra now" "3 10 10 10" "$(observe 10 3)"

# Heal: the ring closes again with the focal point's port A blocked.
ip -n s2 link set rb up
t=$(date +%s)
wait_for 90 closed
same "heal: closed again with one blocked port, s1.ra" "s1.ra " "$(blocked)"
say "ring closed again $(($(date +%s) - t)) s after the heal"
same "heal: VLAN 10 blocked again, VLAN 4021 passes" "0 / 2 4021 4021" "$(observe 10 2) / $(observe 4021 2)"

for s in s1 s2 s3; do
	eval kill -TERM \$D$s
done
for s in s1 s2 s3; do
	eval wait \$D$s
	same "$s: daemon exits with status 0" 0 $?
done
finish
