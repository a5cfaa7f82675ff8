"""Topology description: plain data, saved as JSON so every command of the
command-line tool and every test sees the same lab."""
import json

from .common import FOCAL, MEMBER, LabError


def ring_section(ring_id, role, port_a, port_b, **opt):
	return dict(ring_id=ring_id, role=role, port_a=port_a, port_b=port_b,
		    blocked=opt.get('blocked'), guarded=opt.get('guarded', 1),
		    ring_interval=opt.get('ring_interval', 500),
		    response_delay=opt.get('response_delay', 1500),
		    hello=opt.get('hello', 1), hello_time=opt.get('hello_time', 500),
		    forward_delay=opt.get('forward_delay', 0))


def make_ring(n, ring_id=1, focal=1, blocked='A', hosts=(), bus=False, first=1, **opt):
	"""A ring of n switches s<first>..; link k joins port B of switch k to
	port A of switch k+1, the last link closes the ring back to the first
	switch. A bus leaves out that last link: the end switches keep one
	port section each (bus edges)."""
	if n < 2:
		raise LabError('a ring needs at least 2 switches')
	sw = ['s%d' % (first + i) for i in range(n)]
	pa = 'zl%da' % ring_id
	pb = 'zl%db' % ring_id
	links = []
	for i in range(n if not bus else n - 1):
		links.append(dict(name='L%d' % (i + 1) if ring_id == 1 else 'R%dL%d' % (ring_id, i + 1),
				  a=[sw[i], pb], b=[sw[(i + 1) % n], pa]))
	switches = {}
	for i, s in enumerate(sw):
		role = FOCAL if i + 1 == focal else MEMBER
		a, b = pa, pb
		if bus and i == 0:
			a, b = pb, None        # first switch only reaches forward
		elif bus and i == n - 1:
			b = None
		bl = None
		if role == FOCAL:
			bl = {'A': a, 'B': b}.get(blocked, blocked) or a
		switches[s] = dict(rings=[ring_section(ring_id, role, a, b, blocked=bl, **opt)])
	for h in hosts:
		switches['s%d' % h]['host'] = True
	return dict(switches=switches, links=links)


def merge(t1, t2):
	"""Two topologies sharing switches: ring sections of a shared switch
	are joined into one daemon (two instances)."""
	out = json.loads(json.dumps(t1))
	for s, d in t2['switches'].items():
		if s in out['switches']:
			out['switches'][s]['rings'] += d['rings']
			out['switches'][s]['host'] = out['switches'][s].get('host') or d.get('host')
		else:
			out['switches'][s] = d
	out['links'] += t2['links']
	return out


def conf_text(sw):
	"""/etc/zalkv2d.conf of one switch."""
	out = []
	for r in sw['rings']:
		out.append('zalk ring%d {' % r['ring_id'])
		out.append('\tring-id = %d' % r['ring_id'])
		out.append('\tring-role = "%s"' % ('focal-point' if r['role'] == FOCAL else 'member'))
		if r['role'] == FOCAL:
			out.append('\tguarded-recovery = %d' % r['guarded'])
			out.append('\tring-interval = %d' % r['ring_interval'])
			out.append('\tresponse-delay = %d' % r['response_delay'])
			out.append('\tblocked-port = "%s"' % (r['blocked'] or 'auto'))
		for p in ('port_a', 'port_b'):
			if r[p]:
				out.append('\tport %s {' % p[-1])
				out.append('\t\tname = "%s"' % r[p])
				out.append('\t\thello-enable = %d' % r['hello'])
				out.append('\t\thello-time = %d' % r['hello_time'])
				out.append('\t\tforward-delay = %d' % r['forward_delay'])
				out.append('\t}')
		out.append('}')
	return '\n'.join(out) + '\n'
