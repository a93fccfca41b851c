#!/usr/bin/env bash
# Builds the three Debian packages (em-oidmap, em-oidmap-tools, em-oidmap-dev) into
# build/package from a Release build installed under /usr, and lists them.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset package >/dev/null
cmake --build --preset package
rm -f build/package/*.deb
(cd build/package && cpack -G DEB >/dev/null)
ls -1 build/package/*.deb
