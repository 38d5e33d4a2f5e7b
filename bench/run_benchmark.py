#!/usr/bin/env python3
"""Measures the daemon on a large audit file and prints the figures.

Four measurements, in one run:
  1. The I/O floor: how long `cat FILE > /dev/null` takes on the (cached) audit file.
  2. Throughput: the daemon converts the whole audit file from a fresh directory (three times
     by default; the best run is reported, being the least disturbed by other work). The end is
     detected without debug output: the daemon has read the audit file to its end (the file
     position of its audit descriptor, from /proc/PID/fdinfo) and sleeps in its end-of-file
     wait. Wall time runs from the start of the process to the last write of its output files
     (their modification time), CPU time and peak resident memory come from the kernel's
     accounting of the process (wait4 after SIGTERM; VmHWM from /proc just before).
  3. Start-up: with a large <base>.000 in place (1 GiB of records by default) and a single new
     section in the audit file, the time from starting the process until the section's record
     has reached <base>.000, polled every 0.2 ms. The same with a one-line <base>.000 gives the
     baseline cost of starting a process at all.
  4. Bounded memory: one giant section of each kind that collects entries (a routing section of
     a million recipients, a fax section of a million, a section of a million stray lines),
     converted as in 2: peak memory, and memory once the daemon waits again; and a section that
     never ends (1 GiB of stray lines without its blank line): SIGTERM once a quarter of it has
     been read, and how long the daemon takes to stop.

Called by scripts/benchmark.sh, which also generates and caches the audit file.
"""

import argparse
import calendar
import os
import shutil
import signal
import statistics
import subprocess
import sys
import time

MIB = 1 << 20


def daemon_env(directory):
    env = dict(os.environ)
    env["TZ"] = "UTC"
    env["RUNTIME_DIRECTORY"] = directory  # keeps the pid entry out of /tmp
    return env


def read_proc(pid, name):
    try:
        with open(f"/proc/{pid}/{name}") as f:
            return f.read()
    except OSError:
        return ""


def proc_state(pid):
    stat = read_proc(pid, "stat")
    return stat[stat.rfind(")") + 2:].split()[0] if stat else ""


def proc_status_kib(pid, key):
    for line in read_proc(pid, "status").splitlines():
        if line.startswith(key + ":"):
            return int(line.split()[1])
    return 0


def find_fd(pid, path):
    target = os.path.realpath(path)
    for fd in os.listdir(f"/proc/{pid}/fd"):
        try:
            if os.readlink(f"/proc/{pid}/fd/{fd}") == target:
                return fd
        except OSError:
            pass
    return None


def fd_position(pid, fd):
    for line in read_proc(pid, f"fdinfo/{fd}").splitlines():
        if line.startswith("pos:"):
            return int(line.split()[1])
    return -1


def stop(proc):
    """SIGTERM, then the kernel's accounting of the process: (status, CPU seconds). (Its
    ru_maxrss is not used: it also covers the forked copy of this script before the exec.)"""
    proc.send_signal(signal.SIGTERM)
    _, status, usage = os.wait4(proc.pid, 0)
    proc.returncode = os.waitstatus_to_exitcode(status)
    return proc.returncode, usage.ru_utime + usage.ru_stime


def count_lines(path):
    lines = 0
    with open(path, "rb") as f:
        while chunk := f.read(16 * MIB):
            lines += chunk.count(b"\n")
    return lines


def io_floor(audit):
    subprocess.run(["cat", audit], stdout=subprocess.DEVNULL, check=True)  # warm the cache
    best = None
    for _ in range(3):
        begin = time.perf_counter()
        subprocess.run(["cat", audit], stdout=subprocess.DEVNULL, check=True)
        elapsed = time.perf_counter() - begin
        best = elapsed if best is None else min(best, elapsed)
    return best


