#!/usr/bin/env python3
"""zalkctl against configuration files and status trees made here: every
message byte for byte, every exit status, and bad input of every kind."""
import json
import os
import subprocess
import tempfile
import unittest

ZALKCTL = os.environ.get('ZALKCTL', 'build/zalkctl/zalkctl')
ZALKV2D = os.environ.get('ZALKV2D', 'build/zalkv2d')


def run(*args, timeout=10):
	p = subprocess.run([ZALKCTL, *args], capture_output=True, text=True, timeout=timeout)
	return p.returncode, p.stdout, p.stderr


def ring(rid, role='member', ports=('lo',), extra='', title=None, port_extra=''):
	body = ''.join('port p%d { name = "%s" %s }\n' % (n, name, port_extra) for n, name in enumerate(ports))
	return 'zalk %s { ring-id = %s %s %s\n%s}\n' % (title or 'r%s' % rid, rid,
		'ring-role = %s' % role if role else '', extra, body)


class Check(unittest.TestCase):
	def setUp(self):
		self.dir = tempfile.TemporaryDirectory()
		os.mkdir(os.path.join(self.dir.name, 'etc'))
		self.path = os.path.join(self.dir.name, 'etc', 'zalkv2d.conf')

	def daemon(self):
		"""The real daemon started on the same file, as its /etc/zalkv2d.conf, in
		namespaces of its own: what it prints and its exit status."""
		etc = os.path.dirname(self.path)
		script = ('mount --bind %s /etc && mount -t tmpfs none /run && mount -t tmpfs none /tmp && exec %s'
			  % (etc, os.path.abspath(ZALKV2D)))
		p = subprocess.run(['unshare', '--mount', '--net', '--propagation', 'private', 'sh', '-c', script],
				   capture_output=True, text=True, timeout=10)
		return p.returncode, p.stdout.replace('/etc/zalkv2d.conf', self.path)

	def tearDown(self):
		self.dir.cleanup()

	def check(self, text, *opts):
		with open(self.path, 'w') as f:
			f.write(text)
		return run(*opts, 'check', self.path)

	def test_files_the_daemon_refuses_give_its_own_message(self):
		p = self.path
		cases = [
			('missing', 'Cannot read configuration file %s: No such file or directory\n'),
			('dir', 'Cannot read configuration file %s: Is a directory\n'),
			('fifo', 'Cannot read configuration file %s: Invalid argument\n'),
			('zero', 'Cannot read configuration file %s: Invalid argument\n'),
			('big', 'Cannot read configuration file %s: File too large\n'),
		]
		for kind, message in cases:
			if kind == 'dir':
				os.mkdir(p)
			elif kind == 'fifo':
				os.mkfifo(p)
			elif kind == 'zero':
				os.symlink('/dev/zero', p)
			elif kind == 'big':
				with open(p, 'w') as f:
					f.write(' ' * 65537 + ring(1))
			self.assertEqual(run('check', p, timeout=5), (1, message % p, ''), kind)
			self.assertEqual(self.daemon(), (1, message % p), kind)
			if kind == 'dir':
				os.rmdir(p)
			elif kind != 'missing':
				os.unlink(p)
		# Parse errors: libconfuse's diagnostic on stderr, the daemon's line on stdout.
		for text, diag in [('zalk r { ring-id = 1 bogus = 2 }\n', ":1: no such option 'bogus'"),
				   ('zalk { ring-id = 1 }\n', ':1: '),
				   ('zalk r { ring-id = 1\n port a { name = lo }\n', ':2: premature end of file'),
				   ('zalk r { ring-id = 1 }\n\0zalk x {', ': NUL byte in file')]:
			rc, out, err = self.check(text)
			self.assertEqual((rc, out), self.daemon(), text)
			self.assertRegex(out, '^Error when parsing configuration file %s: [^\n]+\n$' % p)
			self.assertEqual(rc, 1)
			self.assertIn(p + diag, err, text)

	def test_rings_the_daemon_would_not_set_up_are_errors(self):
		rows = [
			(ring(-1), 'error: ring -1 "r-1": ring-id = -1 refused: every ring needs a ring-id (0 to 255)'),
			(ring(256), 'error: ring 256 "r256": ring-id = 256 refused: frames carry ring ids 0 to 255 only'),
			(ring(3, role=''), 'error: ring 3 "r3": ring-role = (none) refused: every ring needs a role, focal or member'),
			(ring(3, 'focal', extra='ring-interval = 0'), 'error: ring 3 "r3": ring-interval = 0 refused: a period must be above 0 ms'),
			(ring(3, 'focal', extra='response-delay = -50'), 'error: ring 3 "r3": response-delay = -50 refused: must be 0 to 107374182399 ms'),
			(ring(3, port_extra='hello-time = -1'), 'error: ring 3 "r3": port p0: hello-time = -1 refused: a period must be above 0 ms'),
			(ring(3, port_extra='forward-delay = -1'), 'error: ring 3 "r3": port p0: forward-delay = -1 refused: must be 0 (none) to 429496729 s'),
			(ring(3, ports=('lo', '../../etc')), 'error: ring 3 "r3": port p1: name = "../../etc" refused: not a Linux interface name'),
			(ring(3, ports=('eth1 dev lo',)), 'error: ring 3 "r3": port p0: name = "eth1 dev lo" refused: not a Linux interface name'),
			(ring(3, ports=('tc_count',)), 'error: ring 3 "r3": port p0: name = "tc_count" refused: the name of one of the ring\'s status files'),
			(ring(3, extra='version = 1'), 'error: ring 3 "r3": version = 1: only version 2 rings are set up'),
			(''.join(ring(i, ports=()) for i in range(1, 12)), 'error: ring 11 "r11": more than 10 rings: this one is not set up'),
		]
		for text, line in rows:
			rc, out, err = self.check(text)
			self.assertEqual(rc, 1, text)
			self.assertIn(line + '\n', out, text)
			self.assertEqual([l for l in out.splitlines() if l.startswith('error: ')], [line], text)
		# The manual's example is the line the daemon logs for its ring.
		out = self.check('zalk r7 { ring-id = 7 ring-role = member port a { name = lo hello-time = 0 } }\n')[1]
		with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), '../../man/zalkv2d.conf.5.in')) as f:
			self.assertIn('\nRing 7: ' + out.split('"r7": ', 1)[1].replace('-', '\\-'), f.read())

	def test_warnings_and_strict(self):
		rows = [
			(ring(25), 'ring 25 "r25": ring-id = 25 is outside 1 to 20: switches that do not run this ring do not filter its frames'),
			(ring(0), 'ring 0 "r0": ring-id = 0 is outside 1 to 20'),
			(ring(3, 'peer'), 'ring 3 "r3": ring-role = "peer" is neither focal nor member: set up as a member'),
			(ring(3) + ring(3, title='again'), 'ring 3 "again": ring-id = 3 also in section "r3": the later section replaces it'),
			(ring(3) + ring(4), 'ring 4 "r4": port p0: interface lo is also a port of ring 3'),
			(ring(3, ports=('lo', 'lo')), 'ring 3 "r3": port p1: interface lo is both port A and port B'),
			(ring(3, 'focal', extra='blocked-port = eth7'), 'ring 3 "r3": blocked-port = "eth7" names neither port: port A is blocked'),
			(ring(3, 'focal', extra='ring-interval = 20'), 'ring 3 "r3": ring-interval = 20 ms is short'),
			(ring(3, 'focal', extra='guarded-recovery = 0'), 'ring 3 "r3": guarded-recovery = 0: Ring frames lost on a whole ring'),
			(ring(3, port_extra='hello-time = 1'), 'ring 3 "r3": port p0: hello-time = 1 ms is short'),
			(ring(3, port_extra='hello-time = 3600001'), 'ring 3 "r3": port p0: hello-time = 3600001 ms is above an hour'),
			(ring(3, port_extra='forward-delay = 3601'), 'ring 3 "r3": port p0: forward-delay = 3601 s is above an hour'),
			(ring(3, 'focal', extra='ring-interval = 3600001'), 'ring 3 "r3": ring-interval = 3600001 ms is above an hour'),
			(ring(3, 'focal', extra='response-delay = 3600001'), 'ring 3 "r3": response-delay = 3600001 ms is above an hour'),
			(ring(3, 'focal', extra='response-delay = 1550'), 'ring 3 "r3": response-delay = 1550 ms is longer than the default 1500 ms: a member of this ring whose forward-delay is not 0 and not longer than 1550 ms would open'),
			(ring(3, port_extra='forward-delay = 1'), 'ring 3 "r3": port p0: forward-delay = 1 s is not longer than the 1500 ms a focal point with the default response-delay takes to answer: this member would open its returning port before the focal point has blocked its own, a loop'),
			(ring(3, port_extra='hello-enable = 0'), 'ring 3 "r3": port p0: hello-enable = 0: a link that fails silently goes unseen'),
			(ring(3, ports=('zalknosuch0',)), 'ring 3 "r3": port p0: interface zalknosuch0 does not exist on this machine'),
			(ring(3, ports=()), 'ring 3 "r3": no port section'),
		]
		for text, line in rows:
			rc, out, err = self.check(text)
			self.assertEqual(rc, 0, text)
			self.assertTrue(('\n' + out).count('\nwarning: ' + line), (text, out))
			self.assertEqual(self.check(text, '--strict')[0], 2, text)
		# Nothing to say about a sound file, strict or not; unset options are not warned about.
		sound = ring(3, 'focal', ports=('lo',), extra='blocked-port = auto') + ring(4, 'member', ports=('lo',), title='b')
		self.assertEqual(self.check(ring(3, 'focal'), '--strict'), (0, '', ''))
		self.assertEqual(self.check(sound)[0], 0)


