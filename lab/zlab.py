#!/usr/bin/python3
"""The ring lab: rings of emulated switches on one Linux machine.

An emulated switch is a network namespace (zl-sN) with the bridge br0, its
ring ports (veth ends) and optionally a host port leading to an end-host
namespace (zl-hN), plus a mount namespace of its own so that its zalkv2d
sees its own /etc/zalkv2d.conf, /var/run (base MAC file, status tree) and
/tmp (event log). The mount namespaces are kept alive as bind mounts under
the lab's state directory, so a daemon can be killed and restarted and still
find the /var/run it left behind, as on a real switch.

Everything the lab makes carries the prefix "zl" (namespaces, interfaces,
nftables tables) and lives either inside its own namespaces or under the
state directory, so it never meets the machine's own interfaces. `down`
removes all of it, also what a crashed earlier run left behind.
"""
import contextlib
import json
import os
import shutil
import signal
import subprocess
import sys
import time

import capture

STATE = os.environ.get('ZLAB_STATE', '/run/zlab')
# The traffic probe stands for a tester with hardware of its own: it runs
# real-time above the daemons (SCHED_FIFO 49), so its frames leave on
# schedule and a gap at the receiver is frames the ring lost, not a sender
# held back while the emulated switches' daemons share the machine's cores.
PROBE_PRIO = ['chrt', '-f', '80']
NS_PREFIX = 'zl-'
NFT_TABLE = 'zlab'
LAB_DIR = os.path.dirname(os.path.abspath(__file__))
PROBE_SRC = os.path.join(LAB_DIR, 'probe.c')
FOCAL, MEMBER = 'focal', 'member'

# Kernel bridge port state numbers and the names the status files use.
PORT_STATES = {0: 'DISABLED', 1: 'LISTENING', 2: 'LEARNING', 3: 'FORWARDING', 4: 'BLOCKING'}


class LabError(Exception):
	pass


def sh(cmd, check=True, input=None, timeout=30):
	"""Runs an argument vector; returns its standard output."""
	r = subprocess.run(cmd, input=input, capture_output=True, text=True, timeout=timeout)
	if check and r.returncode != 0:
		raise LabError('%s: %s' % (' '.join(cmd), (r.stderr or r.stdout).strip()))
	return r.stdout


def nsx(ns, *cmd, check=True, input=None):
	return sh(['ip', 'netns', 'exec', ns] + list(cmd), check=check, input=input)


def group_mac(ring_id, k):
	return '03:4b:a1:01:%02x:%02x' % (ring_id & 0xff, k)


# ---------------------------------------------------------------------------
# Topology description (plain data, saved as JSON so every command of the
# command-line tool and every test sees the same lab).

def ring_section(ring_id, role, port_a, port_b, **opt):
	return dict(ring_id=ring_id, role=role, port_a=port_a, port_b=port_b,
		    blocked=opt.get('blocked'), guarded=opt.get('guarded', 1),
		    ring_interval=opt.get('ring_interval', 500),
		    response_delay=opt.get('response_delay', 1500),
		    hello=opt.get('hello', 1), hello_time=opt.get('hello_time', 500),
		    forward_delay=opt.get('forward_delay', 0))


def make_ring(n, ring_id=1, focal=1, blocked='A', hosts=(), bus=False, first=1, **opt):
	"""A ring of n switches s<first>..; link k joins port B of switch k to
	port A of switch k+1, the last link closes the ring back to the first
	switch. A bus leaves out that last link: the end switches keep one
	port section each (bus edges)."""
	if n < 2:
		raise LabError('a ring needs at least 2 switches')
	sw = ['s%d' % (first + i) for i in range(n)]
	pa = 'zl%da' % ring_id
	pb = 'zl%db' % ring_id
	links = []
	for i in range(n if not bus else n - 1):
		links.append(dict(name='L%d' % (i + 1) if ring_id == 1 else 'R%dL%d' % (ring_id, i + 1),
				  a=[sw[i], pb], b=[sw[(i + 1) % n], pa]))
	switches = {}
	for i, s in enumerate(sw):
		role = FOCAL if i + 1 == focal else MEMBER
		a, b = pa, pb
		if bus and i == 0:
			a, b = pb, None        # first switch only reaches forward
		elif bus and i == n - 1:
			b = None
		bl = None
		if role == FOCAL:
			bl = {'A': a, 'B': b}.get(blocked, blocked) or a
		switches[s] = dict(rings=[ring_section(ring_id, role, a, b, blocked=bl, **opt)])
	for h in hosts:
		switches['s%d' % h]['host'] = True
	return dict(switches=switches, links=links)


