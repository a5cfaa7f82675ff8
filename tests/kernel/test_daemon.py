#!/usr/bin/env python3
"""The built daemon as a process (run through netns.sh, as root): its
command line, an unusable configuration, and start-up on a real bridge
ended by each termination signal."""
import os
import signal
import subprocess
import time
import unittest

ZALKV2D = os.environ.get('ZALKV2D', 'build/zalkv2d')
CONF = '/etc/zalkv2d.conf'
RUN = '/var/run/zalkv2'


def sh(cmd):
	subprocess.run(cmd, shell=True, check=True)


def read(path):
	with open(path) as f:
		return f.read()


def wait_until(cond, limit=10):
	end = time.monotonic() + limit
	while not cond():
		if time.monotonic() > end:
			return False
		time.sleep(0.01)
	return True


class Daemon(unittest.TestCase):
	@classmethod
	def setUpClass(cls):
		for n in (1, 2, 3):
			sh('ip link add zr%da type veth peer name zr%db && ip link set zr%da up && ip link set zr%db up'
			   % (n, n, n, n))
		sh('ip link add br0 type bridge && ip link set br0 up')
		sh('for p in zr1a zr2a zr3a; do ip link set $p master br0; done')

	def setUp(self):
		sh('rm -rf %s %s' % (RUN, CONF))

	def start(self, *args, conf=None):
		if conf is not None:
			with open(CONF, 'w') as f:
				f.write(conf)
		p = subprocess.Popen([ZALKV2D, *args], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
		self.addCleanup(p.kill)
		return p

	def test_help_prints_the_usage_and_exits_with_one(self):
		rule = '-' * 80 + '\n'
		out, err = self.start('--help').communicate(timeout=10)
		self.assertEqual(err, rule + 'Usage: zalkv2d [OPTIONS]\n'
				 ' -f, --focal point                  ZALK Focal Point\n'
				 ' -m, --member                       ZALK Member\n'
				 ' -M, --portm=XX                     Set ZALK port M\n'
				 ' -N, --portn=XX                     Set ZALK port N\n'
				 ' -?, --help                         This help text\n' + rule + '\n')
		self.assertEqual(out, '')
		self.assertFalse(os.path.exists(RUN))

	def test_unusable_configuration_stops_the_start_with_one(self):
		p = self.start()
		out, _ = p.communicate(timeout=10)
		self.assertEqual((p.returncode, out),
				 (1, 'Cannot read configuration file /etc/zalkv2d.conf: No such file or directory\n'))
		p = self.start(conf='zalk ring7 {\n ring-id = 7\n port a { name = zr1a }\n}\nzalk { ring-id = 9 }\n')
		out, err = p.communicate(timeout=10)
		self.assertEqual(p.returncode, 1)
		self.assertTrue(out.startswith('Error when parsing configuration file /etc/zalkv2d.conf: '), out)
		self.assertNotEqual(err, '', "libconfuse's own diagnostic")
		self.assertFalse(os.path.exists(RUN + '/7'), 'nothing of a ring was set up')

	def test_runs_and_stops_cleanly_on_each_termination_signal(self):
		conf = ('zalk ring7 {\n ring-id = 7\n ring-role = focal\n ring-interval = 100\n'
			' port a { name = zr1a }\n port b { name = zr2a }\n}\n'
			'zalk ring8 {\n ring-id = 8\n ring-role = member\n port a { name = zr3a }\n}\n')
		for sig in (signal.SIGINT, signal.SIGQUIT, signal.SIGTERM):
			with self.subTest(signal=sig.name):
				# role, port options and loose words change nothing
				p = self.start('-f', '-M', 'eth9', 'word', conf=conf)
				self.assertTrue(wait_until(lambda: os.path.exists(RUN + '/8/zr3a/link')))
				self.assertEqual(read(RUN + '/7/type'), 'focal-point')
				self.assertTrue(os.path.exists(RUN + '/7/zr2a'))
				self.assertEqual(read(RUN + '/8/type'), 'member')
				time.sleep(0.3)  # a few ring intervals: the daemon keeps running
				self.assertIsNone(p.poll())
				p.send_signal(sig)
				out, err = p.communicate(timeout=10)
				self.assertEqual(p.returncode, 0, err)
				self.assertFalse(os.path.exists(RUN))


if __name__ == '__main__':
	unittest.main()
