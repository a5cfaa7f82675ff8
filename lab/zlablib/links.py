"""The links between switches: veth pairs laid at bring-up, cut (with or
without carrier loss) and healed, and the hold that keeps a returning
ring port from bridging until it is in its daemon's state."""
import time

from .common import LabError, NFT_TABLE, nsx, sh
from .namespaces import bridge_port_state


class Links:
	"""A mixin of Lab."""

	def link(self, name):
		for l in self.topo['links']:
			if l['name'] == name:
				return l
		raise LabError('no link %s' % name)

	def link_of_port(self, s, p):
		for l in self.topo['links']:
			if l['a'] == [s, p] or l['b'] == [s, p]:
				return l['name']
		return None

	def _lay_links(self):
		"""One veth pair per link, each end a port of its switch's br0."""
		for l in self.topo['links']:
			(sa, pa), (sb, pb) = l['a'], l['b']
			sh(['ip', 'link', 'add', 'zltmp0', 'netns', self.ns(sa), 'type', 'veth',
			    'peer', 'name', 'zltmp1', 'netns', self.ns(sb)])
			sh(['ip', '-n', self.ns(sa), 'link', 'set', 'zltmp0', 'name', pa])
			sh(['ip', '-n', self.ns(sb), 'link', 'set', 'zltmp1', 'name', pb])
			for ns, p in ((sa, pa), (sb, pb)):
				sh(['ip', '-n', self.ns(ns), 'link', 'set', p, 'master', 'br0'])
				sh(['ip', '-n', self.ns(ns), 'link', 'set', p, 'up'])

	def _block_ring_ports(self):
		"""Every ring port starts blocked, as a port coming up under
		user-space STP does; then the hold on it is lifted."""
		ends = [tuple(e) for l in self.topo['links'] for e in (l['a'], l['b'])]
		self._settle(ends)
		for s, p in ends:
			self._set_blocked(s, p)
		for s in self.switches():
			self._hold(s, self.ring_ports(s), False)

	def _settle(self, ends, timeout=2.0):
		"""Waits until the kernel has taken up the carrier of the given
		ports (its bridge enables a port only when it handles the change)."""
		self.wait(lambda: all(bridge_port_state(self.ns(s), p) not in (None, 'disabled') for s, p in ends), timeout, 0.002)

	def _set_blocked(self, s, p):
		"""Puts a ring port into the state that stands for BLOCKING here."""
		sh(['bridge', '-n', self.ns(s), 'link', 'set', 'dev', p, 'state', '0' if self.port_standin else '4'])

	def _hold(self, s, ports, on):
		"""Adds ring ports to or removes them from the switch's hold set."""
		if not ports:
			return
		verb = 'add' if on else 'delete'
		nsx(self.ns(s), 'nft', '%s element bridge %s hold { %s }' % (verb, NFT_TABLE, ', '.join('"%s"' % p for p in ports)))

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
		back into the state its daemon last set (zalkctl's physical_state)
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
		said = self.physical_states(ends)
		for s, p in ends:
			if said[(s, p)] != 'FORWARDING':
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
			said = self.physical_states(blocked) if blocked else {}
			for s, p in blocked:
				if said[(s, p)] == 'FORWARDING' and bridge_port_state(self.ns(s), p) != 'forwarding':
					sh(['bridge', '-n', self.ns(s), 'link', 'set', 'dev', p, 'state', '3'])
		for s, p in ends:
			self._hold(s, [p], False)
		return t
