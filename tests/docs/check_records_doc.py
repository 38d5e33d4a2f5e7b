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
    bare or quoted, width ("up to N") and constant;
  * with --exporter, every query of "Loading the output" gives, on a base whose events span
    several months and days, loaded into SQLite (and into PostgreSQL when EKADCDF_TEST_POSTGRES
    names the directory of a running server, as the ctest fixture does), what the CDF files
    themselves give: the SQLite block and the PostgreSQL block, query by query.

The reference is read from its "### <type>[, <type>] <name> (<N> columns)" headings, each followed
by a table whose rows name a column ("9") or a run of columns ("1-8"), its name, what it holds,
how it is written ("bare" or "quoted") and its value when the section had no line for it. The
names of columns 1 to 8 are in the table "Columns 1 to 8".

Exit status 0 when everything matches, 1 on a mismatch, 2 when the check could not run.
"""

import argparse
import collections
import os
import re
import signal
import sqlite3
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


def queries_audit_text(now):
    """Routings, deliveries and sign-ons every 1.6 days back from `now` over about three months:
    a generation each (the daemon starts one per day)."""
    lines = []
    for i in range(60):
        t = now - int((59 - i) * 1.6 * 86400 + 43200)
        recipients = [f"recipient-to r{i % 3}/hq", "ack-req 1",
                      "queue LOCAL" if i % 2 else "queue ekx400-gw"] * (1 + i % 2)
        lines += ["routing", f"audit {t} pid=4711", f"originator o{i % 4}/hq",
                  f"ua-message-id UA-{i}", f"message-size {i * 37 + 5}", f"subject s{i}",
                  *recipients, "",
                  "delivery", f"audit {t + 60} pid=4711", f"originator o{i % 4}/hq",
                  f"ua-message-id D-{i}", "recipient-to x/hq", f"non-delivery-reason {i % 3}", "",
                  "user-signon", f"audit {t + 120} pid=4711", f"user {i} Main Mail u{i % 3} v",
                  f"client-type {i % 2}", ""]
    return "\n".join(lines) + "\n"


def run_daemon(binary, workdir, timeout, text, generations=6):
    with open(os.path.join(workdir, "audit"), "w", encoding="ascii") as f:
        f.write(text)
    env = dict(os.environ, TZ="UTC", RUNTIME_DIRECTORY=workdir)
    proc = subprocess.Popen([binary, "-a", "audit", "-b", "cdf", "-g", str(generations), "-d"],
                            cwd=workdir, env=env,
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


def expected_answers(types, records, now):
    """What each documented query gives, computed from the CDF lines (values hold no comma)."""
    rows = collections.defaultdict(list)
    host = ""
    for line in records:
        values = [v[1:-1] if len(v) >= 2 and v[0] == v[-1] == '"' else v for v in line.split(",")]
        rtype = int(values[0])
        if rtype == 999:
            host = values[8]
            continue
        names = [c[2] for c in types[rtype][2]]
        rows[rtype].append(dict(zip(names, values), host=host))
    day = lambda r: time.strftime("%Y-%m-%d", time.gmtime(int(r["epoch_seconds"])))
    per_day, senders, reasons, signons = (collections.Counter() for _ in range(4))
    recipients, sizes = collections.Counter(), collections.Counter()
    for r in rows[101]:
        per_day[(day(r), r["host"])] += 1
        recipients[(day(r), r["host"])] += int(r["recipient_count"])
        if int(r["epoch_seconds"]) >= now - 7 * 86400:
            senders[r["originator"]] += 1
            sizes[r["originator"]] += int(r["message_size"])
    routed = {(r["host"], r["epoch_seconds"], r["ua_message_id"]): r for r in rows[101]}
    joined = [(routed[k]["subject"], r["recipient"], r["queue"], r["local_queue"])
              for r in rows[503]
              for k in [(r["host"], r["epoch_seconds"], r["ua_message_id"])] if k in routed]
    for r in rows[504]:
        if r["non_delivery_reason"] != "0":
            reasons[r["non_delivery_reason"]] += 1
    for r in rows[103]:
        signons[(r["user_name_1"], r["client_type"])] += 1
    as_text = lambda answer: sorted(tuple(str(v) for v in row) for row in answer)
    return [as_text([(*k, n, recipients[k]) for k, n in sorted(per_day.items())]),
            as_text(sorted(((o, n, sizes[o]) for o, n in senders.items()),
                           key=lambda row: -row[2])[:10]),
            as_text(joined),
            as_text(reasons.items()),
            as_text([(*k, n) for k, n in signons.items()])]


def documented_queries(doc):
    """The SQLite and the PostgreSQL block of "Loading the output", as lists of statements."""
    with open(doc, encoding="utf-8") as f:
        text = f.read()
    text = text[text.index("## Loading the output"):]
    blocks = re.findall(r"```sql\n(.*?)```", text, re.S)
    statements = lambda block: [s.strip() for s in block.split(";") if s.strip()]
    return [statements(b) for b in blocks[:2]]


def check_queries(exporter, doc, types, workdir, records, now):
    problems = []
    sqlite_block, postgres_block = documented_queries(doc)
    expected = expected_answers(types, records, now)
    if len(sqlite_block) != len(expected) or len(postgres_block) != len(expected):
        return [f"expected {len(expected)} queries in each block, found {len(sqlite_block)} "
                f"(SQLite) and {len(postgres_block)} (PostgreSQL)"]
    base = os.path.join(workdir, "cdf")
    subprocess.run([exporter, "--sqlite", base + ".sqlite", base], check=True,
                   capture_output=True)
    db = sqlite3.connect(base + ".sqlite")
    answers = {"SQLite": [db.execute(q).fetchall() for q in sqlite_block]}
    db.close()
    server = os.environ.get("EKADCDF_TEST_POSTGRES")
    if server:
        psql = ["psql", "-X", "-q", "-A", "-t", "-F", "\t", "-v", "ON_ERROR_STOP=1"]
        database = f"records_doc_{os.getpid()}"
        subprocess.run(psql + [f"host={server} user=postgres dbname=postgres", "-c",
                               f"CREATE DATABASE {database}"], check=True, capture_output=True)
        conninfo = f"host={server} user=postgres dbname={database}"
        subprocess.run([exporter, "--postgres", conninfo, base], check=True, capture_output=True)
        answers["PostgreSQL"] = []
        for q in postgres_block:
            out = subprocess.run(psql + [conninfo, "-c", q], capture_output=True, text=True)
            if out.returncode != 0:
                problems.append(f"PostgreSQL: {q}: {out.stderr.strip()}")
            answers["PostgreSQL"].append([line.split("\t") for line in out.stdout.splitlines()])
    for target, results in answers.items():
        for n, (got, want) in enumerate(zip(results, expected)):
            got = sorted(tuple("" if v is None else str(v) for v in row) for row in got)
            if got != want:
                problems.append(f"{target}: query {n + 1} gives {got[:5]}..., the CDF files "
                                f"{want[:5]}...")
        if len(results[1]) == 0 or len(results[0]) < 30:
            problems.append(f"{target}: the base does not reach the queries' cases: "
                            f"{[len(r) for r in results]}")
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
    now = int(time.time())
    try:
        with tempfile.TemporaryDirectory(prefix="records_doc.") as workdir:
            records = run_daemon(os.path.abspath(args.binary), workdir, args.timeout,
                                 audit_text())
        with tempfile.TemporaryDirectory(prefix="records_doc.") as workdir:
            history = run_daemon(os.path.abspath(args.binary), workdir, args.timeout,
                                 queries_audit_text(now), generations=100)
            problems = check(types, records)
            if args.exporter and not problems:
                problems = check_catalogue(args.exporter, types)
            if args.exporter and not problems:
                problems = check_queries(args.exporter, args.doc, types, workdir, history, now)
    except (OSError, RuntimeError, subprocess.CalledProcessError) as e:
        print(f"records_doc: could not run the daemon or the exporter: {e}", file=sys.stderr)
        return 2
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