def merge(t1, t2):
	"""Two topologies sharing switches: ring sections of a shared switch
	are joined into one daemon (two instances)."""
	out = json.loads(json.dumps(t1))
	for s, d in t2['switches'].items():
		if s in out['switches']:
			out['switches'][s]['rings'] += d['rings']
			out['switches'][s]['host'] = out['switches'][s].get('host') or d.get('host')
		else:
			out['switches'][s] = d
	out['links'] += t2['links']
	return out


def conf_text(sw):
	"""/etc/zalkv2d.conf of one switch."""
	out = []
	for r in sw['rings']:
		out.append('zalk ring%d {' % r['ring_id'])
		out.append('\tring-id = %d' % r['ring_id'])
		out.append('\tring-role = "%s"' % ('focal-point' if r['role'] == FOCAL else 'member'))
		if r['role'] == FOCAL:
			out.append('\tguarded-recovery = %d' % r['guarded'])
			out.append('\tring-interval = %d' % r['ring_interval'])
			out.append('\tresponse-delay = %d' % r['response_delay'])
			out.append('\tblocked-port = "%s"' % (r['blocked'] or 'auto'))
		for p in ('port_a', 'port_b'):
			if r[p]:
				out.append('\tport %s {' % p[-1])
				out.append('\t\tname = "%s"' % r[p])
				out.append('\t\thello-enable = %d' % r['hello'])
				out.append('\t\thello-time = %d' % r['hello_time'])
				out.append('\t\tforward-delay = %d' % r['forward_delay'])
				out.append('\t}')
		out.append('}')
	return '\n'.join(out) + '\n'


# ---------------------------------------------------------------------------
# Kernel capabilities

@contextlib.contextmanager
def _scratch_ns(name):
	"""A throwaway network namespace for a probe of the kernel's abilities."""
	ns = NS_PREFIX + name
	sh(['ip', 'netns', 'del', ns], check=False)
	sh(['ip', 'netns', 'add', ns])
	try:
		yield ns
	finally:
		sh(['ip', 'netns', 'del', ns], check=False)


_flower = None


def kernel_has_flower():
	"""Whether tc flower with the drop action works here; when it does the
	daemon's own filters do the job and the lab adds no stand-in."""
	global _flower
	if _flower is None:
		with _scratch_ns('probe-tc') as ns:
			sh(['ip', '-n', ns, 'link', 'add', 'zlx', 'type', 'veth', 'peer', 'name', 'zly'])
			ok = subprocess.run(['tc', '-n', ns, 'qdisc', 'add', 'dev', 'zlx', 'clsact'],
					    capture_output=True).returncode == 0
			r = subprocess.run(['tc', '-n', ns, 'filter', 'add', 'dev', 'zlx', 'ingress', 'protocol', 'all',
					    'prio', '1', 'flower', 'skip_hw', 'dst_mac', '03:4b:a1:01:01:01',
					    'action', 'drop'], capture_output=True)
			_flower = ok and r.returncode == 0
	return _flower


_blocking = None


def kernel_holds_blocking():
	"""Whether a bridge port set to BLOCKING inside a network namespace stays
	so. Where it does not (a bridge without STP turns it straight back to
	FORWARDING, one with the kernel's STP refuses it) the lab runs the lab
	build of the daemon, zalkv2d-lab, which asks for DISABLED instead."""
	global _blocking
	if _blocking is None:
		with _scratch_ns('probe-st') as ns:
			sh(['ip', '-n', ns, 'link', 'add', 'zlbr', 'type', 'bridge', 'stp_state', '0'])
			sh(['ip', '-n', ns, 'link', 'add', 'zlx', 'type', 'veth', 'peer', 'name', 'zly'])
			sh(['ip', '-n', ns, 'link', 'set', 'zlx', 'master', 'zlbr'])
			for d in ('zlbr', 'zly', 'zlx'):
				sh(['ip', '-n', ns, 'link', 'set', d, 'up'])
			# the port must have carrier before a state other than
			# DISABLED can be set
			end = time.monotonic() + 2.0
			while _port_state(ns, 'zlx') in (None, 'disabled') and time.monotonic() < end:
				time.sleep(0.005)
			subprocess.run(['bridge', '-n', ns, 'link', 'set', 'dev', 'zlx', 'state', '4'], capture_output=True)
			time.sleep(0.05)
			_blocking = _port_state(ns, 'zlx') == 'blocking'
	return _blocking


