#!/usr/bin/env python3
"""Measures ekadcdf-export on a base of about 100 MB beside the databases' own bulk loaders.

The bases are made once and kept in the work directory: bench/generate_audit.py writes an audit
file, the daemon converts it (in debug mode, stopped with SIGTERM once it waits at the end of
the file). Then, best of --runs each, with the peak resident memory of the exporter:
  * cat: reading the generations, the floor;
  * sqlite, csv, jsonl: a first export into a new database, directory or file;
  * postgresql: a first export into a new database of a server this script starts in a
    temporary directory with the package's default settings (as `nobody` when run as root),
    reached through a Unix socket;
  * COPY: the server's own `COPY ... FROM` of the same rows (the CSV files of the csv export)
    into text-only tables without index or constraint, what a data engineer would compare with;
  * sqlite3 .import of the same CSV files into a new database;
  * increments: the time of a run that adds about 55 KB to a CSV export of a small base (about
    5 MB) and of the large one, which should not grow with what was exported before.
Ratios above 1 mean the exporter is faster. Build with optimisation (the default flags or
-DCMAKE_BUILD_TYPE=Release) first.

    bench/export_benchmark.py --build build
"""

import argparse
import glob
import hashlib
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SECTIONS_PER_MB = 2150  # what generate_audit.py's mix gives


def tail(path):
    with open(path, "rb") as f:
        f.seek(max(0, os.path.getsize(path) - 64))
        return f.read()


def make_base(daemon, work, megabytes):
    generator = os.path.join(HERE, "generate_audit.py")
    with open(generator, "rb") as f:
        stamp = hashlib.sha256(f.read()).hexdigest()[:12]
    base_dir = os.path.join(work, f"base-{megabytes}-{stamp}")
    base = os.path.join(base_dir, "cdf")
    if glob.glob(base + ".0*"):
        return base
    shutil.rmtree(base_dir, ignore_errors=True)
    os.makedirs(base_dir)
    audit = os.path.join(base_dir, "audit")
    print(f"making a base of about {megabytes} MB in {base_dir} ...", flush=True)
    subprocess.run([sys.executable, generator, "--sections", str(megabytes * SECTIONS_PER_MB),
                    "--seed", "1", audit], check=True)
    env = dict(os.environ, TZ="UTC", RUNTIME_DIRECTORY=base_dir)
    trace = os.path.join(base_dir, "trace")
    with open(trace, "wb") as err:
        proc = subprocess.Popen([daemon, "-a", audit, "-b", base, "-d"], env=env,
                                stdout=subprocess.DEVNULL, stderr=err)
    # Debug mode writes "waiting..." once it has read the audit file to its end.
    while not tail(trace).endswith(b"waiting...\n") and proc.poll() is None:
        time.sleep(0.5)
    proc.send_signal(signal.SIGTERM)
    if proc.wait() != 0:
        sys.exit(f"the daemon ended with status {proc.returncode}")
    os.remove(trace)
    os.remove(audit)
    return base


def peak_of(pid, peak):
    """The larger of `peak` and the resident high-water mark of process `pid`, in MiB."""
    try:
        with open(f"/proc/{pid}/status") as f:
            for line in f:
                if line.startswith("VmHWM:"):
                    return max(peak, int(line.split()[1]) / 1024)
    except OSError:
        pass
    return peak


