#!/bin/bash
# Makes the Debian package of this build tree (what the package tests
# install and lint) in OUT_DIR, which is emptied first so that exactly one
# .deb is there.
#
# usage: build-deb.sh CPACK CPACK_CONFIG OUT_DIR
set -euo pipefail
cpack=$1
config=$2
out=$3

rm -rf "$out"
mkdir -p "$out"
"$cpack" --config "$config" -G DEB -B "$out"
ls "$out"/*.deb