def _port_state(ns, port):
	"""The kernel's bridge port state ('forwarding', 'disabled', ...)."""
	out = sh(['bridge', '-n', ns, '-j', 'link', 'show', 'dev', port], check=False)
	try:
		return json.loads(out)[0].get('state')
	except (ValueError, IndexError):
		return None


def lab_daemon(daemon):
	"""The binary the lab runs: the given one, or on a kernel that cannot
	hold a port blocked in a namespace the lab build next to it."""
	if kernel_holds_blocking():
		return daemon, False
	lab_bin = os.path.join(os.path.dirname(os.path.abspath(daemon)), 'zalkv2d-lab')
	if not os.access(lab_bin, os.X_OK):
		raise LabError('this kernel cannot hold a bridge port blocked in a network namespace and there is '
			       'no %s: build the target zalkv2d-lab' % lab_bin)
	return lab_bin, True


# ---------------------------------------------------------------------------
# The lab

class Lab:
	def __init__(self, daemon=None, state=STATE):
		self.state = state
		self.daemon = daemon
		self.topo = None
		self.pids = {}
		self.standin = None
		self.port_standin = None
		p = os.path.join(state, 'lab.json')
		if os.path.exists(p):
			with open(p) as f:
				d = json.load(f)
			self.topo, self.pids = d['topo'], d['pids']
			self.daemon = daemon or d.get('daemon')
			self.standin = d.get('standin')
			self.port_standin = d.get('port_standin')

	def save(self):
		os.makedirs(self.state, exist_ok=True)
		with open(os.path.join(self.state, 'lab.json'), 'w') as f:
			json.dump(dict(topo=self.topo, pids=self.pids, daemon=self.daemon,
				       standin=self.standin, port_standin=self.port_standin), f, indent=1)

	# -- names and paths
	@staticmethod
	def ns(s):
		return NS_PREFIX + s

	def swdir(self, s):
		return os.path.join(self.state, 'sw', s)

	def run_dir(self, s):
		"""The switch's /var/run as seen from outside."""
		return os.path.join(self.swdir(s), 'run')

	def switches(self):
		return sorted(self.topo['switches'], key=lambda s: int(s[1:]))

	def link(self, name):
		for l in self.topo['links']:
			if l['name'] == name:
				return l
		raise LabError('no link %s' % name)

	def base_mac(self, s):
		return '02:5a:4c:00:%02x:00' % int(s[1:])

	# -- bring up
	def up(self, topo, start=True):
		down(self.state)
		self.topo = topo
		self.pids = {}
		if self.daemon:
			self.daemon, self.port_standin = lab_daemon(self.daemon)
		else:
			self.port_standin = not kernel_holds_blocking()
		self.standin = not kernel_has_flower()
		# Everything of the lab lives in memory, as a switch's /run and
		# /tmp do: where the machine's /run is a disk file system, every
		# status file rewrite would otherwise wait for the disk.
		os.makedirs(self.state, exist_ok=True)
		sh(['mount', '-t', 'tmpfs', '-o', 'mode=0755,size=256m', 'zlab', self.state])
		sh(['mount', '--make-private', self.state])
		os.makedirs(os.path.join(self.state, 'mnt'), exist_ok=True)
		# the mount-namespace files need a private mount point to live on
		sh(['mount', '--bind', os.path.join(self.state, 'mnt'), os.path.join(self.state, 'mnt')])
		sh(['mount', '--make-private', os.path.join(self.state, 'mnt')])
		for s in self.switches():
			self._make_switch(s)
			# the ring ports are held (nothing bridged in or out) from
			# before they exist until they are set blocking below
			self._standin_filters(s)
		for l in topo['links']:
			(sa, pa), (sb, pb) = l['a'], l['b']
			sh(['ip', 'link', 'add', 'zltmp0', 'netns', self.ns(sa), 'type', 'veth',
			    'peer', 'name', 'zltmp1', 'netns', self.ns(sb)])
			sh(['ip', '-n', self.ns(sa), 'link', 'set', 'zltmp0', 'name', pa])
			sh(['ip', '-n', self.ns(sb), 'link', 'set', 'zltmp1', 'name', pb])
			for ns, p in ((sa, pa), (sb, pb)):
				sh(['ip', '-n', self.ns(ns), 'link', 'set', p, 'master', 'br0'])
				sh(['ip', '-n', self.ns(ns), 'link', 'set', p, 'up'])
		# every ring port starts blocked, as a port coming up under
		# user-space STP does
		ends = [tuple(e) for l in topo['links'] for e in (l['a'], l['b'])]
		self._settle(ends)
		for s, p in ends:
			self._set_blocked(s, p)
		for s in self.switches():
			self._hold(s, self.ring_ports(s), False)
		self.save()
		if start:
			for s in self.switches():
				self.start(s)

	def _settle(self, ends, timeout=2.0):
		"""Waits until the kernel has taken up the carrier of the given
		ports (its bridge enables a port only when it handles the change)."""
		self.wait(lambda: all(_port_state(self.ns(s), p) not in (None, 'disabled') for s, p in ends), timeout, 0.002)

	def _set_blocked(self, s, p):
		"""Puts a ring port into the state that stands for BLOCKING here."""
		sh(['bridge', '-n', self.ns(s), 'link', 'set', 'dev', p, 'state', '0' if self.port_standin else '4'])

	def _hold(self, s, ports, on):
		"""Adds ring ports to or removes them from the switch's hold set."""
		if not ports:
			return
		verb = 'add' if on else 'delete'
		nsx(self.ns(s), 'nft', '%s element bridge %s hold { %s }' % (verb, NFT_TABLE, ', '.join('"%s"' % p for p in ports)))

	def _make_switch(self, s):
		ns = self.ns(s)
		sh(['ip', 'netns', 'add', ns])
		sh(['ip', '-n', ns, 'link', 'set', 'lo', 'up'])
		# No IPv6 on the switch's ports, as on a switch whose bridge ports
		# carry no addresses: with it, a port set down in a cut would run
		# the address and multicast-listener teardown under the rtnetlink
		# lock before the far end's carrier loss could be announced.
		nsx(ns, 'sysctl', '-qw', 'net.ipv6.conf.all.disable_ipv6=1', 'net.ipv6.conf.default.disable_ipv6=1')
		# a plain bridge without STP: the daemon sets the ring ports' states
		sh(['ip', '-n', ns, 'link', 'add', 'br0', 'type', 'bridge', 'stp_state', '0',
		    'forward_delay', '0', 'mcast_snooping', '0'])
		sh(['ip', '-n', ns, 'link', 'set', 'br0', 'address', self.base_mac(s)])
		sh(['ip', '-n', ns, 'link', 'set', 'br0', 'up'])
		if self.topo['switches'][s].get('host'):
			h = 'h' + s[1:]
			hns = self.ns(h)
			sh(['ip', 'netns', 'add', hns])
			sh(['ip', 'link', 'add', 'zlhost', 'netns', ns, 'type', 'veth', 'peer', 'name', 'eth0',
			    'netns', hns])
			sh(['ip', '-n', ns, 'link', 'set', 'zlhost', 'master', 'br0'])
			sh(['ip', '-n', ns, 'link', 'set', 'zlhost', 'up'])
			sh(['ip', '-n', hns, 'link', 'set', 'eth0', 'address', self.host_mac(h)])
			sh(['ip', '-n', hns, 'link', 'set', 'eth0', 'up'])
			sh(['ip', '-n', hns, 'link', 'set', 'lo', 'up'])
		d = self.swdir(s)
		for sub in ('run/system/0', 'tmp', 'etc-upper', 'etc-work'):
			os.makedirs(os.path.join(d, sub), exist_ok=True)
		with open(os.path.join(d, 'run/system/0/mac-base'), 'w') as f:
			f.write(self.base_mac(s) + '\n')
		with open(os.path.join(d, 'etc-upper/zalkv2d.conf'), 'w') as f:
			f.write(conf_text(self.topo['switches'][s]))
		mnt = os.path.join(self.state, 'mnt', s)
		open(mnt, 'w').close()
		# /etc first (overlay whose upper layer is the switch's own), then
		# /tmp, then /run last since it hides the lab's directory.
		script = ('set -e; mount --make-rprivate /; '
			  'mount -t overlay zl-etc -o lowerdir=/etc,upperdir={d}/etc-upper,workdir={d}/etc-work /etc; '
			  'mount --bind {d}/tmp /tmp; umount -l /sys; mount -t sysfs sysfs /sys; '
			  'mount --bind {d}/run /run').format(d=d)
		sh(['nsenter', '--net=/run/netns/' + ns, 'unshare', '--mount=' + mnt, '--propagation', 'private',
		    'sh', '-c', script])

	def host_mac(self, h):
		return '02:5a:4c:48:%02x:01' % int(h[1:])

	def ring_ports(self, s):
		return [p for r in self.topo['switches'][s]['rings'] for p in (r['port_a'], r['port_b']) if p]

	def _standin_filters(self, s):
		"""nftables table of the switch. Always: the hold set, ring ports
		that bridge nothing while the lab brings a link up (see heal()).
		Where the kernel has no tc flower, also the stand-in for the
		daemon's drop filters: group address 1 of each ring never leaves
		the switch it entered, and on a focal point group addresses 2 and 3
		are not forwarded either."""
		t = NFT_TABLE
		rules = ['add table bridge %s' % t,
			 'add set bridge %s hold { type ifname; }' % t,
			 'add chain bridge %s zlfwd { type filter hook forward priority 0; policy accept; }' % t,
			 'add chain bridge %s zlpre { type filter hook prerouting priority 0; policy accept; }' % t,
			 # dropped before the bridge learns the source address, as a
			 # blocked port neither forwards nor learns
			 'add rule bridge %s zlpre iifname @hold drop' % t,
			 'add rule bridge %s zlfwd oifname @hold drop' % t]
		for p in self.ring_ports(s):
			rules.append('add element bridge %s hold { "%s" }' % (t, p))
		if self.standin:
			for r in self.topo['switches'][s]['rings']:
				macs = [1, 2, 3] if r['role'] == FOCAL else [1]
				for k in macs:
					rules.append('add rule bridge %s zlfwd ether daddr %s drop' % (t, group_mac(r['ring_id'], k)))
		nsx(self.ns(s), 'nft', '-f', '-', input='\n'.join(rules) + '\n')

	# -- daemons
	def start(self, s, debug=None):
		if not self.daemon:
			raise LabError('no daemon binary given')
		if debug is not None:
			self.write_file(s, '/run/zalkv2/debug', str(debug))
		log = open(os.path.join(self.swdir(s), 'daemon.log'), 'ab')
		# The binary is handed over as an open file: in the switch's own
		# mount namespace /tmp, /run and /etc are other directories, and a
		# build tree below one of them would not be found by its path.
		exe = os.open(os.path.abspath(self.daemon), os.O_RDONLY | os.O_CLOEXEC)
		p = subprocess.Popen(['nsenter', '--net=/run/netns/' + self.ns(s),
				      '--mount=' + os.path.join(self.state, 'mnt', s),
				      '/proc/self/fd/%d' % exe],
				     stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True,
				     pass_fds=(exe,))
		os.close(exe)
		log.close()
		self.pids[s] = p.pid
		self.save()
		return p.pid

	def alive(self, s):
		pid = self.pids.get(s)
		if not pid:
			return False
		try:
			with open('/proc/%d/stat' % pid) as f:
				return f.read().split()[2] != 'Z'
		except OSError:
			return False

	def kill(self, s, sig):
		os.kill(self.pids[s], sig)

	def stop(self, s, sig=signal.SIGTERM, timeout=30.0):
		"""Ends one daemon; returns its exit status (None if it had to be
		killed or was not ours to wait for)."""
		pid = self.pids.get(s)
		if not pid:
			return None
		try:
			os.kill(pid, sig)
		except ProcessLookupError:
			self.pids.pop(s, None)
			return None
		end = time.monotonic() + timeout
		status = None
		while time.monotonic() < end:
			try:
				r, st = os.waitpid(pid, os.WNOHANG)
			except ChildProcessError:
				if not self.alive(s):
					break
				r = 0
			if r == pid:
				status = os.waitstatus_to_exitcode(st)
				break
			time.sleep(0.01)
		else:
			os.kill(pid, signal.SIGKILL)
			try:
				os.waitpid(pid, 0)
			except ChildProcessError:
				pass
		self.pids.pop(s, None)
		self.save()
		return status

	def reload(self, s, sw=None):
		"""Writes a (changed) configuration and sends SIGHUP."""
		if sw is not None:
			self.topo['switches'][s] = sw
			self.save()
		self.write_file(s, '/etc/zalkv2d.conf', conf_text(self.topo['switches'][s]))
		self.kill(s, signal.SIGHUP)

	def write_file(self, s, path, text):
		"""Writes a file as the switch sees it (inside its mount namespace)."""
		sh(['nsenter', '--mount=' + os.path.join(self.state, 'mnt', s), 'sh', '-c',
		    'mkdir -p "$(dirname "$1")" && cat > "$1"', 'sh', path], input=text)

	def daemon_log(self, s):
		try:
			with open(os.path.join(self.swdir(s), 'daemon.log'), errors='replace') as f:
				return f.read()
		except OSError:
			return ''

	def report(self, s, timeout=2.0):
		"""SIGUSR1; returns the report text the daemon wrote to stderr."""
		before = len(self.daemon_log(s))
		self.kill(s, signal.SIGUSR1)
		end = time.monotonic() + timeout
		while time.monotonic() < end:
			t = self.daemon_log(s)[before:]
			if ' Debug level:' in t and t.endswith('\n'):
				return t
			time.sleep(0.02)
		return self.daemon_log(s)[before:]

	def loop_delay(self, s, hup=True, timeout=10.0):
		"""Milliseconds from a signal to the SIGUSR1 report in the daemon's
		output. With hup, an unchanged SIGHUP goes first and the SIGUSR1
		2 ms after it, so the report waits for the reload to finish: the
		figure is how long the reload blocks the daemon's loop, plus the
		report itself (measure that with hup=False)."""
		before = len(self.daemon_log(s))
		t = time.monotonic()
		if hup:
			self.kill(s, signal.SIGHUP)
			time.sleep(0.002)
		self.kill(s, signal.SIGUSR1)
		while time.monotonic() - t < timeout:
			if ' Debug level:' in self.daemon_log(s)[before:]:
				return (time.monotonic() - t) * 1e3
			time.sleep(0.0005)
		return None

	# -- links
	def cut(self, name, end='a'):
		"""Carrier loss: one end of the link ('a' or 'b') goes down, so
		both ends lose carrier. Returns the wall-clock time of the cut."""
		l = self.link(name)
		s, p = l[end]
		self.topo.setdefault('cuts', {})[name] = 'cut'
		self.topo.setdefault('cut_ends', {})[name] = end
		self.save()
		t = time.time()
		sh(['ip', '-n', self.ns(s), 'link', 'set', p, 'down'])
		return t

	def silent_cut(self, name):
		"""Frames dropped both ways, carriers stay up: only Hello loss and
		ring supervision can notice. nftables egress drop on both ends
		(an egress drop, so not even the peer's packet sockets see them)."""
		l = self.link(name)
		self.topo.setdefault('cuts', {})[name] = 'silent'
		self.save()
		rules = (''.join('add table netdev zlcut_{p}\n'
				 'add chain netdev zlcut_{p} out {{ type filter hook egress device {p} '
				 'priority 0; policy drop; }}\n'.format(p=p) for s, p in (l['a'],)),
			 ''.join('add table netdev zlcut_{p}\n'
				 'add chain netdev zlcut_{p} out {{ type filter hook egress device {p} '
				 'priority 0; policy drop; }}\n'.format(p=p) for s, p in (l['b'],)))
		t = time.time()
		nsx(self.ns(l['a'][0]), 'nft', '-f', '-', input=rules[0])
		nsx(self.ns(l['b'][0]), 'nft', '-f', '-', input=rules[1])
		return t

	def heal(self, name):
		"""Undoes a cut or a silent cut. Returns the wall-clock time of the
		step that lets frames pass again.

		When the carrier returns, a bridge without STP makes the port
		forward at once, where a switch whose STP runs in user space keeps
		a returning port blocked until its daemon opens it (the daemon
		does not ask again for the state it already set). So the lab holds
		both ends (nothing bridged) while the carrier returns, puts each
		back into the state its daemon last set (its physical_state file)
		and lifts the hold: a few milliseconds, well inside the Hello
		qualification and the focal point's response hold, before which
		no daemon opens a returning port (a member whose other link is
		also down may open it at once; the file read covers that unless it
		happens within those milliseconds)."""
		l = self.link(name)
		kind = self.topo.get('cuts', {}).pop(name, 'cut')
		s_down, p_down = l[self.topo.get('cut_ends', {}).pop(name, 'a')]
		self.save()
		if kind == 'silent':
			t = time.time()
			for s, p in (l['a'], l['b']):
				nsx(self.ns(s), 'nft', 'delete', 'table', 'netdev', 'zlcut_' + p, check=False)
			return t
		ends = [tuple(l['a']), tuple(l['b'])]
		if self.topo.get('kernel_stp'):
			t = time.time()
			sh(['ip', '-n', self.ns(s_down), 'link', 'set', p_down, 'up'])
			return t
		for s, p in ends:
			self._hold(s, [p], True)
		t = time.time()
		sh(['ip', '-n', self.ns(s_down), 'link', 'set', p_down, 'up'])
		self._settle(ends)
		blocked = []
		for s, p in ends:
			if self.physical_state(s, p) != 'FORWARDING':
				self._set_blocked(s, p)
				blocked.append((s, p))
		# A daemon that opened a port we just blocked, between the file
		# read and the set above (a member whose other link is down opens
		# a returning port at once), writes its file after its request:
		# while the ports are still held, its word wins. Only a change to
		# FORWARDING counts; a file that said so all along may be stale
		# (the daemon blocks the returning port and writes the file later).
		for _ in range(3):
			time.sleep(0.02)
			for s, p in blocked:
				if self.physical_state(s, p) == 'FORWARDING' and _port_state(self.ns(s), p) != 'forwarding':
					sh(['bridge', '-n', self.ns(s), 'link', 'set', 'dev', p, 'state', '3'])
		for s, p in ends:
			self._hold(s, [p], False)
		return t

	def physical_state(self, s, p):
		"""The state the switch's daemon last set on a ring port."""
		for r in self.topo['switches'][s]['rings']:
			if p in (r['port_a'], r['port_b']):
				return self.read(s, '%d/%s/physical_state' % (r['ring_id'], p))
		return None

	def link_of_port(self, s, p):
		for l in self.topo['links']:
			if l['a'] == [s, p] or l['b'] == [s, p]:
				return l['name']
		return None

	# -- status
	def read(self, s, rel):
		try:
			with open(os.path.join(self.run_dir(s), 'zalkv2', rel)) as f:
				return f.read()
		except OSError:
			return None

	def kernel_port_state(self, s, port):
		"""The bridge port state in effect, as the kernel reports it, except
		that under the lab build DISABLED on a port with carrier is the
		daemon's BLOCKING (a port without carrier is DISABLED anyway)."""
		st = _port_state(self.ns(s), port)
		if not isinstance(st, str):
			return st
		st = st.upper()
		if st == 'DISABLED' and self.port_standin and self.carrier(s, port):
			return 'BLOCKING'
		return st

	def carrier(self, s, port):
		out = sh(['ip', '-n', self.ns(s), '-j', 'link', 'show', 'dev', port], check=False)
		try:
			return 'LOWER_UP' in json.loads(out)[0]['flags']
		except (ValueError, IndexError, KeyError):
			return False

	def zalkctl_bin(self):
		"""zalkctl from the daemon's build (or $ZALKCTL), or None."""
		b = os.environ.get('ZALKCTL') or os.path.join(os.path.dirname(self.daemon or ''), 'zalkctl', 'zalkctl')
		return b if os.access(b, os.X_OK) else None

	def zalkctl(self, s, *args):
		"""zalkctl run as an operator on switch s runs it: inside the switch's
		namespaces, with its default paths. (exit status, stdout, stderr)"""
		p = subprocess.run(['nsenter', '--net=/run/netns/' + self.ns(s), '--mount=' + os.path.join(self.state, 'mnt', s),
				    self.zalkctl_bin(), *args], capture_output=True, text=True, timeout=10)
		return p.returncode, p.stdout, p.stderr

	def _status_reader(self, s, via_zalkctl):
		"""read(rel) over the switch's status tree: its files, or one
		`zalkctl status --json` of the switch turned back into the same
		files (the view's way, so the tool is what the operator sees)."""
		if not via_zalkctl:
			return lambda rel: self.read(s, rel)
		rc, out, _ = self.zalkctl(s, '-j', 'status')
		files = {}
		try:
			rings = json.loads(out)['rings'] if rc in (0, 1) else []
		except ValueError:
			rings = []
		for r in rings:
			files['%d/state' % r['ring_id']] = r['state']
			files['%d/type' % r['ring_id']] = r['role']
			files['%d/tc_count' % r['ring_id']] = None if r['tc_count'] is None else str(r['tc_count'])
			for p in r['ports']:
				for f in ('physical_state', 'logical_state', 'link'):
					files['%d/%s/%s' % (r['ring_id'], p['name'], f)] = None if p[f] is None else str(p[f])
		return files.get

	def status(self, via_zalkctl=False):
		"""Everything the status view shows, per switch and ring. The polling
		loops read the files directly; the view goes through zalkctl."""
		out = {}
		via_zalkctl = via_zalkctl and self.zalkctl_bin()
		for s in self.switches():
			sw = dict(alive=self.alive(s), rings={})
			read = self._status_reader(s, via_zalkctl)
			for r in self.topo['switches'][s]['rings']:
				rid = r['ring_id']
				d = dict(role=r['role'], state=read('%d/state' % rid),
					 type=read('%d/type' % rid),
					 tc_count=read('%d/tc_count' % rid), ports={})
				for key in ('port_a', 'port_b'):
					p = r[key]
					if not p:
						continue
					d['ports'][key[-1].upper()] = dict(
						name=p, physical=read('%d/%s/physical_state' % (rid, p)),
						logical=read('%d/%s/logical_state' % (rid, p)),
						link=read('%d/%s/link' % (rid, p)),
						kernel=self.kernel_port_state(s, p), carrier=self.carrier(s, p),
						blocked_cfg=(r['role'] == FOCAL and r['blocked'] == p))
				sw['rings'][str(rid)] = d
			out[s] = sw
		return out

	def blocking_ports(self, ring_id=None, st=None):
		"""Ring ports the kernel holds blocking (or disabled) whose link has
		carrier: the ports that keep a closed ring loop-free."""
		st = st or self.status()
		res = []
		for s, sw in st.items():
			for rid, r in sw['rings'].items():
				if ring_id is not None and int(rid) != ring_id:
					continue
				for k, p in r['ports'].items():
					if p['carrier'] and p['kernel'] != 'FORWARDING':
						res.append((s, p['name']))
		return res

	def wait(self, cond, timeout, step=0.01):
		"""Polls cond() until it is true or the time is up."""
		end = time.monotonic() + timeout
		while True:
			v = cond()
			if v or time.monotonic() >= end:
				return v
			time.sleep(step)

	# -- end hosts and traffic
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


