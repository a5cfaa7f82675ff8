#!/usr/bin/python3
"""Failover benchmark of the ring lab (not part of the test suite).

  lab/bench.py build/zalkv2d [--sizes 4,8,16] [--reps 10] [--cases B,A,M]
               [--stp-reps 10] [--idle 60] [--out bench-results]

For each ring size and case, a traffic-carrying link is cut (carrier
loss: one end set down) and healed --reps times under 10,000 frames/s;
failover and restore interruptions are summarised (min/median/p95/max)
with the frames lost in each. Cases (--cases): B and A, the link at the
focal point's open port, cut at the focal point's end, with the focal
point open at port B or at port A; M, the link between the first two
members on the traffic path. B and A differ in one respect only: the
focal point answers a returning link with Link Responses out of port A
first, so the returning member hears its answer first (A) or after every
other member (B). Case B's cut with the Linux bridge's own STP (shortest
timers it allows) is the baseline. Then the resident memory and CPU time of
each daemon over --idle seconds of an idle closed ring at default timers,
and the time an unchanged SIGHUP blocks a daemon's event loop. Writes
OUT.json and OUT.svg (a plot drawn without extra packages).
"""
import argparse
import json
import os
import signal
import statistics
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zlab  # noqa: E402


def summary(xs):
	xs = sorted(xs)
	if not xs:
		return None
	p95 = xs[min(len(xs) - 1, int(round(0.95 * (len(xs) - 1))))]
	return dict(n=len(xs), min=xs[0], median=statistics.median(xs), p95=p95, max=xs[-1])


def to_ms(events):
	"""Interruptions (seconds, lost frames) as milliseconds."""
	return [round(sec * 1e3, 3) for sec, _ in events]


def cut_heal_runs(lab, reps, settle_cut, settle_heal, ready, link='L1', end='a'):
	"""Cuts the link (L1: s1 port B - s2 port A, on the traffic path h1 ->
	h2...) reps times under traffic at the given end; returns failover and
	restore gaps in ms with the frames lost in each, the duplicates and
	the most copies of one broadcast frame."""
	fail, rest = [], []
	per = settle_cut + settle_heal
	tr = lab.traffic('h1', 'h%d' % ready['dst'], rate=10000, seconds=reps * per + 6.0)
	time.sleep(1.0)
	ev = []
	for _ in range(reps):
		tc = lab.cut(link, end)
		time.sleep(settle_cut)
		th = lab.heal(link)
		time.sleep(settle_heal)
		ev += [tc, th]
	r = tr.result()
	for i in range(0, len(ev), 2):
		nxt = ev[i + 2] if i + 2 < len(ev) else None
		fail.append(zlab.interruption(r, ev[i], ev[i + 1]))
		rest.append(zlab.interruption(r, ev[i + 1], nxt))
	return fail, rest, r['duplicates'], r['bcast_max_copies']


