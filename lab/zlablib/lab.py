"""The lab: one object that brings a topology up and drives it, made of the
parts each module holds (switches, links, daemons, status, traffic)."""
import json
import os

from .common import STATE
from .daemons import Daemons, lab_daemon
from .links import Links
from .namespaces import Switches, down, kernel_has_flower, kernel_holds_blocking
from .status import Status
from .traffic import Probes


class Lab(Switches, Links, Daemons, Status, Probes):
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

	def up(self, topo, start=True):
		down(self.state)
		self.topo = topo
		self.pids = {}
		if self.daemon:
			self.daemon, self.port_standin = lab_daemon(self.daemon)
		else:
			self.port_standin = not kernel_holds_blocking()
		self.standin = not kernel_has_flower()
		self._mount_state()
		for s in self.switches():
			self._make_switch(s)
			# the ring ports are held (nothing bridged in or out) from
			# before they exist until they are set blocking below
			self._standin_filters(s)
		self._lay_links()
		self._block_ring_ports()
		self.save()
		if start:
			for s in self.switches():
				self.start(s)
