#!/usr/bin/env python3
"""Failover and restore at scale: for each ring size, REPS cuts and heals
of each of three links (the focal point's port B link L1, its blocked port
A link LN, a link between two members in the middle), at the lab's
benchmark settings; min / median / p95 / max per size and case.

    zsim/scale.py build/zsim/zsim --sizes 4,16,64,255 --reps 10 --out DIR"""
import argparse
import json
import math
import os
import random
import subprocess


def stats(v):
    if not v:
        return 'none'
    v = sorted(v)
    p = lambda q: v[max(0, min(len(v) - 1, math.ceil(q * len(v)) - 1))]
    return '%.2f / %.2f / %.2f / %.2f' % (v[0], p(0.5), p(0.95), v[-1])


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('zsim')
    ap.add_argument('--sizes', default='4,16,64,255')
    ap.add_argument('--reps', type=int, default=10)
    ap.add_argument('--out', required=True)
    ap.add_argument('--set', action='append', default=[])
    a = ap.parse_args()
    os.makedirs(a.out, exist_ok=True)
    # The lab's benchmark settings; forward-delay 1 s (later than the
    # focal point's 100 ms answer, so it never decides) only shortens
    # the cold start of the big rings.
    sets = ['ring-interval=50', 'hello-time=100', 'response-delay=100', 'forward-delay=1'] + a.set
    rows = []
    for n in [int(x) for x in a.sizes.split(',')]:
        cases = {'B (L1)': 'L1', 'A (L%d)' % n: 'L%d' % n, 'M (L%d)' % (n // 2 + 1): 'L%d' % (n // 2 + 1)}
        lines, order, t = [], [], 40.0
        rng = random.Random(n)
        for _ in range(a.reps):
            for case, link in cases.items():
                # at a random phase against the daemons' timers
                c = t + rng.uniform(0, 1)
                lines += ['%.6f cut %s' % (c, link), '%.6f heal %s' % (c + 4, link)]
                order.append(case)
                t += 8
        sched = os.path.join(a.out, 'ring%d.txt' % n)
        open(sched, 'w').write('\n'.join(lines) + '\n')
        js = os.path.join(a.out, 'ring%d.json' % n)
        cmd = [a.zsim, '--topology', 'ring:%d' % n, '--schedule', sched, '--json', js, '--quiet']
        for s in sets:
            cmd += ['--set', s]
        subprocess.run(cmd, check=False, capture_output=True)
        r = json.load(open(js))
        fo, re_ = r['failover_ms'], r['restore_ms']
        for case in cases:
            idx = [i for i, c in enumerate(order) if c == case]
            f = [fo[i] for i in idx if i < len(fo)]
            h = [re_[i] for i in idx if i < len(re_)]
            rows.append((n, case, stats(f), stats(h)))
        rows.append((n, 'all', stats(fo), stats(re_) + ' | %d violations, %d events, %.1f s wall' %
                     (len(r['violations']), r['events'], r['wall_s'])))
        print(' '.join(cmd))
    print('| ring | case | failover ms | restore ms |\n|---:|---|---|---|')
    for row in rows:
        print('| %d | %s | %s | %s |' % row)


if __name__ == '__main__':
    main()
