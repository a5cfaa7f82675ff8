#!/usr/bin/env python3
"""The daemon's include graph by module (a .cpp and its .h are one
module): every module with the modules it includes, and the circles
(strongly connected sets of more than one module). Exit status 1 when
there is a circle.

    tools/include-graph.py [--list]
"""
import collections
import os
import re
import sys

DIRS = ('daemon', 'ring', 'frames', 'bridge', 'status')


def graph(top):
	edges = collections.defaultdict(set)
	nodes = set()
	for d in DIRS:
		for f in sorted(os.listdir(os.path.join(top, d))):
			if not f.endswith(('.cpp', '.h')):
				continue
			mod = os.path.join(d, os.path.splitext(f)[0])
			nodes.add(mod)
			for line in open(os.path.join(top, d, f)):
				m = re.match(r'#include "([^"]+)"', line)
				if m and os.path.exists(os.path.join(top, m.group(1))):
					other = os.path.splitext(m.group(1))[0]
					if other != mod:
						edges[mod].add(other)
	return nodes, edges


def circles(nodes, edges):
	"""Tarjan's strongly connected components of more than one module."""
	index, low, stack, on, found = {}, {}, [], set(), []

	def visit(v):
		index[v] = low[v] = len(index)
		stack.append(v)
		on.add(v)
		for w in edges[v]:
			if w not in index:
				visit(w)
				low[v] = min(low[v], low[w])
			elif w in on:
				low[v] = min(low[v], index[w])
		if low[v] == index[v]:
			comp = []
			while not comp or comp[-1] != v:
				comp.append(stack.pop())
				on.discard(comp[-1])
			if len(comp) > 1:
				found.append(sorted(comp))

	for v in sorted(nodes):
		if v not in index:
			visit(v)
	return found


def main():
	top = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
	nodes, edges = graph(top)
	if '--list' in sys.argv:
		for v in sorted(nodes):
			print('%-20s -> %s' % (v, ' '.join(sorted(edges[v]))))
	found = circles(nodes, edges)
	print('%d modules, %d circles' % (len(nodes), len(found)))
	for c in found:
		print('circle: ' + ' '.join(c))
	return 1 if found else 0


if __name__ == '__main__':
	sys.exit(main())
