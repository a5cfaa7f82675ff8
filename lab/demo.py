#!/usr/bin/python3
"""The main-job demonstration: a ring of six emulated switches, each running
zalkv2d, with traffic between two end hosts while a link on the traffic's
path fails and returns. Exits 0 only when the ring behaved: closed with one
blocked port, recovered from the failure, closed again without a loop."""
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import view  # noqa: E402
import zlab  # noqa: E402


def say(msg=''):
	print(msg, flush=True)


def check(good, failure, *success):
	"""Says the failure, or the success lines; returns whether it held."""
	for line in (success if good else ['FAIL: ' + failure]):
		say(line)
	return good


def main(daemon):
	lab = zlab.Lab(daemon=daemon)
	ok = True
	# focal point s1 keeps its port A (link L6 to s6) blocked; the end hosts
	# hang off s1 and s4, so their traffic runs s1-s2-s3-s4 over L1, L2, L3
	topo = zlab.make_ring(6, focal=1, blocked='A', hosts=(1, 4), ring_interval=100, hello_time=100,
			      response_delay=100)
	say('== Building a ring of 6 switches (s1..s6), each its own network and mount namespace,')
	say('   bridge br0, ring ports zl1a/zl1b, zalkv2d on each; s1 is the focal point,')
	say('   its ring port A (zl1a, link L6 to s6) is the port to block. End hosts on s1 and s4.')
	lab.up(topo)
	for note in zlab.standin_notes(lab):
		say('   ' + note)
	closed = lab.wait(lambda: lab.blocking_ports(1) == [('s1', 'zl1a')] and
			  all(st['rings']['1']['whole'] for st in lab.status().values()), 15.0)
	say()
	say(view.text(lab))
	if not closed:
		say('FAIL: the ring did not close with exactly one blocked port (s1 zl1a) within 15 s')
		return 1
	say('Ring closed: the focal point blocks s1 zl1a, every other ring port forwards.')
	say()
	say('== Traffic: 10,000 frames/s from host h1 (on s1) to host h4 (on s4), 12 s')
	tr = lab.traffic('h1', 'h4', rate=10000, seconds=12.0)
	time.sleep(3.0)
	say('== Cutting link L2 (s2 port B - s3 port A): carrier loss on the traffic path')
	t_cut = lab.cut('L2')
	opened = lab.wait(lambda: ('s1', 'zl1a') not in lab.blocking_ports(1), 5.0)
	time.sleep(1.0)
	say(view.text(lab))
	ok = check(opened, 'the focal point did not open its blocked port after the cut',
		   'Ring broken at L2: s2 and s3 reported it, the focal point opened zl1a; traffic now runs',
		   's1-s6-s5-s4.') and ok
	time.sleep(2.0)
	say('== Healing link L2')
	t_heal = lab.heal('L2')
	reclosed = lab.wait(lambda: lab.blocking_ports(1) == [('s1', 'zl1a')] and
			    all(st['rings']['1']['whole'] for st in lab.status().values()), 10.0)
	say(view.text(lab))
	ok = check(reclosed, 'the ring did not close again with s1 zl1a as the only blocked port',
		   'Ring closed again: the returning ports were held until the focal point had blocked zl1a',
		   'and answered with Link Response frames.') and ok
	r = tr.result()
	cut_gap, cut_lost = zlab.interruption(r, t_cut, t_heal)
	heal_gap, heal_lost = zlab.interruption(r, t_heal)
	say()
	say('== Traffic h1 -> h4: %d frames sent, %d received, %d lost, %d duplicated, %d reordered' % (
		r['sent'], r['unique'], r['lost'], r['duplicates'], r['reordered']))
	say('   broadcast: %d sent, %d received, most copies of one frame: %d' % (
		r['sender'].get('bcast_sent', 0), r['bcast_received'], r['bcast_max_copies']))
	say('   sender: %.1f s for 12 s of frames, most late %.1f ms (machine load shows here)' % (
		r['sender'].get('seconds', 0), r['sender'].get('max_late_ms', 0)))
	say('   interruption at the link failure : %8.1f ms (%d frames lost)' % (cut_gap * 1e3, cut_lost))
	say('   interruption at the link return  : %8.1f ms (%d frames lost)' % (heal_gap * 1e3, heal_lost))
	ok = check(not r['duplicates'] and r['bcast_max_copies'] <= 1, 'duplicated frames: the ring formed a loop') and ok
	ok = check(r['unique'] >= r['sent'] * 0.5, 'most of the traffic was lost') and ok
	say()
	say('== Tearing down')
	for s in lab.switches():
		lab.kill(s, zlab.signal.SIGTERM)
	statuses = {s: lab.stop(s) for s in lab.switches()}
	bad = [s for s, st in statuses.items() if st != 0]
	left = [s for s in lab.switches() if os.path.exists(os.path.join(lab.run_dir(s), 'zalkv2'))]
	zlab.down()
	ok = check(not bad and not left, 'daemons that did not stop cleanly (exit status): %s; /var/run/zalkv2 left on: %s' % (
		', '.join('%s %s' % (s, statuses[s]) for s in bad) or 'none', ', '.join(left) or 'none'),
		'Every daemon stopped with status 0 and removed /var/run/zalkv2; lab removed.') and ok
	say()
	say('RESULT: %s' % ('the ring behaved' if ok else 'the ring did NOT behave'))
	return 0 if ok else 1


if __name__ == '__main__':
	if len(sys.argv) != 2:
		sys.exit('usage: demo.py PATH-TO-zalkv2d')
	try:
		rc = main(sys.argv[1])
	except (zlab.LabError, KeyboardInterrupt) as e:
		print('FAIL: %s' % e)
		zlab.down()
		rc = 1
	sys.exit(rc)
