#!/bin/bash
# The fleet playbook against an inventory of three hosts on the local
# connection, each with its own tool root and BMC directory; the third
# host's tool fails. Expected: the archives of the first two fetched to the
# controller and verified there, the third host listed as failed in the
# summary, and the run failing at the end (not before the other hosts had
# their turn).
#
# usage: fleet-test.sh EM_HOST PLAYBOOK
set -u -o pipefail
em_host=$1
playbook=$2

if ! command -v ansible-playbook >/dev/null; then
  echo "ansible-playbook is missing (Debian package ansible-core)" >&2
  exit 77
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/korvex-fleet.XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
chmod 755 "$work"
fail() { echo "FAIL: $*" >&2; exit 1; }

# Two tools that write an archive of their own content, one that fails.
for host in alpha beta gamma; do
  install -d -m 755 "$work/$host" "$work/$host/tool"
done
for host in alpha beta; do
  cat >"$work/$host/tool/Korvex" <<TOOL
#!/bin/bash
cd "\$(dirname "\$0")" && head -c 300000 /dev/urandom > .part && echo $host >> .part && mv .part Korvex_Data.zip
TOOL
done
printf '#!/bin/bash\necho "sensor probe failed" >&2\nexit 3\n' >"$work/gamma/tool/Korvex"
chmod 755 "$work"/*/tool/Korvex

cat >"$work/inventory.ini" <<INV
[korvex]
alpha korvex_tool_root=$work/alpha/tool korvex_bmc_dir=$work/alpha/bmc
beta  korvex_tool_root=$work/beta/tool  korvex_bmc_dir=$work/beta/bmc
gamma korvex_tool_root=$work/gamma/tool korvex_bmc_dir=$work/gamma/bmc
[korvex:vars]
ansible_connection=local
ansible_python_interpreter=/usr/bin/python3
korvex_em_host=$em_host
korvex_fetch_dir=$work/controller
korvex_timeout=120
INV

# One machine plays three hosts: em-host refuses a second collection while
# one runs on the machine, so the hosts take turns (-f 1).
ANSIBLE_NOCOLOR=1 ANSIBLE_LOCAL_TEMP="$work/ansible-local" ANSIBLE_REMOTE_TEMP="$work/ansible-remote" \
  ANSIBLE_HOME="$work/ansible-home" \
  ansible-playbook -f 1 -i "$work/inventory.ini" "$playbook" >"$work/run.log" 2>&1
status=$?
cat "$work/run.log"

[ "$status" -ne 0 ] || fail "the run succeeded although gamma's tool failed"

for host in alpha beta; do
  dir="$work/controller/$host"
  [ -f "$dir/Korvex_$host.zip" ] || fail "$host: archive not fetched"
  [ -f "$dir/Korvex_$host.zip.sha256" ] || fail "$host: checksum not fetched"
  (cd "$dir" && sha256sum --check --strict "Korvex_$host.zip.sha256") || fail "$host: checksum does not verify"
  cmp -s "$dir/Korvex_$host.zip" "$work/$host/tool/Korvex_Data.zip" || fail "$host: fetched archive differs from the host's"
  [ "$(tail -c $((${#host} + 1)) "$dir/Korvex_$host.zip")" = "$host" ] || fail "$host: fetched another host's archive"
  grep -Eq "\"$host +ok +300[0-9]{3} bytes" "$work/run.log" || fail "$host: not reported ok with its size"
done
[ ! -e "$work/controller/gamma/Korvex_gamma.zip" ] || fail "gamma: an archive was fetched"
grep -Eq '"gamma +failed +no archive .*exit code 3' "$work/run.log" ||
  fail "gamma: not reported failed, without an archive, with the tool's exit code"
grep -q 'Korvex collection failed on 1 of 3 hosts: gamma' "$work/run.log" || fail "no final failure naming gamma"
# The failure came at the end: both good hosts were verified first.
[ "$(grep -c 'Verify the checksum on the controller' "$work/run.log")" -ge 1 ] || fail "no verification ran"
grep -q 'PLAY RECAP' "$work/run.log" || fail "the run did not reach its recap"
echo "fleet: 2 archives verified, gamma reported failed"
