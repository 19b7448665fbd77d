#!/bin/bash
# lintian on the package: no error, and every warning is one that the
# package's documentation lists with its reason (a new warning fails here
# until it is fixed or explained there). Pedantic and informational tags
# are printed, not judged.
#
# usage: lintian-test.sh DEB_DIR DOC_PAGE
set -u -o pipefail
deb_dir=$1
doc=$2

if ! command -v lintian >/dev/null; then
  echo "lintian is missing (bash scripts/install-deps --test installs it)" >&2
  exit 77
fi
debs=("$deb_dir"/*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || { echo "FAIL: not one .deb in $deb_dir" >&2; exit 1; }

report=$(lintian --pedantic --display-info "${debs[0]}" 2>&1)
rc=$?
# lintian says so when it runs as root; that line is not a finding.
report=$(grep -v '^running with root privileges' <<<"$report")
echo "$report"
# 0: clean, 1: tags of error severity; anything else: lintian did not run.
[ "$rc" -le 1 ] || { echo "FAIL: lintian failed (exit status $rc)" >&2; exit 1; }

status=0
if grep -q '^E: ' <<<"$report"; then
  echo "FAIL: lintian reports errors" >&2
  status=1
fi
for tag in $(sed -n 's/^W: [^ ]*: \([^ ]*\).*/\1/p' <<<"$report" | sort -u); do
  if ! grep -q "\`$tag\`" "$doc"; then
    echo "FAIL: warning $tag is not listed with its reason in $doc" >&2
    status=1
  fi
done
exit $status
