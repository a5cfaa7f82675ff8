# One switch on the full kernel: what the daemon does to br0 at start-up,
# on reconfiguration and at shutdown, read back from the kernel.
#
# Ring 5 (focal point, ports ra rb) and ring 7 (member, ports rc rd); the
# far ends pa..pd sit in namespace "peer" and inject test frames.
. "$RIG_SRC/rig/checks/lib.sh"
start_syslog

ip netns add peer
mkbridge
for p in a b c d; do
	ip link add r$p type veth peer name p$p netns peer
	ip link set r$p master br0
	ip link set r$p up
	ip -n peer link set p$p up
done
# The protocol VLANs already exist on br0 with the opposite multicast
# options, so that the daemon's own settings are what the checks see.
bridge vlan add dev br0 vid 4021 self
bridge vlan add dev br0 vid 4022 self
bridge vlan global set dev br0 vid 4021 mcast_snooping 0 mcast_querier 1
bridge vlan global set dev br0 vid 4022 mcast_snooping 0 mcast_querier 1

ring() { # id role portA portB
	printf 'zalk r%s {\n\tring-id = %s\n\tring-role = "%s"\n\tport a { name = "%s" }\n\tport b { name = "%s" }\n}\n' "$1" "$1" "$2" "$3" "$4"
}

# expect_filters "ID ROLE A B"...: every filter the instances call for,
# with the priorities a fresh daemon hands out: own groups in set-up
# order from 321, then the unconfigured rings 1..20 (groups 1 and 2 on
# every ring port), then version 0 at 300..302 on every ring port.
expect_filters() {
	prio=320
	ids=""
	ports=""
	for ins in "$@"; do
		set -- $ins
		ids="$ids $1 "
		ports="$ports $3 $4"
		for p in $3 $4; do
			ks="1"
			[ "$2" = focal ] && ks="1 2 3"
			for k in $ks; do
				prio=$((prio + 1))
				echo "$p pref $prio proto all mac $(group "$1" "$k") vlan - flags skip_hw"
			done
		done
	done
	for r in $(seq 1 20); do
		case "$ids" in *" $r "*) continue ;; esac
		for p in $ports; do
			for k in 1 2; do
				prio=$((prio + 1))
				echo "$p pref $prio proto 802.1Q mac $(group "$r" "$k") vlan 4021 flags -"
			done
		done
	done
	for p in $ports; do
		echo "$p pref 300 proto 802.1Q mac 01:00:5e:05:0a:02 vlan 4021 flags -"
		echo "$p pref 301 proto 802.1Q mac 01:00:5e:05:0a:09 vlan 4021 flags -"
		echo "$p pref 302 proto 802.1Q mac 01:00:5e:05:0a:0a vlan 4021 flags -"
	done
}

expect_mdb() {
	for ins in "$@"; do
		set -- $ins
		echo "br0 $(group "$1" 1) 4021"
		echo "br0 $(group "$1" 2) 4021"
		echo "br0 $(group "$1" 3) 4022"
		echo "br0 $(group "$1" 4) 4022"
		for p in $3 $4; do
			if [ "$2" = member ]; then
				echo "$p $(group "$1" 2) 4021"
				echo "$p $(group "$1" 3) 4022"
			fi
			echo "$p $(group "$1" 4) 4022"
		done
	done
}

all_filters() { for p in ra rb rc rd; do filters $p; done | sort; }
no_prio() { sed 's/ pref [0-9]*//' | sort; }

# ---- start-up ---------------------------------------------------------
{ ring 5 focal ra rb; ring 7 member rc rd; } > /etc/zalkv2d.conf
"$RIGCTL" mst-watch 120000 4021 ra rb rc rd > /tmp/mst-trace &
WATCH=$!
sleep 0.3
"$ZALKV2D" > /tmp/zalkv2d.out 2>&1 &
D=$!
EXP=$(expect_filters "5 focal ra rb" "7 member rc rd" | sort)
# Polling costs the emulated machine the time the daemon needs, so the
# waits look at one cheap sign: the version-0 filters on the last ring
# port are the last thing a (re)configuration installs.
last_filter() { tc filter show dev rd ingress pref 302 | grep -q "$1"; }
wait_for 120 last_filter 0a:0a || say "start-up not complete after 120 s"
sleep 1
kill $WATCH 2>/dev/null

