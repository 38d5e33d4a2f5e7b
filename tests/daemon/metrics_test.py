#!/usr/bin/env python3
"""The metrics files as Prometheus gets them: the daemon (--metrics) follows an audit file, the
exporter (--metrics) loads its base, `promtool check metrics` accepts both files and Debian's
prometheus-node-exporter (textfile collector only, 127.0.0.1, a free port) serves their figures
unchanged through links, as the package lays them out. The README's alert rules pass `promtool
check rules`."""
import argparse, os, re, shutil, signal, socket, subprocess, sys, tempfile, time, urllib.request

p = argparse.ArgumentParser()
for name in ("binary", "exporter", "sample", "readme"):
    p.add_argument("--" + name, required=True)
args = p.parse_args()


def check(ok, what):
    ok or sys.exit("FAIL: " + what)


def wait_for(what, probe, seconds=30):
    """Polls `probe` until it returns something true; fails after `seconds`."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        value = probe()
        if value:
            return value
        time.sleep(0.1)
    sys.exit(f"FAIL: gave up waiting for {what}")


def samples(text):
    return {line.rsplit(" ", 1)[0]: line.rsplit(" ", 1)[1]
            for line in text.splitlines() if line and not line.startswith("#")}


work = tempfile.mkdtemp()
prom, state = os.path.join(work, "textfile"), os.path.join(work, "metrics")
os.mkdir(prom)
os.mkdir(state)
audit, base = os.path.join(work, "audit"), os.path.join(work, "cdf")
daemon_prom, export_prom = os.path.join(state, "ekadcdf.prom"), os.path.join(state, "export.prom")
for f in (daemon_prom, export_prom):
    os.symlink(f, os.path.join(prom, os.path.basename(f)))
node = daemon = None
try:
    # The sample with --once: the file written at the stop holds its figures.
    shutil.copy(args.sample, audit)
    run = [args.binary, "-a", audit, "-b", base, "--metrics", daemon_prom]
    env = dict(os.environ, TZ="UTC")
    subprocess.run(run + ["--once"], env=env, stdout=subprocess.DEVNULL, check=True)
    once = samples(open(daemon_prom).read())
    key = f'ekadcdf_records_written_total{{base="{base}"}}'
    check(once.get(key) == "15", f"after --once, {key} is {once.get(key)}, not 15")
    # Then a section with a line its converter does not know and an unknown section, which a
    # following daemon converts; its file shows them within seconds, before any stop.
    with open(audit, "a") as out:
        out.write("request\naudit 1791072700\nbogus line\n\nno-such-section\n\n")
    daemon = subprocess.Popen(run, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    wait_for("the following daemon's figures", lambda: samples(open(daemon_prom).read()).get(
        f'ekadcdf_error_entries_total{{base="{base}",cause="unknown_section"}}') == "1")
    daemon.send_signal(signal.SIGTERM)
    check(daemon.wait(30) == 0, "the daemon stops with status 0")
    figures = samples(open(daemon_prom).read())
    expect = {f'ekadcdf_error_entries_total{{base="{base}",cause="{cause}"}}': n for cause, n in
              [("unknown_section", "1"), ("skipped_line", "1"), ("dropped_section", "0"),
               ("audit_data_lost", "0")]}
    expect[f'ekadcdf_sections_converted_total{{base="{base}",kind="Request-server"}}'] = "1"
    expect[key] = "1"
    expect[f'ekadcdf_generations_rotated_total{{base="{base}"}}'] = "0"
    expect[f'ekadcdf_audit_unread_bytes{{base="{base}"}}'] = "0"
    expect[f'ekadcdf_last_section_timestamp_seconds{{base="{base}"}}'] = "1791072700"
    for key, value in expect.items():
        check(figures.get(key) == value, f"{key} is {figures.get(key)}, not {value}")
    check(os.stat(daemon_prom).st_mode & 0o777 == 0o644, "the metrics file is 0644")
    check(sorted(os.listdir(state)) == ["ekadcdf.prom"], "no temporary file is left")

    subprocess.run([args.exporter, "--sqlite", os.path.join(work, "db"), "--metrics", export_prom,
                    base], check=True, stderr=subprocess.DEVNULL)
    loaded = samples(open(export_prom).read())
    rows = sum(int(v) for k, v in loaded.items() if k.startswith("ekadcdf_export_rows_loaded"))
    check(rows == 16, f"the exporter loaded {rows} rows, not 16")
    for f in (daemon_prom, export_prom):
        r = subprocess.run(["promtool", "check", "metrics"], stdin=open(f), capture_output=True,
                           text=True)
        check(r.returncode == 0, f"promtool check metrics {f}: {r.stdout}{r.stderr}")

    rules = re.search(r"```yaml\n(groups:.*?)```", open(args.readme).read(), re.S)
    check(rules is not None, "the README has the alert rules")
    if rules:
        with open(os.path.join(work, "rules.yml"), "w") as f:
            f.write(rules.group(1))
        r = subprocess.run(["promtool", "check", "rules", f.name], capture_output=True, text=True)
        check(r.returncode == 0, f"promtool check rules: {r.stdout}{r.stderr}")

    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
    node = subprocess.Popen(["prometheus-node-exporter", f"--web.listen-address=127.0.0.1:{port}",
                             "--collector.disable-defaults", "--collector.textfile",
                             f"--collector.textfile.directory={prom}"],
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def scrape():
        try:
            return urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=5).read()
        except OSError:
            return None
    served = samples(wait_for("the node exporter", scrape).decode())
    check(served.get("node_textfile_scrape_error") == "0", "the node exporter read both files")
    for key, value in list(figures.items()) + list(loaded.items()):
        got = served.get(key)
        check(got is not None and float(got) == float(value), f"/metrics: {key} {got}, not {value}")
finally:
    for process in (node, daemon):
        if process and process.poll() is None:
            process.kill()
            process.wait(10)
    shutil.rmtree(work)
print("metrics: all checks passed")
