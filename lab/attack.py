#!/usr/bin/python3
"""A host on a member's access port plays attacker: it sends protocol
frames of the ring, built here from the wire format, and the ring's
reaction is measured from the kernel's side.

A ring of 5 (s1 focal point blocking its port A towards s5; ring interval
500 ms, hello 500 ms, response delay 1500 ms: the lab's defaults). Hosts
h2 and h5 sit on the access ports of the members s2 and s5. Attacks:

  linkdown    one untagged Link Down from h2 while the ring is whole
  linkdown100 the same, tagged with the host's own VLAN 100
  response    during a heal of L3 (s3 -- s4), once the returning ports
              are qualified: an untagged Link Response naming s3 and s4
              from h2 (it reaches s3) and from h5 (it reaches s4)
  linkup      during a real failure (L3 cut): two untagged Link Ups with
              made-up sender ids from h2
  flush       untagged Flush frames from h2 at RATE frames/s for SECONDS

Each attack runs twice in the same window, once without the frames
(control) and once with them, and reports per run:
  focal     the focal point's ring states in the window (its state file)
  open_ms   how long s1's blocked port zl1a forwarded
  loop_ms   how long every ring port on a link with carrier forwarded at
            once while no link was cut (a loop)
  split_ms  how long a port on a link with carrier blocked while a link
            was cut (the ring partitioned)
  flushes   FDB flushes of the ring's switches (each flushes both ring
            ports)
  cpu       (flush) each daemon's CPU time over the flood, % of one core;
            the watcher runs at normal priority then, so the timeline
            figures are left out
Port states and flushes come from the bridges' own rtnetlink
notifications, one socket per switch: every request that sets a port's
state or flushes its FDB is announced for that port, and every ring state
change (the tc_count file) sets both ports' states once and flushes once,
so per switch flushes = (notifications on A + on B) / 2 - tc_count change.

    flock /tmp/zalk-lab.lock lab/attack.py build/zalkv2d [--only linkdown,flush]
        [--rate 20000] [--seconds 3] [--out FILE.json]
"""
import argparse
import ctypes
import json
import os
import select
import socket
import struct
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zlab  # noqa: E402

# type: code, payload length, group address entry
TYPES = {'hello': (1, 14, 1), 'linkdown': (2, 26, 2), 'linkup': (3, 26, 2), 'response': (4, 28, 2),
	 'flush': (5, 28, 4), 'ring': (6, 12, 3), 'trig': (7, 12, 2)}


def mac_bytes(text):
	return bytes(int(x, 16) for x in text.split(':'))


def bridge_id(mac):
	return b'\0\0' + mac_bytes(mac)


def frame(kind, ring_id, src, vid=None, fields=b''):
	"""A protocol frame as the daemon sends it, but with the VLAN given
	(priority 7; None: untagged, then 60 bytes). fields: the type's own bytes after
	the type and payload length (sender ids, status, edges)."""
	code, plen, group = TYPES[kind]
	f = bytearray(64)
	f[0:6] = mac_bytes(zlab.group_mac(ring_id, group))
	f[6:12] = mac_bytes(src)
	struct.pack_into('>HHH', f, 12, 0x8100, 7 << 13 | (vid or 0), 10 + plen)
	f[18:28] = bytes([0xaa, 0xaa, 0x03, 0x02, 0x4b, 0xa1, 0x01, 0x00, 0x20, ring_id & 0xff])
	f[28:30] = bytes([code, plen])
	f[30:30 + len(fields)] = fields
	return bytes(f) if vid else bytes(f[:12] + f[16:])


def send(lab, host, frames, rate=1000):
	"""Puts each (frame, count) on host's eth0 at rate frames/s; returns
	the sender's figures of each."""
	out = []
	for fr, count in frames:
		p = zlab.sh(['ip', 'netns', 'exec', lab.ns(host), *zlab.PROBE_PRIO, lab.probe_bin(), 'flood', 'eth0',
			     fr.hex(), str(rate), str(count)], timeout=120)
		out.append(json.loads(p))
	return out


# -- the bridges' notifications --------------------------------------------

