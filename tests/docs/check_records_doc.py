#!/usr/bin/env python3
"""Checks docs/records.md against the records the daemon really writes.

The record reference (a "### <types> <name> (<N> columns)" heading over a table: column(s), name,
holds, bare or quoted, value when absent) against a section of every kind without its optional
lines; against `ekadcdf-export --columns`; and every query of "Loading the output", on a base
spanning months and days loaded into SQLite and PostgreSQL (the server EKADCDF_TEST_POSTGRES
names), against what the CDF files give. Exit status 1 on a mismatch, 2 when it could not run.
"""

import argparse, collections, itertools, os, re, sqlite3, subprocess, sys, tempfile, time

START = 1767261600  # 2026-01-01 10:00:00 UTC
# Every section kind that writes records, with one recipient where records are per recipient.
BODIES = {"routing": ["recipient-to r/hq", "ack-req 1", "queue LOCAL"],
          "delivery": ["recipient-to r/hq"], "fax": ["recipient-to r/hq"]}
KINDS = ("subsystem-start", "subsystem-stop", "user-signon", "user-signoff", "routing", "fax",
         "delivery", "request", "unix-in", "unix-out", "desk-in", "desk-out", "x400-in",
         "x400-out", "sms-in", "sms-out", "bulletin", "dirsync-in", "dirsync-out", "ekscan")
HEADING = re.compile(r"^###\s+(\d+(?:\s*,\s*\d+)*)\s+(.+?)\s+\((\d+) columns\)\s*$")
COLUMNS = re.compile(r"^(\d+)(?:\s*[-\u2013]\s*(\d+))?$")
CODE_SPAN = re.compile(r"^`([^`]*)`")
COMMON = re.compile(r"^\|\s*(\d)\s*\|\s*`(\w+)`\s*\|")
ADDRESS_WIDTH = 850  # an address passes through 849 characters, then gains a blank


def parse_doc(path):
    """{type: (name, count, [(written, absent, column name, holds) per column])}, or problems."""
    lines = open(path, encoding="utf-8").read().splitlines()
    common = {int(m.group(1)): m.group(2) for m in map(COMMON.match, lines) if m}
    types, problems = {}, []
    for i, line in enumerate(lines):
        m = HEADING.match(line)
        if not m:
            continue
        name, count = m.group(2), int(m.group(3))
        table = itertools.dropwhile(lambda l: not l.startswith("|"), lines[i + 1:])
        rows = [[c.strip() for c in l.strip().strip("|").split("|")]
                for l in itertools.takewhile(lambda l: l.startswith("|"), table)][2:]
        columns = [None] * count
        for row in rows:
            cm = COLUMNS.match(row[0])
            written = row[3].split()[0].lower() if len(row) >= 5 and row[3] else ""
            if not cm or written not in ("bare", "quoted"):
                problems.append(f"{m.group(1)}: row '{'|'.join(row)}' is no column")
                continue
            for c in range(int(cm.group(1)), int(cm.group(2) or cm.group(1)) + 1):
                if not 1 <= c <= count or columns[c - 1]:
                    problems.append(f"{m.group(1)}: column {c} outside 1..{count} or twice")
                    continue
                absent, col = CODE_SPAN.match(row[4]), CODE_SPAN.match(row[1])
                columns[c - 1] = (written, absent and absent.group(1),
                                  col.group(1) if col else common.get(c), row[2])
        if None in columns:
            problems.append(f"{m.group(1)}: column {columns.index(None) + 1} not documented")
        for t in map(int, m.group(1).split(",")):
            problems += [f"type {t} documented twice"] if t in types else []
            types[t] = (name, count, columns)
    return types, problems or ([] if types else ["no record type headings"])