def watch(proc, audit, reached, what, seconds, period):
    """Polls the daemon every `period` seconds until reached(its descriptor of `audit`) holds;
    returns that descriptor. Ends the script when the daemon ends first or `seconds` pass."""
    fd = None
    deadline = time.monotonic() + seconds
    while True:
        time.sleep(period)
        if proc.poll() is not None:
            sys.exit(f"the daemon ended early with status {proc.returncode}")
        if time.monotonic() > deadline:
            proc.kill()
            sys.exit(f"the daemon did not {what} within {seconds} s")
        fd = fd or find_fd(proc.pid, audit)
        if fd is not None and reached(fd):
            return fd


def throughput(binary, audit, work, sections):
    directory = os.path.join(work, "convert")
    shutil.rmtree(directory, ignore_errors=True)
    os.makedirs(directory)
    base = os.path.join(directory, "cdf")
    size = os.path.getsize(audit)
    begin_ns = time.time_ns()
    proc = subprocess.Popen([binary, "-a", audit, "-b", base, "-g", "100"],
                            env=daemon_env(directory), stdout=subprocess.DEVNULL)
    settled, last_cpu = 0, None

    def at_end_and_settled(fd):
        nonlocal settled, last_cpu
        stat = read_proc(proc.pid, "stat")
        fields = stat[stat.rfind(")") + 2:].split()
        cpu = int(fields[11]) + int(fields[12])  # utime + stime, in clock ticks
        at_end = fd_position(proc.pid, fd) >= size
        sleeping = fields[0] == "S" and "nanosleep" in read_proc(proc.pid, "wchan")
        settled = settled + 1 if at_end and sleeping and cpu == last_cpu else 0
        last_cpu = cpu
        return settled >= 3

    watch(proc, audit, at_end_and_settled, "reach the end of the audit file", 900, 0.02)
    hwm_kib = proc_status_kib(proc.pid, "VmHWM")
    rss_kib = proc_status_kib(proc.pid, "VmRSS")
    # The generations and the error file; the position file is written once more when the
    # daemon settles, after the last record.
    outputs = [os.path.join(directory, n) for n in os.listdir(directory)
               if n.startswith("cdf.") and n != "cdf.POS"]
    end_ns = max(os.stat(p).st_mtime_ns for p in outputs)
    status, cpu_seconds = stop(proc)
    generations = sorted(p for p in outputs if not p.endswith(".ERR"))
    records = sum(count_lines(p) for p in generations)
    output_bytes = sum(os.path.getsize(p) for p in generations)
    errors = os.path.getsize(base + ".ERR")
    wall = (end_ns - begin_ns) / 1e9
    result = {
        "wall": wall, "cpu": cpu_seconds, "hwm_kib": hwm_kib, "rss_kib": rss_kib,
        "status": status, "records": records, "output_bytes": output_bytes,
        "generations": len([p for p in generations if os.path.getsize(p) > 0]),
        "errors": errors, "size": size, "sections": sections,
    }
    shutil.rmtree(directory, ignore_errors=True)
    return result


# One giant section of each kind the daemon must hold in bounded memory, and the line each of
# its N entries takes: (name, section name line, the entry with {i} for its number, the
# section's other lines). Each file ends with one ordinary section after the giant one.
GIANTS = (
    ("routing, N recipients", "routing",
     "recipient-to ANDREA NOVAK {i:07d}/SALES DEPARTMENT\nack-req 1\nqueue ekx400-outbound\n",
     "type 1\noriginator newsletter/marketing\nua-message-id UA-GIANT-1\nsubject News\n"),
    ("fax, N recipients", "fax", "recipient-to fax {i:07d} ANDREA NOVAK/SALES DEPARTMENT\n",
     "priority 1\noriginator newsletter/marketing\nsent-pages 2\n"),
    ("N stray lines", "subsystem-start", "stray line {i:07d} of a section nobody knows\n",
     "subsystem 3\nuser sysadm\n"),
)
GIANT_TIME = 1775000000  # 2026-03-31


