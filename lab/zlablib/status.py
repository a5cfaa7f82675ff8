"""What the switches say: each switch's rings read through `zalkctl -j
status`, run inside the switch's namespaces as its operator would run it
(so the lab keeps no copy of the status tree's file names or values), and
the kernel's own view of the ring ports."""
import json
import os
import re
import subprocess
import time

from .common import FOCAL, LabError, sh
from .namespaces import bridge_port_state


def _schema_names():
	"""The status tree's file names as status/schema.h gives them: the one
	description the daemon and zalkctl share."""
	path = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'status', 'schema.h')
	with open(path) as f:
		return dict(re.findall(r'constexpr const char \*(\w+) = "([^"]*)";', f.read()))


SCHEMA = _schema_names()


class Status:
	"""A mixin of Lab."""

	def read(self, s, rel):
		"""A file of the switch's status tree, as the daemon wrote it."""
		try:
			with open(os.path.join(self.run_dir(s), 'zalkv2', rel)) as f:
				return f.read()
		except OSError:
			return None

	def kernel_port_state(self, s, port):
		"""The bridge port state in effect, as the kernel reports it, except
		that under the lab build DISABLED on a port with carrier is the
		daemon's BLOCKING (a port without carrier is DISABLED anyway)."""
		st = bridge_port_state(self.ns(s), port)
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

	def _zalkctl_argv(self, s, *args):
		b = self.zalkctl_bin()
		if not b:
			raise LabError('no zalkctl beside the daemon %s: build the target zalkctl (or set ZALKCTL)' % self.daemon)
		return ['nsenter', '--net=/run/netns/' + self.ns(s), '--mount=' + os.path.join(self.state, 'mnt', s), b, *args]

	def zalkctl(self, s, *args):
		"""zalkctl run as an operator on switch s runs it: inside the switch's
		namespaces, with its default paths. (exit status, stdout, stderr)"""
		p = subprocess.run(self._zalkctl_argv(s, *args), capture_output=True, text=True, timeout=10)
		return p.returncode, p.stdout, p.stderr

	def rings(self, switches):
		"""{switch: {ring id: ring}} as `zalkctl -j status` gives each ring
		(role, state, whole, tc_count, ports with their states), one zalkctl
		per switch, all at once; a switch without a status tree has none."""
		procs = {s: subprocess.Popen(self._zalkctl_argv(s, '-j', 'status'), stdout=subprocess.PIPE,
					     stderr=subprocess.DEVNULL, text=True) for s in switches}
		out = {}
		for s, p in procs.items():
			text, _ = p.communicate(timeout=10)
			try:
				rings = json.loads(text)['rings'] if p.returncode in (0, 1) else []
			except (ValueError, KeyError):
				rings = []
			out[s] = {r['ring_id']: r for r in rings}
		return out

	def physical_states(self, ends):
		"""{(switch, port): the state its daemon last set on that ring port}.
		Read from the daemon's files by the names status/schema.h gives, not
		through zalkctl: a heal holds its ports while it reads, and a zalkctl
		per read held them some 10 ms (far longer on a loaded machine)."""
		res = {}
		for s, p in ends:
			rid = next((r['ring_id'] for r in self.topo['switches'][s]['rings'] if p in (r['port_a'], r['port_b'])),
				   None)
			text = None if rid is None else self.read(s, '%d/%s/%s' % (rid, p, SCHEMA['PHYSICAL_STATE']))
			res[(s, p)] = text.strip() if text else None
		return res

	def physical_state(self, s, p):
		"""The state the switch's daemon last set on a ring port."""
		return self.physical_states([(s, p)])[(s, p)]

	def status(self, via_zalkctl=True):
		"""Everything the status view shows, per switch and ring: the
		daemon's word through zalkctl, the kernel's port states and
		carriers. (via_zalkctl is kept for older callers: it is always so.)"""
		out = {}
		switches = self.switches()
		rings = self.rings(switches)
		for s in switches:
			sw = dict(alive=self.alive(s), rings={})
			for r in self.topo['switches'][s]['rings']:
				rid = r['ring_id']
				z = rings[s].get(rid, {})
				zp = {q['name']: q for q in z.get('ports', [])}
				d = dict(role=r['role'], state=z.get('state'), type=z.get('role'), whole=z.get('whole', False),
					 tc_count=None if z.get('tc_count') is None else str(z['tc_count']), ports={})
				for key in ('port_a', 'port_b'):
					p = r[key]
					if not p:
						continue
					q = zp.get(p, {})
					d['ports'][key[-1].upper()] = dict(
						name=p, physical=q.get('physical_state'), logical=q.get('logical_state'),
						link=None if q.get('link') is None else str(q['link']),
						kernel=self.kernel_port_state(s, p), carrier=self.carrier(s, p),
						blocked_cfg=(r['role'] == FOCAL and r['blocked'] == p))
				sw['rings'][str(rid)] = d
			out[s] = sw
		return out

	def blocking_ports(self, ring_id=None, st=None):
		"""Ring ports the kernel holds blocking (or disabled) whose link has
		carrier: the ports that keep a closed ring loop-free. The kernel's
		word alone, unless a status() is given."""
		if st is not None:
			return [(s, p['name']) for s, sw in st.items() for rid, r in sw['rings'].items()
				if ring_id is None or int(rid) == ring_id
				for p in r['ports'].values() if p['carrier'] and p['kernel'] != 'FORWARDING']
		res = []
		for s in self.switches():
			for r in self.topo['switches'][s]['rings']:
				if ring_id is not None and r['ring_id'] != ring_id:
					continue
				for p in (r['port_a'], r['port_b']):
					if p and self.carrier(s, p) and self.kernel_port_state(s, p) != 'FORWARDING':
						res.append((s, p))
		return res

	def wait(self, cond, timeout, step=0.01):
		"""Polls cond() until it is true or the time is up."""
		end = time.monotonic() + timeout
		while True:
			v = cond()
			if v or time.monotonic() >= end:
				return v
			time.sleep(step)
