#!/usr/bin/env python3
"""Checks docs/records.md against the records the daemon really writes.

The script generates an audit file with a section of every kind that carries none of its
optional lines, runs the daemon on it in a temporary directory until it waits at the end of the
file, stops it with SIGTERM and reads the output generations. It then checks, for the record
reference:

  * every documented record type was written, and every type written is documented;
  * every record has exactly the documented number of columns, each quoted or bare as
    documented (the values hold no comma and no double quote, so splitting on commas is exact);
  * every column whose "absent" cell starts with a code span (`0`, `" "`, ...) holds exactly
    that text;
  * with --exporter, the record catalogue that the daemon and ekadcdf-export share (printed by
    `ekadcdf-export --columns`) has the documented types, and per column the documented name,
    bare or quoted, width ("up to N") and constant.

The reference is read from its "### <type>[, <type>] <name> (<N> columns)" headings, each followed
by a table whose rows name a column ("9") or a run of columns ("1-8"), its name, what it holds,
how it is written ("bare" or "quoted") and its value when the section had no line for it. The
names of columns 1 to 8 are in the table "Columns 1 to 8".

Exit status 0 when everything matches, 1 on a mismatch, 2 when the check could not run.
"""

import argparse
import os
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time

START = 1767261600  # 2026-01-01 10:00:00 UTC

# Every section kind that writes records, with only what a record needs to exist: the sections
# that write one record per recipient get a single recipient, all others nothing but their header.
# Which columns each kind fills from its lines, and how, the catalogue check covers.
SECTIONS = [(name, {
    "routing": ["recipient-to r/hq", "ack-req 1", "queue LOCAL"],
    "delivery": ["recipient-to r/hq"],
    "fax": ["recipient-to r/hq"],
}.get(name, [])) for name in (
    "subsystem-start", "subsystem-stop", "user-signon", "user-signoff", "routing", "fax",
    "delivery", "request", "unix-in", "unix-out", "desk-in", "desk-out", "x400-in", "x400-out",
    "sms-in", "sms-out", "bulletin", "dirsync-in", "dirsync-out", "ekscan")]

HEADING = re.compile(r"^###\s+(\d+(?:\s*,\s*\d+)*)\s+(.+?)\s+\((\d+) columns\)\s*$")
COLUMNS = re.compile(r"^(\d+)(?:\s*[-\u2013]\s*(\d+))?$")
CODE_SPAN = re.compile(r"^`([^`]*)`")
UP_TO = re.compile(r"up to (\d+)")
ADDRESS_WIDTH = 850
COMMON = re.compile(r"^\|\s*(\d)\s*\|\s*`(\w+)`\s*\|")


class Mismatch(Exception):
    pass


def audit_text():
    lines = []
    for i, (name, body) in enumerate(SECTIONS):
        lines += [name, f"audit {START + 10 * i} pid=4711", *body, ""]
    return "\n".join(lines) + "\n"


