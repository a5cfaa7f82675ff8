# rig: systemd
# The Debian package as a switch gets it, under systemd as PID 1 in a
# Debian root of its own: installed with dpkg -i before the check runs
# (its maintainer scripts make the user and enable the service), then the
# unit as shipped, sandbox and all: start, reload, restart after a crash,
# after a stray SIGTERM and after a hang (the watchdog), stop, and purge,
# with the ring ports' frames watched meanwhile. Timings are printed.
. "$RIG_SRC/rig/checks/lib.sh"

[ "$RIG_PACKAGE" = 1 ] || { fail "the package is installed (run with RIG_DEB set)"; finish; }
U=zalkv2d.service
same "dpkg: installed and configured, service enabled, user made" "install ok installed enabled zalkv2d" \
	"$(dpkg-query -W -f='${Status}' zalkv2d) $(systemctl is-enabled $U) $(id -un zalkv2d)"
# The template holds no ring: the condition keeps the daemon from starting,
# which is no failure and no reason to restart.
same "postinst start: condition not met by the template, no restart" "inactive exec-condition 0" \
	"$(systemctl show -P ActiveState $U) $(systemctl show -P Result $U) $(systemctl show -P NRestarts $U)"

sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
mkbridge
for p in ra rb; do
	ip link add $p type veth peer name x$p
	ip link set $p master br0
	ip link set $p up
	ip link set x$p up
