#!/usr/bin/env python3
"""Mutation testing for the daemon's own sources.

Applies one small fault at a time to a copy of the tree (ring/, frames/,
bridge/, daemon/, status/), rebuilds the test binaries incrementally, runs
the test stages (unit suite first; the kernel suite, then the tool suite,
only when the earlier ones did not notice) and reports every mutant as killed, survived or
did-not-build, with the survivors by file and line.

The candidate sites are listed in a fixed order and sampled with a seeded
generator, so the same tree and the same --seed/--sample give the same
mutants whatever the test stages are: run it before and after a change to
the tests with the same options and compare the kill rates.

Standard library only.
"""

import argparse
import difflib
import json
import os
import random
import re
import shutil
import signal
import statistics
import subprocess
import sys
import time

DIRS = ("ring", "frames", "bridge", "daemon", "status")
# Not linked into any test binary the stages run (a one-line shim).
SKIP_FILES = {"daemon/main.cpp"}

DEFAULT_STAGES = [
    ("unit", "ctest -L unit -j2 --stop-on-failure -Q"),
    ("kernel", "ctest -L kernel --stop-on-failure -Q"),
    ("tool", "ctest -L tool --stop-on-failure -Q"),
]

CMP_FLIP = {"==": "!=", "!=": "==", "<": ">=", ">=": "<", ">": "<=", "<=": ">"}
# Calls whose order the ring depends on (block before forward; port states,
# then flush, then status files) and calls that put frames on the wire or
# post events.
ORDERED_CALL = re.compile(
    r"\b(\w*port_state\w*|\w*fdb_flush\w*|\w*flush_other_rings|zalk_set_status|packet_send|"
    r"sm_send_event|send_\w+|\w*config_ring_topology|ev_timer_\w+|ev_io_\w+)\s*\(")
LOG_CALL = re.compile(r"^\s*(zlog|zalk_event_log|fprintf|printf)\s*\(")
DECL_START = re.compile(
    r"^\s*(const|constexpr|static|auto|int|unsigned|long|short|char|bool|float|double|size_t|"
    r"ssize_t|u?int\d+_t|struct|enum|union|using|typedef|return|if|else|for|while|do|switch|case|"
    r"default|break|continue|goto|namespace|template|class|extern|std::)\b")
EXPR_STMT = re.compile(r"^\s*[A-Za-z_][\w.\[\]>\-()*&]*(\s*[-+|&]?=\s*.*)?\(?.*\)?;\s*$")


def mask_line(line, in_block):
    """The line with comments and the insides of literals blanked out
    (same length), and whether a block comment is still open at its end."""
    out = []
    i, n = 0, len(line)
    quote = None
    while i < n:
        c = line[i]
        if in_block:
            if line.startswith("*/", i):
                in_block = False
                out.append("  ")
                i += 2
            else:
                out.append(" ")
                i += 1
            continue
        if quote:
            if c == "\\" and i + 1 < n:
                out.append("  ")
                i += 2
                continue
            if c == quote:
                quote = None
                out.append(c)
            else:
                out.append(" ")
            i += 1
            continue
        if line.startswith("//", i):
            out.append(" " * (n - i))
            break
        if line.startswith("/*", i):
            in_block = True
            out.append("  ")
            i += 2
            continue
        if c in "\"'":
            # a digit separator like 1'000 is not used in this tree
            quote = c
        out.append(c)
        i += 1
    return "".join(out), in_block


def balanced(s):
    return s.count("(") == s.count(")") and s.count("{") == s.count("}")


def is_statement(masked):
    """A whole expression statement on one line (a call or an assignment),
    not a declaration, a log line or a control statement."""
    s = masked.strip()
    if not s.endswith(";") or not balanced(s) or LOG_CALL.match(masked):
        return False
    if DECL_START.match(masked) or s.startswith(("}", "{", "#", ":", "?")):
        return False
    # "type name = ..." / "type *name;" declarations: two identifiers in a row
    if re.match(r"^\s*[A-Za-z_][\w:<>]*[\s*&]+[A-Za-z_]\w*\s*(=|;|\(|\[|\{)", masked):
        return False
    if re.match(r"^\s*[\w:]+<[^;]*>[\s*&]+\w+", masked):
        return False
    return bool(EXPR_STMT.match(masked))