def timed(command, stdin=None):
    """Wall time in seconds and peak resident memory in MiB of `command` (its high-water mark,
    read every 20 ms while it runs)."""
    start = time.perf_counter()
    proc = subprocess.Popen(command, stdin=subprocess.PIPE if stdin else subprocess.DEVNULL,
                            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    if stdin:
        proc.stdin.write(stdin.encode())
        proc.stdin.close()
    peak = 0.0
    while True:
        peak = peak_of(proc.pid, peak)
        if os.waitid(os.P_PID, proc.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT):
            break
        time.sleep(0.02)
    proc.wait()
    seconds = time.perf_counter() - start
    if proc.returncode != 0:
        sys.exit(f"{command[0]} failed ({proc.returncode}): {proc.stderr.read().decode()}")
    return seconds, peak


def best(runs, prepare, command, stdin=None):
    """The shortest wall time of `command` over `runs` runs, each after prepare(), and the
    largest peak memory."""
    times, peaks = [], []
    for _ in range(runs):
        prepare()
        seconds, peak = timed(command, stdin)
        times.append(seconds)
        peaks.append(peak)
    return min(times), max(peaks)


class Postgres:
    """A server of its own in a temporary directory."""

    def __init__(self):
        bins = sorted(glob.glob("/usr/lib/postgresql/*/bin"))
        if not bins:
            raise RuntimeError("PostgreSQL is not installed (scripts/install-deps.sh)")
        self.bin = bins[-1]
        self.dir = tempfile.mkdtemp(prefix="ekadcdf-pg-")
        self.owner = ["runuser", "-u", "nobody", "--"] if os.geteuid() == 0 else []
        if os.geteuid() == 0:
            os.chown(self.dir, 65534, 65534)
        self.run("initdb", "-D", f"{self.dir}/data", "-U", "postgres", "--auth=trust", "-E",
                 "UTF8", "--no-locale")
        self.run("pg_ctl", "-D", f"{self.dir}/data", "-l", f"{self.dir}/log", "-w", "start", "-o",
                 f"-c listen_addresses='' -c unix_socket_directories={self.dir}")

    def run(self, program, *args):
        subprocess.run(self.owner + [f"{self.bin}/{program}", *args], check=True,
                       stdout=subprocess.DEVNULL)

    def conninfo(self, database):
        return f"host={self.dir} user=postgres dbname={database}"

    def sql(self, database, sql):
        subprocess.run(["psql", "-q", "-v", "ON_ERROR_STOP=1", self.conninfo(database), "-c", sql],
                       check=True, stdout=subprocess.DEVNULL)

    def recreate(self, database):
        for sql in (f"DROP DATABASE IF EXISTS {database}", f"CREATE DATABASE {database}"):
            self.sql("postgres", sql)

    def stop(self):
        self.run("pg_ctl", "-D", f"{self.dir}/data", "-m", "fast", "stop")
        shutil.rmtree(self.dir, ignore_errors=True)


def text_tables(csv_dir):
    """CREATE TABLE statements of text-only tables shaped as the CSV files, and their files."""
    tables = []
    for path in sorted(glob.glob(os.path.join(csv_dir, "cdf_*.csv"))):
        with open(path, encoding="utf-8") as f:
            columns = f.readline().strip().split(",")
        name = os.path.basename(path)[:-4] + "_text"
        tables.append((name, path, f"CREATE TABLE {name} ("
                       + ", ".join(f"{c} text" for c in columns) + ")"))
    return tables


def increment(exporter, base_dir, work, label):
    """Seconds of a CSV run that adds about 55 KB to an export of the base in `base_dir`."""
    copy = os.path.join(work, f"inc-{label}")
    shutil.rmtree(copy, ignore_errors=True)
    shutil.copytree(base_dir, copy)
    base = os.path.join(copy, "cdf")
    out = os.path.join(copy, "csv")
    timed([exporter, "--csv", out, base])
    current = base + ".000"
    with open(current, "rb") as f:
        lines = f.read().splitlines(keepends=True)[1:]  # records only, no header
    added, size = [], 0
    while size < 55000:
        line = lines[len(added) % len(lines)]
        added.append(line)
        size += len(line)
    with open(current, "ab") as f:
        f.write(b"".join(added))
    seconds, _ = timed([exporter, "--csv", out, base])
    shutil.rmtree(copy, ignore_errors=True)
    return seconds


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default=os.path.join(HERE, "..", "build"),
                        help="build directory with ekadcdf and ekadcdf-export")
    parser.add_argument("--work", default=os.path.join(tempfile.gettempdir(),
                                                       "ekadcdf-export-bench"))
    parser.add_argument("--mb", type=int, default=100, help="size of the base, about")
    parser.add_argument("--runs", type=int, default=1)
    args = parser.parse_args()
    daemon = os.path.join(args.build, "ekadcdf")
    exporter = os.path.join(args.build, "ekadcdf-export")
    cache = os.path.join(args.build, "CMakeCache.txt")
    if os.path.exists(cache) and "CMAKE_BUILD_TYPE:STRING=Debug\n" in open(cache).read():
        print(f"warning: {args.build} is a Debug build; figures will be low", file=sys.stderr)
    os.makedirs(args.work, exist_ok=True)
    os.chmod(args.work, 0o755)
    base = make_base(daemon, args.work, args.mb)
    small = make_base(daemon, args.work, 5)
    files = sorted(glob.glob(base + ".0*"))
    size = sum(os.path.getsize(f) for f in files) / 1e6
    out = os.path.join(args.work, "out")
    csv_dir = os.path.join(args.work, "rows")

    def fresh():  # the output and what the exporter keeps beside it
        shutil.rmtree(out, ignore_errors=True)
        for leftover in glob.glob(out + "*") + glob.glob(os.path.join(args.work, ".out.*")):
            os.remove(leftover)

    results = {"cat": best(args.runs, lambda: None, ["cat", *files])}
    for name, option in (("sqlite", "--sqlite"), ("csv", "--csv"), ("jsonl", "--jsonl")):
        results[name] = best(args.runs, fresh, [exporter, option, out, base])
    fresh()
    # The rows as CSV, for the databases' own loaders; readable by the server's account.
    shutil.rmtree(csv_dir, ignore_errors=True)
    timed([exporter, "--csv", csv_dir, base])
    os.chmod(csv_dir, 0o755)
    tables = text_tables(csv_dir)
    for _, path, _ in tables:
        os.chmod(path, 0o644)
    imports = "".join(f".import --csv --skip 1 {path} {name}\n" for name, path, _ in tables)
    schema = "".join(create + ";\n" for _, _, create in tables)
    results["sqlite3 .import"] = best(
        args.runs, fresh, ["sqlite3", out], stdin=schema + "BEGIN;\n" + imports + "COMMIT;\n")
    fresh()
    postgres = Postgres()
    try:
        results["postgresql"] = best(args.runs, lambda: postgres.recreate("bench"),
                                     [exporter, "--postgres", postgres.conninfo("bench"), base])

        def text_only():
            postgres.recreate("bench")
            postgres.sql("bench", schema)

        copies = "BEGIN;\n" + "".join(
            f"COPY {name} FROM '{path}' (FORMAT csv, HEADER true);\n" for name, path, _ in tables)
        results["COPY"] = best(args.runs, text_only,
                               ["psql", "-q", "-v", "ON_ERROR_STOP=1",
                                postgres.conninfo("bench")], stdin=copies + "COMMIT;\n")
    finally:
        postgres.stop()
    shutil.rmtree(csv_dir, ignore_errors=True)
    small_increment = increment(exporter, os.path.dirname(small), args.work, "small")
    large_increment = increment(exporter, os.path.dirname(base), args.work, "large")

    print(f"\nbase: {size:.1f} MB in {len(files)} generations, best of {args.runs} runs")
    print(f"{'load':<18}{'seconds':>10}{'MB/s':>10}{'peak MiB':>10}")
    for name, (seconds, peak) in results.items():
        print(f"{name:<18}{seconds:>10.2f}{size / seconds:>10.1f}{peak:>10.1f}")
    print(f"\nexporter into PostgreSQL vs server-side COPY of the same rows as CSV: "
          f"{results['COPY'][0] / results['postgresql'][0]:.2f}x")
    print(f"exporter into SQLite vs sqlite3 .import of the same rows as CSV: "
          f"{results['sqlite3 .import'][0] / results['sqlite'][0]:.2f}x")
    print(f"a 55 KB CSV increment: {small_increment:.3f} s after a "
          f"{sum(map(os.path.getsize, glob.glob(small + '.0*'))) / 1e6:.0f} MB export, "
          f"{large_increment:.3f} s after a {size:.0f} MB export")


if __name__ == "__main__":
    main()