def run_daemon(binary, workdir, text):
    """The records the daemon writes from `text`, stopping by itself at the end of the file."""
    open(os.path.join(workdir, "audit"), "w", encoding="ascii").write(text)
    subprocess.run([binary, "-a", "audit", "-b", "cdf", "-g", "100", "--once"], cwd=workdir,
                   env=dict(os.environ, TZ="UTC", RUNTIME_DIRECTORY=workdir), check=True,
                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    errors = open(os.path.join(workdir, "cdf.ERR"), encoding="latin-1").read()
    if errors:
        raise RuntimeError(f"cdf.ERR: {errors!r}")
    names = sorted(n for n in os.listdir(workdir) if re.fullmatch(r"cdf\.\d{3}", n))
    return [l.rstrip("\n") for n in names
            for l in open(os.path.join(workdir, n), encoding="latin-1")]


def check_records(types, records):
    problems, seen = [], set()
    for line in records:
        fields = line.split(",")  # the values hold no comma and no double quote
        seen.add(int(fields[0]))
        name, count, columns = types.get(int(fields[0]), (None, len(fields), []))
        if len(fields) != count:
            problems.append(f"{name}: {count} columns documented, written {len(fields)}: {line}")
        for n, (value, (written, absent, _, _)) in enumerate(zip(fields, columns), start=1):
            quoted = len(value) >= 2 and value[0] == value[-1] == '"'
            if (quoted != (written == "quoted") or (written == "bare" and '"' in value)
                    or absent not in (None, value)):
                problems.append(f"{name} column {n}: {written}, absent {absent}, written {value}")
    return problems + [f"type {t} is {'documented' if t in types else 'written'} only"
                       for t in sorted(set(types) ^ seen)]


def check_catalogue(exporter, types):
    out = subprocess.run([exporter, "--columns"], check=True, capture_output=True, text=True)
    catalogue = collections.defaultdict(list)
    for line in out.stdout.splitlines()[1:]:
        rtype, _, name, written, width, _, constant = line.split("\t")
        catalogue[int(rtype)].append((name, written, int(width), constant))
    problems = [f"type {t} is in one of the tables and the catalogue only"
                for t in sorted(set(types) ^ set(catalogue))]
    for t in sorted(set(types) & set(catalogue)):
        documented = [(name, written, holds, absent)
                      for written, absent, name, holds in types[t][2]]
        if len(documented) != len(catalogue[t]):
            problems.append(f"type {t}: {len(documented)} columns, catalogue {len(catalogue[t])}")
        for n, ((name, written, holds, absent), (c_name, c_written, width, constant)) in enumerate(
                zip(documented, catalogue[t]), start=1):
            up_to = re.search(r"up to (\d+)", holds)
            width = min(width, ADDRESS_WIDTH) if "address" in holds else width
            if ((name, written) != (c_name, c_written) or (up_to and int(up_to.group(1)) != width)
                    or constant not in ("-", absent)):
                problems.append(f"type {t} column {n}: {name} {written} {holds} {absent}, "
                                f"catalogue {c_name} {c_written} {width} {constant}")
    return problems


def history(now):
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


def expected_answers(types, records, now):
    """What each documented query gives, computed from the CDF lines (values hold no comma)."""
    rows, host = collections.defaultdict(list), ""
    for line in records:
        values = [v[1:-1] if len(v) >= 2 and v[0] == v[-1] == '"' else v for v in line.split(",")]
        if values[0] == "999":
            host = values[8]
        else:
            names = [c[2] for c in types[int(values[0])][2]]
            rows[int(values[0])].append(dict(zip(names, values), host=host))
    day = lambda r: time.strftime("%Y-%m-%d", time.gmtime(int(r["epoch_seconds"])))
    per_day, recipients, senders, sizes, reasons, signons = (
        collections.Counter() for _ in range(6))
    for r in rows[101]:
        per_day[(day(r), r["host"])] += 1
        recipients[(day(r), r["host"])] += int(r["recipient_count"])
        if int(r["epoch_seconds"]) >= now - 7 * 86400:
            senders[r["originator"]] += 1
            sizes[r["originator"]] += int(r["message_size"])
    key = lambda r: (r["host"], r["epoch_seconds"], r["ua_message_id"])
    routed = {key(r): r for r in rows[101]}
    for r in rows[504]:
        reasons[r["non_delivery_reason"]] += r["non_delivery_reason"] != "0"
    for r in rows[103]:
        signons[(r["user_name_1"], r["client_type"])] += 1
    as_text = lambda answer: sorted(tuple(str(v) for v in row) for row in answer)
    return [as_text((*k, n, recipients[k]) for k, n in per_day.items()),
            as_text(sorted(((o, n, sizes[o]) for o, n in senders.items()),
                           key=lambda row: -row[2])[:10]),
            as_text((routed[key(r)]["subject"], r["recipient"], r["queue"], r["local_queue"])
                    for r in rows[503] if key(r) in routed),
            as_text((k, n) for k, n in reasons.items() if n),
            as_text((*k, n) for k, n in signons.items())]


def check_queries(exporter, doc, types, workdir, records, now):
    text = open(doc, encoding="utf-8").read()
    blocks = re.findall(r"```sql\n(.*?)```", text[text.index("## Loading the output"):], re.S)
    queries = [[s.strip() for s in b.split(";") if s.strip()] for b in blocks[:2]]
    expected = expected_answers(types, records, now)
    if [len(q) for q in queries] != [len(expected)] * 2:
        return [f"expected {len(expected)} queries per block, found {[len(q) for q in queries]}"]
    base = os.path.join(workdir, "cdf")
    subprocess.run([exporter, "--sqlite", base + ".sqlite", base], check=True, capture_output=True)
    db = sqlite3.connect(base + ".sqlite")
    answers = {"SQLite": [db.execute(q).fetchall() for q in queries[0]]}
    server, problems = os.environ.get("EKADCDF_TEST_POSTGRES"), []
    if server:
        psql = ["psql", "-X", "-q", "-A", "-t", "-F", "\t", "-v", "ON_ERROR_STOP=1"]
        database = f"records_doc_{os.getpid()}"
        subprocess.run(psql + [f"host={server} user=postgres dbname=postgres", "-c",
                               f"CREATE DATABASE {database}"], check=True, capture_output=True)
        conninfo = f"host={server} user=postgres dbname={database}"
        subprocess.run([exporter, "--postgres", conninfo, base], check=True, capture_output=True)
        answers["PostgreSQL"] = []
        for q in queries[1]:
            out = subprocess.run(psql + [conninfo, "-c", q], capture_output=True, text=True)
            problems += [f"PostgreSQL: {q}: {out.stderr.strip()}"] if out.returncode else []
            answers["PostgreSQL"].append([line.split("\t") for line in out.stdout.splitlines()])
    for target, results in answers.items():
        for n, (got, want) in enumerate(zip(results, expected), start=1):
            got = sorted(tuple("" if v is None else str(v) for v in row) for row in got)
            if got != want:
                problems.append(f"{target}: query {n} gives {got[:5]}..., the files {want[:5]}...")
        if len(results[1]) == 0 or len(results[0]) < 30:
            problems.append(f"{target}: the base misses the queries' cases: {results}")
    return problems


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    for option in ("--binary", "--doc", "--exporter"):  # ekadcdf, docs/records.md, ekadcdf-export
        parser.add_argument(option, required=True)
    args = parser.parse_args()
    types, problems = parse_doc(args.doc)
    now, binary = int(time.time()), os.path.abspath(args.binary)
    sections = [[k, f"audit {START + 10 * i} pid=4711", *BODIES.get(k, []), ""]
                for i, k in enumerate(KINDS)]
    try:
        with tempfile.TemporaryDirectory(prefix="records_doc.") as workdir:
            records = run_daemon(binary, workdir, "\n".join(sum(sections, [])) + "\n")
        with tempfile.TemporaryDirectory(prefix="records_doc.") as workdir:
            past = run_daemon(binary, workdir, history(now))
            problems = (problems or check_records(types, records)
                        or check_catalogue(args.exporter, types)
                        or check_queries(args.exporter, args.doc, types, workdir, past, now))
    except (OSError, RuntimeError, subprocess.SubprocessError) as e:
        print(f"records_doc: could not run the daemon or the exporter: {e}", file=sys.stderr)
        return 2
    if problems:
        print(f"records_doc: {args.doc} does not match the records or the catalogue:\n  "
              + "\n  ".join(problems), file=sys.stderr)
        return 1
    print(f"records_doc: {len(types)} record types, {len(records)} records checked")
    return 0


if __name__ == "__main__":
    sys.exit(main())