def unit_at(masked, idx):
    """Lines in the statement unit starting at idx: 1 for a statement, 2
    for an if with a one-line body, 0 otherwise."""
    if idx >= len(masked):
        return 0
    m = masked[idx]
    if is_statement(m):
        return 1
    s = m.strip()
    if s.startswith("if (") and s.endswith(")") and balanced(s) and idx + 1 < len(masked):
        body = masked[idx + 1]
        if is_statement(body) and len(body) - len(body.lstrip()) > len(m) - len(m.lstrip()):
            return 2
    return 0


def candidates(root):
    """Every mutant the tree offers, in a fixed order."""
    out = []
    for d in DIRS:
        for name in sorted(os.listdir(os.path.join(root, d))):
            rel = f"{d}/{name}"
            if not name.endswith(".cpp") or rel in SKIP_FILES:
                continue
            with open(os.path.join(root, rel), encoding="utf-8") as f:
                lines = f.read().split("\n")
            found = file_candidates(rel, lines)
            for m in found:
                m["near"] = neighbours(lines, m["line"] - 1)
            out.extend(found)
    return out


def neighbours(lines, i):
    """The nearest non-blank lines before and after line i, stripped: what
    tells a moved line from another with the same text."""
    def step(d):
        j = i + d
        while 0 <= j < len(lines) and not lines[j].strip():
            j += d
        return lines[j].strip() if 0 <= j < len(lines) else ""
    return [step(-1), step(1)]


def mutant(rel, lineno, col, op, old, new, text):
    return {"file": rel, "line": lineno, "col": col, "op": op, "old": old, "new": new, "text": text}


def file_candidates(rel, lines):
    out = []
    in_block = False
    masked = []
    for line in lines:
        m, in_block = mask_line(line, in_block)
        masked.append(m)
    depth = 0  # brace depth: constants and conditions outside functions count too
    for idx, (line, m) in enumerate(zip(lines, masked)):
        no = idx + 1
        st = m.strip()
        if not st or st.startswith("#") or "static_assert" in m:
            continue
        # comparisons
        for mt in re.finditer(r"(?<=\s)(==|!=|<=|>=|<|>)(?=\s)", m):
            tok = mt.group(1)
            if tok in "<>" and re.search(r"template|std::\w+\s*$", m[: mt.start()]):
                continue
            out.append(mutant(rel, no, mt.start(), "cmp", tok, CMP_FLIP[tok], line))
        for mt in re.finditer(r"(?<=\s)(&&|\|\|)(?=\s)", m):
            tok = mt.group(1)
            out.append(mutant(rel, no, mt.start(), "logic", tok, "||" if tok == "&&" else "&&", line))
        for mt in re.finditer(r"(?<=[(\s])!(?=[A-Za-z_(])", m):
            out.append(mutant(rel, no, mt.start(), "not", "!", "", line))
        for mt in re.finditer(r"\b(true|false)\b", m):
            tok = mt.group(1)
            out.append(mutant(rel, no, mt.start(), "bool", tok, "false" if tok == "true" else "true", line))
        for mt in re.finditer(r"(?<=\s)([+-])(?=\s)", m):
            tok = mt.group(1)
            out.append(mutant(rel, no, mt.start(), "arith", tok, "-" if tok == "+" else "+", line))
        # integer constants (not array bounds of declarations: those only fail to build)
        for mt in re.finditer(r"(?<![\w.])(0x[0-9a-fA-F]+|\d+)(?![\w.])", m):
            tok = mt.group(1)
            if re.search(r"\[\s*$", m[: mt.start()]) and DECL_START.match(m):
                continue
            if "{" in m[: mt.start()] and "}" in m[mt.end():] and re.match(r"^\s*\{", m):
                pass  # table rows count
            val = int(tok, 16) if tok.startswith("0x") else int(tok)
            nv = 1 if val == 0 else (0 if val == 1 else val + 1)
            new = hex(nv) if tok.startswith("0x") else str(nv)
            out.append(mutant(rel, no, mt.start(), "const", tok, new, line))
        # drop a statement
        if depth > 0 and is_statement(m):
            ind = len(line) - len(line.lstrip())
            out.append(mutant(rel, no, ind, "stmt", line[ind:], ";", line))
        # swap with the next statement (or one-line if) when either is an ordered call
        n1 = unit_at(masked, idx) if depth > 0 else 0
        if n1:
            ind = len(line) - len(line.lstrip())
            n2 = unit_at(masked, idx + n1)
            nxt = masked[idx + n1] if n2 else ""
            if n2 and len(nxt) - len(nxt.lstrip()) == ind and any(
                    ORDERED_CALL.search(x) for x in masked[idx: idx + n1 + n2]):
                first = " / ".join(x.strip() for x in lines[idx: idx + n1])
                second = " / ".join(x.strip() for x in lines[idx + n1: idx + n1 + n2])
                out.append(dict(mutant(rel, no, ind, "swap", first, second, line), n1=n1, n2=n2))
        depth += m.count("{") - m.count("}")
    return out


