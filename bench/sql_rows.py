#!/usr/bin/env python3
"""Whole-process benchmark: `vtest sql "SELECT * FROM Events;"` against a
simulated unit, beside the sqlite3 shell (-header -separator '|') printing
the same rows from the same database file. Both run interleaved, round by
round, as children of this script; each writes its output to a file.

Per row count it prints the medians of the rounds: CPU (user + system of
the measured process alone, so the simulator's share is not in vtest's
figure), wall time (for vtest: the simulator streaming meanwhile), peak
RSS, and vtest's ratios to the shell. CPU is the steady figure on a
shared machine; wall times move with the load.

Usage: bench/sql_rows.py [--rounds=N] [--vtest=PATH] [build-dir] [row counts...]
       (defaults: 5 rounds, the build's vtest, build/native, 10000 100000;
       --vtest measures another vtest binary, an older build say, against
       this build's simulator)
"""
import os
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile


def measure(build, argv, out_path):
    """Runs argv with stdout to out_path: (cpu s, wall s, peak RSS KiB)."""
    with open(out_path, "wb") as out:
        run = subprocess.run([f"{build}/bench/run_measured"] + argv, stdout=out, stderr=subprocess.PIPE, text=True)
    if run.returncode != 0:
        sys.exit(f"{argv[0]} exited with {run.returncode}")
    cpu, wall, rss = run.stderr.split()[-3:]  # the last line is run_measured's
    return float(cpu), float(wall), int(rss)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def start_sim(build, db, rows, port):
    sim = subprocess.Popen([f"{build}/sim/vantor-sim", f"--listen=127.0.0.1:{port}", f"--db={db}",
                            f"--events={rows}"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    for line in sim.stdout:  # seeding a large database takes a while
        if "listening" in line:
            return sim
    sys.exit("the simulator did not start")


def count_lines(path):
    with open(path, "rb") as f:
        return sum(1 for _ in f)


def bench(build, vtest_path, rows, rounds, work):
    db = f"{work}/events{rows}.db"
    port = free_port()
    sim = start_sim(build, db, rows, port)
    try:
        vtest = [vtest_path, "sql", f"--server=127.0.0.1:{port}", "SELECT * FROM Events;"]
        shell = ["sqlite3", "-header", "-separator", "|", db, "SELECT * FROM Events;"]
        v, s = [], []
        for _ in range(rounds):
            v.append(measure(build, vtest, f"{work}/vtest.out"))
            s.append(measure(build, shell, f"{work}/sqlite.out"))
        # vtest prints its "Connecting to" line besides the same rows.
        if count_lines(f"{work}/vtest.out") != count_lines(f"{work}/sqlite.out") + 1:
            sys.exit("vtest and sqlite3 printed different numbers of rows")
    finally:
        sim.terminate()
        sim.wait()
    med = lambda runs, i: statistics.median(r[i] for r in runs)
    return [med(v, 0), med(v, 1), med(v, 2), med(s, 0), med(s, 1), med(s, 2)]


def main():
    args = sys.argv[1:]
    rounds, vtest_path = 5, None
    while args and args[0].startswith("--"):
        name, _, value = args.pop(0).partition("=")
        if name == "--rounds":
            rounds = int(value)
        elif name == "--vtest":
            vtest_path = value
        else:
            sys.exit(__doc__)
    build = args.pop(0) if args else "build/native"
    vtest_path = vtest_path or f"{build}/vtest/vtest"
    counts = [int(a) for a in args] or [10000, 100000]
    work = tempfile.mkdtemp()
    try:
        print(f"{rounds} rounds, medians; load average {os.getloadavg()[0]:.2f} at start")
        print(f"{'rows':>7} {'vtest CPU':>10} {'wall':>8} {'RSS':>8} {'sqlite3 CPU':>12} {'wall':>8} "
              f"{'RSS':>8} {'CPU x':>6} {'wall x':>6}")
        for rows in counts:
            vc, vw, vr, sc, sw, sr = bench(build, vtest_path, rows, rounds, work)
            print(f"{rows:>7} {vc * 1e3:>8.1f}ms {vw * 1e3:>6.1f}ms {vr / 1024:>6.1f}MB {sc * 1e3:>10.1f}ms "
                  f"{sw * 1e3:>6.1f}ms {sr / 1024:>6.1f}MB {vc / max(sc, 1e-3):>6.2f} {vw / max(sw, 1e-3):>6.2f}")
        print(f"load average {os.getloadavg()[0]:.2f} at end")
    finally:
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