same "start-up: the drop filters, their priorities, protocols, VLANs and skip_hw" "$EXP" "$(all_filters)"
same "start-up: VLANs 4021 and 4022 on br0 and tagged on every ring port" \
	"$(for p in br0 ra rb rc rd; do echo "$p 4021 -"; echo "$p 4022 -"; done | sort)" "$(vlans)"
same "start-up: per-VLAN snooping on, querier off, VLAN 4021 in MSTI 4021" \
	"vid 4021 msti 4021 mcast_snooping 1 mcast_querier 0
vid 4022 msti 0 mcast_snooping 1 mcast_querier 0" "$("$RIGCTL" vlan-global br0)"
same "start-up: multicast entries (bridge G1..G4, member ports G2..G4, focal ports G4)" \
	"$(expect_mdb "5 focal ra rb" "7 member rc rd" | sort)" "$(mdb)"
same "start-up: ring ports are each other's backup port" "rb ra rd rc" \
	"$(echo $(backup_of ra) $(backup_of rb) $(backup_of rc) $(backup_of rd))"
same "start-up: MSTI 4021 forwarding on every ring port at the end" \
	"$(printf '%s 4021 FORWARDING\n' ra rb rc rd)" "$("$RIGCTL" mst-show ra rb rc rd | grep ' 4021 ' | sort)"
