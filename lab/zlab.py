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

The parts live in the package zlablib, one module each: topology (the lab
as plain data and each switch's configuration), namespaces (what the
kernel can do, the switches' namespaces, teardown), links (veth pairs,
cuts, heals), daemons, status (through zalkctl) and traffic (the probe
and captures); lab puts them together. This module keeps the names every
script imports.
"""
import signal  # noqa: F401  (callers use zlab.signal)

from zlablib.common import (FOCAL, LAB_DIR, MEMBER, NFT_TABLE, NS_PREFIX, STATE,  # noqa: F401
			    LabError, group_mac, nsx, sh)
from zlablib.daemons import lab_daemon  # noqa: F401
from zlablib.lab import Lab  # noqa: F401
from zlablib.namespaces import (_scratch_ns, bridge_port_state, down, kernel_has_flower,  # noqa: F401
				kernel_holds_blocking, standin_notes)

_port_state = bridge_port_state  # its name before the split
from zlablib.topology import conf_text, make_ring, merge, ring_section  # noqa: F401
from zlablib.traffic import PROBE_PRIO, PROBE_SRC, Capture, Traffic, build_probe, interruption  # noqa: F401
