#!/usr/bin/env python3
"""The memory trace of compiled gathers and scatters under `quern run`.

    trace_run_test.py QUERN TRACE_PROG CASE...    (--list: the case names)

TRACE_PROG is the AArch64 build of trace_prog.c. Each case runs it under
`quern run` in a fresh directory and holds what `quern trace dump` reads
against what the program's own lines predict: every record there, attributed
to the thread whose arrays it touched, none twice, none from outside a region;
a program killed by SIGKILL leaves exactly the records it made before the kill,
and the reader says that the trace was cut short. Prints the figures.
"""
import collections
import os
import re
import signal
import subprocess
import sys
import tempfile

# The smallest window the sink accepts: 512 slots, the first two of the file
# being its header, so the first window holds 510 records and each later 512.
WINDOW = 28672
FIRST_WINDOW_RECORDS = 510
N = 100  # elements per loop: 8 instructions of 12 lanes and one of 4

THREAD_LINE = re.compile(
    r"thread (\d+) tid (\d+) table (0x[0-9a-f]+) dest (0x[0-9a-f]+) n (\d+)(?: regions (\d+) lanes (\d+))?$")


class Failure(Exception):
    pass


def run(cmd, cwd, env=None, timeout=300):
    full_env = dict(os.environ)
    full_env.update(env or {})
    return subprocess.run(cmd, cwd=cwd, env=full_env, capture_output=True, text=True, timeout=timeout)


def quern_run(quern, prog, args, cwd, trace=None, env=None, options=()):
    cmd = [quern, "run"] + list(options) + (["--trace", trace] if trace else []) + ["--", prog] + args
    return run(cmd, cwd, env)


def dump(quern, path, cwd):
    """The records of trace `path` in file order (tuples of ints), and the
    tool's standard error."""
    r = run([quern, "trace", "dump", path], cwd)
    if r.returncode != 0:
        raise Failure("quern trace dump: status %d: %s" % (r.returncode, r.stderr.strip()))
    lines = r.stdout.splitlines()
    if not lines or lines[0] != "count,tid,position,access,size,vaddr,paddr,pc":
        raise Failure("quern trace dump: no CSV header line")
    return [tuple(int(f, 0) for f in line.split(",")) for line in lines[1:]], r.stderr


def threads_of(stdout):
    threads = []
    for line in stdout.splitlines():
        m = THREAD_LINE.match(line)
        if not m:
            raise Failure("unexpected line from the program: " + line)
        k, tid, table, dest, n, regions, lanes = m.groups()
        threads.append(dict(k=int(k), tid=int(tid), table=int(table, 16), dest=int(dest, 16), n=int(n),
                            regions=int(regions or 0), lanes=int(lanes or 0)))
    return threads


def element(t, i):
    return (i * 7 + t["k"]) % t["n"]


def signed32(v):
    return v - (1 << 32) if v >= 1 << 31 else v


def check_positions(records):
    """Each thread's records, in count order, fall into whole instructions:
    3 2 ... 2 6, or a lone 7, all of one pc."""
    by_tid = collections.defaultdict(list)
    for r in records:
        by_tid[r[1]].append(r)
    for tid, rs in by_tid.items():
        rs.sort()
        open_pc = None
        for count, _, position, _, _, _, _, pc in rs:
            if open_pc is None and position not in (3, 7) or open_pc is not None and position not in (2, 6):
                raise Failure("thread %d: position %d at count %d breaks its instructions" % (tid, position, count))
            if open_pc is not None and pc != open_pc:
                raise Failure("thread %d: an instruction's records at two pcs, count %d" % (tid, count))
            open_pc = pc if position in (3, 2) else None
        if open_pc is not None:
            raise Failure("thread %d: its last instruction has no last record" % tid)


def check_threads(quern, prog, args, work, options=()):
    trace = os.path.join(work, "t.qtrace")
    r = quern_run(quern, prog, args, work, trace, options=options)
    if r.returncode != 0 or r.stderr:
        raise Failure("quern run: status %d, stderr: %s" % (r.returncode, r.stderr.strip()[:2000]))
    threads = threads_of(r.stdout)
    records, err = dump(quern, trace, work)
    if err:
        raise Failure("quern trace dump said: " + err.strip())

    counts = [rec[0] for rec in records]
    if len(set(counts)) != len(counts):
        raise Failure("a count appears twice")
    markers = [rec for rec in records if rec[1] in (-1, -2)]
    if any(rec[2:] != (0, 0, 0, 0, 0, 0) for rec in markers):
        raise Failure("a region marker with fields set")
    regions = sum(t["regions"] for t in threads)
    starts = sum(1 for rec in markers if rec[1] == -1)
    if starts != regions or len(markers) - starts != regions:
        raise Failure("%d start and %d stop markers, want %d of each" % (starts, len(markers) - starts, regions))

    # Whose arrays an address belongs to, and what each thread's lanes predict.
    owner = {}
    expected = collections.Counter()
    for t in threads:
        for base, access in ((t["table"], 1), (t["dest"], 0)):
            for i in range(t["n"]):
                vaddr = base + 4 * element(t, i)
                owner[vaddr] = t
                expected[(signed32(t["tid"]), access, 4, vaddr)] += t["regions"]
        if t["lanes"] != 2 * t["n"] * t["regions"]:
            raise Failure("thread %d counts %d lanes, want %d" % (t["k"], t["lanes"], 2 * t["n"] * t["regions"]))
    found = collections.Counter()
    for count, tid, _, access, size, vaddr, _, _ in records:
        if tid in (-1, -2):
            continue
        t = owner.get(vaddr)
        if t is None:
            raise Failure("record %d at 0x%x, an address no thread used" % (count, vaddr))
        if tid != signed32(t["tid"]):
            raise Failure("record %d at 0x%x of thread %d is attributed to tid %d" % (count, vaddr, t["k"], tid))
        found[(tid, access, size, vaddr)] += 1
    if found != expected:
        missing, extra = expected - found, found - expected
        raise Failure("%d record(s) missing (e.g. %s), %d more than predicted (e.g. %s)" % (
            sum(missing.values()), next(iter(missing), None), sum(extra.values()), next(iter(extra), None)))
    check_positions([rec for rec in records if rec[1] not in (-1, -2)])
    lanes = sum(t["lanes"] for t in threads)
    return "%d threads, %d records predicted (%d lanes + %d markers), %d found" % (
        len(threads), lanes + 2 * regions, lanes, 2 * regions, len(records))


