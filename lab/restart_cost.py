#!/usr/bin/python3
"""What a restart of one switch's daemon costs that switch's own host (not
part of the test suite; run under flock /tmp/zalk-lab.lock).

  ZALK_BUILD=build lab/restart_cost.py build/zalkv2d [--reps 5]

A ring of 4 at the lab's default timers with end hosts on s1 (the focal
point), s2 (a member) and s3. The probe runs from the restarted switch's
host to h3 while that switch's daemon is stopped and started again: with
SIGTERM, as `systemctl restart` does (an orderly shutdown tears its rings
down), or with SIGKILL (a crash; systemd adds RestartSec before the
start). Prints min / median / max of the interruption (the longest gap
with lost frames) and the frames lost, in ms, per switch and signal.
"""
import argparse
import os
import signal
import statistics
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zlab  # noqa: E402


def main():
	ap = argparse.ArgumentParser()
	ap.add_argument('daemon')
	ap.add_argument('--reps', type=int, default=5)
	a = ap.parse_args()
	lab = zlab.Lab(daemon=a.daemon)
	lab.up(zlab.make_ring(4, hosts=(1, 2, 3)))
	closed = [('s1', 'zl1a')]
	try:
		for s, host, role in (('s2', 'h2', 'member'), ('s1', 'h1', 'focal point')):
			for sig in (signal.SIGTERM, signal.SIGKILL):
				cost = []
				for _ in range(a.reps):
					if not lab.wait(lambda: lab.blocking_ports(1) == closed, 30.0, 0.1):
						raise zlab.LabError('the ring did not close again')
					time.sleep(1.0)
					tr = lab.traffic(host, 'h3', seconds=9.0)
					time.sleep(1.0)
					t = time.time()
					lab.stop(s, sig)
					lab.start(s)
					cost.append(zlab.interruption(tr.result(), t, t + 8.0))
				ms = sorted(c[0] * 1000 for c in cost)
				print('%-11s %s %s: interruption min / median / max %.0f / %.0f / %.0f ms, lost %s' % (
					role, s, sig.name, ms[0], statistics.median(ms), ms[-1], [c[1] for c in cost]), flush=True)
	finally:
		zlab.down()


if __name__ == '__main__':
	main()
