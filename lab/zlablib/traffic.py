"""End hosts and traffic: the probe that sends sequence-numbered frames
between two end hosts and finds the outages, and the capture of both ends
of a link."""
import json
import os
import signal
import subprocess
import sys
import time

import capture

from .common import LAB_DIR, STATE, LabError, sh

# The traffic probe stands for a tester with hardware of its own: it runs
# real-time above the daemons (SCHED_FIFO 49), so its frames leave on
# schedule and a gap at the receiver is frames the ring lost, not a sender
# held back while the emulated switches' daemons share the machine's cores.
PROBE_PRIO = ['chrt', '-f', '80']
PROBE_SRC = os.path.join(LAB_DIR, 'probe.c')


class Probes:
	"""A mixin of Lab."""

	def probe_bin(self):
		return build_probe()

	def traffic(self, src, dst, rate=10000, seconds=10.0, bcast_every=100):
		return Traffic(self, src, dst, rate, seconds, bcast_every)

	def capture(self, link, path, seconds=10.0):
		return Capture(self, link, path, seconds)


def build_probe():
	"""The traffic probe is built next to the daemon's build if possible,
	else under the lab state directory; rebuilt when the source is newer."""
	outdir = os.environ.get('ZALK_BUILD')
	out = os.path.join(outdir, 'lab', 'zlab_probe') if outdir else os.path.join(STATE + '-bin', 'zlab_probe')
	if os.path.exists(out) and os.path.getmtime(out) >= os.path.getmtime(PROBE_SRC):
		return out
	os.makedirs(os.path.dirname(out), exist_ok=True)
	sh(['cc', '-O2', '-Wall', '-o', out, PROBE_SRC], timeout=120)
	return out


class Traffic:
	"""One probe run: sequence-numbered frames at a steady rate from one
	end host to another, every bcast_every-th also sent as a broadcast."""

	def __init__(self, lab, src, dst, rate, seconds, bcast_every):
		self.lab, self.src, self.dst = lab, src, dst
		self.out = os.path.join(lab.state, 'probe-%s-%s.json' % (src, dst))
		if os.path.exists(self.out):
			os.remove(self.out)
		probe = lab.probe_bin()
		count = int(rate * seconds)
		self.rx = subprocess.Popen(['ip', 'netns', 'exec', lab.ns(dst), *PROBE_PRIO, probe, 'recv', 'eth0', str(count),
					    '%.3f' % (seconds + 5.0), self.out],
					   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
		self._expect(self.rx, 'ready')
		self.tx = subprocess.Popen(['ip', 'netns', 'exec', lab.ns(src), *PROBE_PRIO, probe, 'send', 'eth0',
					    lab.host_mac(dst), str(rate), str(count), str(bcast_every)],
					   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
		self._expect(self.tx, 'started')
		self.t0 = time.time()

	@staticmethod
	def _expect(p, word, timeout=20.0):
		"""Waits for one end of the probe to say it is ready."""
		import select
		end = time.monotonic() + timeout
		while time.monotonic() < end:
			r, _, _ = select.select([p.stderr], [], [], 0.5)
			if r:
				line = p.stderr.readline()
				if line.strip() == word:
					return
				if not line:
					break
		raise LabError('traffic probe did not start (%s)' % word)

	def result(self):
		"""Waits for both ends and returns the receiver's findings."""
		txo, txe = self.tx.communicate(timeout=600)
		rxo, rxe = self.rx.communicate(timeout=60)
		if self.rx.returncode != 0:
			raise LabError('probe receiver failed: %s' % rxe.strip())
		with open(self.out) as f:
			r = json.load(f)
		try:
			r['sender'] = json.loads(txo)
		except ValueError:
			r['sender'] = {}
		return r


class Capture:
	"""Frames on both ends of a link for a given time, 802.1Q tags kept,
	written as one pcapng file with one interface per end ("s1:zl1b")."""

	def __init__(self, lab, link, path, seconds):
		l = lab.link(link)
		self.path = path
		self.ends = ['%s:%s' % tuple(e) for e in (l['a'], l['b'])]
		self.parts, self.procs = [], []
		for s, p in (l['a'], l['b']):
			part = os.path.join(lab.state, 'capture-%s-%s.part' % (s, p))
			self.parts.append(part)
			self.procs.append(subprocess.Popen(['ip', 'netns', 'exec', lab.ns(s), sys.executable,
							    os.path.join(LAB_DIR, 'capture.py'), p, '%.3f' % seconds, part],
							   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True))
		for pr in self.procs:
			if pr.stdout.readline().strip() != 'ready':
				raise LabError('capture did not start: %s' % pr.communicate()[1].strip())

	def stop(self):
		for pr in self.procs:
			if pr.poll() is None:
				pr.send_signal(signal.SIGTERM)

	def result(self):
		"""Waits for both ends (Ctrl-C ends the capture early); writes the
		file; returns the frame count."""
		try:
			for pr in self.procs:
				pr.wait()
		except KeyboardInterrupt:
			self.stop()
		packets = []
		for i, (pr, part) in enumerate(zip(self.procs, self.parts)):
			_, err = pr.communicate(timeout=60)
			if pr.returncode != 0:
				raise LabError('capture on %s failed: %s' % (self.ends[i], err.strip()))
			packets += [(ts, i, d, fr) for ts, d, fr in capture.read_records(part)]
			os.remove(part)
		capture.write_pcapng(self.path, self.ends, packets)
		return len(packets)


def interruption(res, t, until=None):
	"""The outage a network event at wall-clock time t caused: the longest
	gap with lost frames that began at most 5 ms before t and before the
	next event (until, default t + 3 s). Gaps without loss are stalls of
	the end hosts, not outages. Returns (seconds, lost frames) or (0.0, 0)."""
	until = until if until is not None else t + 3.0
	best = (0.0, 0)
	for g in res['gaps']:
		if t - 0.005 <= g['start'] < until and g['lost'] > 0 and g['len'] > best[0]:
			best = (g['len'], g['lost'])
	return best
