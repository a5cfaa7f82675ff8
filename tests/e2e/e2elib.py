"""Shared by the end-to-end tests: finds the daemon and the lab, records
checks, prints a summary and always tears the lab down."""
import atexit
import os
import sys
import time

SRC = os.environ.get('ZALK_SRC') or os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(SRC, 'lab'))
import view  # noqa: E402,F401
import zlab  # noqa: E402

DAEMON = os.environ.get('ZALKV2D') or os.path.join(SRC, 'build', 'zalkv2d')
# short timers keep the suite within minutes
FAST = dict(ring_interval=50, hello_time=100, response_delay=100)


class Test:
	def __init__(self, name):
		self.name, self.fails, self.passes = name, [], 0
		if os.geteuid() != 0:
			print('%s: SKIPPED (needs root)' % name)
			sys.exit(0)
		if not os.access(DAEMON, os.X_OK):
			print('%s: FAIL: no daemon at %s' % (name, DAEMON))
			sys.exit(1)
		zlab.down()
		atexit.register(zlab.down)
		self.lab = zlab.Lab(daemon=DAEMON)

	def up(self, topo):
		self.lab.up(topo)
		for note in zlab.standin_notes(self.lab):
			print('note: ' + note)

	def check(self, what, cond, detail=''):
		if cond:
			self.passes += 1
			print('  ok   %s' % what)
		else:
			self.fails.append(what)
			print('  FAIL %s %s' % (what, detail))
		return cond

	def closed(self, ring_id, port, timeout=20.0):
		"""Waits until the only blocking ring port of the ring is `port`
		and every switch reports the ring whole."""
		lab = self.lab

		def ok():
			st = lab.status()
			return (lab.blocking_ports(ring_id, st) == [port] and
				all(sw['rings'][str(ring_id)]['whole'] for sw in st.values() if str(ring_id) in sw['rings']))
		return lab.wait(ok, timeout, 0.05)

	def state(self, s, rid=1):
		return self.lab.read(s, '%d/state' % rid)

	def port_file(self, s, p, f, rid=1):
		return self.lab.read(s, '%d/%s/%s' % (rid, p, f))

	def show(self):
		print(view.text(self.lab, colour=False))

	def finish(self):
		if self.fails:
			self.show()
			for s in self.lab.switches():
				log = self.lab.daemon_log(s).strip().splitlines()[-5:]
				if log:
					print('--- %s daemon output (last lines)' % s)
					print('\n'.join(log))
		print('%s: %s (%d checks passed, %d failed%s)' % (
			self.name, 'FAIL' if self.fails else 'PASS', self.passes, len(self.fails),
			': ' + '; '.join(self.fails) if self.fails else ''))
		sys.exit(1 if self.fails else 0)


def time_until(cond, timeout, step=0.001):
	"""Seconds until cond() holds, or None."""
	t0 = time.monotonic()
	while time.monotonic() - t0 < timeout:
		if cond():
			return time.monotonic() - t0
		time.sleep(step)
	return None
