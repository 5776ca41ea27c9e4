#!/usr/bin/env python3
"""Fails when two of the project's CMake targets depend on each other in a circle.

Two graphs are checked, both over the project's own static libraries:
  declared  A -> B when A links B (LINK_LIBRARIES, as CMake holds it);
  symbols   A -> B when an object of A uses a symbol that an object of B defines
            (nm: undefined in A, strongly defined in B).
A circle in either is reported with the targets in it and, for the symbol graph, one
symbol that makes each edge. The input is written by the configure step (ks_layers.txt):
one line per target, "name<TAB>archive<TAB>linked;libraries".
"""
import os
import re
import subprocess
import sys


def read_targets(path):
    targets = {}
    with open(path) as f:
        for line in f:
            parts = line.rstrip('\n').split('\t')
            if len(parts) < 2 or not parts[0]:
                continue
            name, archive = parts[0], parts[1]
            links = parts[2].split(';') if len(parts) > 2 and parts[2] else []
            targets[name] = (archive, links)
    return targets


def declared_edges(targets):
    edges = {}
    for name, (_, links) in targets.items():
        deps = set()
        for item in links:
            # $<LINK_LIBRARY:FEATURE,a,b>, $<LINK_ONLY:a> and plain names alike
            for word in re.split(r'[<>:,$]', item):
                if word in targets and word != name:
                    deps.add(word)
        edges[name] = {d: None for d in deps}
    return edges


def nm_symbols(nm, archive):
    out = subprocess.run([nm, '-g', '--format=posix', archive], capture_output=True, text=True)
    if out.returncode != 0:
        raise SystemExit('nm failed on %s: %s' % (archive, out.stderr.strip()))
    defined, undefined = set(), set()
    for line in out.stdout.splitlines():
        f = line.split()
        if len(f) < 2 or line.endswith(':'):
            continue
        sym, kind = f[0], f[1]
        if kind == 'U':
            undefined.add(sym)
        elif kind in 'TDBRCG':  # strong definitions; weak ones (inline, templates) are everywhere
            defined.add(sym)
    return defined, undefined - defined


def symbol_edges(targets, nm):
    owner = {}
    undefined = {}
    for name, (archive, _) in targets.items():
        if not os.path.exists(archive):
            raise SystemExit('%s: %s is not built; build everything before this check' % (name, archive))
        d, u = nm_symbols(nm, archive)
        undefined[name] = u
        for s in d:
            owner.setdefault(s, name)
    edges = {}
    for name, syms in undefined.items():
        e = {}
        for s in sorted(syms):
            o = owner.get(s)
            if o and o != name and o not in e:
                e[o] = s
        edges[name] = e
    return edges


def cycles(edges):
    """Strongly connected components of more than one target (Tarjan)."""
    index, low, stack, on, out = {}, {}, [], set(), []
    counter = [0]

    def visit(v):
        index[v] = low[v] = counter[0]
        counter[0] += 1
        stack.append(v)
        on.add(v)
        for w in edges.get(v, {}):
            if w not in index:
                visit(w)
                low[v] = min(low[v], low[w])
            elif w in on:
                low[v] = min(low[v], index[w])
        if low[v] == index[v]:
            comp = []
            while True:
                w = stack.pop()
                on.discard(w)
                comp.append(w)
                if w == v:
                    break
            if len(comp) > 1:
                out.append(sorted(comp))

    sys.setrecursionlimit(10000)
    for v in sorted(edges):
        if v not in index:
            visit(v)
    return out


def demangle(sym):
    r = subprocess.run(['c++filt', sym], capture_output=True, text=True)
    return r.stdout.strip() or sym


def main():
    args = [a for a in sys.argv[1:] if a != '--show']
    if not args:
        raise SystemExit('usage: check_layers.py ks_layers.txt [nm] [--show]')
    targets = read_targets(args[0])
    nm = args[1] if len(args) > 1 else 'nm'
    failed = False
    for kind, edges in (('declared', declared_edges(targets)), ('symbols', symbol_edges(targets, nm))):
        if '--show' in sys.argv:
            for a in sorted(edges):
                print('%s %s -> %s' % (kind, a, ' '.join(sorted(edges[a]))))
        for comp in cycles(edges):
            failed = True
            print('circle between targets (%s): %s' % (kind, ' '.join(comp)))
            for a in comp:
                for b, sym in sorted(edges[a].items()):
                    if b in comp:
                        print('  %s -> %s%s' % (a, b, ' (%s)' % demangle(sym) if sym else ''))
    n = len(targets)
    if failed:
        return 1
    print('no circle between %d targets, declared or by symbols' % n)
    return 0


if __name__ == '__main__':
    sys.exit(main())
