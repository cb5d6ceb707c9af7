#!/usr/bin/python3
"""Checks `vtest time` against independent readers on every installed zone:

  listing   --transitions=1800:2100 against `zdump -v -c 1800,2100`
  instants  each change +-1 s and +-1 day, random instants to 9999 and the
            year limits, against Python's zoneinfo (all fields)
  walls     wall times around each change under every --pick, against
            zoneinfo's fold=0/fold=1 (gaps, folds, skipped midnights)
  right/    zones with leap seconds against glibc (time.localtime)

once with the installed zones and once with `zic -b slim` files (TZDIR).
Prints counts and each disagreement; exits 1 when there is one that is not
a known fault of another tool (KNOWN).
Usage: scripts/tz-sweep.py '<vtest command>' [zone-name-regex]
  (the command may carry an emulator first: 'qemu-arm-static -L ... vtest')
"""
import calendar
import datetime as dt
import os
import random
import re
import shlex
import struct
import subprocess
import sys
import tempfile
import time
import zoneinfo

ZONEDIR = "/usr/share/zoneinfo"
PICKS = ("all", "earlier", "later", "reject")
T1, T10000 = -62135596800, 253402300800
LINE = re.compile(r"@(-?\d+) (\S+)Z (\S+?)([+-]\d\d:\d\d(?::\d\d)?) (\S+) isdst=([01]) gmtoff=(-?\d+)( \S+)?$")
ZDUMP = re.compile(r"(\S+)\s+\w+ (\w+)\s+(\d+) (\d+):(\d+):(\d+) (-?\d+) UT = .* (\S+) isdst=([01]) gmtoff=(-?\d+)$")
MONTHS = {m: i for i, m in enumerate(calendar.month_abbr)}
# Disagreements that are another tool's fault, by (sweep, kind, zone).
KNOWN = {("zic -b slim", "load", "America/Ojinaga"):
         "glibc 2.36's zic writes a footer that contradicts the last transition"}
problems = []
label = ""


def say(kind, zone, detail):
    known = KNOWN.get((label, kind, zone))
    if not known:
        problems.append(kind)
    print(f"{'EXPECTED' if known else 'DISAGREE'} {kind} {zone}: {detail}" + (f" ({known})" if known else ""))


def vtest(vt, zone, args, lines=None, env=None):
    r = subprocess.run(vt + ["time", "--tz=" + zone] + args, input="".join(l + "\n" for l in lines or []),
                       capture_output=True, text=True, env=env)
    errors = {int(m.group(1)) for m in re.finditer(r"^time: line (\d+):", r.stderr, re.M)}
    return r.returncode, [LINE.match(l) for l in r.stdout.splitlines()], errors, r.stderr


def unescape(abbr):
    return "" if abbr == '""' else re.sub(r"\\x(..)", lambda m: chr(int(m.group(1), 16)), abbr)


def ours(m):
    """(t, local fields, abbr, isdst, gmtoff) of one output line."""
    return int(m.group(1)), m.group(3), unescape(m.group(5)), int(m.group(6)), int(m.group(7))


def python_fields(zi, t):
    if not T1 <= t < T10000:
        return None
    try:
        d = dt.datetime.fromtimestamp(t, zi)
    except (OverflowError, ValueError):
        return None
    return t, d.strftime("%Y-%m-%dT%H:%M:%S").rjust(19, "0"), d.tzname(), int(bool(d.dst())), int(d.utcoffset().total_seconds())


def zdump_listing(names, env):
    out = subprocess.run(["/usr/bin/zdump", "-v", "-c", "1800,2100"] + names, capture_output=True, text=True, env=env).stdout
    listing = {n: [] for n in names}
    for line in out.splitlines():
        m = ZDUMP.match(line)
        if m:
            z, mon, day, h, mi, s, y, abbr, isdst, off = m.groups()
            t = calendar.timegm((int(y), MONTHS[mon], int(day), int(h), int(mi), int(s)))
            listing[z].append((t, abbr, int(isdst), int(off)))
    return listing


