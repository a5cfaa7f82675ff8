"""Status view of a lab ring: one screen of text drawn as the ring, and a
graphviz picture with the port states coloured."""
import os
import subprocess
import sys

SHORT = {'FORWARDING': 'fwd', 'BLOCKING': 'BLOCKED', 'DISABLED': 'disabled', 'LISTENING': 'listen',
	 'LEARNING': 'learn', None: '?'}
RED, GREEN, GREY, BOLD, OFF = '\033[31m', '\033[32m', '\033[90m', '\033[1m', '\033[0m'


def _port_text(p, colour):
	"""One ring port: the kernel's state, marked when it blocks and when the
	daemon's status file says otherwise."""
	if p is None:
		return '-'
	if not p['carrier']:
		txt = '%s down' % p['name']
		return (GREY + txt + OFF) if colour else txt
	k = p['kernel']
	txt = '%s %s' % (p['name'], SHORT.get(k, k))
	if k != 'FORWARDING':
		txt = '##' + txt + '##'
	if p['physical'] and p['physical'] != k:
		txt += ' (file: %s)' % p['physical']
	if colour:
		txt = (RED + BOLD if k != 'FORWARDING' else GREEN) + txt + OFF
	return txt


def ring_order(lab, rid):
	"""Switches and links of one ring in ring order, starting at the switch
	whose port A is not linked (a bus) or at the lowest-numbered one."""
	sws = [s for s in lab.switches() if any(r['ring_id'] == rid for r in lab.topo['switches'][s]['rings'])]
	sec = {s: next(r for r in lab.topo['switches'][s]['rings'] if r['ring_id'] == rid) for s in sws}
	nxt = {}
	for l in lab.topo['links']:
		(sa, pa), (sb, pb) = l['a'], l['b']
		if sa in sec and sb in sec and pa in (sec[sa]['port_a'], sec[sa]['port_b']):
			nxt[sa] = (l, sb)
	has_prev = {v[1] for v in nxt.values()}
	start = next((s for s in sws if s not in has_prev), sws[0])
	order, links, s = [start], [], start
	while s in nxt and len(order) <= len(sws):
		l, s = nxt[s]
		links.append(l)
		if s == start:
			break
		order.append(s)
	return order, links, sec


def text(lab, st=None, colour=None):
	if colour is None:
		colour = sys.stdout.isatty()
	st = st or lab.status()
	rids = sorted({r['ring_id'] for s in lab.switches() for r in lab.topo['switches'][s]['rings']})
	cuts = lab.topo.get('cuts', {})
	out = []
	for rid in rids:
		order, links, sec = ring_order(lab, rid)
		closed = len(links) == len(order)
		blocked = [(s, p['name']) for s in order for p in st[s]['rings'][str(rid)]['ports'].values()
			   if p['carrier'] and p['kernel'] != 'FORWARDING']
		out.append('Ring %d: %d switches, %s; blocking ring ports: %s' % (
			rid, len(order), 'ring' if closed else 'bus',
			', '.join('%s %s' % b for b in blocked) or 'none'))
		for i, s in enumerate(order):
			r = st[s]['rings'][str(rid)]
			role = 'focal ' if r['role'] == 'focal' else 'member'
			state = r['state'] or ('(no status)' if st[s]['alive'] else '(no daemon)')
			ports = r['ports']
			lead = '  +->' if closed and i == 0 else ('  |  ' if closed else '     ')
			out.append('%s %-4s %s %-12s A: %-28s B: %s' % (
				lead, s, role, state, _port_text(ports.get('A'), colour), _port_text(ports.get('B'), colour)))
			if i < len(links) and (i < len(order) - 1):
				l = links[i]
				mark = {'cut': 'xx cut xx', 'silent': '.. silent cut ..'}.get(cuts.get(l['name']), '|')
				out.append('%s        %s %s' % ('  |  ' if closed else '     ', mark, l['name']))
		if closed:
			l = links[-1]
			mark = {'cut': 'xx cut xx', 'silent': '.. silent cut ..'}.get(cuts.get(l['name']), '|')
			out.append('  +----- %s %s (back to %s)' % (mark, l['name'], order[0]))
		out.append('')
	if getattr(lab, 'standin', None):
		out.append('(drop filters: this kernel has no tc flower, the lab stands in with nftables bridge rules)')
	if getattr(lab, 'port_standin', None):
		out.append('(port states: the lab build zalkv2d-lab runs; a kernel state "disabled" on a ring port with '
			   'carrier is its BLOCKING and shows as BLOCKED)')
	return '\n'.join(out)


def dot(lab, st=None):
	st = st or lab.status()
	colour = {'FORWARDING': 'darkgreen', 'BLOCKING': 'red'}
	cuts = lab.topo.get('cuts', {})
	out = ['graph zlab {', ' layout=circo; node [shape=box, style=rounded, fontname="Helvetica"];',
	       ' edge [fontname="Helvetica", fontsize=10];']
	for s in lab.switches():
		rings = st[s]['rings']
		lbl = '\\n'.join(['%s' % s] + ['ring %s: %s%s' % (rid, r['state'] or '?',
					    ' (focal)' if r['role'] == 'focal' else '') for rid, r in rings.items()])
		focal = any(r['role'] == 'focal' for r in rings.values())
		out.append(' %s [label="%s"%s];' % (s, lbl, ', penwidth=2.5' if focal else ''))
	for l in lab.topo['links']:
		(sa, pa), (sb, pb) = l['a'], l['b']

		def port(s, p):
			for r in st[s]['rings'].values():
				for q in r['ports'].values():
					if q['name'] == p:
						return q
			return None
		qa, qb = port(sa, pa), port(sb, pb)

		def lab_(q):
			if q is None or not q['carrier']:
				return 'down', 'grey'
			return SHORT.get(q['kernel'], q['kernel']), colour.get(q['kernel'], 'orange')
		ta, ca = lab_(qa)
		tb, cb = lab_(qb)
		style = {'cut': 'dotted', 'silent': 'dashed'}.get(cuts.get(l['name']), 'solid')
		out.append(' %s -- %s [label="%s", taillabel="%s", headlabel="%s", color="%s:%s", style=%s, '
			   'labelfontcolor="%s"];' % (sa, sb, l['name'], ta, tb, ca, cb, style,
						     cb if cb == 'red' else ca))
	out.append('}')
	return '\n'.join(out) + '\n'


def picture(lab, path, st=None):
	"""Writes an SVG or PNG (by the file's extension) with graphviz.
	Returns False when graphviz is not installed."""
	fmt = os.path.splitext(path)[1].lstrip('.') or 'svg'
	try:
		r = subprocess.run(['circo', '-T' + fmt, '-o', path], input=dot(lab, st), text=True,
				   capture_output=True, timeout=30)
	except FileNotFoundError:
		return False
	return r.returncode == 0