class Tree(unittest.TestCase):
	"""Status trees as the daemon leaves them, whole and half-written."""

	def setUp(self):
		self.dir = tempfile.TemporaryDirectory()
		self.root = os.path.join(self.dir.name, 'zalkv2')
		self.conf = os.path.join(self.dir.name, 'zalkv2d.conf')
		with open(self.conf, 'w') as f:
			f.write(ring(7, 'focal', ports=('eth2', 'eth1')))
		with open('/proc/uptime') as f:
			self.up = int(float(f.read().split()[0]))
		self.write(7, dict(type='focal-point', state='Ring Ok', tc_count='3', tc_jiffies=str(self.up - 65), **{'ring-interval': '500', 'ring-id': '7'}))
		for name, phys in (('eth1', 'BLOCKING'), ('eth2', 'FORWARDING')):
			self.write(7, dict(link='1', physical_state=phys, logical_state='Qualified', hello_ena='yes', hello_time='500'), name)
		self.write(12, dict(type='member', state='Broken', tc_count='1', tc_jiffies=str(self.up), **{'ring-id': '12'}))
		self.write(12, dict(link='0', physical_state='BLOCKING', logical_state='Down', hello_ena='no', hello_time='250'), 'eth5')

	def tearDown(self):
		self.dir.cleanup()

	def write(self, rid, files, port=''):
		d = os.path.join(self.root, str(rid), port)
		os.makedirs(d, exist_ok=True)
		for k, v in files.items():
			with open(os.path.join(d, k), 'w') as f:
				f.write(v)

	def z(self, *args):
		return run('-r', self.root, '-c', self.conf, *args)

	def test_status_text_and_json(self):
		rc, out, err = self.z('status')
		self.assertEqual((rc, err), (0, ''))
		lines = out.splitlines()
		self.assertEqual(lines[0], 'ring 7  focal-point  Ring Ok  (whole)')
		self.assertRegex(lines[1], r'^  topology changes 3, last 1m0[56]s ago$')
		# Port A (eth2) first as the file says, the blocked port marked.
		self.assertRegex(lines[4], r'^  A +eth2 +up +FORWARDING +Qualified +on 500 ms$')
		self.assertRegex(lines[5], r'^  B +eth1 +up +BLOCKING +Qualified +on 500 ms +<== BLOCKED$')
		self.assertIn('ring 12  member  Broken  (broken)', out)
		self.assertRegex(out, r'-    eth5 +down +BLOCKING +Down +off 250 ms')
		rc, out, err = self.z('status', '--json', '7')
		doc = json.loads(out)
		self.assertEqual(rc, 0)
		r = doc['rings'][0]
		self.assertEqual(len(doc['rings']), 1)
		self.assertEqual({k: r[k] for k in ('ring_id', 'role', 'state', 'tc_count', 'whole', 'ring_interval_ms')},
				 dict(ring_id=7, role='focal-point', state='Ring Ok', tc_count=3, whole=True, ring_interval_ms=500))
		self.assertIn(r['tc_age_s'], (65, 66))
		self.assertEqual(r['ports'][0], dict(name='eth2', port='A', link=1, physical_state='FORWARDING', logical_state='Qualified',
						     hello_enable=True, hello_time_ms=500, blocked=False))
		self.assertEqual([p['name'] for p in r['ports']], ['eth2', 'eth1'])
		self.assertEqual([r['ring_id'] for r in json.loads(self.z('-j', 'status')[1])['rings']], [7, 12])
		# A ring whose port left br0 is not whole, whatever its state; one that waits for br0 has no other file.
		self.write(7, dict(missing='eth1'))
		self.write(5, dict(missing='br0'))
		rc, out, err = self.z('status')
		self.assertEqual((rc, out.splitlines()[0], err), (0, 'ring 5  ?  ?  (waits for br0)', ''))
		self.assertIn('ring 7  focal-point  Ring Ok  (waits for eth1)', out)
		self.assertEqual([(r['whole'], r['missing']) for r in json.loads(self.z('-j', 'status', '7')[1])['rings']], [(False, 'eth1')])

	def test_metrics(self):
		rc, out, err = self.z('metrics')
		self.assertEqual(rc, 0)
		for line in ['zalkv2_ring_state{ring="7",role="focal-point",state="Ring Ok"} 1',
			     'zalkv2_ring_state{ring="12",role="member",state="Broken"} 1',
			     'zalkv2_ring_state{ring="12",role="member",state="Ok"} 0',
			     'zalkv2_ring_whole{ring="7"} 1', 'zalkv2_ring_whole{ring="12"} 0',
			     'zalkv2_ring_topology_changes_total{ring="7"} 3', '# TYPE zalkv2_ring_topology_changes_total counter',
			     'zalkv2_port_link{ring="12",port="eth5"} 0',
			     'zalkv2_port_physical_state{ring="7",port="eth1",state="BLOCKING"} 1',
			     'zalkv2_port_logical_state{ring="7",port="eth2",state="Qualified"} 1']:
			self.assertIn(line + '\n', out)

	def test_bad_input_and_half_written_trees(self):
		self.assertEqual(self.z('status', '9'), (1, '', 'zalkctl: no ring 9\n'))
		self.assertEqual(self.z('status', 'x7'), (1, '', 'zalkctl: not a ring id: x7\n'))
		self.assertEqual(self.z('frob')[0::2], (1, 'zalkctl: unknown command "frob", try "zalkctl help"\n'))
		self.assertEqual(run()[0], 1)
		gone = os.path.join(self.dir.name, 'none')
		for verb in ('status', 'metrics', 'debug'):
			self.assertEqual(run('-r', gone, verb), (3, '', 'zalkctl: zalkv2d is not running (no %s)\n' % gone), verb)
		self.assertEqual(run('-r', gone, '-j', 'status', '7')[0], 3)
		# A ring being set up: no state yet, an empty file, a port without its files.
		self.write(4, dict(type='member', tc_count=''))
		self.write(4, {}, 'eth9')
		for args in (('status',), ('-j', 'status'), ('metrics',)):
			rc, out, err = self.z(*args)
			self.assertEqual((rc, err), (1, 'zalkctl: ring 4: status incomplete (being set up or torn down?)\n'), args)
		doc = json.loads(self.z('-j', 'status', '4')[1])['rings'][0]
		self.assertEqual((doc['state'], doc['tc_count'], doc['ports'][0]['link']), (None, None, None))
		self.assertIn('ring 4  member  ?  (broken)', self.z('status', '4')[1])

	def test_debug_by_name_and_number(self):
		self.assertEqual(self.z('debug'), (0, 'debug 0: none\n', ''))
		self.assertEqual(self.z('debug', 'state', 'EVENTLOG', '0x2')[0], 0)
		with open(os.path.join(self.root, 'debug')) as f:
			self.assertEqual(int(f.readline()), 131)
		self.assertEqual(self.z('debug'), (0, 'debug 131: state dbg eventlog\n', ''))
		with open(os.path.join(self.root, 'debug'), 'w') as f:
			f.write('0x18 trailing')  # read as the daemon reads it
		self.assertEqual(self.z('debug'), (0, 'debug 24: trace msg\n', ''))
		self.assertEqual(self.z('debug', 'loud')[0::2], (1, 'zalkctl: unknown debug bit: loud (state dbg note trace msg tip eventlog none, or a number)\n'))
		self.assertEqual(self.z('debug', 'none')[0], 0)
		self.assertEqual(self.z('debug'), (0, 'debug 0: none\n', ''))


if __name__ == '__main__':
	unittest.main()