def parse_doc(path):
    """Returns {type: (name, count, [(written, absent, column name, holds) for columns 1..count])}
    with the names of columns 1 to 8 filled in from their own table."""
    with open(path, encoding="utf-8") as f:
        lines = f.read().splitlines()
    types = {}
    problems = []
    common = dict((int(m.group(1)), m.group(2)) for m in map(COMMON.match, lines) if m)
    i = 0
    while i < len(lines):
        m = HEADING.match(lines[i])
        i += 1
        if not m:
            continue
        rtypes = [int(t) for t in m.group(1).split(",")]
        name, count = m.group(2), int(m.group(3))
        rtype = "/".join(str(t) for t in rtypes)
        while i < len(lines) and not lines[i].startswith("|"):
            i += 1
        rows = []
        while i < len(lines) and lines[i].startswith("|"):
            rows.append([c.strip() for c in lines[i].strip().strip("|").split("|")])
            i += 1
        columns = [None] * count
        for row in rows[2:]:  # after the header row and the separator row
            where = f"type {rtype}, row '{'|'.join(row)}'"
            cm = COLUMNS.match(row[0]) if row else None
            if not cm or len(row) < 5:
                problems.append(f"{where}: expected 'column | name | holds | written | absent'")
                continue
            first = int(cm.group(1))
            last = int(cm.group(2) or first)
            written = row[3].split()[0].lower() if row[3] else ""
            if written not in ("bare", "quoted"):
                problems.append(f"{where}: written as '{row[3]}', not bare or quoted")
                continue
            absent = CODE_SPAN.match(row[4])
            name = CODE_SPAN.match(row[1])
            for c in range(first, last + 1):
                if not 1 <= c <= count:
                    problems.append(f"{where}: column {c} outside 1..{count}")
                elif columns[c - 1] is not None:
                    problems.append(f"{where}: column {c} documented twice")
                else:
                    columns[c - 1] = (written, absent.group(1) if absent else None,
                                      name.group(1) if name else common.get(c), row[2])
        missing = [str(c + 1) for c, v in enumerate(columns) if v is None]
        if missing:
            problems.append(f"type {rtype}: columns {', '.join(missing)} not documented")
        for t in rtypes:
            if t in types:
                problems.append(f"type {t} is documented twice")
            types[t] = (name, count, columns)
    if problems:
        raise Mismatch("the record reference is malformed:\n  " + "\n  ".join(problems))
    if not types:
        raise Mismatch(f"no '### <type> <name> (<N> columns)' headings found in {path}")
    return types


def run_daemon(binary, workdir, timeout):
    with open(os.path.join(workdir, "audit"), "w", encoding="ascii") as f:
        f.write(audit_text())
    env = dict(os.environ, TZ="UTC", RUNTIME_DIRECTORY=workdir)
    proc = subprocess.Popen([binary, "-a", "audit", "-b", "cdf", "-d"], cwd=workdir, env=env,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE)
    waiting = threading.Event()
    stdout = []

    def drain_stderr():
        # Debug mode writes "waiting..." once the whole file has been read.
        for line in proc.stderr:
            if line == b"waiting...\n":
                waiting.set()

    def drain_stdout():
        stdout.append(proc.stdout.read())

    threads = [threading.Thread(target=drain_stderr, daemon=True),
               threading.Thread(target=drain_stdout, daemon=True)]
    for t in threads:
        t.start()
    deadline = time.monotonic() + timeout
    while not waiting.is_set() and proc.poll() is None and time.monotonic() < deadline:
        waiting.wait(0.1)
    reached_end = waiting.is_set()
    if proc.poll() is None:
        proc.send_signal(signal.SIGTERM)
    try:
        status = proc.wait(timeout)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()
        raise RuntimeError("the daemon did not stop within %d s of SIGTERM" % timeout)
    for t in threads:
        t.join(timeout)
    if not reached_end:
        raise RuntimeError("the daemon never reached the end of the audit file "
                           f"(exit status {status}, stdout {b''.join(stdout)!r})")
    if status != 0:
        raise RuntimeError(f"the daemon exited with status {status}: {b''.join(stdout)!r}")
    with open(os.path.join(workdir, "cdf.ERR"), encoding="latin-1") as f:
        errors = f.read()
    if errors:
        raise RuntimeError("the daemon did not take every generated line; cdf.ERR holds:\n"
                           + errors)
    records = []
    for name in sorted(os.listdir(workdir)):
        if re.fullmatch(r"cdf\.\d{3}", name):
            with open(os.path.join(workdir, name), encoding="latin-1") as f:
                records += [line.rstrip("\n") for line in f]
    return records