RTM_NEWLINK, RTM_GETLINK, AF_BRIDGE = 16, 18, 7
IFLA_IFNAME, IFLA_PROTINFO, IFLA_BRPORT_STATE = 3, 12, 1
RTNLGRP_LINK = 1
CLONE_NEWNET = 0x40000000
libc = ctypes.CDLL(None, use_errno=True)


def attrs(buf, off, end):
	while off + 4 <= end:
		alen, atype = struct.unpack_from('<HH', buf, off)
		if alen < 4:
			return
		yield atype & 0x3fff, buf[off + 4:off + alen]
		off += (alen + 3) & ~3


def watch_main(out, specs):
	"""The watcher process: one rtnetlink socket in each switch's
	namespace; every ring port's notification is written to out as
	"TIME SWITCH PORT STATE NOTIFIED" (NOTIFIED 0 for the first dump's
	answer), "TIME lost" for each overrun."""
	ports, socks = {}, {}
	own = os.open('/proc/self/ns/net', os.O_RDONLY)
	for item in specs:
		s, names = item.split(':')
		ports[s] = set(names.split(','))
		fd = os.open('/run/netns/' + zlab.NS_PREFIX + s, os.O_RDONLY)
		if libc.setns(fd, CLONE_NEWNET):
			raise zlab.LabError('setns %s' % s)
		os.close(fd)
		k = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 0)
		k.setsockopt(socket.SOL_SOCKET, 33, 64 << 20)  # SO_RCVBUFFORCE: a storm's worth
		k.bind((0, 1 << (RTNLGRP_LINK - 1)))
		# a dump first: the states before any change
		k.send(struct.pack('<IHHII', 32, RTM_GETLINK, 0x301, 1, 0) + struct.pack('<BxHiII', AF_BRIDGE, 0, 0, 0, 0))
		socks[k] = s
	libc.setns(own, CLONE_NEWNET)
	with open(out, 'w') as f:
		print('ready', flush=True)
		while True:
			for k in select.select(list(socks), [], [])[0]:
				try:
					data = k.recv(1 << 16)
				except OSError:
					f.write('%.6f lost\n' % time.monotonic())
					continue
				t, s, off = time.monotonic(), socks[k], 0
				while off + 16 <= len(data):
					mlen, mtype, _, seq, _ = struct.unpack_from('<IHHII', data, off)
					if mlen < 16:
						break
					if mtype == RTM_NEWLINK and data[off + 16] == AF_BRIDGE:
						name, st = None, None
						for at, v in attrs(data, off + 32, off + mlen):
							if at == IFLA_IFNAME:
								name = v.rstrip(b'\0').decode()
							elif at == IFLA_PROTINFO:
								st = next((b[0] for a, b in attrs(v, 0, len(v)) if a == IFLA_BRPORT_STATE), st)
						if name in ports[s] and st is not None:
							f.write('%.6f %s %s %d %d\n' % (t, s, name, st, seq == 0))
					off += (mlen + 3) & ~3
			f.flush()


class Watch:
	"""The watcher process (above), at real-time priority 60, above the
	daemons, so that its time stamps are the changes' own."""

	def __init__(self, lab):
		self.ports = {s: lab.ring_ports(s) for s in lab.switches()}
		self.path = os.path.join(lab.state, 'attack-watch')
		self.p = subprocess.Popen(['chrt', '-f', '60', sys.executable, os.path.abspath(__file__), '--watch', self.path]
					  + ['%s:%s' % (s, ','.join(p)) for s, p in self.ports.items()],
					  stdout=subprocess.PIPE, text=True)
		if self.p.stdout.readline().strip() != 'ready':
			raise zlab.LabError('the watcher did not start')

	def lines(self):
		with open(self.path) as f:
			return [l.split() for l in f.read().splitlines() if l.endswith(('0', '1', 'lost'))]

	def cpu(self):
		with open('/proc/%d/stat' % self.p.pid) as f:
			v = f.read().rsplit(')', 1)[1].split()
		return int(v[11]) + int(v[12])

	def stop(self):
		self.p.terminate()
		self.p.wait()


