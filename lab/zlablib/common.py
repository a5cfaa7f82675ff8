"""What every part of the lab shares: its names, its error and the way it
runs a command (inside a switch's namespace or not)."""
import os
import subprocess

STATE = os.environ.get('ZLAB_STATE', '/run/zlab')
NS_PREFIX = 'zl-'
NFT_TABLE = 'zlab'
LAB_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
FOCAL, MEMBER = 'focal', 'member'


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
