# The Debian package as a switch gets it: installed with dpkg -i in this
# guest before the check runs (rig/run.sh with RIG_DEB; run-suite.sh
# always passes the package it builds). What dpkg installed and enabled,
# the unit as systemd-analyze reads it, the unit's own command lines run
# as systemd would run them (condition, check before start and reload,
# SIGHUP, SIGTERM), and removal and purge.
. "$RIG_SRC/rig/checks/lib.sh"
start_syslog

[ "$RIG_PACKAGE" = 1 ] || { fail "the package is installed (run with RIG_DEB set)"; finish; }
UNIT=/lib/systemd/system/zalkv2d.service
same "dpkg: installed and configured" "install ok installed" "$(dpkg-query -W -f='${Status}' zalkv2d)"
same "dpkg: the programs are the package's" "zalkv2d: /usr/sbin/zalkctl
zalkv2d: /usr/sbin/zalkv2d" "$(dpkg -S /usr/sbin/zalkv2d /usr/sbin/zalkctl 2>&1 | sort)"
same "dpkg: /etc/zalkv2d.conf is a conffile" "/etc/zalkv2d.conf" \
	"$(dpkg-query -W -f='${Conffiles}\n' zalkv2d | awk 'NF {print $1}')"
same "postinst: the service is enabled" "$UNIT" \
	"$(readlink /etc/systemd/system/multi-user.target.wants/zalkv2d.service)"
out=$(systemd-analyze verify "$UNIT" 2>&1)
same "systemd-analyze verify accepts the installed unit" "0 " "$? $out"
for page in zalkv2d.8 zalkv2d.conf.5 zalkctl.8; do
	out=$(man --warnings "${page##*.}" "${page%.*}" 2>&1 >/dev/null)
	same "man --warnings: ${page%.*}(${page##*.}) installed, no warning" "0 " "$? $out"
done

# unit_cmds KEY: the unit's command lines for KEY, as systemd runs them
# ($$ is a dollar, $MAINPID the daemon).
unit_cmds() {
	sed -n "s/^$1=//p" "$UNIT" | sed 's/\$\$/$/g' | sed "s/\\\$MAINPID/${MAINPID:-0}/g"
}
# run_unit KEY: runs KEY's command lines in order, stops at the first that
# fails, as systemd does; prints the last status.
run_unit() {
	unit_cmds "$1" > /tmp/unit-cmds
	while read -r cmd; do
		sh -c "$cmd" > /tmp/unit-out 2>&1 || { echo $?; return; }
	done < /tmp/unit-cmds
	echo 0
}

# The template holds no ring: the condition keeps the daemon from starting.
same "condition: not met by the installed template (no ring)" 1 "$(run_unit ExecCondition)"
same "condition: the template passes zalkctl check" 0 "$(run_unit ExecStartPre)"
EXAMPLE=/usr/share/doc/zalkv2d/examples/zalkv2d.conf
out=$($ZALKCTL check "$EXAMPLE" 2>&1)
same "zalkctl check: the example configuration has no error" "0 " "$? $(printf '%s\n' "$out" | grep '^error')"

# A switch with one ring, started, reloaded and stopped by the unit's own
# command lines. The daemon runs with the unit's capability bounding set
# and without new privileges (as systemd would start it), so the bridge
# requests, the tc and bridge commands it runs and its real-time priority
# show whether those capabilities are enough.
caps=$(sed -n 's/^CapabilityBoundingSet=//p' "$UNIT" | tr 'A-Z' 'a-z' | sed 's/cap_/+/g; s/ /,/g')
mkbridge
for p in ra rb; do
	ip link add $p type veth peer name x$p
	ip link set $p master br0
	ip link set $p up
	ip link set x$p up