def giant_file(work, index, count):
    """The audit file of GIANTS[index] with `count` entries (kept between runs)."""
    _, name, entry, others = GIANTS[index]
    path = os.path.join(work, f"giant-{index}-{count}")
    if not os.path.exists(path):
        with open(path + ".tmp", "w", encoding="ascii", buffering=8 * MIB) as f:
            f.write(f"{name}\nhdr {GIANT_TIME}\n{others}")
            for i in range(count):
                f.write(entry.format(i=i))
            f.write(f"\nsubsystem-stop\nhdr {GIANT_TIME + 1}\nsubsystem 4\n\n")
        os.rename(path + ".tmp", path)
    return path


def endless(binary, work, size):
    """A section that never ends: `size` bytes of stray lines after its header, and no blank
    line. SIGTERM once the daemon has read a quarter of it: how long it takes to stop, how far it
    had read, and its peak memory."""
    path = os.path.join(work, f"endless-{size}")
    if not os.path.exists(path):
        line = b"stray line of a section that never ends, 64 bytes long.......\n"
        block = line * (MIB // len(line))
        with open(path + ".tmp", "wb") as f:
            f.write(f"subsystem-start\nhdr {GIANT_TIME}\n".encode())
            for _ in range(size // len(block)):
                f.write(block)
        os.rename(path + ".tmp", path)
    total = os.path.getsize(path)
    directory = os.path.join(work, "endless-run")
    shutil.rmtree(directory, ignore_errors=True)
    os.makedirs(directory)
    proc = subprocess.Popen([binary, "-a", path, "-b", os.path.join(directory, "cdf")],
                            env=daemon_env(directory), stdout=subprocess.DEVNULL)
    fd = watch(proc, path, lambda fd: fd_position(proc.pid, fd) >= total // 4,
               "read a quarter of the endless section", 600, 0.01)
    at = fd_position(proc.pid, fd)
    hwm_kib = proc_status_kib(proc.pid, "VmHWM")
    begin = time.perf_counter()
    status, _ = stop(proc)
    seconds = time.perf_counter() - begin
    shutil.rmtree(directory, ignore_errors=True)
    return {"seconds": seconds, "status": status, "at": at, "size": total, "hwm_kib": hwm_kib}


# Records of one day as the daemon writes them; the block is repeated to fill <base>.000.
RECORD_DAY = (126, 10, 3)
RECORD_TEMPLATES = (
    '101,{y},{mo},{d},{h},{mi},{s},{t},1,1,0,0,"WALTER MOORE/FACILITIES ","UA-20729-{n:07d}",'
    '0,43488,x,"",1,1,x,"","MTA-{n:08d}.03","Invoice delivery training, final",1,2\n'
    '503,{y},{mo},{d},{h},{mi},{s},{t},"WALTER MOORE/FACILITIES ","UA-20729-{n:07d}",0,43488,'
    '1,1,"ekx400-in","DEBRA Q. QUINN/HR ",0,1\n'
    '503,{y},{mo},{d},{h},{mi},{s},{t},"WALTER MOORE/FACILITIES ","UA-20729-{n:07d}",0,43488,'
    '0,0,"LOCAL","RAYMOND K. KONIG/MKTG ",1,0\n',
    '108,{y},{mo},{d},{h},{mi},{s},{t},1,0,0,0,"DENNIS SCHULZ/IT ","UA-20729-{n:07d}",0,0,0,1,'
    '0,0,0,"","MTA-{n:08d}.02"\n'
    '504,{y},{mo},{d},{h},{mi},{s},{t},"DENNIS SCHULZ/IT ","UA-20729-{n:07d}",0,'
    '"RAYMOND WAGNER/SUPPORT "\n',
    '104,{y},{mo},{d},{h},{mi},{s},{t},0,0,0,0,"BRANCH OFFICE MAIL ","",2515,0,424,"",0,0,0,'
    '"",""\n',
)


def record_block(first_time, target=MIB):
    """About `target` bytes of records with increasing times from first_time; returns
    (text, time of the last record)."""
    parts = []
    length = 0
    t = first_time
    n = 0
    while length < target:
        tm = time.gmtime(t)
        text = RECORD_TEMPLATES[n % len(RECORD_TEMPLATES)].format(
            y=tm.tm_year - 1900, mo=tm.tm_mon, d=tm.tm_mday, h=tm.tm_hour, mi=tm.tm_min,
            s=tm.tm_sec, t=t, n=n)
        parts.append(text)
        length += len(text)
        t += 1
        n += 1
    return "".join(parts), t - 1


def prepare_current(path, size):
    """Makes `path` a <base>.000 of at least `size` bytes (kept between runs); returns its size
    and the time of its last record."""
    day_start = calendar.timegm((RECORD_DAY[0] + 1900, RECORD_DAY[1], RECORD_DAY[2], 0, 0, 0))
    block, last_time = record_block(day_start + 3600)
    header = (f'999,{RECORD_DAY[0]},{RECORD_DAY[1]},{RECORD_DAY[2]},0,0,0,0,"benchhost",0,0,0,'
              '"","",0,0,0,"",0,0,0,"",""\n')
    repeats = max(1, -(-(size - len(header)) // len(block)))
    expected = len(header) + repeats * len(block)
    if not (os.path.exists(path) and os.path.getsize(path) >= expected):
        with open(path, "w", encoding="ascii", buffering=8 * MIB) as f:
            f.write(header)
            for _ in range(repeats):
                f.write(block)
    os.truncate(path, expected)  # drops what an earlier run appended
    return expected, last_time


def startup_once(binary, directory, current, current_size, event_time):
    os.truncate(current, current_size)
    audit = os.path.join(directory, "audit")
    with open(audit, "w") as f:
        f.write(f"routing\naudit {event_time}\ntype 1\noriginator john smith/sales\n"
                "ua-message-id UA-START-1\nrecipient-to mary jones/sales\nack-req 1\n"
                "queue LOCAL\nmessage-size 2048\nsubject Start-up probe, one section\n\n")
    err = os.path.join(directory, "cdf.ERR")
    env = daemon_env(directory)
    begin = time.perf_counter()
    proc = subprocess.Popen([binary, "-a", audit, "-b", os.path.join(directory, "cdf")],
                            env=env, stdout=subprocess.DEVNULL)
    deadline = begin + 60
    while True:
        try:
            if os.stat(current).st_size > current_size:
                break
        except FileNotFoundError:
            pass
        now = time.perf_counter()
        if now > deadline:
            proc.kill()
            sys.exit("start-up: the record did not reach <base>.000 within 60 s")
        if proc.poll() is not None:
            sys.exit(f"start-up: the daemon ended with status {proc.returncode}")
        time.sleep(0.0002)
    elapsed = time.perf_counter() - begin
    hwm_kib = proc_status_kib(proc.pid, "VmHWM")
    status, _ = stop(proc)
    if status != 0:
        sys.exit(f"start-up: the daemon ended with status {status}")
    if os.path.exists(err) and os.path.getsize(err):
        sys.exit("start-up: the daemon reported errors in " + err)
    return elapsed, hwm_kib


def startup(binary, work, big_size, runs):
    directory = os.path.join(work, "startup")
    os.makedirs(directory, exist_ok=True)
    for name in os.listdir(directory):
        if name != "cdf.000":
            os.remove(os.path.join(directory, name))
    current = os.path.join(directory, "cdf.000")
    begin = time.perf_counter()
    big, last_time = prepare_current(current, big_size)
    prepare_seconds = time.perf_counter() - begin
    with open(current, "rb") as f:  # bring the file into the page cache, as a running host has
        while f.read(16 * MIB):
            pass
    times, rss = [], []
    for _ in range(runs):
        elapsed, hwm = startup_once(binary, directory, current, big, last_time + 1)
        times.append(elapsed)
        rss.append(hwm)
    os.truncate(current, big)

    small_dir = os.path.join(work, "startup-small")
    shutil.rmtree(small_dir, ignore_errors=True)
    os.makedirs(small_dir)
    small_current = os.path.join(small_dir, "cdf.000")
    block, small_last = record_block(last_time - 10, 1)
    with open(small_current, "w") as f:
        f.write(block)
    small_times = []
    for _ in range(runs):
        elapsed, _ = startup_once(binary, small_dir, small_current, len(block), small_last + 1)
        small_times.append(elapsed)
    shutil.rmtree(small_dir, ignore_errors=True)
    return {"size": big, "times": times, "small_times": small_times,
            "hwm_kib": max(rss), "prepare": prepare_seconds}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--binary", required=True)
    parser.add_argument("--audit", required=True, action="append",
                        help="LABEL:SECTIONS:PATH of an audit file to convert (repeatable)")
    parser.add_argument("--work", required=True, help="scratch directory")
    parser.add_argument("--startup-size", type=int, default=1 << 30,
                        help="size of <base>.000 for the start-up test (default 1 GiB)")
    parser.add_argument("--runs", type=int, default=3, help="conversions of the whole file")
    parser.add_argument("--startup-runs", type=int, default=7)
    parser.add_argument("--skip-throughput", action="store_true")
    parser.add_argument("--skip-startup", action="store_true")
    parser.add_argument("--giant", type=int, default=1000000,
                        help="entries of each giant section (0 skips them)")
    parser.add_argument("--endless-size", type=int, default=1 << 30,
                        help="bytes of the section that never ends (0 skips it)")
    args = parser.parse_args()
    binary = os.path.realpath(args.binary)
    os.makedirs(args.work, exist_ok=True)
    audits = []
    for given in args.audit:
        label, sections, path = given.split(":", 2)
        audits.append((label, int(sections), path, os.path.getsize(path)))

    print(f"binary: {binary}")
    for label, sections, path, size in audits:
        print(f"audit file '{label}': {path} ({size / MIB:.1f} MiB, {sections} sections)")
    load_before = os.getloadavg()[0]
    rows = []
    if not args.skip_throughput:
        for label, sections, path, size in audits:
            print(f"measuring the I/O floor (cat) on '{label}' ...", flush=True)
            cat_seconds = io_floor(path)
            runs = []
            for i in range(args.runs):
                print(f"converting '{label}' (run {i + 1} of {args.runs}) ...", flush=True)
                r = throughput(binary, path, args.work, sections)
                print(f"  exit status {r['status']}, {r['records']} records in "
                      f"{r['generations']} generations ({r['output_bytes'] / MIB:.1f} MiB), "
                      f"error file {r['errors']} bytes; wall {r['wall']:.2f} s, "
                      f"CPU {r['cpu']:.2f} s")
                if r["status"] != 0 or r["errors"] != 0:
                    sys.exit("the conversion did not end cleanly")
                runs.append(r)
            # The best run is the one least disturbed by other work on the machine.
            wall = min(r["wall"] for r in runs)
            cpu = min(r["cpu"] for r in runs)
            hwm = max(r["hwm_kib"] for r in runs)
            r = runs[0]
            of = f"best of {len(runs)}; median"
            rows += [
                (f"{label}: cat audit > /dev/null", f"{cat_seconds:.3f} s",
                 f"{size / MIB / cat_seconds:.0f} MiB/s (I/O floor)"),
                (f"{label}: conversion, wall time", f"{wall:.2f} s",
                 f"{size / MIB / wall:.1f} MiB/s of audit input ({of} "
                 f"{size / MIB / statistics.median(x['wall'] for x in runs):.1f})"),
                (f"{label}: conversion, CPU time", f"{cpu:.2f} s",
                 f"{size / MIB / cpu:.1f} MiB/s per CPU second ({of} "
                 f"{size / MIB / statistics.median(x['cpu'] for x in runs):.1f})"),
                (f"{label}: sections per second",
                 f"{r['sections'] / wall:,.0f}" if r["sections"] else "-",
                 f"{r['sections'] / cpu:,.0f} per CPU second; {r['records'] / wall:,.0f} "
                 "records/s"),
                (f"{label}: peak resident memory", f"{hwm / 1024:.1f} MiB",
                 "VmHWM at the end, highest run"),
            ]
    if args.giant:
        n = f"{args.giant:,}"
        for index, (label, *_) in enumerate(GIANTS):
            label = label.replace("N", n)
            print(f"converting a section: {label} ...", flush=True)
            r = throughput(binary, giant_file(args.work, index, args.giant), args.work, 2)
            print(f"  exit status {r['status']}, {r['records']} records, error file "
                  f"{r['errors']} bytes; wall {r['wall']:.2f} s")
            if r["status"] != 0:
                sys.exit("the conversion did not end cleanly")
            rows += [
                (f"{label}: peak memory", f"{r['hwm_kib'] / 1024:.1f} MiB",
                 f"VmHWM; {r['size'] / MIB:.0f} MiB of audit in {r['wall']:.2f} s, "
                 f"{r['records']:,} records, {r['errors'] / MIB:.0f} MiB of error entries"),
                (f"{label}: memory after it", f"{r['rss_kib'] / 1024:.1f} MiB",
                 "VmRSS once the daemon waits for more"),
            ]
    if args.endless_size:
        print("a section that never ends, SIGTERM inside it ...", flush=True)
        e = endless(binary, args.work, args.endless_size)
        rows += [
            ("endless section: stop", f"{e['seconds'] * 1e3:.0f} ms",
             f"SIGTERM to exit (status {e['status']}) after {e['at'] / MIB:.0f} MiB of "
             f"{e['size'] / MIB:.0f} MiB read"),
            ("endless section: peak memory", f"{e['hwm_kib'] / 1024:.1f} MiB", "VmHWM"),
        ]
    if not args.skip_startup:
        print(f"start-up with a {args.startup_size / MIB:.0f} MiB <base>.000 ...", flush=True)
        s = startup(binary, args.work, args.startup_size, args.startup_runs)
        big = sorted(s["times"])
        small = sorted(s["small_times"])
        rows += [
            (f"start-up, {s['size'] / MIB:.0f} MiB .000", f"{statistics.median(big) * 1e3:.1f} ms",
             f"median of {len(big)}; min {big[0] * 1e3:.1f}, max {big[-1] * 1e3:.1f} ms"),
            ("start-up, 1-line .000", f"{statistics.median(small) * 1e3:.1f} ms",
             f"median of {len(small)}; min {small[0] * 1e3:.1f}, max {small[-1] * 1e3:.1f} ms"),
            ("start-up peak memory", f"{s['hwm_kib'] / 1024:.1f} MiB",
             "VmHWM once the record is written"),
        ]
    width = max(len(r[0]) for r in rows)
    value_width = max(len(r[1]) for r in rows)
    print()
    print("Summary")
    print("-" * (width + value_width + 40))
    for name, value, note in rows:
        print(f"{name:<{width}}  {value:>{value_width}}  {note}")
    print("-" * (width + value_width + 40))
    print(f"load average {load_before:.2f} before, {os.getloadavg()[0]:.2f} after (other work "
          "on the cores slows both wall and CPU time; compare best runs on a quiet machine)")
    print("targets: >= 300 MiB/s of audit input per CPU second (floor 200) on each file, "
          ">= 250 MiB/s wall-clock catch-up, peak memory < 16 MiB, start-up < 20 ms; "
          "giant and endless sections: peak memory < 64 MiB, a stop within 2 s")


if __name__ == "__main__":
    main()