def apply(text_lines, mt):
    lines = list(text_lines)
    i = mt["line"] - 1
    line = lines[i]
    if mt["op"] == "stmt":
        lines[i] = line[: mt["col"]] + ";"
    elif mt["op"] == "swap":
        a, b = mt["n1"], mt["n2"]
        lines[i: i + a + b] = lines[i + a: i + a + b] + lines[i: i + a]
    else:
        c = mt["col"]
        assert line[c: c + len(mt["old"])] == mt["old"], (mt, line)
        lines[i] = line[:c] + mt["new"] + line[c + len(mt["old"]):]
    return lines


def sample(cands, n, seed):
    """n mutants: every swap of ordered calls (there are few), the rest
    spread over the five directories in proportion to their candidate
    counts (at least a tenth of n each where they have that many), then in
    file and line order."""
    rng = random.Random(seed)
    swaps = [c for c in cands if c["op"] == "swap"][:n]
    cands = [c for c in cands if c["op"] != "swap"]
    n -= len(swaps)
    by_dir = {d: [c for c in cands if c["file"].startswith(d + "/")] for d in DIRS}
    if n >= len(cands):
        return sorted(swaps + cands, key=lambda c: (c["file"], c["line"], c["col"], c["op"]))
    share = {d: max(min(len(v), n // 10), round(n * len(v) / len(cands))) for d, v in by_dir.items()}
    while sum(share.values()) > n:
        d = max(share, key=lambda k: share[k] - n // 10)
        share[d] -= 1
    while sum(share.values()) < n:
        d = max((k for k in share if share[k] < len(by_dir[k])), key=lambda k: len(by_dir[k]) - share[k])
        share[d] += 1
    picked = list(swaps)
    for d in DIRS:
        picked.extend(rng.sample(by_dir[d], share[d]))
    picked.sort(key=lambda c: (c["file"], c["line"], c["col"], c["op"]))
    return picked


def sync_tree(repo, dest, rev=None):
    """Copy the working tree's tracked files (or those of commit rev) into
    dest, writing only what changed (keeps the build incremental) and
    removing what is gone."""
    if rev:
        tmp = dest + ".rev"
        shutil.rmtree(tmp, ignore_errors=True)
        os.makedirs(tmp)
        subprocess.run(f"git -C '{repo}' archive '{rev}' | tar -x -C '{tmp}'", shell=True, check=True)
        try:
            return _sync(tmp, dest, [
                os.path.relpath(os.path.join(b, n), tmp) for b, _, ns in os.walk(tmp) for n in ns])
        finally:
            shutil.rmtree(tmp, ignore_errors=True)
    files = subprocess.run(["git", "-C", repo, "ls-files", "-z"], check=True, capture_output=True,
                           text=True).stdout.split("\0")
    _sync(repo, dest, [f for f in files if f and os.path.isfile(os.path.join(repo, f))])


def _sync(repo, dest, files):
    keep = set(files)
    for f in files:
        src, dst = os.path.join(repo, f), os.path.join(dest, f)
        with open(src, "rb") as fh:
            data = fh.read()
        if os.path.exists(dst):
            with open(dst, "rb") as fh:
                if fh.read() == data:
                    continue
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        with open(dst, "wb") as fh:
            fh.write(data)
        shutil.copymode(src, dst)
    for base, _, names in os.walk(dest):
        for name in names:
            rel = os.path.relpath(os.path.join(base, name), dest)
            if rel not in keep:
                os.remove(os.path.join(dest, rel))


def run(cmd, cwd, timeout, env=None):
    """(exit status, seconds, timed out); the whole process group goes on
    timeout."""
    t0 = time.monotonic()
    p = subprocess.Popen(cmd, shell=True, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                         start_new_session=True, env=env)
    try:
        rc = p.wait(timeout=timeout)
        return rc, time.monotonic() - t0, False
    except subprocess.TimeoutExpired:
        os.killpg(p.pid, signal.SIGKILL)
        p.wait()
        return -9, time.monotonic() - t0, True


def build_targets(build):
    out = subprocess.run(["ninja", "-C", build, "-t", "targets", "all"], check=True, capture_output=True,
                         text=True).stdout
    names = [line.split(":")[0] for line in out.splitlines()]
    return sorted(t for t in names if re.fullmatch(r"tests/unit_tests|tests/(unit|kernel)_test_\w+|zalkv2d|zalkctl/zalkctl|zsim/zsim", t))


def parse_args():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--sample", type=int, default=160, help="mutants to run (default 160)")
    ap.add_argument("--seed", type=int, default=14, help="sampling seed (default 14)")
    ap.add_argument("--stage", action="append", metavar="NAME=CMD",
                    help="a test stage run in the build dir, in order, until one fails "
                         "(default: unit, kernel and tool, each ctest -L LABEL)")
    ap.add_argument("--timeout", type=float, default=0,
                    help="seconds per stage run (default: 5x the clean run, at least 10); a hang counts as killed")
    ap.add_argument("--work", default="build-mutate", help="tree copy and build dir (default build-mutate)")
    ap.add_argument("--jobs", type=int, default=2)
    ap.add_argument("--rev", help="mutate this commit's tree instead of the working tree")
    ap.add_argument("--stop-after", type=int, default=0, help="run only the first N mutants of the run order")
    ap.add_argument("--list", action="store_true", help="list the sampled mutants and stop")
    ap.add_argument("--only", help="run the mutants whose file:line contains this text "
                    "(several texts: comma-separated, any of them)")
    ap.add_argument("--json", help="write every result to this file")
    ap.add_argument("--mutants", metavar="JSON",
                    help="run the mutants of an earlier run's --json (of this or another commit) "
                         "where their lines are in this tree, instead of a sample")
    return ap.parse_args()


def same_fault_key(m):
    ind = len(m["text"]) - len(m["text"].lstrip())
    return (m["op"], m["old"], m["new"], m["col"] - ind, m["text"].strip())


def relocate(earlier, cands, root):
    """This tree's candidates that are the faults of an earlier run (its
    --json, maybe of another commit): the same operator on the same text
    of the same line, in the same file if the line is still there, else
    wherever it moved, the nearest line first. An entry with "hand" (its
    old place) is a fault mapped by hand onto code that was rewritten. The
    ones whose line is gone come back apart."""
    by_key = {}
    for c in cands:
        by_key.setdefault(same_fault_key(c), []).append(c)
    found, gone = [], []
    for m in earlier:
        if m.get("hand"):
            # Mapped by hand onto rewritten code: taken as it is where the
            # line still reads as it did.
            with open(os.path.join(root, m["file"]), encoding="utf-8") as f:
                ok = f.read().split("\n")[m["line"] - 1] == m["text"]
            (found if ok else gone).append(dict(m, was=m["hand"], before=m.get("verdict", ""), how="by hand"))
            continue
        hits = [c for c in by_key.get(same_fault_key(m), []) if placed(m, c)]
        how = "same line"
        if not hits:
            # A line that was rewritten a little (a renamed field, one
            # more argument): the same fault on the most similar line.
            hits = similar(m, cands)
            how = "similar line"
        if not hits:
            gone.append(m)
            continue
        best = min(hits, key=lambda c: (c["file"] != m["file"], abs(c["line"] - m["line"])))
        found.append(dict(best, was=f"{m['file']}:{m['line']}:{m['col']}", before=m.get("verdict", ""), how=how))
    return found, gone


def around(m, width=6):
    """The text either side of a mutant's place in its line."""
    t, c = m["text"], m["col"]
    return t[max(0, c - width): c], t[c + len(m["old"]): c + len(m["old"]) + width]


def placed(m, c):
    """Whether candidate c can be m's line: a short line ("return 0;",
    "if (!f)") stands in many places and counts only beside one of its
    old neighbours (not a lone brace)."""
    if len(m["text"].strip()) >= 20:
        return True
    near = {x for x in m.get("near", []) if len(x.strip("{} ;")) >= 4}
    return bool(near & set(c["near"]))


def similar(m, cands, least=0.8):
    """The same operator and text, with the same few characters either
    side, on the line most like m's (at least `least` alike), at the
    place nearest m's within the line."""
    text = m["text"].strip()
    scored = []
    for c in cands:
        if (c["op"], c["old"], c["new"]) != (m["op"], m["old"], m["new"]) or around(c) != around(m) or not placed(m, c):
            continue
        r = difflib.SequenceMatcher(None, text, c["text"].strip()).ratio()
        if r >= least:
            scored.append((r, c))
    if not scored:
        return []
    top = max(r for r, _ in scored)
    hits = [c for r, c in scored if r == top]
    ind = len(m["text"]) - len(m["text"].lstrip())
    near = min(abs((c["col"] - len(c["text"]) + len(c["text"].lstrip())) - (m["col"] - ind)) for c in hits)
    return [c for c in hits if abs((c["col"] - len(c["text"]) + len(c["text"].lstrip())) - (m["col"] - ind)) == near]


def pick(a, src):
    """The mutants of this run, in their run order."""
    cands = candidates(src)
    if a.mutants:
        with open(a.mutants, encoding="utf-8") as f:
            found, gone = relocate(json.load(f)["results"], cands, src)
        print(f"{len(found)} of {len(found) + len(gone)} mutants of {a.mutants} found in this tree; "
              f"lines gone or changed: {len(gone)}", flush=True)
        for m in gone:
            print(f"  gone ({m.get('verdict', '')}): " + describe(m), flush=True)
        for m in found:
            if m["how"] != "same line":
                print(f"  {m['how']}: {m['was']} -> {describe(m)}", flush=True)
        cands = found
    picked = sample(cands, a.sample, a.seed) if not a.mutants else cands
    if a.only:
        picked = [m for m in picked if any(o in f"{m['file']}:{m['line']}" for o in a.only.split(","))]
    # Run in a seeded shuffled order: a run stopped early (--stop-after)
    # has still tried every directory, and two runs stopped at the same
    # count have tried the same mutants.
    random.Random(a.seed + 1).shuffle(picked)
    if a.stop_after:
        picked = picked[: a.stop_after]
    print(f"{len(cands)} candidate mutants, {len(picked)} sampled (seed {a.seed})", flush=True)
    return picked


def describe(m):
    return f"{m['file']}:{m['line']}:{m['col']}: {m['op']}: {m['old'].strip()!r} -> {m['new'].strip()!r}"


def clean_run(a, src, build, stages):
    """Builds the clean tree and runs every stage on it once. Returns the
    ninja command that rebuilds the tested targets and each stage's
    timeout."""
    if not os.path.exists(os.path.join(build, "build.ninja")):
        subprocess.run(["cmake", "-S", src, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=None",
                        "-DCMAKE_CXX_FLAGS=-O1", "-DZALK_BENCH=OFF", "-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld"],
                       check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["ninja", "-C", build, "build.ninja"], check=True, stdout=subprocess.DEVNULL)  # re-globs
    targets = build_targets(build)
    ninja = ["ninja", "-C", build, f"-j{a.jobs}"] + targets
    if subprocess.run(ninja, stdout=subprocess.DEVNULL).returncode:
        sys.exit("mutate: the clean tree does not build")
    base = {}
    for name, cmd in stages:
        rc, secs, _ = run(cmd, build, None)
        if rc:
            sys.exit(f"mutate: stage {name} fails on the clean tree")
        base[name] = secs
    timeout = {n: a.timeout or max(10.0, 5 * s) for n, s in base.items()}
    print("clean run: " + ", ".join(f"{n} {s:.1f}s (timeout {timeout[n]:.0f}s)" for n, s in base.items()),
          flush=True)
    return ninja, timeout


def judge(m, ninja, build, stages, timeout):
    """Builds the mutated tree and runs the stages until one fails."""
    if subprocess.run(ninja, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode:
        return "did-not-build", ""
    for name, cmd in stages:
        env = dict(os.environ, MUTATE_ID=f"{m['file']}:{m['line']}:{m['col']}:{m['op']}")
        rc, _, hung = run(cmd, build, timeout[name], env)
        if rc:
            return "killed", name + (" (hang)" if hung else "")
    return "survived", ""


def run_mutants(picked, src, build, ninja, stages, timeout):
    """Applies each mutant alone, judges it and puts the file back (every
    file also when the run is interrupted). Returns the results."""
    results = []
    original = {}
    try:
        for i, m in enumerate(picked, 1):
            t0 = time.monotonic()
            path = os.path.join(src, m["file"])
            if m["file"] not in original:
                with open(path, encoding="utf-8") as f:
                    original[m["file"]] = f.read()
            with open(path, "w", encoding="utf-8") as f:
                f.write("\n".join(apply(original[m["file"]].split("\n"), m)))
            verdict, by = judge(m, ninja, build, stages, timeout)
            with open(path, "w", encoding="utf-8") as f:
                f.write(original[m["file"]])
            m = dict(m, verdict=verdict, by=by, seconds=round(time.monotonic() - t0, 2))
            results.append(m)
            print(f"[{i}/{len(picked)}] {verdict:13} {by:13} {m['file']}:{m['line']}:{m['col']} {m['op']}: "
                  f"{m['old'].strip()!r} -> {m['new'].strip()!r}", flush=True)
    finally:
        for rel, text in original.items():
            with open(os.path.join(src, rel), "w", encoding="utf-8") as f:
                f.write(text)
    return results


def report(results, stages, t_start):
    killed = [r for r in results if r["verdict"] == "killed"]
    survived = [r for r in results if r["verdict"] == "survived"]
    nobuild = [r for r in results if r["verdict"] == "did-not-build"]
    judged = len(killed) + len(survived)
    rate = 100.0 * len(killed) / judged if judged else 0.0
    secs = [r["seconds"] for r in results]
    print(f"\nkilled {len(killed)}, survived {len(survived)}, did-not-build {len(nobuild)}; "
          f"kill rate {rate:.1f}% ({len(killed)}/{judged})")
    for name, _ in stages:
        print(f"  killed by {name}: {sum(1 for r in killed if r['by'].startswith(name))}")
    print(f"  hangs (counted as killed): {sum(1 for r in killed if 'hang' in r['by'])}")
    if secs:
        print(f"wall {time.monotonic() - t_start:.0f}s, per mutant median {statistics.median(secs):.1f}s")
    lost = [r for r in results if r.get("before") == "killed" and r["verdict"] != "killed"]
    if any("before" in r for r in results):
        print(f"killed in the earlier run and not now: {len(lost)}")
        for r in lost:
            print(f"  {describe(r)} (was {r['was']}, {r['verdict']})")
    if survived:
        print("survivors:")
        for r in sorted(survived, key=lambda r: (r["file"], r["line"], r["col"])):
            print("  " + describe(r))


def main():
    a = parse_args()
    repo = subprocess.run(["git", "rev-parse", "--show-toplevel"], check=True, capture_output=True,
                          text=True).stdout.strip()
    stages = DEFAULT_STAGES if not a.stage else [tuple(s.split("=", 1)) for s in a.stage]
    work = os.path.join(repo, a.work) if not os.path.isabs(a.work) else a.work
    src, build = os.path.join(work, "src"), os.path.join(work, "build")
    os.makedirs(src, exist_ok=True)
    sync_tree(repo, src, a.rev)

    picked = pick(a, src)
    if a.list:
        for m in picked:
            print(describe(m))
        return 0
    ninja, timeout = clean_run(a, src, build, stages)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("mutate: terminated"))
    t_start = time.monotonic()
    results = run_mutants(picked, src, build, ninja, stages, timeout)
    report(results, stages, t_start)
    if a.json:
        with open(a.json, "w", encoding="utf-8") as f:
            json.dump({"seed": a.seed, "sample": a.sample, "stages": stages, "results": results}, f, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())