done
ring() { printf 'zalk r {\n\tring-id = %d\n\tring-role = "focal"\n\tport a { name = "ra" }\n\tport b { name = "rb" }\n}\n' "$1"; }
# frames IF: frames the daemon sent out of the ring port whose peer is IF
# in half a second (nothing else sends there).
frames() {
	_a=$(cat /sys/class/net/$1/statistics/rx_packets)
	sleep 0.5
	echo $(($(cat /sys/class/net/$1/statistics/rx_packets) - _a))
}
main_pid() { systemctl show -P MainPID $U; }
# up_again OLD_PID: waits for a new daemon that has set ring 6 up again
# and said it is ready; prints the seconds since $t.
up_again() {
	wait_for 60 sh -c "[ \"\$(systemctl show -P MainPID $U)\" != 0 ] && [ \"\$(systemctl show -P MainPID $U)\" != $1 ] &&
		[ \"\$(systemctl show -P ActiveState $U)\" = active ] && [ -f /run/zalkv2/6/state ]"
	echo "$t $(date +%s.%N)" | awk '{printf "%.1f", $2 - $1}'
}
journal() { journalctl -q -o cat -u $U --no-pager; }

ring 5 > /etc/zalkv2d.conf
t=$(date +%s.%N)
systemctl start $U
same "start: active (Type=notify: READY=1 after the rings are set up)" "active focal-point" \
	"$(systemctl show -P ActiveState $U) $(cat /run/zalkv2/5/type 2>/dev/null)"
say "     start took $(echo "$t $(date +%s.%N)" | awk '{printf "%.1f", $2 - $1}') s"
PID=$(main_pid)
# CAP_KILL 5, CAP_NET_ADMIN 12, CAP_NET_RAW 13, CAP_SYS_NICE 23
same "start: runs as zalkv2d with the unit's capabilities, ambient too" "zalkv2d 0000000000803020 0000000000803020" \
	"$(ps -o user= -p $PID) $(awk '/^CapEff:/ {e = $2} /^CapAmb:/ {a = $2} END {print e, a}' /proc/$PID/status)"
same "start: OOM score adjusted, watchdog armed" "-900 5s" \
	"$(cat /proc/$PID/oom_score_adj) $(systemctl show -P WatchdogUSec $U)"
wait_for 30 sh -c "chrt -p $PID | grep -q SCHED_FIFO"
has "start: real-time priority taken in the sandbox" "SCHED_FIFO" "$(chrt -p $PID)"
has "start: VLANs 4021 and 4022 on ring port ra (bridge netlink)" "4022" "$(bridge vlan show dev ra)"
has "start: drop filters on ring port ra (tc, run by the daemon as zalkv2d)" "gact action drop" \
	"$(tc filter show dev ra ingress)"
has "start: backup port set (bridge, run by the daemon as zalkv2d)" "backup_port rb" "$(bridge -d link show dev ra)"
same "start: the status tree is the service's, readable by all" "zalkv2d 755" "$(stat -c '%U %a' /run/zalkv2)"
# (The bridge's own complaints, such as a unicast entry that is not there
# to remove, are no concern here.)
hasnt "start: nothing refused by the sandbox" "Operation not permitted|Permission denied|Failed raising|Could not send" "$(journal)"
n=$(frames xra)
[ "$n" -gt 0 ] && pass "start: frames on ring port ra ($n in 0.5 s)" || fail "start: frames on ring port ra" "$(journal)"

echo 'zalk r { ring-id = 6 ring-role = "focal" port a { name = "ra" } bogus = 1 }' > /etc/zalkv2d.conf
systemctl reload $U 2>/dev/null
same "reload of a broken file: refused, the same daemon runs ring 5 on" "1 $PID 5" "$? $(main_pid) $(ls /run/zalkv2 | grep -v debug)"
ring 6 > /etc/zalkv2d.conf
t=$(date +%s.%N)
systemctl reload $U
wait_for 30 test -f /run/zalkv2/6/state
say "     reload took $(echo "$t $(date +%s.%N)" | awk '{printf "%.1f", $2 - $1}') s"
same "reload: the same daemon runs ring 6 instead of ring 5" "$PID 6" "$(main_pid) $(ls /run/zalkv2 | grep -v debug)"

# Whatever ends the daemon, systemd starts it again: a crash, a stray
# SIGTERM (an orderly exit with status 0), a hang (the watchdog).
for how in KILL TERM STOP; do
	PID=$(main_pid)
	t=$(date +%s.%N)
	kill -$how $PID
	if [ $how = STOP ]; then
		t_stop=$t
		sleep 1
		same "SIGSTOP: the hung daemon sends no frame" 0 "$(frames xra)"
	fi
	took=$(up_again $PID)
	same "SIG$how: restarted, ring 6 set up again" "active 6" "$(systemctl show -P ActiveState $U) $(ls /run/zalkv2 | grep -v debug)"
	say "     SIG$how to ring 6 set up again: $took s (RestartSec=1s, WatchdogSec=5s)"
done
has "watchdog: the hang was the watchdog's" "[Ww]atchdog timeout" "$(journal)"
# The journal's own times: SIGSTOP (t_stop) to the watchdog's kill, and
# from there to the new daemon's start.
journalctl -q -o short-unix -u $U --no-pager | awk -v t="$t_stop" '
	/Watchdog timeout/ { w = $1 } w && !s && /Starting zalkv2d/ { s = $1 }
	END { printf "     SIGSTOP to watchdog kill %.1f s, kill to the next start %.1f s\n", w - t, s - w }' | while read -r l; do say "$l"; done
n=$(frames xra)
[ "$n" -gt 0 ] && pass "after the restarts: frames on ring port ra ($n in 0.5 s)" || fail "after the restarts: frames on ring port ra"

systemctl stop $U
sleep 2
same "stop: stopped for good, status tree and filters gone" "inactive 0 " \
	"$(systemctl show -P ActiveState $U) $(frames xra) $(ls -d /run/zalkv2 2>/dev/null; tc filter show dev ra ingress)"
hasnt "stop: nothing refused at any stop" "Operation not permitted|Permission denied|Failed reverting|Error when removing" "$(journal)"

dpkg -P zalkv2d > /tmp/dpkg-p.log 2>&1
same "dpkg -P: purged; programs, configuration and service links gone; the user stays" "0 zalkv2d" \
	"$?$(ls /usr/sbin/zalkv2d /etc/zalkv2d.conf /lib/systemd/system/$U /etc/systemd/system/multi-user.target.wants/$U 2>/dev/null) $(id -un zalkv2d)"
[ $FAILS -eq 0 ] || journal | tail -n 40
finish
