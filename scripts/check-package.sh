#!/usr/bin/env bash
# Builds the Debian package from a clean copy of the tree (no build directories), checks it with
# lintian (any error or warning fails), installs it on this machine with apt-get, checks what it
# installed (files, the account, the conffile, ekadcdf --version, systemd-analyze verify and an
# exposure of at most 2.5 per unit, the metrics links in the node exporter's textfile directory
# and their return through the file trigger when prometheus-node-exporter is installed again),
# purges it and checks that nothing is left but the account, which Debian keeps by design. As
# root, on Debian 12, with prometheus-node-exporter installed.
# Usage: scripts/check-package.sh [--nocheck]   (--nocheck: the tests already ran in this CI run)
set -euo pipefail
cd "$(dirname "$0")/.."
options="parallel=2"
[ "${1:-}" = --nocheck ] && options="nocheck $options"

version=$(dpkg-parsechangelog -S Version)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
src="$work/ekadcdf-$version"  # dpkg-buildpackage writes its results into $work, beside it
mkdir "$src"
git ls-files -co --exclude-standard -z | tar -cf - --null -T - | tar -xf - -C "$src"

cd "$src"
dpkg-checkbuilddeps 2>/dev/null || DEBIAN_FRONTEND=noninteractive apt-get build-dep -y -qq ./
DEB_BUILD_OPTIONS="$options" dpkg-buildpackage -us -uc -b >"$work/build.log" 2>&1 ||
  { tail -50 "$work/build.log"; exit 1; }
cd "$work"
deb="$work/ekadcdf_${version}_$(dpkg --print-architecture).deb"
lintian --fail-on error,warning "$work"/ekadcdf_*.changes 2>&1 | grep -v '^running with root' || true
lintian --fail-on error,warning "$work"/ekadcdf_*.changes >/dev/null 2>&1 ||
  { echo "lintian: errors or warnings"; exit 1; }

fail() { echo "check-package: $*" >&2; exit 1; }
if dpkg-query -W ekadcdf >/dev/null 2>&1; then apt-get purge -y -qq ekadcdf >/dev/null; fi
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$deb" >/dev/null
files=$(dpkg-query -L ekadcdf)
for f in /usr/sbin/ekadcdf /usr/bin/ekadcdf-export /usr/libexec/ekadcdf/export-service \
  /usr/share/man/man8/ekadcdf.8.gz /usr/share/man/man1/ekadcdf-export.1.gz \
  /usr/share/doc/ekadcdf/records.md.gz /usr/share/doc/ekadcdf/example.conf \
  /usr/share/doc/ekadcdf/copyright /usr/lib/sysusers.d/ekadcdf.conf /etc/ekadcdf/ekadcdf.conf; do
  [ -e "$f" ] || fail "$f is not installed"
done
dpkg-query -W -f='${Conffiles}' ekadcdf | grep -q ' /etc/ekadcdf/ekadcdf.conf ' ||
  fail "/etc/ekadcdf/ekadcdf.conf is no conffile"
getent passwd ekadcdf | grep -q ':/usr/sbin/nologin$' || fail "no ekadcdf system account"
[ "$(ekadcdf --version)" = "ekadcdf $version" ] || fail "ekadcdf --version: $(ekadcdf --version)"
[ "$(ekadcdf-export --version)" = "ekadcdf-export $version" ] || fail "ekadcdf-export --version"
for unit in ekadcdf.service ekadcdf@mail1.service ekadcdf-export.service \
  ekadcdf-export@mail1.service; do
  out=$(systemd-analyze verify "$unit" 2>&1) || fail "systemd-analyze verify $unit: $out"
  ! grep -q ekadcdf <<<"$out" || fail "systemd-analyze verify $unit: $out"
  exposure=$(systemd-analyze security --offline=true --no-pager "$unit" 2>&1 |
    sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\).*/\1/p')
  echo "$unit: exposure $exposure"
  awk -v e="${exposure:-99}" 'BEGIN { exit !(e <= 2.5) }' || fail "$unit: exposure $exposure"
done

# The metrics links: there after the installation, read by the node exporter's account through
# them after the daemon replaced its file, made again by the trigger when the node exporter is
# installed (again) after ekadcdf.
textfile=/var/lib/prometheus/node-exporter
[ -d "$textfile" ] || fail "$textfile is missing: install prometheus-node-exporter"
check_links() {
  for name in ekadcdf.prom ekadcdf-export.prom; do
    [ "$(readlink "$textfile/$name")" = "/var/lib/ekadcdf/metrics/$name" ] ||
      fail "$textfile/$name is no link to /var/lib/ekadcdf/metrics/$name ($1)"
  done
}
check_links "after the installation"
chmod 0755 "$work"
install -d -o ekadcdf -g ekadcdf "$work/out"
install -m 0644 "$src/examples/sample.audit" "$work/sample.audit"
runuser -u ekadcdf -- ekadcdf -a "$work/sample.audit" -b "$work/out/cdf" --once \
  --metrics /var/lib/ekadcdf/metrics/ekadcdf.prom >/dev/null
runuser -u prometheus -- grep -q '^ekadcdf_records_written_total{.*} 15$' "$textfile/ekadcdf.prom" ||
  fail "the node exporter's account does not read the daemon's figures through the link"
rm "$textfile/ekadcdf.prom" "$textfile/ekadcdf-export.prom"
if DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --reinstall --no-download \
  prometheus-node-exporter >/dev/null 2>&1; then
  check_links "after prometheus-node-exporter was installed again"
else
  echo "check-package: prometheus-node-exporter's .deb is not in the cache; trigger run by hand"
  dpkg-trigger --no-await "$textfile" && dpkg --triggers-only --pending
  check_links "after the trigger"
fi

# As a unit's StateDirectory= leaves it before it ever writes: an empty state directory goes.
install -d -o ekadcdf -g ekadcdf -m 0750 /var/lib/ekadcdf
DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq ekadcdf >/dev/null
dpkg-query -W -f='${Status}' ekadcdf 2>/dev/null | grep -q installed && fail "still installed"
while read -r f; do
  [ -d "$f" ] && [ "$f" != /etc/ekadcdf ] && continue  # shared directories such as /usr/bin
  [ ! -e "$f" ] || fail "$f is left after the purge"
done <<<"$files"
[ ! -e /var/lib/ekadcdf ] || fail "/var/lib/ekadcdf is left after the purge"
for name in ekadcdf.prom ekadcdf-export.prom; do
  [ ! -L "$textfile/$name" ] || fail "$textfile/$name is left after the purge"
done
echo "package $(basename "$deb"): built, lintian clean, installed, checked and purged"
