#!/usr/bin/env python3
"""A zsim campaign: random topologies (ring, bus, two rings; 3 to 255
switches), settings drawn from their accepted ranges, random faults, until
OPS fault operations have run or the time is up. Every violation is sorted
by what explains it in the settings; the rest are listed as unexplained.

    zsim/campaign.py build/zsim/zsim --ops 100000 --out DIR [--hours H] [--seed S]

DIR gets runs.jsonl (one line per run) and summary.json, rewritten after
every run, so an interrupted campaign still reports what it did.

    zsim/campaign.py build/zsim/zsim --again DIR [DIR...]

runs every violating run of those campaigns again and sorts it anew."""
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


def rings_of(topo):
    """(focal point, members) per ring, switches numbered from 1 as zsim
    names them: ring 2 of tworings:N,M starts at switch N, its focal
    point is switch N+1."""
    kind, _, size = topo.partition(':')
    n, _, m = size.partition(',')
    n = int(n)
    rings = [(1, range(2, n + 1))]
    if kind == 'tworings':
        m = int(m)
        rings.append((n + 1, [n] + list(range(n + 2, n + m))))
    return rings


def settings_at(s, text, t):
    """Each switch's settings at virtual time t: the run's own, changed by
    every reload before t (a switch's reloads add up)."""
    per = {}
    for line in text.splitlines():
        f = line.split()
        if len(f) < 3 or f[1] != 'reload' or float(f[0]) > t:
            continue
        for kv in f[3:]:
            k, _, val = kv.partition('=')
            per.setdefault(int(f[2][1:]), {})[k] = int(val)
    return lambda sw: dict(s, **per.get(sw, {}))


def explain(v, s, replay, topo):
    """The settings' property that shows as this violation, or None. The
    values are those each switch had when the violation was seen: a
    member's forward delay and a focal point's response delay and guarded
    recovery, each where the daemon reads it."""
    if v['kind'] != 'loop':
        return None
    text = open(replay).read() if replay and os.path.exists(replay) else ''
    at = settings_at(s, text, v['time'])
    rings = rings_of(topo)
    for focal, members in rings:
        rd = at(focal)['response-delay']
        # forward-delay counts 200 ms ticks and expires on the tick after
        if any(0 < at(m)['forward-delay'] * 1000 + 200 < rd for m in members):
            return 'forward-delay shorter than response-delay'
    gr = all(at(focal)['guarded-recovery'] for focal, _ in rings)
    hello = all(at(sw)['hello-enable'] for focal, members in rings for sw in [focal, *members])
    fd = any(at(m)['forward-delay'] for _, members in rings for m in members)
    if not gr and not hello:
        # Ring frames stop (a silent cut, loss, a member away) while
        # the ring is whole: the ring timeout alone opens the blocked port.
        return 'guarded-recovery 0 with hello off: a ring timeout on a whole ring'
    if not gr and fd:
        # During a cold start (or any announcement) the members' forward
        # delays open their ports while a ring timeout has opened the
        # focal point's.
        return 'guarded-recovery 0 with a forward delay'
    if not gr and (' lose ' in text or ' restart ' in text):
        return 'guarded-recovery 0: Ring frames lost or a member away on a whole ring'
    if not hello and 'silent-cut' in text:
        return 'silent cut without hello'
    return None


def command(zsim, topo, s, seed, ops, js, replay):
    cmd = [zsim, '--topology', topo, '--seed', str(seed), '--ops', str(ops), '--quiet',
           '--json', js, '--replay', replay, '--shrink', '3']
    for key, val in s.items():
        cmd += ['--set', '%s=%d' % (key, val)]
    return cmd


def again(zsim, dirs):
    """Runs every violating run of earlier campaigns once more (its draw
    taken again from the campaign's seed) and sorts its violation with
    today's explain; prints the counts."""
    out = {}
    for d in dirs:
        rows = [json.loads(line) for line in open(os.path.join(d, 'runs.jsonl'))]
        rows = [r for r in rows if r['violations']]
        for r in rows:
            base, k = divmod(r['seed'], 1000003)
            rng = random.Random(base)
            for _ in range(k):
                topo, s, ops = draw(rng)
            if (topo, s) != (r['topology'], r['settings']):
                key = 'not the same draw'
            else:
                js, replay = os.path.join(d, 'again.json'), os.path.join(d, 'again-%d.txt' % r['seed'])
                p = subprocess.run(command(zsim, topo, s, r['seed'], ops, js, replay), capture_output=True,
                                   text=True)
                vs = json.load(open(js))['violations'] if p.returncode in (0, 1) else []
                key = ('crash %d' % p.returncode if p.returncode not in (0, 1) else
                       'no violation now' if not vs else
                       vs[0]['kind'] + ': ' + (explain(vs[0], s, replay, topo) or 'unexplained'))
                if key.endswith('unexplained') or key.startswith('crash'):
                    print('%s: %s' % (key, ' '.join(command(zsim, topo, s, r['seed'], ops, js, replay))),
                          flush=True)
                elif os.path.exists(replay):
                    os.remove(replay)
            out.setdefault(d, {})[key] = out.get(d, {}).get(key, 0) + 1
        print(d, json.dumps(out[d], indent=1), flush=True)
    return out


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('zsim')
    ap.add_argument('--ops', type=int, default=100000)
    ap.add_argument('--hours', type=float, default=10)
    ap.add_argument('--seed', type=int, default=1)
    ap.add_argument('--out')
    ap.add_argument('--again', nargs='+', metavar='DIR', help="earlier campaigns' violations, once more")
    a = ap.parse_args()
    if a.again:
        again(a.zsim, a.again)
        return
    if not a.out:
        ap.error('--out is required')
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
        cmd = command(a.zsim, topo, s, seed, ops, js, replay)
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
            why = explain(v, s, replay, topo) or 'unexplained'
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
