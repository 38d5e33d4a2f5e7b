#!/usr/bin/env python3
"""Measures ekadcdf-export on a base of about 100 MB and prints MB/s per target beside `cat`.

The base is made once and kept in the work directory: bench/generate_audit.py writes an audit
file, the daemon converts it (in debug mode, stopped with SIGTERM once it waits at the end of
the file). Then, best of --runs each:
  * cat: reading the generations, the floor;
  * sqlite, csv, jsonl: an export into a new database, directory or file;
  * postgresql: an export into a new database of a server this script starts in a temporary
    directory with the package's default settings (as `nobody` when run as root), reached
    through a Unix socket.
Build with -DCMAKE_BUILD_TYPE=Release first; the figures of other builds are low.

    bench/export_benchmark.py --build build-rel
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


def best(runs, prepare, command):
    """The shortest wall time of `command` over `runs` runs, each after prepare()."""
    times = []
    for _ in range(runs):
        prepare()
        start = time.perf_counter()
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        times.append(time.perf_counter() - start)
    return min(times)


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

    def recreate(self, database):
        for sql in (f"DROP DATABASE IF EXISTS {database}", f"CREATE DATABASE {database}"):
            subprocess.run(["psql", "-q", self.conninfo("postgres"), "-c", sql], check=True,
                           stderr=subprocess.DEVNULL)

    def stop(self):
        self.run("pg_ctl", "-D", f"{self.dir}/data", "-m", "fast", "stop")
        shutil.rmtree(self.dir, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default=os.path.join(HERE, "..", "build"),
                        help="build directory with ekadcdf and ekadcdf-export")
    parser.add_argument("--work", default=os.path.join(tempfile.gettempdir(),
                                                       "ekadcdf-export-bench"))
    parser.add_argument("--mb", type=int, default=100, help="size of the base, about")
    parser.add_argument("--runs", type=int, default=3)
    args = parser.parse_args()
    daemon = os.path.join(args.build, "ekadcdf")
    exporter = os.path.join(args.build, "ekadcdf-export")
    cache = os.path.join(args.build, "CMakeCache.txt")
    if os.path.exists(cache) and "CMAKE_BUILD_TYPE:STRING=Release\n" not in open(cache).read():
        print(f"warning: {args.build} is not a Release build; figures will be low",
              file=sys.stderr)
    os.makedirs(args.work, exist_ok=True)
    base = make_base(daemon, args.work, args.mb)
    files = sorted(glob.glob(base + ".0*"))
    size = sum(os.path.getsize(f) for f in files) / 1e6
    out = os.path.join(args.work, "out")

    def fresh():  # the output and what the exporter keeps beside it
        shutil.rmtree(out, ignore_errors=True)
        for leftover in glob.glob(out + "*") + glob.glob(os.path.join(args.work, ".out.*")):
            os.remove(leftover)

    results = [("cat", best(args.runs, lambda: None, ["cat", *files]))]
    for name, option in (("sqlite", "--sqlite"), ("csv", "--csv"), ("jsonl", "--jsonl")):
        results.append((name, best(args.runs, fresh, [exporter, option, out, base])))
    postgres = Postgres()
    try:
        results.append(("postgresql",
                        best(args.runs, lambda: postgres.recreate("bench"),
                             [exporter, "--postgres", postgres.conninfo("bench"), base])))
    finally:
        postgres.stop()
    fresh()

    print(f"\nbase: {size:.1f} MB in {len(files)} generations, best of {args.runs} runs")
    print(f"{'target':<12}{'seconds':>10}{'MB/s':>10}")
    for name, seconds in results:
        print(f"{name:<12}{seconds:>10.2f}{size / seconds:>10.1f}")


if __name__ == "__main__":
    main()