def check_zone(vt, zone, zi, zdumped, env, rng):
    status, lines, _, err = vtest(vt, zone, ["--transitions=1800:2100"], env=env)
    if status != 0:
        return say("load", zone, err.strip())
    listed = [ours(m) for m in lines]
    if [(t, a, d, o) for t, _, a, d, o in listed] != zdumped:
        say("listing", zone, f"{len(listed)} lines, zdump {len(zdumped)}")
    changes = [listed[i][0] for i in range(1, len(listed), 2)]
    # Instants: around each change, random ones to 9999, the year limits.
    instants = [c + d for c in changes for d in (-86400, -1, 0, 1, 86400)]
    instants += [rng.randrange(T1, T10000) for _ in range(200)] + [T1 - 1, T1, T1 + 86400, T10000 - 86400, T10000 - 1, T10000]
    _, lines, errors, _ = vtest(vt, zone, ["--stdin"], ["@%d" % t for t in instants], env)
    it = iter(lines)
    for n, t in enumerate(instants, 1):
        got = None if n in errors else ours(next(it))
        want = python_fields(zi, t)
        if got != want:
            say("instant", zone, f"@{t}: ours {got}, zoneinfo {want}")
    # Wall times around each change, midnight of its day, under every pick.
    walls = set()
    for c in changes:
        before, after = python_fields(zi, c - 1), python_fields(zi, c)
        for off in (before and before[4], after and after[4]):
            if off is not None:
                for d in (-1, 0, 1, (after[4] - before[4]) // 2 if before and after else 0):
                    walls.add(c + off + d)
                walls.add((c + off) // 86400 * 86400)
    walls = sorted(w for w in walls if T1 <= w < T10000)
    texts = [dt.datetime.fromtimestamp(w, dt.timezone.utc).strftime("%Y-%m-%dT%H:%M:%S").rjust(19, "0") for w in walls]
    for pick in PICKS:
        _, lines, errors, _ = vtest(vt, zone, ["--pick=" + pick, "--stdin"], texts, env)
        it = iter(lines)
        for n, (w, text) in enumerate(zip(walls, texts), 1):
            got = []
            if n not in errors:
                m = next(it)
                got.append((int(m.group(1)), (m.group(8) or "").strip()))
                if got[0][1] == "fold=earlier" and pick == "all":
                    m = next(it)
                    got.append((int(m.group(1)), m.group(8).strip()))
            want = expected_wall(zi, text, pick)
            if got != want:
                say("wall", zone, f"{text} --pick={pick}: ours {got}, zoneinfo {want}")
    return len(listed), len(instants), len(walls) * len(PICKS)


def expected_wall(zi, text, pick):
    naive = dt.datetime.fromisoformat(text)
    t0, t1 = (int(naive.replace(tzinfo=zi, fold=f).timestamp()) for f in (0, 1))
    if not all(T1 <= t < T10000 for t in (t0, t1)):
        return []
    back = [dt.datetime.fromtimestamp(t, zi).replace(tzinfo=None) == naive for t in (t0, t1)]
    early, late = min(t0, t1), max(t0, t1)
    if t0 == t1:
        return [(t0, "")]
    kind = "fold" if all(back) else "gap"
    return {("fold", "all"): [(early, "fold=earlier"), (late, "fold=later")],
            (kind, "earlier"): [(early, kind + "=earlier")],
            (kind, "later"): [(late, kind + "=later")]}.get((kind, pick), [])


def leap_instants(path):
    """Leap-second occurrences of a TZif file (64-bit data)."""
    data = open(path, "rb").read()
    counts = struct.unpack(">6l", data[20:44])
    skip = 44 + counts[3] * 5 + counts[4] * 6 + counts[5] + counts[2] * 8 + counts[1] + counts[0]
    isut, isstd, leap, timecnt, typecnt, charcnt = struct.unpack(">6l", data[skip + 20:skip + 44])
    at = skip + 44 + timecnt * 9 + typecnt * 6 + charcnt
    return [struct.unpack(">q", data[at + 12 * i:at + 12 * i + 8])[0] for i in range(leap)]


def check_right(vt, name, rng):
    zone = "right/" + name
    _, lines, _, _ = vtest(vt, zone, ["--transitions=1800:2037"])
    instants = [ours(m)[0] for m in lines] + [l + d for l in leap_instants(f"{ZONEDIR}/{zone}") for d in (-1, 0, 1)]
    instants += [rng.randrange(0, 2**31 - 1) for _ in range(100)]
    os.environ["TZ"] = zone
    time.tzset()
    _, lines, errors, _ = vtest(vt, zone, ["--stdin"], ["@%d" % t for t in instants])
    it = iter(lines)
    for n, t in enumerate(instants, 1):
        tm = time.localtime(t)
        want = (t, "%04d-%02d-%02dT%02d:%02d:%02d" % tm[:6], tm.tm_zone, tm.tm_isdst, tm.tm_gmtoff)
        got = None if n in errors else ours(next(it))
        if got != want:
            say("right", zone, f"@{t}: ours {got}, glibc {want}")
    return len(instants)


def zone_names(tzdir):
    names = []
    for line in open(f"{ZONEDIR}/tzdata.zi"):
        f = line.split()
        if f and f[0] in ("Z", "L"):
            names.append(f[1] if f[0] == "Z" else f[2])
    return sorted(n for n in names if os.path.exists(f"{tzdir}/{n}"))


def sweep(vt, tzdir, pattern, name):
    global label
    label = name
    env = dict(os.environ, TZDIR=tzdir)
    zoneinfo.reset_tzpath([tzdir])
    names = [n for n in zone_names(tzdir) if re.search(pattern, n)]
    listings = zdump_listing(names, env)
    rng = random.Random(9636)
    totals = [0, 0, 0]
    for name in names:
        try:
            zi = zoneinfo.ZoneInfo(name)
        except ValueError as e:
            say("zoneinfo", name, e)
            continue
        counts = check_zone(vt, name, zi, listings[name], env, rng)
        for i, c in enumerate(counts or ()):
            totals[i] += c
    print(f"{label}: {len(names)} zones, {totals[0]} listing lines, {totals[1]} instants, {totals[2]} wall conversions")


def main():
    vt = shlex.split(sys.argv[1])
    pattern = sys.argv[2] if len(sys.argv) > 2 else ""
    sweep(vt, ZONEDIR, pattern, "installed")
    with tempfile.TemporaryDirectory() as slim:
        subprocess.run(["/usr/sbin/zic", "-b", "slim", "-d", slim, f"{ZONEDIR}/tzdata.zi"], check=True)
        sweep(vt, slim, pattern, "zic -b slim")
    global label
    label, rng = "right/", random.Random(8536)
    right = [n for n in zone_names(f"{ZONEDIR}/right") if re.search(pattern, n)]
    print(f"right/: {len(right)} zones, {sum(check_right(vt, n, rng) for n in right)} instants against glibc")
    print(f"disagreements: {len(problems)}", {k: problems.count(k) for k in sorted(set(problems))})
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
