# A ring of three switches on the full kernel, each with its own br0
# (VLAN filtering, MST) and its own daemon:
#
#   s1.rb -- s2.ra    s2.rb -- s3.ra    s3.rb -- s1.ra
#
# s1 is the focal point of ring 3 and keeps its port A (ra) blocked while
# the ring is closed. s1 also has an observer: bridge port hs, whose far
# end ho (not bridged) counts what the bridge delivers in VLANs 10 and 4021.
# s2 has one too (s2.hs, far end s2.ho). Test frames enter s1.ra from s3's
# side, sent straight out of s3.rb.
#
# s1 lives in the guest's initial network namespace and runs the daemon
# itself: only a bridge of the initial namespace can hand STP to user
# space, and only there does a BLOCKING set by the daemon stay (see
# mkbridge). The members s2 and s3 live in their own namespaces, where the
# bridge runs no STP and would put a BLOCKING port straight back to
# forwarding; they run zalkv2d-lab, the same daemon whose BLOCKING
# requests reach the bridge as DISABLED, which the kernel leaves alone.
# With MST on, the plain port state is mirrored into MSTI 0, so DISABLED
# stops VLAN 10 there while MSTI 4021 still lets the management VLAN pass.
#
# One difference stays: when a link's carrier returns, a bridge without
# STP makes the port forward at once, where a user-STP bridge brings it up
# blocking until its daemon opens it. So the heal below holds both ends of
# the returning link (everything arriving dropped at ingress), puts each
# back into the state its daemon last set, and only then lifts the hold.

# in_sw S COMMAND...: runs COMMAND in switch S's network namespace.
in_sw() {
	s=$1
	shift
	if [ "$s" = s1 ]; then "$@"; else ip netns exec "$s" "$@"; fi
}
. "$RIG_SRC/rig/checks/lib.sh"
start_syslog

say "The members s2 and s3 run zalkv2d-lab (their BLOCKING reaches the kernel as DISABLED) and the focal point s1 runs zalkv2d."

OBS=02:00:00:00:00:99
# Unicast targets of the crossing test (see crossing()).
D1=02:00:00:00:00:a1
D2=02:00:00:00:00:a2
BCAST=ff:ff:ff:ff:ff:ff
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
	# The long response delay keeps the members' returning ports blocked
	# long enough after a heal to look at them before the focal point
	# answers: the checks of the held state take several seconds under
	# emulation, twice that on a busy host.
	cat > /etc/rig-$s.conf <<EOF