def check_kill(quern, prog, k, work):
    trace = os.path.join(work, "t.qtrace")
    r = quern_run(quern, prog, ["kill", str(k), str(N)], work, trace, {"QUERN_TRACE_WINDOW": str(WINDOW)})
    if r.returncode != -signal.SIGKILL or r.stderr:
        raise Failure("quern run: status %d (want death by SIGKILL), stderr: %s" % (r.returncode, r.stderr.strip()))
    (t,) = threads_of(r.stdout)
    # In file order, counted from 1: the start marker, then the gathered lanes.
    want = [(-1, 0, 0, 0)]
    lanes = k - 1
    while lanes:
        m = min(lanes, N)
        want += [(signed32(t["tid"]), 1, 4, t["table"] + 4 * element(t, i)) for i in range(m)]
        lanes -= m
    records, err = dump(quern, trace, work)
    if len(records) != len(want):
        raise Failure("%d record(s) in the trace, want %d" % (len(records), len(want)))
    for n, (rec, w) in enumerate(zip(records, want), 1):
        if rec[0] != n or (rec[1], rec[3], rec[4], rec[5]) != w:
            raise Failure("record %d is %s, want count %d and tid, access, size, vaddr %s" % (n, rec, n, w))
    check_positions(records[1:])
    cut = "quern: %s: trace cut short: the program did not close it (killed?); %d record(s) read" % (trace, k)
    if err.strip() != cut:
        raise Failure("quern trace dump said %r, want %r" % (err.strip(), cut))
    st = run([quern, "trace", "stats", trace], work)
    if st.returncode != 0 or "records: %d\n" % k not in st.stdout or st.stderr.strip() != cut:
        raise Failure("quern trace stats: status %d, %r" % (st.returncode, st.stderr.strip()))
    return "killed after %d record(s): %d found, cut short reported" % (k, len(records))


def check_no_file(quern, prog, work):
    r = quern_run(quern, prog, ["plain", str(N)], work)
    if r.returncode != 0 or r.stderr:
        raise Failure("quern run: status %d, stderr: %s" % (r.returncode, r.stderr.strip()))
    if os.listdir(work):
        raise Failure("files left in the working directory by an untraced program and its child: %s"
                      % os.listdir(work))
    # Named by the user, the file is there all the same, holding no record.
    trace = os.path.join(work, "named.qtrace")
    r = quern_run(quern, prog, ["plain", str(N)], work, trace)
    if r.returncode != 0 or not os.path.isfile(trace):
        raise Failure("quern run --trace FILE: status %d and no FILE" % r.returncode)
    records, err = dump(quern, trace, work)
    if records or err:
        raise Failure("the named empty trace reads as %d record(s), %r" % (len(records), err))
    return "no file without --trace; an empty one with it"


CASES = {
    "threads64": lambda q, p, w: check_threads(q, p, ["threads", "64", "10", str(N)], w),
    "threads-churn": lambda q, p, w: check_threads(q, p, ["churn", "16", "4", str(N)], w),
    # Emulated from the signal context: records written from a signal handler.
    "threads64-fallback": lambda q, p, w: check_threads(q, p, ["threads", "64", "10", str(N)], w, ["--fallback"]),
    "kill-first-record": lambda q, p, w: check_kill(q, p, 1, w),
    "kill-mid-window": lambda q, p, w: check_kill(q, p, 300, w),
    "kill-window-full": lambda q, p, w: check_kill(q, p, FIRST_WINDOW_RECORDS, w),
    "kill-window-full-plus-one": lambda q, p, w: check_kill(q, p, FIRST_WINDOW_RECORDS + 1, w),
    "kill-two-windows-full": lambda q, p, w: check_kill(q, p, FIRST_WINDOW_RECORDS + 512, w),
    "no-trace-no-file": check_no_file,
}


def main(argv):
    if argv[1:] == ["--list"]:
        print("\n".join(CASES))
        return 0
    if len(argv) < 4 or any(c not in CASES for c in argv[3:]):
        print(__doc__.strip().splitlines()[2].strip(), file=sys.stderr)
        return 2
    quern, prog = os.path.abspath(argv[1]), os.path.abspath(argv[2])
    fails = 0
    for name in argv[3:]:
        with tempfile.TemporaryDirectory() as work:
            try:
                print("ok   %s: %s" % (name, CASES[name](quern, prog, work)))
            except (Failure, subprocess.TimeoutExpired) as e:
                print("FAIL %s: %s" % (name, e))
                fails += 1
    return 1 if fails else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