def timeline(lines, t0, t1, cut_ports):
	"""open_ms, loop_ms, split_ms over [t0, t1] (see the top)."""
	state, last = {}, None
	out = dict(open_ms=0.0, loop_ms=0.0, split_ms=0.0)
	for l in lines + [[str(t1), None]]:
		t = float(l[0])
		if l[1] == 'lost':
			continue
		if last is not None and t > t0:
			dt = (min(t, t1) - max(last, t0)) * 1e3
			up = [v for k, v in state.items() if k not in cut_ports]
			if state.get(('s1', 'zl1a')) == 3:
				out['open_ms'] += dt
			if not cut_ports and all(v == 3 for v in up):
				out['loop_ms'] += dt
			if cut_ports and any(v != 3 for v in up):
				out['split_ms'] += dt
		if l[1] is None or t > t1:
			break
		state[(l[1], l[2])] = int(l[3])
		last = t
	return {k: round(v) for k, v in out.items()}


# -- one window --------------------------------------------------------------

def cpu_ticks(lab):
	out = {}
	for s in lab.switches():
		with open('/proc/%d/stat' % lab.pids[s]) as f:
			v = f.read().rsplit(')', 1)[1].split()
		out[s] = int(v[11]) + int(v[12])  # utime + stime
	return out


def tc_counts(lab):
	return {s: int(lab.read(s, '1/tc_count') or 0) for s in lab.switches()}


def whole(lab):
	return (lab.read('s1', '1/state') == 'Ring Ok' and lab.blocking_ports(1) == [('s1', 'zl1a')]
		and all(lab.read(s, '1/state') == 'Ok' for s in lab.switches()[1:]))


def window(lab, watch, seconds, act=None, cut_ports=(), flood=False):
	"""Runs act (or nothing) at the start of a window of the given length
	and measures it. In a flood the watcher steps down to normal priority
	(else it would take a core from the daemons whose CPU time is
	measured) and is drained afterwards: its flush count holds, its
	times are late."""
	tc0, states, sent = tc_counts(lab), [lab.read('s1', '1/state')], [None]
	if flood:
		os.sched_setscheduler(watch.p.pid, os.SCHED_OTHER, os.sched_param(0))
	cpu0, wcpu0, t0 = cpu_ticks(lab), watch.cpu(), time.monotonic()
	if act:
		th = threading.Thread(target=lambda: sent.__setitem__(0, act()))
		th.start()
	while time.monotonic() < t0 + seconds:
		st = lab.read('s1', '1/state')
		if st and st != states[-1]:
			states.append(st)
		time.sleep(0.01)
	t1 = time.monotonic()
	if act:
		th.join()
	cpu1, wcpu1 = cpu_ticks(lab), watch.cpu()
	time.sleep(0.3)  # the window's last notifications in
	tend = t1 + 0.3
	if flood:
		size = -1
		while size != os.path.getsize(watch.path) and time.monotonic() < t1 + 30:
			size = os.path.getsize(watch.path)
			time.sleep(0.5)
		os.sched_setscheduler(watch.p.pid, os.SCHED_FIFO, os.sched_param(60))
		tend = time.monotonic()
	tc1, lines = tc_counts(lab), watch.lines()
	flushes = 0
	for s in lab.switches():
		n = sum(1 for l in lines if l[1] == s and l[4] == '1' and t0 <= float(l[0]) < tend)
		flushes += n / 2 - (tc1[s] - tc0[s])
	res = dict(focal=' > '.join(states), flushes=flushes, state_changes=sum(tc1[s] - tc0[s] for s in tc0),
		   **timeline(lines, t0, t1, cut_ports))
	lost = sum(1 for l in lines if l[1] == 'lost' and t0 <= float(l[0]))
	if lost:
		res['notifications_lost'] = lost
	if flood:  # the watcher's times are late: no timeline
		for k in ('open_ms', 'loop_ms', 'split_ms'):
			res[k] = None
		hz = os.sysconf('SC_CLK_TCK')
		res['cpu'] = {s: round(100.0 * (cpu1[s] - cpu0[s]) / hz / (t1 - t0), 1) for s in cpu0}
		res['cpu']['watcher'] = round(100.0 * (wcpu1 - wcpu0) / hz / (t1 - t0), 1)
		if sent[0]:
			res['sent'] = sent[0][0]
	return res


