#!/usr/bin/env python3
"""Picks a small regression corpus for a fuzz target out of many inputs (seeds, a fuzzing run's
finds): the input that adds the most coverage features not yet covered, again and again, the
smaller first on a tie, until the count or size budget is spent or nothing new is left.

usage: pick_corpus.py FUZZER OUT_DIR IN_DIR... [--max N] [--max-bytes B]

FUZZER is the libFuzzer program of the target (build-fuzz/fuzz/<target>); it reports the
features of every input through a merge control file. OUT_DIR is emptied first and receives the
picked inputs, named by their content's hash.
"""
import argparse
import hashlib
import os
import shutil
import subprocess
import sys
import tempfile


def features(fuzzer, dirs):
    with tempfile.TemporaryDirectory() as tmp:
        ctl = os.path.join(tmp, "control")
        empty = os.path.join(tmp, "empty")
        os.mkdir(empty)
        subprocess.run([fuzzer, "-merge=1", "-merge_control_file=" + ctl, empty] + dirs,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
        with open(ctl) as f:
            lines = f.read().splitlines()
    count = int(lines[0])
    files = lines[2:2 + count]
    feats = {}
    for line in lines[2 + count:]:
        parts = line.split()
        if parts and parts[0] == "FT":
            feats[files[int(parts[1])]] = set(parts[2:])
    return feats


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("fuzzer")
    ap.add_argument("out")
    ap.add_argument("inputs", nargs="+")
    ap.add_argument("--max", type=int, default=40)
    ap.add_argument("--max-bytes", type=int, default=16384)
    a = ap.parse_args()
    feats = features(os.path.abspath(a.fuzzer), [os.path.abspath(d) for d in a.inputs])
    if not feats:
        sys.exit("no features reported: is this a libFuzzer program?")
    size = {p: os.path.getsize(p) for p in feats}
    every = set().union(*feats.values())
    covered, picked, total = set(), [], 0
    while len(picked) < a.max:
        best = max(feats, key=lambda p: (len(feats[p] - covered), -size[p]))
        gain = len(feats[best] - covered)
        if gain == 0:
            break
        if total + size[best] > a.max_bytes:
            del feats[best]
            continue
        picked.append(best)
        total += size[best]
        covered |= feats.pop(best)
    shutil.rmtree(a.out, ignore_errors=True)
    os.makedirs(a.out)
    for p in picked:
        with open(p, "rb") as f:
            data = f.read()
        with open(os.path.join(a.out, hashlib.sha1(data).hexdigest()[:16]), "wb") as f:
            f.write(data)
    print(f"{len(picked)} of {len(size)} inputs, {total} octets, {len(covered)} of {len(every)} features")


if __name__ == "__main__":
    main()
