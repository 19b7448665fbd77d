#!/bin/bash
# The package on this machine: dpkg -i, then em-host as an operator would
# run it (its version, where it finds its module, its man page and bash
# completion, a collect with the demo tool from the examples), then dpkg -r,
# after which none of the package's files may be left. The machine is left
# as it was found, also when a step fails: a package it installed is
# purged on the way out.
#
# usage: install-test.sh DEB_DIR VERSION MODULE_DIR
#   VERSION     the project's version, as em-host --version prints it
#   MODULE_DIR  where the module belongs below /usr (lib/<triplet>/em-korvex)
set -u -o pipefail
deb_dir=$1
version=$2
module="/usr/$3/libEM_KORVEX.so"
package=em-korvex

skip() { echo "SKIP: $*" >&2; exit 77; }
fail() { echo "FAIL: $*" >&2; exit 1; }

[ "$(id -u)" -eq 0 ] || skip "dpkg -i needs root"
command -v dpkg >/dev/null || skip "dpkg is missing"
debs=("$deb_dir"/*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || fail "not one .deb in $deb_dir"
deb=${debs[0]}

# Another run of this test (another build tree on the same machine) would
# install and remove the same package: one at a time. The lock is on
# dpkg's own directory, so that nothing is created for it.
exec 9</var/lib/dpkg
flock -w 900 9 || fail "another package test held the lock for 15 minutes"

known() { dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qv '^not-installed$'; }
known && skip "$package is installed on this machine; the test leaves it alone"

# The package's paths, and which of them (directories shared with the
# system, such as /usr/bin) were there before.
mapfile -t paths < <(dpkg-deb --fsys-tarfile "$deb" | tar -t | sed 's|^\./|/|; s|/$||' | grep -v '^$')
existed=()
for path in "${paths[@]}"; do
  if [ -e "$path" ] || [ -L "$path" ]; then
    [ -d "$path" ] && [ ! -L "$path" ] || skip "$path exists and is not the package's: not overwritten"
    existed+=("$path")
  fi
done

work=$(mktemp -d "${TMPDIR:-/tmp}/korvex-package.XXXXXX") || fail "mktemp"
cleanup() {
  if known; then
    echo "cleanup: purging $package" >&2
    dpkg --purge "$package" >/dev/null 2>&1 || echo "cleanup: dpkg --purge $package failed" >&2
  fi
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM HUP

dpkg -i "$deb" || fail "dpkg -i $deb"
[ "$(dpkg-query -W -f='${db:Status-Status}' "$package")" = installed ] || fail "not installed after dpkg -i"
command -v em-host | grep -qx /usr/bin/em-host || fail "em-host is not /usr/bin/em-host on the PATH"

# em-host finds the installed module without --module.
info=$(em-host info) || fail "em-host info: $info"
grep -qx "library: *$module" <<<"$info" || fail "em-host info names another library: $info"

# --version names the release and the module it loads; the man page and
# the bash completion are where man and bash-completion look for them.
out=$(em-host --version) || fail "em-host --version failed"
[ "$(head -n1 <<<"$out")" = "em-host $version" ] || fail "em-host --version: $out"
grep -qF "$module" <<<"$out" || fail "em-host --version does not name $module: $out"
page=$(man -w em-host) || fail "man -w em-host finds no page"
[ "$page" = /usr/share/man/man1/em-host.1.gz ] || fail "man -w em-host: $page"
completion=/usr/share/bash-completion/completions/em-host
[ -f "$completion" ] || fail "no bash completion at $completion"
bash -c "source $completion && complete -p em-host" >/dev/null || fail "the completion registers nothing for em-host"

# collect with the demo tool from the examples, in a tool root only root
# may write to, as em-host demands when it runs as root.
tool_root="$work/tool"
chmod 0755 "$work"
install -d -m 0755 "$tool_root"
install -m 0755 /usr/share/doc/$package/examples/Korvex "$tool_root/Korvex"
em-host --tool-root "$tool_root" --bmc-dir "$work/bmc" collect package-test.zip ||
  fail "em-host collect with the installed demo tool"
(cd "$work/bmc" && sha256sum --check --strict package-test.zip.sha256) || fail "the archive does not verify"

mapfile -t listed < <(dpkg -L "$package" | grep -vx '/\.')
dpkg -r "$package" || fail "dpkg -r $package"
! known || fail "$package is still known to dpkg after dpkg -r"

# Nothing of the package is left: every path dpkg listed is gone unless it
# was there before the package came.
left=()
for path in "${listed[@]}" "${paths[@]}"; do
  [ -e "$path" ] || [ -L "$path" ] || continue
  printf '%s\n' "${existed[@]}" | grep -qxF -- "$path" || left+=("$path")
done
[ ${#left[@]} -eq 0 ] || fail "left after dpkg -r: ${left[*]}"
ls /var/lib/dpkg/info/$package.* >/dev/null 2>&1 && fail "dpkg's records of $package are left"
echo "package: installed, ran em-host info and collect, removed without a trace"