def settle(lab):
	if not lab.wait(lambda: whole(lab), 60.0, 0.1):
		raise zlab.LabError('the ring did not close: %s' % lab.blocking_ports(1))
	# and stays so: no ring state change for 1.5 s
	tc = None
	while tc != tc_counts(lab):
		tc = tc_counts(lab)
		time.sleep(1.5)


def run_attack(lab, watch, name, a):
	h2, h5 = lab.host_mac('h2'), lab.host_mac('h5')
	ids = [bridge_id(lab.base_mac(s)) for s in ('s3', 's4')]
	made_up = [bridge_id('02:66:66:66:66:%02x' % i) for i in (1, 2)]
	res = {}
	for kind in ('control', 'attack'):
		settle(lab)
		go = kind == 'attack'
		if name in ('linkdown', 'linkdown100'):
			f = frame('linkdown', 1, h2, vid=100 if name == 'linkdown100' else None, fields=bridge_id(h2))
			res[kind] = window(lab, watch, 4.0, (lambda: send(lab, 'h2', [(f, 1)])) if go else None)
		elif name == 'flush':
			f = frame('flush', 1, h2)
			n = int(a.rate * a.seconds)
			res[kind] = window(lab, watch, a.seconds, (lambda: send(lab, 'h2', [(f, n)], a.rate)) if go else None,
					   flood=True)
		elif name == 'linkup':
			lab.cut('L3')
			lab.wait(lambda: lab.read('s1', '1/state') == 'Broken', 10.0, 0.02)
			time.sleep(1.0)
			fs = [(frame('linkup', 1, h2, fields=m + bytes(8) + ids[0]), 1) for m in made_up]
			res[kind] = window(lab, watch, 5.0, (lambda: send(lab, 'h2', fs)) if go else None,
					   cut_ports=(('s3', 'zl1b'), ('s4', 'zl1a')))
			lab.heal('L3')
		elif name == 'response':
			lab.cut('L3')
			lab.wait(lambda: lab.read('s1', '1/state') == 'Broken', 10.0, 0.02)
			time.sleep(1.0)
			lab.heal('L3')
			# 10 a second through the hold: a member whose returning port
			# has been qualified takes the first one after that as the
			# answer it waits for
			f2 = frame('response', 1, h2, fields=bytes(2) + bridge_id(h2) + ids[0] + ids[1])
			f5 = frame('response', 1, h5, fields=bytes(2) + bridge_id(h5) + ids[0] + ids[1])

			def both():
				t = threading.Thread(target=send, args=(lab, 'h5', [(f5, 15)], 10))
				t.start()
				r = send(lab, 'h2', [(f2, 15)], 10)
				t.join()
				return r
			res[kind] = window(lab, watch, 4.0, both if go else None)
	return res


def main():
	ap = argparse.ArgumentParser()
	if sys.argv[1:2] == ['--watch']:
		return watch_main(sys.argv[2], sys.argv[3:])
	ap.add_argument('daemon')
	ap.add_argument('--only', default='linkdown,linkdown100,response,linkup,flush')
	ap.add_argument('--rate', type=int, default=20000)
	ap.add_argument('--seconds', type=float, default=3.0)
	ap.add_argument('--out')
	a = ap.parse_args()
	zlab.down()
	lab = zlab.Lab(daemon=a.daemon)
	results, watch = {}, None
	try:
		lab.up(zlab.make_ring(5, blocked='A', hosts=(2, 5)))
		watch = Watch(lab)
		for name in a.only.split(','):
			results[name] = run_attack(lab, watch, name, a)
			for kind, r in results[name].items():
				print('%-12s %-8s %s' % (name, kind, json.dumps(r)), flush=True)
		results['_'] = dict(daemon=os.path.abspath(a.daemon), date=time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime()),
				    alive={s: lab.alive(s) for s in lab.switches()})
		print('daemons alive: %s' % results['_']['alive'])
		if a.out:
			with open(a.out, 'w') as f:
				json.dump(results, f, indent=1)
	finally:
		if watch:
			watch.stop()
		zlab.down()


if __name__ == '__main__':
	main()
