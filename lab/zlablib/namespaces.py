"""The emulated switches' namespaces: what this kernel can do inside one, a
switch's network namespace (bridge br0, host port and end host) and mount
namespace (its own /etc, /run and /tmp), the nftables table that holds its
ring ports and stands in for the drop filters, and the teardown of all of
it, also after a crash."""
import contextlib
import json
import os
import shutil
import signal
import subprocess
import time

from .common import FOCAL, NFT_TABLE, NS_PREFIX, STATE, group_mac, nsx, sh
from .topology import conf_text


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
			while bridge_port_state(ns, 'zlx') in (None, 'disabled') and time.monotonic() < end:
				time.sleep(0.005)
			subprocess.run(['bridge', '-n', ns, 'link', 'set', 'dev', 'zlx', 'state', '4'], capture_output=True)
			time.sleep(0.05)
			_blocking = bridge_port_state(ns, 'zlx') == 'blocking'
	return _blocking


def bridge_port_state(ns, port):
	"""The kernel's bridge port state ('forwarding', 'disabled', ...)."""
	out = sh(['bridge', '-n', ns, '-j', 'link', 'show', 'dev', port], check=False)
	try:
		return json.loads(out)[0].get('state')
	except (ValueError, IndexError):
		return None


class Switches:
	"""Names, paths and the making of the switches (a mixin of Lab)."""

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

	def base_mac(self, s):
		return '02:5a:4c:00:%02x:00' % int(s[1:])

	def host_mac(self, h):
		return '02:5a:4c:48:%02x:01' % int(h[1:])

	def ring_ports(self, s):
		return [p for r in self.topo['switches'][s]['rings'] for p in (r['port_a'], r['port_b']) if p]

	def _mount_state(self):
		"""Everything of the lab lives in memory, as a switch's /run and
		/tmp do: where the machine's /run is a disk file system, every
		status file rewrite would otherwise wait for the disk."""
		os.makedirs(self.state, exist_ok=True)
		sh(['mount', '-t', 'tmpfs', '-o', 'mode=0755,size=256m', 'zlab', self.state])
		sh(['mount', '--make-private', self.state])
		os.makedirs(os.path.join(self.state, 'mnt'), exist_ok=True)
		# the mount-namespace files need a private mount point to live on
		sh(['mount', '--bind', os.path.join(self.state, 'mnt'), os.path.join(self.state, 'mnt')])
		sh(['mount', '--make-private', os.path.join(self.state, 'mnt')])

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
