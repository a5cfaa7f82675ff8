#!/usr/bin/python3
"""br0 or a ring link deleted and created again under traffic, as a
platform's network reload does, with no operator action afterwards (no
signal, no restart): how long until the ring is whole again, and the
frames lost meanwhile (not part of the test suite).

  flock /tmp/zalk-lab.lock lab/recreate.py build/zalkv2d [--size 4] [--reps 3]
        [--gap 0.5] [--limit 10] [--cases br0@s2,br0@s1,L2,L1] [--out FILE.json]

A ring of --size (s1 focal point blocking port A, hello on, ring interval
100 ms), traffic h1 (on s1) -> h3 at 10,000 frames/s. Cases: br0@sN
deletes switch sN's br0 and, --gap seconds later, creates it again with
all its ports; Lk deletes link Lk (a veth: both ends, so both switches'
ring ports) and, --gap seconds later, creates it again under new
interface indexes. New bridge ports are held (nothing bridged) until
their daemon has set them up again (see new_ports).
Whole: every daemon's ring state Ring Ok / Ok and no "missing" file.
"""
import argparse
import json
import os
import statistics
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zlab  # noqa: E402


def whole(lab, ring_id=1):
	for s in lab.switches():
		want = 'Ring Ok' if lab.topo['switches'][s]['rings'][0]['role'] == zlab.FOCAL else 'Ok'
		if lab.read(s, '%d/state' % ring_id) != want or lab.read(s, '%d/missing' % ring_id) is not None:
			return False
	return True


def new_ports(lab, ends, limit, t_back):
	"""Ports just made: held (nothing bridged), into br0 and up. A switch's
	own STP keeps a new port blocked until its protocol takes it over,
	where a bridge without STP forwards at once; so, as the lab's heal
	does for a returning port, the hold stays until the port's daemon has
	written its port files anew (it set the port up again), the kernel
	state is put to what the daemon last set (the kernel's carrier
	handling may have overridden it), and then the hold is lifted.
	t_back: when the re-creation began."""
	for s, p in ends:
		lab._hold(s, [p], True)
		zlab.sh(['ip', '-n', lab.ns(s), 'link', 'set', p, 'master', 'br0'])
		zlab.sh(['ip', '-n', lab.ns(s), 'link', 'set', p, 'up'])

	def rewritten(s, p):
		try:
			return os.stat(os.path.join(lab.run_dir(s), 'zalkv2', '1', p, 'physical_state')).st_mtime >= t_back
		except OSError:
			return False
	lab._settle(ends)
	lab.wait(lambda: all(rewritten(s, p) for s, p in ends), limit, 0.002)
	for s, p in ends:
		if lab.physical_state(s, p) == 'FORWARDING':
			zlab.sh(['bridge', '-n', lab.ns(s), 'link', 'set', 'dev', p, 'state', '3'])
		else:
			lab._set_blocked(s, p)
		lab._hold(s, [p], False)


def recreate_bridge(lab, s, gap, limit):
	ns = lab.ns(s)
	ports = [p for p in lab.ring_ports(s)]
	t = time.time()
	zlab.sh(['ip', '-n', ns, 'link', 'del', 'br0'])
	time.sleep(gap)
	t_back = time.time()
	zlab.sh(['ip', '-n', ns, 'link', 'add', 'br0', 'type', 'bridge', 'stp_state', '0', 'forward_delay', '0',
		 'mcast_snooping', '0'])
	zlab.sh(['ip', '-n', ns, 'link', 'set', 'br0', 'address', lab.base_mac(s)])
	zlab.sh(['ip', '-n', ns, 'link', 'set', 'br0', 'up'])
	if lab.topo['switches'][s].get('host'):
		zlab.sh(['ip', '-n', ns, 'link', 'set', 'zlhost', 'master', 'br0'])
	new_ports(lab, [(s, p) for p in ports], limit, t_back)
	return t, t_back


def recreate_link(lab, name, gap, limit):
	l = lab.link(name)
	(sa, pa), (sb, pb) = l['a'], l['b']
	t = time.time()
	zlab.sh(['ip', '-n', lab.ns(sa), 'link', 'del', pa])
	time.sleep(gap)
	t_back = time.time()
	zlab.sh(['ip', 'link', 'add', 'zltmp0', 'netns', lab.ns(sa), 'type', 'veth', 'peer', 'name', 'zltmp1',
		 'netns', lab.ns(sb)])
	zlab.sh(['ip', '-n', lab.ns(sa), 'link', 'set', 'zltmp0', 'name', pa])
	zlab.sh(['ip', '-n', lab.ns(sb), 'link', 'set', 'zltmp1', 'name', pb])
	new_ports(lab, [(sa, pa), (sb, pb)], limit, t_back)
	return t, t_back


def main():
	ap = argparse.ArgumentParser()
	ap.add_argument('daemon')
	ap.add_argument('--size', type=int, default=4)
	ap.add_argument('--reps', type=int, default=3)
	ap.add_argument('--gap', type=float, default=0.5)
	ap.add_argument('--limit', type=float, default=10.0)
	ap.add_argument('--cases', default='br0@s2,br0@s1,L2,L1')
	ap.add_argument('--out')
	a = ap.parse_args()
	lab = zlab.Lab(a.daemon)
	half = a.size // 2 + 1
	lab.up(zlab.make_ring(a.size, hosts=(1, half), ring_interval=100, hello_time=100))
	results = {}
	try:
		if not lab.wait(lambda: whole(lab), 20):
			raise zlab.LabError('the ring did not close')
		for case in a.cases.split(','):
			runs = []
			for _ in range(a.reps):
				tr = lab.traffic('h1', 'h%d' % half, rate=10000, seconds=a.gap + a.limit + 2.0)
				time.sleep(1.0)
				if case.startswith('br0@'):
					t_del, t_back = recreate_bridge(lab, case[4:], a.gap, a.limit)
				else:
					t_del, t_back = recreate_link(lab, case, a.gap, a.limit)
				ok = lab.wait(lambda: whole(lab), a.limit, 0.002)
				t_whole = time.time()
				res = tr.result()
				lost = sum(g['lost'] for g in res['gaps'] if g['start'] >= t_del - 0.005)
				runs.append(dict(whole=bool(ok), whole_after_s=round(t_whole - t_back, 3) if ok else None,
						 lost=lost, outage_s=round(zlab.interruption(res, t_del, t_whole + 1)[0], 3)))
				print(case, runs[-1], flush=True)
				if not ok:
					print(zlab.sh([os.path.join(zlab.LAB_DIR, 'zlab'), 'status'], check=False))
					break
				time.sleep(1.0)
			ws = [r['whole_after_s'] for r in runs if r['whole']]
			results[case] = dict(runs=runs, whole_after_median_s=statistics.median(ws) if ws else None,
					     lost_median=statistics.median(r['lost'] for r in runs))
	finally:
		zlab.down(lab.state)
	print(json.dumps(results, indent=1))
	if a.out:
		with open(a.out, 'w') as f:
			json.dump(dict(args=vars(a), date=time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime()), results=results), f,
				  indent=1)


if __name__ == '__main__':
	main()
