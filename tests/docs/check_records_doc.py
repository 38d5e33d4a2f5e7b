#!/usr/bin/env python3
"""Checks docs/records.md against the records the daemon really writes.

The script generates an audit file with every section kind, runs the daemon on it in a
temporary directory until it waits at the end of the file, stops it with SIGTERM and reads the
output generations. It then checks, for the record reference:

  * every documented record type was written, and every type written is documented;
  * every record has exactly the documented number of columns (the generated values hold no
    comma and no double quote, so splitting on commas is exact);
  * every column documented as quoted is written between double quotes, and every bare one is
    not;
  * in records of sections that carry no optional lines, and in header records, every column
    whose "absent" cell starts with a code span (`0`, `" "`, ...) holds exactly that text;
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

# Event times (UTC): sections with every line, then sections with none of the optional lines.
FULL_START = 1767261600  # 2026-01-01 10:00:00
BARE_START = 1767265200  # 2026-01-01 11:00:00

# Every section kind with every line that fills a column, plus lines that are accepted and
# dropped. Values hold no comma and no double quote.
FULL_SECTIONS = [
    ("subsystem-start", ["subsystem 3", "user sysadm"]),
    ("subsystem-stop", ["subsystem 3", "user sysadm", "duration 3600"]),
    ("user-signon", ["user 123 Main Mail System jsmith smithj", "signon-status 1",
                     "client-type 2", "designate-user 754 pat svensson/legal",
                     "user-agent-id client-7"]),
    ("user-signoff", ["user 123 Main Mail System", "signoff-status 5", "duration 9288",
                      "designate-user 754 pat svensson/legal"]),
    ("routing", ["type 1", "priority 2", "sensitivity 1", "importance 2", "created-locally 1",
                 "hop-count 3", "originator john smith/sales", "ua-message-id UA-1001",
                 "recipient-to mary jones/sales", "ack-req 1", "queue LOCAL",
                 "recipient-cc C=US;A=ATT;P=acme;S=lee", "ack-req 0", "queue ekx400-gw",
                 "message-size 48213", "mta-message-id <MTA-1001@mail.example.com>",
                 "part-count 2", "subject Quarterly figures", "non-delivery-reason 7",
                 "ua-ack-id A1", "part-type 1", "part-size 1200"]),
    ("fax", ["priority 1", "sensitivity 3", "importance 1", "originator mary brown/hq",
             "ua-message-id UA-1002", "recipient-to zoe ivanova/support", "duration 33",
             "non-delivery-reason 4", "retries 2", "sent-pages 87", "sent-time 0930",
             "recipient-bcc mats jones", "mta-message-id <F75A@gw.example.com>",
             "subject Fax test"]),
    ("delivery", ["type 2", "originator bob/hq", "ua-message-id UA-1003",
                  "recipient-to ann/hq", "non-delivery-reason 3", "recipient-cc joe/hq",
                  "auto-forward 1", "auto-notify 1", "auto-reply 0", "auto-file 1",
                  "auto-print 0", "mta-message-id MTA-1003", "delivered-count 2",
                  "subject Minutes"]),
    ("request", ["originator ann/hq", "ua-message-id UA-1004", "originator-admin-cap 3",
                 "request-name list users", "mta-message-id MTA-1004", "subject request"]),
    ("unix-in", ["originator li brown", "ua-message-id UA-1005", "unix-message-id U-1005",
                 "subject hello", "recipient-to pat"]),
    ("unix-out", ["originator li brown", "ua-message-id UA-1006", "type 4",
                  "non-delivery-reason 2", "mta-message-id MTA-1006",
                  "recipient-to pat@example.com", "recipient-cc sam@example.com",
                  "unix-message-id U-1006", "subject hello", "unix-ack-id 0"]),
    ("desk-in", ["originator kim/ops", "type 1", "ua-message-id UA-1007",
                 "non-delivery-reason 1", "desk-message-id D-1007 extra", "subject hi",
                 "recipient-to lee/ops", "desk-ack-id 5"]),
    ("desk-out", ["originator kim/ops", "type 1", "ua-message-id UA-1008",
                  "non-delivery-reason 0", "recipient-to lee/ops", "recipient-cc max/ops",
                  "mta-message-id MTA-1008"]),
    ("x400-in", ["priority 1", "sensitivity 2", "importance 0",
                 "originator C=US;A=ATT;P=acme;S=lee", "originator second/ignored",
                 "ua-message-id UA-1009", "mta-message-id MTA-1009", "all-recips-non-deliv",
                 "type 1", "subject hi", "recipient-to ann"]),
    ("x400-out", ["priority 2", "sensitivity 0", "importance 1", "originator ann/hq",
                  "ua-message-id UA-1010", "mta_message-id MTA-1010", "recipient-to a",
                  "recipient-cc b", "recipient-bcc c", "all-recips-non-deliv yes",
                  "mta-ack-id K1"]),
    ("sms-in", ["message-size 1234", "non-delivery-reason 5"]),
    ("sms-out", ["message-size 99", "non-delivery-reason 0"]),
    ("notes-in", ["originator nobody", "subject ignored"]),
    ("notes-out", ["originator nobody"]),
    ("bulletin", ["type 2", "originator ann/hq", "ua-message-id UA-1011",
                  "bulletin-name Staff News", "mta-message-id MTA-1011", "subject news",
                  "bulletin-type 1"]),
    ("dirsync-in", ["originator pat.ivanova/hq", "operation 1", "command sync all",
                    "flags 0", "reload-posn 77193", "export-directory /var/dir/export",
                    "import-directory /var/dir/import", "max-reply-size 168311",
                    "sending-ref 57601", "request-id 97953", "subject hello",
                    "syn-timestamp 1767261000"]),
    ("dirsync-out", ["recipient pat jones", "operation 2", "command sync all", "flags 0",
                     "reload-posn 44490", "export-directory /var/dir/export",
                     "import-directory /var/dir/import", "max-reply-size 879135",
                     "sending-ref 52364", "request-id 12"]),
    ("ekscan", ["user first user/hq", "user-messages 151", "user-size 2423459",
                "tray 2 pending 24 4036872", "tray 5 wastebasket 184 8678093",
                "user second user/hq", "user-messages 934", "user-size 3827065",
                "tray 1 inbox 401 9172277", "tray 3 filed 85 6970212", "tray 4 sent 4 8203138",
                "duration 6513", "bb-area-messages 3", "bb-area-size 100"]),
]

# The same kinds with only what a record needs to exist: the sections that write one record per
# recipient get a single recipient, all others nothing but their header.
BARE_SECTIONS = [(name, {
    "routing": ["recipient-to r/hq", "ack-req 1", "queue LOCAL"],
    "delivery": ["recipient-to r/hq"],
    "fax": ["recipient-to r/hq"],
}.get(name, [])) for name, _ in FULL_SECTIONS]

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
    for start, sections in ((FULL_START, FULL_SECTIONS), (BARE_START, BARE_SECTIONS)):
        for i, (name, body) in enumerate(sections):
            lines += [name, f"audit {start + 10 * i} pid=4711", *body, ""]
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
        check_defaults = rtype == 999 or (fields[7].isdigit() and int(fields[7]) >= BARE_START)
        for n, (value, (written, absent, _, _)) in enumerate(zip(fields, columns), start=1):
            quoted = len(value) >= 2 and value[0] == '"' and value[-1] == '"'
            if quoted != (written == "quoted") or (written == "bare" and '"' in value):
                problems.append(f"type {rtype} column {n}: documented {written}, written "
                                f"{value}: {line}")
            elif check_defaults and absent is not None and value != absent:
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