def check(types, records):
    problems = []
    seen = set()
    for line in records:
        fields = line.split(",")
        try:
            rtype = int(fields[0])
        except ValueError:
            problems.append(f"record without a type code: {line}")
            continue
        seen.add(rtype)
        if rtype not in types:
            continue
        name, count, columns = types[rtype]
        if len(fields) != count:
            problems.append(f"type {rtype} ({name}): documented with {count} columns, the "
                            f"daemon wrote {len(fields)}: {line}")
            continue
        for n, (value, (written, absent, _, _)) in enumerate(zip(fields, columns), start=1):
            quoted = len(value) >= 2 and value[0] == '"' and value[-1] == '"'
            if quoted != (written == "quoted") or (written == "bare" and '"' in value):
                problems.append(f"type {rtype} column {n}: documented {written}, written "
                                f"{value}: {line}")
            elif absent is not None and value != absent:
                problems.append(f"type {rtype} column {n}: documented as {absent} when absent, "
                                f"written {value}: {line}")
    for rtype in sorted(set(types) - seen):
        problems.append(f"type {rtype} ({types[rtype][0]}) is documented but was not written")
    for rtype in sorted(seen - set(types)):
        problems.append(f"type {rtype} was written but is not documented")
    return problems


def check_catalogue(exporter, types):
    """The catalogue printed by `ekadcdf-export --columns` against the tables."""
    out = subprocess.run([exporter, "--columns"], check=True, capture_output=True, text=True)
    catalogue = {}
    for line in out.stdout.splitlines()[1:]:
        rtype, column, name, written, width, _, constant = line.split("\t")
        catalogue.setdefault(int(rtype), []).append((name, written, int(width), constant))
    problems = []
    for rtype in sorted(set(types) ^ set(catalogue)):
        problems.append(f"type {rtype} is in {'the tables' if rtype in types else 'the catalogue'}"
                        " only")
    for rtype in sorted(set(types) & set(catalogue)):
        _, count, columns = types[rtype]
        if count != len(catalogue[rtype]):
            problems.append(f"type {rtype}: {count} columns documented, "
                            f"{len(catalogue[rtype])} in the catalogue")
            continue
        for n, ((written, absent, doc_name, holds), (name, kind, width, constant)) in enumerate(
                zip(columns, catalogue[rtype]), start=1):
            up_to = UP_TO.search(holds)
            if "address" in holds:  # an address passes through 849 characters, then gains a blank
                width = min(width, ADDRESS_WIDTH)
            if doc_name != name:
                problems.append(f"type {rtype} column {n}: named {doc_name}, catalogue {name}")
            if written != kind:
                problems.append(f"type {rtype} column {n}: {written}, catalogue {kind}")
            if up_to and int(up_to.group(1)) != width:
                problems.append(f"type {rtype} column {n}: up to {up_to.group(1)}, "
                                f"catalogue width {width}")
            if constant != "-" and absent != constant:
                problems.append(f"type {rtype} column {n}: {absent} when absent, "
                                f"catalogue constant {constant}")
    return problems


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--binary", required=True, help="path of the ekadcdf binary")
    parser.add_argument("--doc", required=True, help="path of docs/records.md")
    parser.add_argument("--exporter", help="path of the ekadcdf-export binary")
    parser.add_argument("--timeout", type=int, default=60, help="seconds to wait for the daemon")
    args = parser.parse_args()
    try:
        types = parse_doc(args.doc)
    except (OSError, Mismatch) as e:
        print(f"records_doc: {e}", file=sys.stderr)
        return 1
    try:
        with tempfile.TemporaryDirectory(prefix="records_doc.") as workdir:
            records = run_daemon(os.path.abspath(args.binary), workdir, args.timeout)
    except (OSError, RuntimeError) as e:
        print(f"records_doc: could not run the daemon: {e}", file=sys.stderr)
        return 2
    problems = check(types, records)
    if args.exporter and not problems:
        problems = check_catalogue(args.exporter, types)
    if problems:
        print(f"records_doc: {args.doc} does not match the daemon's records or the catalogue:",
              file=sys.stderr)
        for p in problems:
            print("  " + p, file=sys.stderr)
        return 1
    print(f"records_doc: {len(types)} record types, {len(records)} records checked")
    return 0


if __name__ == "__main__":
    sys.exit(main())
