#!/usr/bin/env bash
# Builds the Debian packages, unpacks them into a scratch root as an integrator's machine
# would have them (dpkg -x, no root rights needed), and checks the result from outside the
# source tree: the installed module exports only its entry points, the example host builds
# against the installed package and gets a translated answer from the installed module,
# the installed emhost plays the installed demo scenario, and lintian (when present)
# finds no error.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build-packages.sh
debs=(build/package/em-oidmap_*.deb build/package/em-oidmap-tools_*.deb
      build/package/em-oidmap-dev_*.deb)

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
for deb in "${debs[@]}"; do
  dpkg -x "$deb" "$root"
done
module=$(find "$root/usr/lib" -name em_oidmap.so)
echo "== installed module: ${module#"$root"}"
sh tests/e2e/check_exports.sh "$module"

# The example host finds the package through its config alone; the module path it gets
# points into the scratch root.
cmake -S examples/host -B "$root/example-host" -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
cmake --build "$root/example-host" -j2 >/dev/null
answer=$("$root/example-host/example_host")
echo "== example host: $answer"
expected='fan 2 -> MID 0x00020001 fan 0: result 1 ST 0x00 DA "psu fan 0" OI 2'
if [ "$answer" != "$expected" ]; then
  echo "example host answered [$answer], want [$expected]"
  exit 1
fi

# The installed tool with the installed module, message files and demo scenario.
"$root/usr/bin/emhost" run --module "$module" --msgdir "$root/usr/share/em-oidmap/msgfiles" \
  --format json "$root/usr/share/em-oidmap-tools/scenarios/demo.json" >"$root/demo.out"
echo "== installed emhost: $(wc -l <"$root/demo.out") answers to the demo"

if command -v lintian >/dev/null; then
  # Warnings are shown and allowed; overrides carry their reason (packaging/).
  if ! findings=$(lintian --fail-on error "${debs[@]}" 2>&1); then
    echo "$findings"
    exit 1
  fi
  grep -v 'running with root privileges' <<<"$findings" || true
  echo "== lintian: no errors"
else
  echo "== lintian not installed: packages not linted"
fi
echo "packages checked"
