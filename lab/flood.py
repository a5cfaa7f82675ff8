#!/usr/bin/python3
"""How fast the ring logic hears of a carrier cut, and how fast a SIGUSR1
report comes, while a focal point is flooded with its own ring's frames.

A ring of 4 (focal point s1, blocking its port A towards s4). A copy of a
Ring frame s1 sent is captured and played back into s1's port B from s2
at RATE frames/s; one second into the flood the link s4-s1 loses its
carrier at s1's end. Measured, per repetition:
  cut:     from the wall-clock time just before the ioctl that takes
           s1's port A down (made by a helper in s1's namespace at
           real-time priority 60, above the daemon's 49, so that spawning
           a command under the flood is not counted) to the time stamp of
           "Enter LINKA1_0" in s1's event log (debug bit 128, s1's private
           /tmp/zalk.log; millisecond resolution)
  sigusr1: from the signal to the end of the report in s1's output
Each is printed as min / median / p95 over the repetitions, with the flood
and without it (--rate 0).

    lab/flood.py build/zalkv2d [--rate 200000] [--reps 10]
"""
import argparse
import json
import os
import statistics
import struct
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zlab  # noqa: E402


def ring_frame(lab):
	"""One Ring frame of s1 as it arrives at s2's port A (tag included)."""
	out = subprocess.run(['ip', 'netns', 'exec', lab.ns('s2'), 'timeout', '3', 'tcpdump', '-i', 'zl1a', '-Q',
			      'in', '-c', '40', '-w', '-', 'ether[0:2] = 0x034b'],
			     capture_output=True, timeout=10).stdout
	off = 24                                   # pcap file header
	while off + 16 <= len(out):
		n = struct.unpack_from('<I', out, off + 8)[0]
		f = out[off + 16:off + 16 + n]
		off += 16 + n
		tagged = f[12:14] == b'\x81\x00'
		if len(f) > 28 and f[28 if tagged else 24] == 6:
			return f
	raise zlab.LabError('no Ring frame captured')


CUTTER = r"""
import fcntl, socket, struct, sys, time
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
req = struct.pack('16sH22x', sys.argv[1].encode(), 0)
flags = struct.unpack('16sH22x', fcntl.ioctl(s, 0x8913, req))[1]   # SIOCGIFFLAGS
sys.stdin.readline()
t = time.time()
fcntl.ioctl(s, 0x8914, struct.pack('16sH22x', sys.argv[1].encode(), flags & ~1))  # SIOCSIFFLAGS, no IFF_UP
print('%.6f' % t, flush=True)
"""


def cut_port_a(lab):
	"""Takes s1's port A (link L4) down as lab.cut would; returns the
	wall-clock time of the request."""
	p = subprocess.Popen(['ip', 'netns', 'exec', lab.ns('s1'), 'chrt', '-f', '60', 'python3', '-c', CUTTER, 'zl1a'],
			     stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
	time.sleep(0.3)                           # started and waiting
	out = p.communicate('go\n', timeout=30)[0]
	lab.topo.setdefault('cuts', {})['L4'] = 'cut'
	lab.topo.setdefault('cut_ends', {})['L4'] = 'b'
	lab.save()
	return float(out)


def event_time(lab, since):
	"""Wall-clock time of the first "Enter LINKA1_0" at s1 after since."""
	try:
		with open(os.path.join(lab.swdir('s1'), 'tmp', 'zalk.log')) as f:
			lines = f.read().splitlines()
	except OSError:
		return None
	base = since - since % 1000
	for l in lines:
		if 'Enter LINKA1_0' in l:
			t = base + float(l.split()[0])
			if t < since - 500:
				t += 1000
			if t >= since - 0.002:
				return t
	return None


def rx_packets(lab):
	"""Frames received so far on s1's port B, as its counters say."""
	return int(zlab.nsx(lab.ns('s1'), 'cat', '/sys/class/net/zl1b/statistics/rx_packets'))


def stats(v):
	v = sorted(v)
	if not v:
		return 'none'
	return '%.1f / %.1f / %.1f ms (n=%d)' % (v[0], statistics.median(v), v[min(len(v) - 1, int(0.95 * len(v)))],
						   len(v))


def main():
	ap = argparse.ArgumentParser()
	ap.add_argument('daemon')
	ap.add_argument('--rate', type=int, default=200000)
	ap.add_argument('--reps', type=int, default=10)
	a = ap.parse_args()
	zlab.down()
	lab = zlab.Lab(daemon=a.daemon)
	try:
		lab.up(zlab.make_ring(4, blocked='A'))
		lab.write_file('s1', '/run/zalkv2/debug', '128')
		if not lab.wait(lambda: lab.blocking_ports(1) == [('s1', 'zl1a')], 20.0, 0.05):
			raise zlab.LabError('ring did not close')
		frame = ring_frame(lab).hex()
		probe = lab.probe_bin()
		cut, usr1, floods, arrived = [], [], [], []
		for _ in range(a.reps):
			fl = None
			rx0 = rx_packets(lab)
			if a.rate:
				fl = subprocess.Popen(['ip', 'netns', 'exec', lab.ns('s2'), probe, 'flood', 'zl1a', frame,
						       str(a.rate), str(int(a.rate * 2.5))],
						      stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
			time.sleep(1.0)
			d = lab.loop_delay('s1', hup=False)
			if d is not None:
				usr1.append(d)
			time.sleep(0.2)
			t0 = cut_port_a(lab)
			t1 = lab.wait(lambda: event_time(lab, t0), 3.0, 0.005)
			if t1:
				cut.append((t1 - t0) * 1e3)
			if fl:
				floods.append(fl.communicate(timeout=30)[0].strip())
				# what reached s1's port B (the cut heals after this)
				arrived.append((rx_packets(lab) - rx0) / json.loads(floods[-1])['seconds'])
			lab.heal('L4')
			lab.wait(lambda: lab.blocking_ports(1) == [('s1', 'zl1a')], 10.0, 0.05)
		print('flood %s frames/s of s1\'s own Ring frame into s1 port B, %d repetitions' % (a.rate, a.reps))
		if floods:
			print('  flood as sent: %s' % floods[-1])
			print('  arrived at s1 port B: %s frames/s (min / median / max over the repetitions)' %
			      ' / '.join('{:,.0f}'.format(x) for x in (min(arrived), statistics.median(arrived), max(arrived))))
		print('  carrier cut to ring logic: %s' % stats(cut))
		print('  SIGUSR1 to report:         %s' % stats(usr1))
		print('  s1 alive: %s' % lab.alive('s1'))
	finally:
		zlab.down()


if __name__ == '__main__':
	main()