zalk ring3 {
	ring-id = 3
	ring-role = "$role"
	ring-interval = 200
	response-delay = 15000
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
ip -n s2 link add hs type veth peer name ho
ip -n s2 link set hs master br0
ip -n s2 link set hs up
ip -n s2 link set ho up
bridge -n s2 vlan add dev hs vid 10

# Loop watch for the whole run: a VLAN 10 broadcast from s1.ho every
# 100 ms. Without a loop none ever comes back to s1.ho, while s2.ho, one
# hop along, sees them.
"$RIGCTL" count ho $BCAST 900000 > /tmp/bcast-back &
BC1=$!
ip netns exec s2 "$RIGCTL" count ho $BCAST 900000 > /tmp/bcast-s2 &
BC2=$!
sleep 0.5
"$RIGCTL" send ho $BCAST 10 100000 100 &
BSEND=$!

: > /etc/zalkv2d.conf
for s in s1 s2 s3; do
	# Each daemon gets its own /var/run, /tmp and configuration file.
	ns="ip netns exec $s"
	bin=$ZALKV2D_LAB
	[ $s = s1 ] && ns="unshare -m" && bin=$ZALKV2D
	# (the binary is kept open across the mounts: the build tree may lie below /tmp)
	$ns sh -c "exec 9<\"$bin\" && mount -t tmpfs run /run && mount -t tmpfs tmp /tmp &&
		mount --bind /etc/rig-$s.conf /etc/zalkv2d.conf && exec /proc/self/fd/9" > /tmp/zalkv2d-$s.out 2>&1 &
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
# The counts end a moment after the last frame is sent, not after a fixed
# window: under emulation a send alone can take a second.
observe() {
	"$RIGCTL" count ho $OBS 30000 > /tmp/observed &
	_c=$!
	sleep 0.3
	ip netns exec s3 "$RIGCTL" send rb $OBS "$1" "$2"
	sleep 0.3
	kill -TERM $_c
	wait $_c
	cat /tmp/observed
}
# crossing: what crosses the link s3.ra -> s2.rb in VLANs 10 and 4021,
# three frames each, tested at each end on its own: "EGRESS / INGRESS".
#   EGRESS: D1 sent out of s1.ra enters s3 by s3.rb and leaves by s3.ra
#     (a static entry sends it there); counted as it arrives at s2.rb,
#     before s2's bridge sees it.
#   INGRESS: D2 sent straight out of s3.ra enters s2's bridge by s2.rb
#     and reaches s2.ho (static entry).
crossing() {
	ip netns exec s2 "$RIGCTL" count rb $D1 30000 > /tmp/cross-egress &
	_c1=$!
	ip netns exec s2 "$RIGCTL" count ho $D2 30000 > /tmp/cross-ingress &
	_c2=$!
	sleep 0.5
	for v in 10 4021; do
		"$RIGCTL" send ra $D1 $v 3
		ip netns exec s3 "$RIGCTL" send ra $D2 $v 3
	done
	sleep 0.3
	kill -TERM $_c1 $_c2
	wait $_c1 $_c2
	echo "$(cat /tmp/cross-egress) / $(cat /tmp/cross-ingress)"
}
# msti_states NS DEV: "state M0 S0 M1 S1": the bridge port state, then
# each MSTI of the port with its state.
msti_states() {
	echo $(port_state $1 $2) $(in_sw $1 "$RIGCTL" mst-show $2 | awk '{ print $2, $3 }')
}
# The state a member's daemon last asked for on a port (its status file).
last_set() { eval cat /proc/\$D$1/root/run/zalkv2/3/$2/physical_state; }
# hold S P / release S P: while a link comes back, everything arriving at
# either end is dropped at ingress, so nothing is bridged across it (the
# daemons' packet sockets see frames before that).
hold() { in_sw $1 tc filter add dev $2 ingress pref 1 protocol all flower action drop; }
release() { in_sw $1 tc filter del dev $2 ingress pref 1; }
returned() { [ "$(port_state s2 rb)" = forwarding ] && [ "$(port_state s3 ra)" = forwarding ]; }

t=$(date +%s)
wait_for 120 closed
same "closes with exactly one blocked port, the focal point's port A" "s1.ra " "$(blocked)"
say "ring closed $(($(date +%s) - t)) s after the daemons started"

# A host on an access port of a data VLAN (s2.ha: VLAN 10, untagged)
# sends protocol frames of every type: untagged, tagged with its own VLAN,
# and tagged 4021 and 4022, which s2's bridge must refuse at that port.
# The ring does not move: no request reaches any ring port (each port
# state set and each FDB flush is announced for its port), s1.ra stays
# the one blocked port. Meanwhile s1.ra drops whatever arrives (its
# daemon's packet socket still sees every frame), so that a daemon fooled
# into opening it makes no loop: a loop would flood the guest.
ip -n s2 link add ha type veth peer name hx
ip -n s2 link set ha master br0
ip -n s2 link set ha up
ip -n s2 link set hx up
bridge -n s2 vlan add dev ha vid 10 pvid untagged
for s in s1 s2 s3; do
	in_sw $s bridge monitor link > /tmp/announced-$s &
	eval MON$s=$!
done
hold s1 ra
sleep 0.5
for vid in 0 10 4021 4022; do
	ip netns exec s2 "$RIGCTL" frame hx 3 0 $vid 1
done
sleep 2
kill -TERM $MONs1 $MONs2 $MONs3
wait $MONs1 $MONs2 $MONs3 2>/dev/null
same "access-port frames of every type: no port state set or FDB flush on any ring port (announcements)" 0 \
	"$(cat /tmp/announced-s1 /tmp/announced-s2 /tmp/announced-s3 | grep -cE '^[0-9]+: r[ab][@:]')"
same "access-port frames of every type: still one blocked port, s1.ra" "s1.ra " "$(blocked)"
release s1 ra

# The management VLAN passes the blocked port (MSTI 4021 forwarding); the
# observer ports join VLAN 4021 now that the daemons have made its MSTI.
bridge vlan add dev hs vid 4021
bridge fdb add $OBS dev hs master static vlan 4021
"$RIGCTL" mst-set hs 4021 forwarding
bridge -n s2 vlan add dev hs vid 4021
ip netns exec s2 "$RIGCTL" mst-set hs 4021 forwarding
for v in 10 4021; do
	bridge -n s2 fdb add $D1 dev hs master static vlan $v
	bridge -n s2 fdb add $D2 dev hs master static vlan $v
	bridge -n s3 fdb add $D1 dev ra master static vlan $v
done
# s1.hs is in VLAN 4021 now and no ring port: zalkctl check says so.
same "zalkctl check: a port of br0 in VLAN 4021 that is no ring port is warned of" \
	"warning: br0: port hs is a member of VLAN 4021 and no ring port: whoever is behind it can send frames the rings take for their own" \
	"$("$ZALKCTL" check /etc/rig-s1.conf | grep '^warning: br0')"
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

# From here to the end of the heal, the six ring ports sampled together:
# port state and MSTI 4021 state, s1.ra read before the members and again
# after them, so that a member seen open in a round where s1.ra is not yet
# blocked did open first, and a round counts as a loop only when s1.ra was
# open at both reads (a round that straddles the cut, members read before
# it and s1 after its port opened, is no loop).
RING_PORTS="ra s2/ra s2/rb s3/ra s3/rb rb ra"
"$RIGCTL" port-watch 120000 4021 $RING_PORTS > /tmp/watch &
WATCH=$!
sleep 0.5

# Cut s2 -- s3: the focal point opens its port, the ports at the cut block.
ip -n s2 link set rb down
t=$(date +%s%N)
wait_for 30 sh -c '[ "$(bridge link show dev ra | grep -o "state [a-z]*")" = "state forwarding" ]'
say "s1.ra forwarding $((($(date +%s%N) - t) / 1000000)) ms after the cut (sampled)"
sleep 1
same "cut: the focal point's port is open, the cut ends block" "s2.rb s3.ra " "$(blocked)"
same "cut: the members at the break forward on their up ports (port, MSTI 0)" \
	"s2.ra forwarding 0 FORWARDING / s3.rb forwarding 0 FORWARDING" \
	"s2.ra $(msti_states s2 ra | cut -d' ' -f1-3) / s3.rb $(msti_states s3 rb | cut -d' ' -f1-3)"
same "cut: VLAN 10 passes s1.ra now" "3 10 10 10" "$(observe 10 3)"

# Heal, as a switch with STP in user space would see it: the returning
# ends come back as their daemons left them (see the top). The focal
# point's first answer is held back (its group-2 frames dropped as they
# leave s1: Link Responses; Trig frames are not sent here), so that its
# blocking s1.ra and its answer can be told apart in time.
for p in ra rb; do
	tc filter add dev $p egress pref 1 protocol all flower dst_mac "$(group 3 2)" action drop
done
hold s2 rb
hold s3 ra
kill -USR1 $WATCH
ip -n s2 link set rb up
t=$(date +%s%N)
wait_for 10 returned || fail "heal: the carrier of s2.rb -- s3.ra did not return"
last2=$(last_set s2 rb)
last3=$(last_set s3 ra)
[ "$last2" = FORWARDING ] || bridge -n s2 link set dev rb state 0
[ "$last3" = FORWARDING ] || bridge -n s3 link set dev ra state 0
release s2 rb
release s3 ra
kill -USR1 $WATCH
say "link back up; the daemons had left s2.rb $last2, s3.ra $last3; hold lifted after $((($(date +%s%N) - t) / 1000000)) ms"

# Until the focal point answers, the returning ports stay blocked: VLAN 10
# neither leaves s3.ra nor enters s2.rb, VLAN 4021 does both.
same "heal: VLAN 10 neither leaves s3.ra nor enters s2.rb; VLAN 4021 does" \
	"3 4021 4021 4021 / 3 4021 4021 4021" "$(crossing)"
same "heal: s2.rb held blocked (port disabled, MSTI 0 DISABLED, MSTI 4021 FORWARDING)" \
	"disabled 0 DISABLED 4021 FORWARDING" "$(msti_states s2 rb)"
same "heal: s3.ra held blocked (port disabled, MSTI 0 DISABLED, MSTI 4021 FORWARDING)" \
	"disabled 0 DISABLED 4021 FORWARDING" "$(msti_states s3 ra)"
same "heal: s1.ra was still open all along those checks (the focal point had not answered)" \
	forwarding "$(port_state ra)"

# The focal point blocks s1.ra; its answer does not get out: the
# returning ports stay blocked.
wait_for 40 sh -c '[ "$(bridge link show dev ra | grep -o "state [a-z]*")" = "state blocking" ]'
sleep 1.5
same "heal: s1.ra blocked, its answer held back: s2.rb and s3.ra still blocked" \
	"blocking / disabled 0 DISABLED / disabled 0 DISABLED" \
	"$(port_state ra) / $(msti_states s2 rb | cut -d' ' -f1-3) / $(msti_states s3 ra | cut -d' ' -f1-3)"
# Let its answers out: the members announce on, the next one opens them.
for p in ra rb; do
	tc filter del dev $p egress pref 1
done
kill -USR1 $WATCH
u=$(date +%s%N)
wait_for 90 closed
same "heal: closed again with one blocked port, s1.ra" "s1.ra " "$(blocked)"
say "ring closed again $((($(date +%s%N) - t) / 1000000)) ms after the heal, $((($(date +%s%N) - u) / 1000000)) ms after the answers were let out"
kill -TERM $WATCH
wait $WATCH

# watched WHAT: reads the samples, "MS PORT=STATE/MSTI4021STATE ...
# [mark N]" (mark 1: the hold is in place; 2: it is lifted; 3: the focal
# point's answers are let out), and prints the offending samples (msti,
# loop, cut, early), the states at mark 2 and at the end (first, last)
# or the heal's timing (times).
watched() {
	awk -v want="$1" '
		/ mark 1$/ { held = 1 } / mark 2$/ { held = 0; after = 1 } / mark 3$/ { answered = 1 }
		{ all = 1; mbad = 0
		  for (i = 2; i <= NF; i++) if ($i ~ /=/) {
			split($i, kv, "="); split(kv[2], sm, "/"); st[kv[1]] = sm[1]
			if (sm[1] != "FORWARDING") all = 0
			if (sm[2] != "FORWARDING") mbad = 1 } }
		want == "msti" && mbad { print $0 }
		want == "loop" && all && !held { print $0 }
		want == "cut" && !held && !after && (st["s2/ra"] != "FORWARDING" || st["s3/rb"] != "FORWARDING") { print $0 }
		want == "early" && after && !answered && (st["s2/rb"] == "FORWARDING" || st["s3/ra"] == "FORWARDING") { print $0 }
		want == "first" && after && !shown { print "s2/rb=" st["s2/rb"], "s3/ra=" st["s3/ra"], "ra=" st["ra"]; shown = 1 }
		want == "times" && after {
			if (t0 == "") t0 = $1
			if (tb == "" && st["ra"] == "BLOCKING") tb = $1
			if (answered && ta == "") ta = $1
			if (t2 == "" && st["s2/rb"] == "FORWARDING") t2 = $1
			if (t3 == "" && st["s3/ra"] == "FORWARDING") t3 = $1 }
		END { if (want == "times") printf "s1.ra blocked %d ms after the hold was lifted, answers let out %d ms later; s2.rb opened %d ms, s3.ra %d ms after that\n", tb - t0, ta - tb, t2 - ta, t3 - ta
		      if (want == "last") print "s2/rb=" st["s2/rb"], "s3/ra=" st["s3/ra"], "ra=" st["ra"] }' /tmp/watch
}
same "MSTI 4021 forwarding on every ring port in every sample, cut and heal" "" "$(watched msti)"
same "cut: s2.ra and s3.rb, the up ports at the break, forwarded in every sample" "" "$(watched cut)"
same "heal: when the hold was lifted, s2.rb and s3.ra blocked (disabled), s1.ra open" \
	"s2/rb=DISABLED s3/ra=DISABLED ra=FORWARDING" "$(watched first)"
same "heal: no returning port forwarded before the focal point's answers got out" "" "$(watched early)"
same "heal: at the end s1.ra blocked, the returning ports forwarding" \
	"s2/rb=FORWARDING s3/ra=FORWARDING ra=BLOCKING" "$(watched last)"
same "no sample with all six ring ports forwarding (the rig's hold aside)" "" "$(watched loop)"
say "$(watched times)"

same "heal: VLAN 10 crosses s3.ra and s2.rb now, VLAN 4021 too" \
	"6 10 10 10 4021 4021 4021 / 6 10 10 10 4021 4021 4021" "$(crossing)"
same "heal: VLAN 10 blocked again at s1.ra, VLAN 4021 passes" "0 / 2 4021 4021" "$(observe 10 2) / $(observe 4021 2)"

# The loop watch: broadcasts went round, none came back.
{ kill -TERM $BSEND; wait $BSEND; } 2>/dev/null
sleep 0.3
kill -TERM $BC1 $BC2
wait $BC1 $BC2
back=$(cut -d' ' -f1 /tmp/bcast-back)
reached=$(cut -d' ' -f1 /tmp/bcast-s2)
say "broadcasts from s1.ho seen at s2.ho: $reached; back at s1.ho: $back"
same "no loop at any time: no broadcast came back round the ring" 0 "$back"
has "the loop watch ran: s2.ho saw broadcasts from s1.ho" '^[1-9][0-9]+$' "$reached"

for s in s1 s2 s3; do
	eval kill -TERM \$D$s
done
for s in s1 s2 s3; do
	eval wait \$D$s
	same "$s: daemon exits with status 0" 0 $?
done
finish
