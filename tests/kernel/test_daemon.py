#!/usr/bin/python3
"""The built daemon as a process (run through netns.sh, as root): its
command line, an unusable configuration, and start-up on a real bridge,
what it sets up there and takes down again on each termination signal."""
import json
import os
import signal
import socket
import subprocess
import time
import unittest

ZALKV2D = os.path.abspath(os.environ.get('ZALKV2D', 'build/zalkv2d'))
CONF = '/etc/zalkv2d.conf'
RUN = '/var/run/zalkv2'


def sh(cmd):
	subprocess.run(cmd, shell=True, check=True)


def read(path):
	try:
		with open(path) as f:
			return f.read()
	except OSError:
		return None


def out(cmd):
	return subprocess.run(cmd, shell=True, capture_output=True, text=True).stdout


def wait_until(cond, limit=10):
	end = time.monotonic() + limit
	while not cond():
		if time.monotonic() > end:
			return False
		time.sleep(0.01)
	return True


class Daemon(unittest.TestCase):
	maxDiff = None

	@classmethod
	def setUpClass(cls):
		for n in (3, 9):
			sh('ip link add zr%da type veth peer name zr%db && ip link set zr%da up && ip link set zr%db up'
			   % (n, n, n, n))
		sh('ip link add br0 type bridge && ip link set br0 up')
		# Ring ports named so that a shell would make files m and q in its
		# working directory.
		sh("""ip link add '$(>m)' type veth peer name 'r;>q'""")
		sh("""for p in zr3a '$(>m)' 'r;>q'; do ip link set "$p" up master br0; done""")

	def setUp(self):
		sh('rm -rf %s %s' % (RUN, CONF))

	def start(self, *args, conf=None, cwd=None, env=None):
		if conf is not None:
			with open(CONF, 'w') as f:
				f.write(conf)
		p = subprocess.Popen([ZALKV2D, *args], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
				     cwd=cwd, env=env and dict(os.environ, **env))
		self.addCleanup(p.kill)
		return p

	def test_help_prints_the_usage_and_exits_with_one(self):
		rule = '-' * 80 + '\n'
		stdout, err = self.start('--help').communicate(timeout=10)
		self.assertEqual(err, rule + 'Usage: zalkv2d [OPTIONS]\n'
				 ' -f, --focal point                  ZALK Focal Point\n'
				 ' -m, --member                       ZALK Member\n'
				 ' -M, --portm=XX                     Set ZALK port M\n'
				 ' -N, --portn=XX                     Set ZALK port N\n'
				 ' -?, --help                         This help text\n' + rule + '\n')
		self.assertEqual(stdout, '')
		self.assertFalse(os.path.exists(RUN))

	def test_unusable_configuration_stops_the_start_with_one(self):
		p = self.start()
		stdout, _ = p.communicate(timeout=10)
		self.assertEqual((p.returncode, stdout),
				 (1, 'Cannot read configuration file /etc/zalkv2d.conf: No such file or directory\n'))
		p = self.start(conf='zalk ring7 {\n ring-id = 7\n port a { name = zr3a }\n}\nzalk { ring-id = 9 }\n')
		stdout, err = p.communicate(timeout=10)
		self.assertEqual(p.returncode, 1)
		self.assertTrue(stdout.startswith('Error when parsing configuration file /etc/zalkv2d.conf: '), stdout)
		self.assertNotEqual(err, '', "libconfuse's own diagnostic")
		self.assertFalse(os.path.exists(RUN + '/7'), 'nothing of a ring was set up')

	def bridge_setup(self):
		"""What the rings set up on the bridge: multicast entries, clsact
		qdiscs on the focal point's ports, backup ports."""
		def js(cmd):
			return json.loads(out(cmd) or '[]')
		return (sorted((m['port'], m['grp'], m['state'], m['vid']) for m in js('bridge -j mdb show dev br0')[0]['mdb']),
			out("tc qdisc show dev '$(>m)'; tc qdisc show dev 'r;>q'").count('clsact'),
			{l['ifname']: l['backup_port'] for l in js('bridge -j -d link show') if 'backup_port' in l})

	def test_runs_follows_its_ports_and_stops_cleanly_on_each_termination_signal(self):
		member = 'zalk ring8 {\n ring-id = 8\n ring-role = member\n port a { name = zr3a }\n}\n'
		full = member + ('zalk ring7 {\n ring-id = 7\n ring-role = focal\n ring-interval = 100\n'
				 ' port a { name = "$(>m)" }\n port b { name = "r;>q" }\n}\n')

		def grp(ring, g):
			return ('03:4b:a1:01:%02x:%02x' % (ring, g), 'permanent', 4021 if g < 3 else 4022)
		mdb = [('br0', *grp(r, g)) for r in (7, 8) for g in (1, 2, 3, 4)] + [
			('$(>m)', *grp(7, 4)), ('r;>q', *grp(7, 4)), ('zr3a', *grp(8, 2)), ('zr3a', *grp(8, 3)), ('zr3a', *grp(8, 4))]
		os.makedirs('/tmp/cwd', exist_ok=True)
		# systemd's side of the last run: its notification socket and a
		# watchdog of 20 ms
		notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
		notify.bind('/tmp/cwd/notify')
		notify.settimeout(10)
		self.addCleanup(notify.close)
		for sig, conf in ((signal.SIGINT, member), (signal.SIGQUIT, member), (signal.SIGTERM, full)):
			with self.subTest(signal=sig.name):
				# role, port options and loose words change nothing
				env = {'NOTIFY_SOCKET': '/tmp/cwd/notify', 'WATCHDOG_USEC': '20000'} if conf == full else None
				p = self.start('-f', '-M', 'eth9', 'word', conf=conf, cwd='/tmp/cwd', env=env)
				if env:
					self.assertEqual(notify.recv(64), b'READY=1')
					self.assertTrue(os.path.exists(RUN + '/7/r;>q/link'), 'ready before the rings were set up')
					self.assertEqual([notify.recv(64) for _ in range(3)], [b'WATCHDOG=1'] * 3)
					# Not read any more: the socket's queue (10 in a new
					# namespace) fills, and the daemon must not wait on it.
				self.assertTrue(wait_until(lambda: os.path.exists(RUN + '/8/zr3a/link')))
				self.assertEqual(read(RUN + '/8/type'), 'member')
				if conf == full:
					self.assertTrue(wait_until(lambda: os.path.exists(RUN + '/7/r;>q/link')))
					self.assertEqual(read(RUN + '/7/type'), 'focal-point')
					self.assertEqual(self.bridge_setup(), (sorted(mdb), 2, {'$(>m)': 'r;>q', 'r;>q': '$(>m)'}))
					self.assertEqual(os.listdir('/tmp/cwd'), ['notify'], 'a shell ran something')
					# a level written by another process holds from the next
					# log point on: the focal point's ring timer logs its ticks
					sh('echo 128 > %s/debug' % RUN)
					self.assertTrue(wait_until(lambda: 'focal_ring_pkt_handler_cb() - Enter' in (read('/tmp/zalk.log') or ''), 2))
					sh('echo 0 > %s/debug' % RUN)
					size = len(read('/tmp/zalk.log'))
					time.sleep(0.5)
					self.assertLessEqual(len(read('/tmp/zalk.log')), size + 100, 'the level stayed 128')
				if subprocess.run(['chrt', '-f', '49', 'true']).returncode == 0:  # real-time allowed here
					self.assertIn('SCHED_FIFO\npid %d\'s current scheduling priority: 49' % p.pid, out('chrt -p %d' % p.pid))
				if sig == signal.SIGINT:
					# 500 flaps outside the rings, then a ring port's peer goes
					# down: the link monitor keeps up and the port follows.
					self.assertEqual(read(RUN + '/8/zr3a/logical_state'), 'Not Qualified')
					sh('(for i in $(seq 500); do echo link set zr9a down; echo link set zr9a up; done;'
					   ' echo link set zr3b down) | ip -batch -')
					self.assertTrue(wait_until(lambda: read(RUN + '/8/zr3a/logical_state') == 'Down', 5))
					sh('ip link set zr3b up')
				time.sleep(0.3)  # a few ring intervals: the daemon keeps running
				self.assertIsNone(p.poll())
				p.send_signal(sig)
				_, err = p.communicate(timeout=10)
				self.assertEqual(p.returncode, 0, err)
				self.assertFalse(os.path.exists(RUN))
				self.assertEqual(self.bridge_setup(), ([], 0, {}))


if __name__ == '__main__':
	unittest.main()
