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
		sh('rm -rf %s %s /tmp/zalk.log' % (RUN, CONF))

	def start(self, *args, conf=None, cwd=None, umask=0o022, env=None):
		if conf is not None:
			with open(CONF, 'w') as f:
				f.write(conf)
		p = subprocess.Popen([ZALKV2D, *args], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
				     cwd=cwd, preexec_fn=lambda: os.umask(umask), env=env and dict(os.environ, **env))
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
					# its commands do not inherit it
					self.assertIn('SCHED_FIFO|SCHED_RESET_ON_FORK\npid %d\'s current scheduling priority: 49' % p.pid,
						      out('chrt -p %d' % p.pid))
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

	def stop(self, p):
		p.send_signal(signal.SIGTERM)
		_, err = p.communicate(timeout=10)
		self.assertEqual(p.returncode, 0, err)

	RINGS = ('zalk ring8 {\n ring-id = 8\n ring-role = member\n port a { name = zr3a }\n}\n'
		 'zalk ring7 {\n ring-id = 7\n ring-role = focal\n ring-interval = 100\n'
		 ' port a { name = "$(>m)" }\n port b { name = "r;>q" }\n}\n')

	def test_files_others_can_reach_are_never_written_through(self):
		"""A FIFO or a link planted at the event log's path, the tree made
		under umask 000, status files replaced, rewritten or removed."""
		log, secret = '/tmp/zalk.log', '/tmp/secret'
		with open(os.open(secret, os.O_CREAT | os.O_WRONLY, 0o600), 'w') as f:
			f.write('root only\n')
		def frames():
			return int(read('/sys/class/net/$(>m)/statistics/tx_packets'))
		for plant in (os.mkfifo, lambda path: os.symlink(secret, path)):
			if os.path.lexists(log):
				os.remove(log)
			plant(log)
			os.makedirs(RUN)
			sh('echo 128 > %s/debug' % RUN)  # the event log from the first event on
			p = self.start(conf=self.RINGS, umask=0)
			self.assertTrue(wait_until(lambda: read(RUN + '/8/zr3a/link') is not None))
			sent = frames()
			time.sleep(0.5)
			self.assertGreater(frames(), sent + 2, 'the focal point sends its Ring frames')
			self.stop(p)
			self.assertEqual(read(secret), 'root only\n')

		p = self.start(conf=self.RINGS, umask=0)
		self.assertTrue(wait_until(lambda: read(RUN + '/8/zr3a/link') is not None))
		modes = {os.path.relpath(os.path.join(d, n), RUN): os.stat(os.path.join(d, n)).st_mode & 0o7777
			 for d, dirs, files in os.walk(RUN) for n in dirs + files}
		self.assertEqual({m for m in modes.values()}, {0o755, 0o644}, modes)
		self.assertEqual({n for n, m in modes.items() if m == 0o755}, {'8', '8/zr3a', '7', '7/$(>m)', '7/r;>q'})
		os.remove(RUN + '/8/state')
		os.symlink(secret, RUN + '/8/state')
		sh('echo foreign > %s/8/type; rm %s/8/ring-id' % (RUN, RUN))
		sh('ip link set zr3b down')  # a link report and a ring state change
		self.assertTrue(wait_until(lambda: read(RUN + '/8/zr3a/logical_state') == 'Down', 5))
		sh('ip link set zr3b up')
		self.assertEqual((read(secret), os.path.islink(RUN + '/8/state'), read(RUN + '/8/type'), read(RUN + '/8/ring-id')),
				 ('root only\n', False, 'member', '8'))
		self.stop(p)

	def test_status_tree_heals_after_run_was_full(self):
		os.makedirs(RUN)
		sh('mount -t tmpfs -o size=256k zalk-full %s && dd if=/dev/zero of=%s/fill bs=4k count=64 status=none' % (RUN, RUN))
		self.addCleanup(sh, 'umount %s' % RUN)
		zalkctl = os.path.join(os.path.dirname(ZALKV2D), 'zalkctl', 'zalkctl')
		p = self.start(conf=self.RINGS)
		self.assertTrue(wait_until(lambda: os.path.exists(RUN + '/8/zr3a/link')))
		self.assertEqual(read(RUN + '/8/state'), '')
		status = subprocess.run([zalkctl, 'status', '8'], capture_output=True, text=True)
		self.assertEqual(status.stderr, 'zalkctl: ring 8: status files empty (the daemon could not write them: /run full?)\n')
		os.remove(RUN + '/fill')
		self.assertTrue(wait_until(lambda: read(RUN + '/8/type') == 'member', 8), 'healed by the retry within 5 s')
		self.assertEqual([os.path.join(d, n) for d, _, files in os.walk(RUN) for n in files if not read(os.path.join(d, n))], [])
		p.send_signal(signal.SIGTERM)
		p.communicate(timeout=10)  # the mount point itself stays

	def test_ring_comes_back_whole_on_a_recreated_bridge_and_port_without_a_signal(self):
		# A ring of one switch: its two ports are the two ends of one veth.
		def whole():
			return read(RUN + '/5/state') == 'Ring Ok' and read(RUN + '/5/missing') is None

		def ports_in_br0():
			sh('ip link add zs1 type veth peer name zs2 && for p in zs1 zs2; do ip link set $p up master br0; done')
		conf = ('zalk ring5 {\n ring-id = 5\n ring-role = focal\n ring-interval = 50\n'
			' port a { name = zs1\n hello-enable = 0 }\n port b { name = zs2\n hello-enable = 0 }\n}\n')
		ports_in_br0()
		self.addCleanup(sh, 'ip link del zs1 2>/dev/null || true')
		p = self.start(conf=conf)
		self.assertTrue(wait_until(whole, 5))
		# a platform's network reload: br0 and its ports anew (the other tests' ports too)
		sh('ip link del br0')
		self.assertTrue(wait_until(lambda: read(RUN + '/5/missing') == 'br0', 5))
		sh('ip link add br0 type bridge && ip link set br0 up')
		sh("""for p in zr3a '$(>m)' 'r;>q' zs1 zs2; do ip link set "$p" master br0; done""")
		start = time.monotonic()
		self.assertTrue(wait_until(lambda: whole() and 'port zs2 grp 03:4b:a1:01:05' in out('bridge mdb show dev br0'), 5))
		back = [time.monotonic() - start]
		# a ring port deleted (its veth peer with it) and created anew under new indexes
		sh('ip link del zs1')
		self.assertTrue(wait_until(lambda: read(RUN + '/5/missing') == 'zs1 zs2', 5))
		ports_in_br0()
		start = time.monotonic()
		self.assertTrue(wait_until(lambda: whole() and 'port zs2 grp 03:4b:a1:01:05' in out('bridge mdb show dev br0'), 5))
		back.append(time.monotonic() - start)
		print('ring whole again after %.3f s (br0) and %.3f s (ports)' % tuple(back))
		p.send_signal(signal.SIGTERM)
		self.assertEqual(p.wait(timeout=10), 0)


if __name__ == '__main__':
	unittest.main()