# The ring ports' bridge states are what the daemon says it set (its
# status files); a state the kernel undid or refused shows up here.
same "start-up: the kernel holds the port states the daemon set" \
	"$(for r in 5:ra 5:rb 7:rc 7:rd; do echo "${r#*:} $(tr A-Z a-z < /var/run/zalkv2/${r%:*}/${r#*:}/physical_state)"; done)" \
	"$(for p in ra rb rc rd; do echo "$p $(port_state $p)"; done)"
# The trace of MSTI 4021 sampled from the kernel while the daemon set up:
# after the VLAN appears (NONE, then maybe DISABLED) each port must show
# BLOCKING before it is opened, and nothing else on the way.
for p in ra rb rc rd; do
	seq=$(awk -v p=$p '$2 == p && $3 != "NONE" && $3 != "DISABLED" { printf "%s ", $3 }' /tmp/mst-trace)
	same "start-up: $p in MSTI 4021 is BLOCKING during set-up, then FORWARDING" "BLOCKING FORWARDING " "$seq"
done

# ---- the filters really drop --------------------------------------------
ip netns exec peer "$RIGCTL" send pa "$(group 9 1)" 4021 5
ip netns exec peer "$RIGCTL" send pa "$(group 9 1)" 4022 4
ip netns exec peer "$RIGCTL" send pb 01:00:5e:05:0a:0a 4021 3
ip netns exec peer "$RIGCTL" send pc "$(group 7 1)" 0 6
sleep 0.3
same "drops: ring 9's group 1 in VLAN 4021 dropped on ra (and not in VLAN 4022)" 5 \
	"$(drops ra "$(pref_of ra "$(group 9 1)" 4021)")"
same "drops: version-0 frames dropped on rb" 3 "$(drops rb 302)"
same "drops: own group 1 dropped on the member's port rc whatever the VLAN" 6 \
	"$(drops rc "$(pref_of rc "$(group 7 1)" -)")"
kill -0 $D 2>/dev/null && pass "the daemon runs on after the foreign frames" || fail "the daemon died"

# ---- reconfiguration: ring 7 leaves, ring 9 comes ---------------------
OWN5=$(all_filters | grep ' proto all ' | grep -E '^r[ab] ')
{ ring 5 focal ra rb; ring 9 member rc rd; } > /etc/zalkv2d.conf
kill -HUP $D
EXP2=$(expect_filters "5 focal ra rb" "9 member rc rd" | no_prio)
# Ring 9's own group filter (protocol all); the drop filter for ring id 9
# that ring 7 had on rd carries the same address and is there at once.
own9() { filters rd | grep -q " proto all mac $(group 9 1) "; }
wait_for 150 own9 || say "ring 9 not set up after 150 s"
wait_for 150 last_filter 0a:0a || say "reconfiguration not complete after 150 s"
sleep 1
same "SIGHUP: exactly the filters the new set calls for" "$EXP2" "$(all_filters | no_prio)"
same "SIGHUP: no priority handed out twice" "" \
	"$(all_filters | awk '$3 > 302 { print $3 }' | sort | uniq -d)"
same "SIGHUP: the unchanged ring's own filters kept their priorities" "$OWN5" \
	"$(all_filters | grep ' proto all ' | grep -E '^r[ab] ')"
same "SIGHUP: exactly the multicast entries of rings 5 and 9" \
	"$(expect_mdb "5 focal ra rb" "9 member rc rd" | sort)" "$(mdb)"
same "SIGHUP: VLANs unchanged" \
	"$(for p in br0 ra rb rc rd; do echo "$p 4021 -"; echo "$p 4022 -"; done | sort)" "$(vlans)"
same "SIGHUP: MSTI 4021 forwarding on every ring port" \
	"$(printf '%s 4021 FORWARDING\n' ra rb rc rd)" "$("$RIGCTL" mst-show ra rb rc rd | grep ' 4021 ' | sort)"

# ---- shutdown, last instance, no version-0 daemon ------------------------
rm -f /var/run/zalkd.pid
kill -TERM $D
wait $D
same "shutdown: exit status 0" 0 $?
same "shutdown: no filter left on any ring port" "" "$(all_filters)"
same "shutdown: no multicast entry left" "" "$(mdb)"
same "shutdown: the protocol VLANs are gone from br0 and the ring ports" "" "$(vlans)"
same "shutdown: backup ports cleared" "- - - -" \
	"$(echo $(backup_of ra) $(backup_of rb) $(backup_of rc) $(backup_of rd))"
[ -e /var/run/zalkv2 ] && fail "shutdown: /var/run/zalkv2 remains" || pass "shutdown: /var/run/zalkv2 removed"

wait_started() { # PORTS: the filters of a focal ring 5 on PORTS are in
	eval last=\${$#}
	wait_for 90 sh -c "tc filter show dev $last ingress pref 302 | grep -q 0a:0a"
	sleep 1
}

# ---- shutdown while the version-0 daemon's pid file exists -------------
# (ring 5 on port A only: this is about br0's VLANs)
printf 'zalk r5 {\n\tring-id = 5\n\tring-role = "focal"\n\tport a { name = "ra" }\n}\n' > /etc/zalkv2d.conf
echo 999999 > /var/run/zalkd.pid
"$ZALKV2D" >> /tmp/zalkv2d.out 2>&1 &
D=$!
wait_started ra
kill -TERM $D
wait $D
same "pid file: br0 keeps VLANs 4021 and 4022, the ports lose theirs" "br0 4021 -
br0 4022 -" "$(vlans)"
same "pid file: no filter and no multicast entry left" "" "$(all_filters; mdb)"
rm -f /var/run/zalkd.pid

# ---- shutdown at runlevel 6: the instance stays ---------------------------
ring 5 focal ra rb > /etc/zalkv2d.conf
"$ZALKV2D" >> /tmp/zalkv2d.out 2>&1 &
D=$!
wait_started ra rb
echo 6 > /etc/rig-runlevel
kill -TERM $D
wait $D
same "runlevel 6: exit status 0" 0 $?
same "runlevel 6: only the instance's own filters stay" \
	"$(expect_filters "5 focal ra rb" | grep ' proto all ' | sort)" "$(all_filters)"
same "runlevel 6: multicast entries stay" "$(expect_mdb "5 focal ra rb" | sort)" "$(mdb)"
same "runlevel 6: VLANs stay" "$(for p in br0 ra rb; do echo "$p 4021 -"; echo "$p 4022 -"; done | sort)" "$(vlans)"
same "runlevel 6: backup ports stay" "rb ra" "$(echo $(backup_of ra) $(backup_of rb))"
same "runlevel 6: MSTI 4021 stays forwarding" "$(printf '%s 4021 FORWARDING\n' ra rb)" \
	"$("$RIGCTL" mst-show ra rb | grep ' 4021 ' | sort)"
[ -e /var/run/zalkv2 ] && fail "runlevel 6: /var/run/zalkv2 remains" || pass "runlevel 6: /var/run/zalkv2 removed"
rm -f /etc/rig-runlevel

finish
