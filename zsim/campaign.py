#!/usr/bin/env python3
"""A zsim campaign: random topologies (ring, bus, two rings; 3 to 255
switches), settings drawn from their accepted ranges, random faults, until
OPS fault operations have run or the time is up. Every violation is sorted
by what explains it in the settings; the rest are listed as unexplained.

    zsim/campaign.py build/zsim/zsim --ops 100000 --out DIR [--hours H] [--seed S]

DIR gets runs.jsonl (one line per run) and summary.json, rewritten after
every run, so an interrupted campaign still reports what it did."""
import argparse
import json
import os
import random
import subprocess
import sys
import time


def draw(rng):
    """A topology, its settings, and how many faults one run gets."""
    kind = rng.choices(['ring', 'bus', 'tworings'], [6, 2, 2])[0]
    # Mostly small rings (cheap: many faults a second), some up to 255.
    r = rng.random()
    n = rng.randint(3, 16) if r < 0.85 else rng.randint(17, 64) if r < 0.96 else rng.randint(65, 255)
    if kind == 'tworings':
        n = max(3, n // 2)
        topo = 'tworings:%d,%d' % (n, rng.randint(3, max(3, n)))
    else:
        topo = '%s:%d' % (kind, n)
    s = {
        'ring-interval': rng.choice([10, 20, 50, 100, 200, 500, 1000]),
        'hello-time': rng.choice([20, 50, 100, 200, 500, 1000]),
        'hello-enable': rng.choice([0, 1, 1]),
        'response-delay': rng.choice([50, 100, 200, 500, 1000, 1500, 3000]),
        'forward-delay': rng.choice([0, 0, 0, 1, 2, 5]),
        'guarded-recovery': rng.choice([0, 1]),
    }
    ops = 300 if n <= 16 else 60 if n <= 64 else 20
    return topo, s, ops


def explain(v, s, replay):
    """The settings' property that shows as this violation, or None."""
    fd, rd = s['forward-delay'], s['response-delay']
    text = open(replay).read() if replay and os.path.exists(replay) else ''
    # reload lines may change the focal point's or a member's values
    for line in text.splitlines():
        for kv in line.split()[3:] if ' reload ' in line else []:
            k, _, val = kv.partition('=')
            if k == 'forward-delay':
                fd = max(fd, int(val)) if int(val) else fd
            if k == 'response-delay':
                rd = max(rd, int(val))
    if v['kind'] == 'loop' and fd and fd * 1000 + 200 < rd:
        return 'forward-delay shorter than response-delay'
    gr = s['guarded-recovery']
    for line in text.splitlines():
        if ' reload ' in line and 'guarded-recovery=0' in line:
            gr = 0
    if v['kind'] == 'loop' and not gr and not s['hello-enable']:
        # Ring frames stop (a silent cut, loss, a member away) while
        # the ring is whole: the ring timeout alone opens the blocked port.
        return 'guarded-recovery 0 with hello off: a ring timeout on a whole ring'
    if v['kind'] == 'loop' and not gr and fd:
        # During a cold start (or any announcement) the members' forward
        # delays open their ports while a ring timeout has opened the
        # focal point's.
        return 'guarded-recovery 0 with a forward delay'
    if v['kind'] == 'loop' and not gr and (' lose ' in text or ' restart ' in text):
        return 'guarded-recovery 0: Ring frames lost or a member away on a whole ring'
    if v['kind'] == 'loop' and not s['hello-enable'] and 'silent-cut' in text:
        return 'silent cut without hello'
    return None


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('zsim')
    ap.add_argument('--ops', type=int, default=100000)
    ap.add_argument('--hours', type=float, default=10)
    ap.add_argument('--seed', type=int, default=1)
    ap.add_argument('--out', required=True)
    a = ap.parse_args()
    os.makedirs(a.out, exist_ok=True)
    rng = random.Random(a.seed)
    t0 = time.time()
    summary = {'command': ' '.join(sys.argv), 'started': time.strftime('%Y-%m-%d %H:%M:%S UTC', time.gmtime()),
               'operations': 0, 'runs': 0, 'events': 0, 'by_topology': {}, 'violations': {}, 'unexplained': []}
    runs = open(os.path.join(a.out, 'runs.jsonl'), 'a')
    k = 0
    while summary['operations'] < a.ops and time.time() - t0 < a.hours * 3600:
        k += 1
        topo, s, ops = draw(rng)
        seed = a.seed * 1000003 + k
        js = os.path.join(a.out, 'run.json')
        replay = os.path.join(a.out, 'replay-%d.txt' % seed)
        cmd = [a.zsim, '--topology', topo, '--seed', str(seed), '--ops', str(ops), '--quiet',
               '--json', js, '--replay', replay, '--shrink', '3']
        for key, val in s.items():
            cmd += ['--set', '%s=%d' % (key, val)]
        p = subprocess.run(cmd, capture_output=True, text=True)
        if p.returncode not in (0, 1):
            summary['unexplained'].append({'command': ' '.join(cmd), 'crash': p.returncode,
                                           'stderr': p.stderr[-400:]})
            continue
        r = json.load(open(js))
        summary['operations'] += r['actions']
        summary['runs'] += 1
        summary['events'] += r['events']
        kind = topo.split(':')[0]
        summary['by_topology'][kind] = summary['by_topology'].get(kind, 0) + r['actions']
        for v in r['violations'][:1]:
            why = explain(v, s, replay) or 'unexplained'
            key = v['kind'] + ': ' + why
            summary['violations'][key] = summary['violations'].get(key, 0) + 1
            if why == 'unexplained':
                summary['unexplained'].append({'command': ' '.join(cmd), 'violation': v, 'replay': replay})
            elif os.path.exists(replay):
                os.remove(replay)
        runs.write(json.dumps({'topology': topo, 'settings': s, 'seed': seed, 'actions': r['actions'],
                               'violations': r['violations'][:3], 'wall_s': r['wall_s']}) + '\n')
        runs.flush()
        summary['elapsed_s'] = round(time.time() - t0)
        json.dump(summary, open(os.path.join(a.out, 'summary.json'), 'w'), indent=1)
    summary['finished'] = summary['operations'] >= a.ops
    json.dump(summary, open(os.path.join(a.out, 'summary.json'), 'w'), indent=1)


if __name__ == '__main__':
    main()