done
ring() { printf 'zalk r {\n\tring-id = %d\n\tring-role = "focal"\n\tport a { name = "ra" }\n\tport b { name = "rb" }\n}\n' "$1"; }
ring 5 > /etc/zalkv2d.conf
same "condition: met once the file holds a ring" 0 "$(run_unit ExecCondition)"
same "start: zalkctl check passes the file" 0 "$(run_unit ExecStartPre)"
setpriv --no-new-privs --bounding-set "-all,$caps" sh -c "exec $(unit_cmds ExecStart)" > /tmp/zalkv2d.out 2>&1 &
MAINPID=$!
wait_for 20 test -f /run/zalkv2/5/state || fail "start: ring 5 set up by the installed daemon"
same "start: the installed daemon runs ring 5 as focal point" "focal-point" "$(cat /run/zalkv2/5/type 2>/dev/null)"
# CAP_NET_ADMIN 12, CAP_NET_RAW 13, CAP_SYS_NICE 23
same "start: the daemon's bounding set is the unit's ($caps)" "0000000000803000" \
	"$(awk '/^CapBnd:/ {print $2}' /proc/$MAINPID/status)"
# The priority is raised once every ring is set up and its filters are in.
wait_for 60 sh -c "chrt -p $MAINPID | grep -q SCHED_FIFO"
has "start: real-time priority taken with those capabilities" "SCHED_FIFO" "$(chrt -p $MAINPID)"
has "start: VLANs 4021 and 4022 on ring port ra (bridge netlink)" "4022" "$(bridge vlan show dev ra)"
has "start: drop filters on ring port ra (tc run by the daemon)" "gact action drop" \
	"$(tc filter show dev ra ingress)"
has "start: backup port set (bridge run by the daemon)" "backup_port rb" "$(bridge -d link show dev ra)"
hasnt "start: nothing refused for want of a capability" "Operation not permitted|Permission denied|Failed raising" \
	"$(cat /tmp/rig-syslog /tmp/zalkv2d.out)"

echo 'zalk r { ring-id = 6 ring-role = "focal" port a { name = "ra" } bogus = 1 }' > /etc/zalkv2d.conf
same "reload of a broken file: refused by zalkctl check" 1 "$(run_unit ExecReload)"
sleep 1
if kill -0 $MAINPID 2>/dev/null && [ -d /run/zalkv2/5 ]; then
	pass "reload of a broken file: the daemon and ring 5 run on"
else
	fail "reload of a broken file: the daemon and ring 5 run on" "$(cat /tmp/zalkv2d.out)"
fi
ring 6 > /etc/zalkv2d.conf
same "reload: check passes, SIGHUP sent" 0 "$(run_unit ExecReload)"
wait_for 20 test -f /run/zalkv2/6/state || fail "reload: ring 6 replaces ring 5" "$(ls /run/zalkv2)"
same "reload: ring 6 replaces ring 5" "6" "$(ls /run/zalkv2)"
kill -TERM $MAINPID
wait $MAINPID
same "stop: SIGTERM ends the daemon with status 0" 0 $?
same "stop: the status tree is gone" "" "$(ls -d /run/zalkv2 2>/dev/null)"

# Removal keeps the configuration; purge takes it and the service's links.
dpkg -r zalkv2d > /tmp/dpkg-r.log 2>&1
same "dpkg -r: removed" "0 config-files" "$? $(dpkg-query -W -f='${db:Status-Status}' zalkv2d)"
same "dpkg -r: programs, unit and manuals gone, configuration kept" "/etc/zalkv2d.conf" \
	"$(ls -d /usr/sbin/zalkv2d /usr/sbin/zalkctl $UNIT /usr/share/man/man8/zalkv2d.8.gz /etc/zalkv2d.conf 2>/dev/null)"
dpkg -P zalkv2d > /tmp/dpkg-p.log 2>&1
same "dpkg -P: purged, configuration and service links gone" "0 " \
	"$? $(ls /etc/zalkv2d.conf /etc/systemd/system/zalkv2d.service /etc/systemd/system/multi-user.target.wants/zalkv2d.service 2>/dev/null)"
finish