# ---------------------------------------------------------------------------
# Teardown, also after a crash

def down(state=STATE):
	"""Removes everything any lab run left: daemons started from the lab's
	mount namespaces, namespaces called zl-*, the mount-namespace files."""
	lab_json = os.path.join(state, 'lab.json')
	pids = {}
	if os.path.exists(lab_json):
		try:
			with open(lab_json) as f:
				pids = json.load(f).get('pids', {})
		except ValueError:
			pass
	# only processes this lab started (their pids were recorded, and they
	# still run inside a lab namespace)
	victims = []
	for s, pid in pids.items():
		try:
			if os.readlink('/proc/%d/ns/net' % pid) != os.readlink('/proc/self/ns/net'):
				victims.append(pid)
		except OSError:
			pass
	victims += _pids_in_lab_netns()
	for pid in set(victims):
		try:
			os.kill(pid, signal.SIGTERM)
		except OSError:
			pass
	end = time.monotonic() + 3.0
	while time.monotonic() < end and any(os.path.exists('/proc/%d' % p) for p in set(victims)):
		_reap()
		time.sleep(0.02)
	for pid in set(victims):
		try:
			os.kill(pid, signal.SIGKILL)
		except OSError:
			pass
	_reap()
	for ns in sh(['ip', 'netns', 'list'], check=False).split('\n'):
		name = ns.split(' ')[0]
		if name.startswith(NS_PREFIX):
			sh(['ip', 'netns', 'del', name], check=False)
	mnt = os.path.join(state, 'mnt')
	if os.path.isdir(mnt):
		for f in os.listdir(mnt):
			sh(['umount', os.path.join(mnt, f)], check=False)
		sh(['umount', mnt], check=False)
	if os.path.ismount(state):
		sh(['umount', state], check=False)
		if os.path.ismount(state):
			sh(['umount', '-l', state], check=False)
	shutil.rmtree(state, ignore_errors=True)


def standin_notes(lab):
	"""One plain sentence for each stand-in the lab uses."""
	out = []
	if lab.standin:
		out.append('This kernel has no tc flower, so nftables bridge rules stand in for the daemon\'s drop '
			   'filters (group address 1 on every switch, 2 and 3 on the focal point).')
	if lab.port_standin:
		out.append('This kernel cannot hold a bridge port BLOCKING inside a network namespace, so the lab runs '
			   'zalkv2d-lab, the same daemon whose requests for BLOCKING set DISABLED, which likewise '
			   'bridges nothing while the daemon still sends and receives its protocol frames.')
	return out


def _reap():
	try:
		while os.waitpid(-1, os.WNOHANG)[0] > 0:
			pass
	except ChildProcessError:
		pass


def _pids_in_lab_netns():
	"""Processes still running inside a zl-* network namespace."""
	out = sh(['ip', 'netns', 'list'], check=False)
	res = []
	for line in out.split('\n'):
		name = line.split(' ')[0]
		if name.startswith(NS_PREFIX):
			for p in sh(['ip', 'netns', 'pids', name], check=False).split():
				if p.isdigit():
					res.append(int(p))
	return res