def ring_topo(n, blocked='A', **opt):
	# focal s1 blocks one port; hosts on s1 and s(n/2+1): the traffic runs
	# over the focal point's other port
	return zlab.make_ring(n, blocked=blocked, hosts=(1, n // 2 + 1), **opt)


# case -> (the focal point's blocked port, the link cut, the end set down):
# the link at the focal point's open port, cut at the focal point's end,
# with the focal point open at port B or at port A; and the link between
# the first two members on the traffic path, cut at the first one's end.
CASES = {'B': ('A', 'L1', 'a'), 'A': ('B', None, 'b'), 'M': ('A', 'L2', 'a')}


def bench_zalk(daemon, n, reps, case='B'):
	blocked, link, end = CASES[case]
	link = link or 'L%d' % n
	lab = zlab.Lab(daemon=daemon)
	lab.up(ring_topo(n, blocked, ring_interval=50, hello_time=100, response_delay=100))
	want = [('s1', 'zl1' + blocked.lower())]
	lab.wait(lambda: lab.blocking_ports(1) == want, 30.0, 0.1)
	f, r, d, b = cut_heal_runs(lab, reps, 1.0, 1.5, dict(dst=n // 2 + 1), link, end)
	zlab.down()
	return dict(case=case, link=link, failover_ms=summary(to_ms(f)), restore_ms=summary(to_ms(r)),
		    duplicates=d, bcast_max_copies=b, raw_failover=to_ms(f), raw_restore=to_ms(r),
		    lost_failover=[x[1] for x in f], lost_restore=[x[1] for x in r])


def bench_stp(n, reps):
	"""The Linux bridge's STP with its shortest timers, no daemon. The lab
	leaves the ring ports disabled; once STP runs, every link is taken
	down and up so that the kernel's STP starts each port itself."""
	lab = zlab.Lab(daemon=None)
	lab.up(ring_topo(n), start=False)
	lab.topo['kernel_stp'] = True
	lab.save()
	for s in lab.switches():
		zlab.sh(['ip', '-n', lab.ns(s), 'link', 'set', 'br0', 'type', 'bridge', 'forward_delay', '200',
			 'hello_time', '100', 'max_age', '600', 'stp_state', '1'])
	for l in lab.topo['links']:
		s, p = l['a']
		zlab.sh(['ip', '-n', lab.ns(s), 'link', 'set', p, 'down'])
		zlab.sh(['ip', '-n', lab.ns(s), 'link', 'set', p, 'up'])
	time.sleep(10.0)
	f, r, d, b = cut_heal_runs(lab, reps, 12.0, 12.0, dict(dst=n // 2 + 1))
	zlab.down()
	return dict(failover_ms=summary(to_ms(f)), restore_ms=summary(to_ms(r)), duplicates=d, bcast_max_copies=b,
		    raw_failover=to_ms(f), raw_restore=to_ms(r))


def proc_stat(pid):
	with open('/proc/%d/stat' % pid) as f:
		v = f.read().rsplit(')', 1)[1].split()
	tck = os.sysconf('SC_CLK_TCK')
	with open('/proc/%d/status' % pid) as f:
		rss = next(int(l.split()[1]) for l in f if l.startswith('VmRSS'))
	return (int(v[11]) + int(v[12])) / tck, rss


def bench_idle(daemon, n, secs):
	lab = zlab.Lab(daemon=daemon)
	lab.up(ring_topo(n))  # default timers
	lab.wait(lambda: lab.blocking_ports(1) == [('s1', 'zl1a')], 60.0, 0.2)
	t0 = {s: proc_stat(p)[0] for s, p in lab.pids.items()}
	time.sleep(secs)
	res = {s: dict(cpu_s=round(proc_stat(p)[0] - t0[s], 3), rss_kib=proc_stat(p)[1]) for s, p in lab.pids.items()}
	# an unchanged SIGHUP: the loop is blocked until the reload is done;
	# measured as the delay of a SIGUSR1 report sent 2 ms after it. The
	# focal point's state file tells whether the reload cost the ring (a
	# neighbour dropping Hello qualification while the hello timers
	# restart).
	report_only = [lab.loop_delay('s2', hup=False) for _ in range(5)]
	blocked, broke = [], 0
	for _ in range(5):
		m = os.stat(os.path.join(lab.run_dir('s1'), 'zalkv2/1/state')).st_mtime_ns
		blocked.append(lab.loop_delay('s2'))
		time.sleep(5.0)
		broke += os.stat(os.path.join(lab.run_dir('s1'), 'zalkv2/1/state')).st_mtime_ns != m
	zlab.down()
	return dict(per_daemon=res, sighup_then_report_ms=summary([x for x in blocked if x is not None]),
		    report_only_ms=summary([x for x in report_only if x is not None]), sighups=len(blocked),
		    sighups_that_changed_the_ring=broke)


def svg_plot(results, path):
	"""Median and p95 failover/restore per ring size and case, as bars."""
	rows = [('%s/%s' % (n, o), k, v) for n, by in sorted(results['zalkv2d'].items(), key=lambda x: int(x[0]))
		for o, v in sorted(by.items()) for k in ('failover_ms', 'restore_ms')]
	w, h, left = 80 + 52 * len(rows), 360, 60
	vmax = max([v[k]['p95'] for n, k, v in rows if v[k]] + [1.0])
	bw = (w - left - 20) / max(1, len(rows))
	out = ['<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" font-family="sans-serif" font-size="11">' % (w, h),
	       '<text x="%d" y="16">zalkv2d interruption, median (bar) and p95 (line), ms; n/X: ring of n, X: cut at the focal point open at port B or A, or M: between members</text>' % left]
	for i, (n, k, v) in enumerate(rows):
		if not v[k]:
			continue
		x = left + i * bw
		med, p95 = v[k]['median'], v[k]['p95']
		y = lambda val: h - 40 - (h - 80) * val / vmax  # noqa: E731
		out.append('<rect x="%.1f" y="%.1f" width="%.1f" height="%.1f" fill="%s"/>' % (
			x + 4, y(med), bw - 8, h - 40 - y(med), '#3a7' if k == 'failover_ms' else '#37a'))
		out.append('<line x1="%.1f" x2="%.1f" y1="%.1f" y2="%.1f" stroke="black"/>' % (x + 4, x + bw - 4, y(p95), y(p95)))
		out.append('<text x="%.1f" y="%d">%s %s</text>' % (x + 4, h - 24, n, 'fail' if k == 'failover_ms' else 'rest'))
		out.append('<text x="%.1f" y="%.1f">%.1f</text>' % (x + 4, y(p95) - 3, p95))
	out.append('</svg>')
	with open(path, 'w') as f:
		f.write('\n'.join(out) + '\n')


def main():
	ap = argparse.ArgumentParser()
	ap.add_argument('daemon')
	ap.add_argument('--sizes', default='4,8,16')
	ap.add_argument('--reps', type=int, default=10)
	ap.add_argument('--stp-reps', type=int, default=10)
	ap.add_argument('--idle', type=float, default=60.0)
	ap.add_argument('--out', default='bench-results')
	ap.add_argument('--stp-sizes', default=None, help='ring sizes for the STP baseline (default: --sizes)')
	ap.add_argument('--cases', default='B,A,M', help='B, A: the link at the focal point open at port B or A; '
			'M: a link between two members')
	a = ap.parse_args()
	sizes = [int(x) for x in a.sizes.split(',')]
	res = dict(zalkv2d={}, stp={}, idle={})
	for n in sizes:
		res['zalkv2d'][n] = {}
		for o in a.cases.split(','):
			v = res['zalkv2d'][n][o] = bench_zalk(a.daemon, n, a.reps, o)
			print('zalkv2d ring %2d, case %s (cut %s): failover %s lost %s  restore %s lost %s  duplicates %d' % (
				n, o, v['link'], v['failover_ms'], v['lost_failover'], v['restore_ms'], v['lost_restore'],
				v['duplicates']), flush=True)
	if a.stp_reps:
		for n in ([int(x) for x in a.stp_sizes.split(',')] if a.stp_sizes else sizes):
			res['stp'][n] = bench_stp(n, a.stp_reps)
			v = res['stp'][n]
			print('bridge STP ring %2d: failover %s  restore %s' % (n, v['failover_ms'], v['restore_ms']), flush=True)
	if a.idle:
		res['idle'] = bench_idle(a.daemon, max(sizes), a.idle)
		print('idle ring of %d, %.0f s at default timers: %s' % (max(sizes), a.idle, res['idle']), flush=True)
	res['machine'] = dict(cpus=os.cpu_count(), kernel=os.uname().release, date=time.strftime('%Y-%m-%d'),
			      port_standin=bool(zlab.lab_daemon(a.daemon)[1]), drop_filter_standin=not zlab.kernel_has_flower())
	res['command'] = ' '.join(sys.argv)
	with open(a.out + '.json', 'w') as f:
		json.dump(res, f, indent=1)
	svg_plot(res, a.out + '.svg')
	print('wrote %s.json and %s.svg' % (a.out, a.out))


if __name__ == '__main__':
	try:
		main()
	finally:
		zlab.down()
