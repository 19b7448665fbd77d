#!/bin/bash
# The main job (scripts/demo) installs only scripts/install-deps' main set:
# that set must be enough, and hold nothing the main job does not use.
# Every header the compiler read for em-host and
# the module, and every library they link, outside this source and build
# tree, must belong to a package of the main set or to one those depend on
# (recursively; Recommends are not installed). A test-only library used in
# the main build, or a new dependency not added to the main set, fails
# here, naming the file and its package; so does a package of the main set
# that provides none of those files nor a program the main job runs.
#
# usage: main-deps-test.sh INSTALL_DEPS SOURCE_DIR BUILD_DIR TARGET_FILE...
set -u -o pipefail
install_deps=$1
source_dir=$2
build_dir=$3
shift 3

fail() { echo "FAIL: $*" >&2; exit 1; }
command -v apt-cache >/dev/null && command -v dpkg >/dev/null || { echo "not a Debian system" >&2; exit 77; }

mapfile -t main < <(bash "$install_deps" --list) || fail "install-deps --list"
[ ${#main[@]} -gt 0 ] || fail "install-deps --list printed nothing"
closure=$(apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts \
  --no-breaks --no-replaces --no-enhances "${main[@]}" | grep -v '^[ <]' | sort -u) ||
  fail "apt-cache depends"

targets=()
for file in "$@"; do targets+=("${file#"$build_dir"/}"); done
inputs=$(ninja -C "$build_dir" -t inputs "${targets[@]}") || fail "ninja -t inputs"
mapfile -t objects < <(grep '\.o$' <<<"$inputs")
[ ${#objects[@]} -gt 0 ] || fail "no object files behind ${targets[*]}"
deps=$(ninja -C "$build_dir" -t deps "${objects[@]}") || fail "ninja -t deps"
# Without recorded dependencies there is nothing to judge: say so.
grep -q 'deps not found\|(STALE)' <<<"$deps" && fail "the build's header lists are missing or stale: build first"

outside() { grep -v -e "^$source_dir/" -e "^$build_dir/" -e "^[^/]"; }
mapfile -t files < <({ sed -n 's/^    //p' <<<"$deps"; grep '^/' <<<"$inputs"; } | outside | sort -u)
grep -q '^/usr/include/c++/' < <(printf '%s\n' "${files[@]}") || fail "no C++ library header among the inputs"

# The programs the main job runs besides what it compiles from: the build
# tools (scripts/demo) and zip (the demo tool), where Debian's packages put
# them (a cmake of one's own earlier on the PATH is not what is asked).
for tool in cmake ninja g++ zip; do
  [ -x "/usr/bin/$tool" ] || fail "/usr/bin/$tool is not installed"
  files+=("/usr/bin/$tool")
done

# One dpkg -S for all (it takes a while to start): "pkg[, pkg]: path" lines.
declare -A owners_of
while IFS= read -r line; do
  owners_of[${line#*: }]=${line%%: *}
done < <(dpkg -S "${files[@]}" 2>/dev/null | grep -v '^diversion ')

status=0
used=""
for file in "${files[@]}"; do
  owners=${owners_of[$file]:-}
  # A path through a link (merged /usr) is known to dpkg by its target.
  [ -n "$owners" ] || owners=$(dpkg -S "$(readlink -f "$file")" 2>/dev/null | sed -n '1s/: .*//p')
  [ -n "$owners" ] || { echo "FAIL: $file belongs to no package" >&2; status=1; continue; }
  used+="$owners,"
  found=false
  for owner in $(tr ',' ' ' <<<"$owners"); do
    grep -qxF "${owner%%:*}" <<<"$closure" && found=true
  done
  $found || { echo "FAIL: $file is in $owners, not in the main set or its dependencies" >&2; status=1; }
done
# And nothing more: every package of the main set provides one of those
# files itself (a test-only package there would be installed for nothing).
used=$(tr ',' '\n' <<<"$used" | sed 's/^ *//; s/:.*//' | sort -u)
for package in "${main[@]}"; do
  grep -qxF "$package" <<<"$used" ||
    { echo "FAIL: $package is in the main set, but the main build uses no file of it" >&2; status=1; }
done
[ $status -eq 0 ] && echo "main set (${main[*]}) provides all ${#files[@]} files of the main build"
exit $status
