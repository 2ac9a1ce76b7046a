#!/usr/bin/env bash
# The .deb packages for another architecture: their fields, and what is in them, unpacked, built against and run.
#   cross_package_test.sh BUILD_FOLDER SYSTEM_ROOT ARCHITECTURE TOOLCHAIN_FILE EMULATOR...
set -euo pipefail

build=$1 system=$2 architecture=$3 toolchain=$4
emulator=("${@:5}")
. "$(dirname "$0")/../common/delivery_trial.sh"
run() { env -i PATH="$PATH" "${emulator[@]}" "$@"; }

(cd "$build" && quietly cpack -G DEB -B "$work")
root=$work/root
for package in "$work"/veld-report_*.deb "$work"/veld-report-dev_*.deb; do
  [[ $(dpkg-deb -f "$package" Architecture) == "$architecture" ]] || fail "$package is for another architecture"
  dpkg-deb -x "$package" "$root"
done

# The package of every library that is needed is among the dependencies; cpack passes over one that it doesn't find.
depends=$(dpkg-deb -f "$work"/veld-report_*.deb Depends)
for library in $(readelf -d "$root"/usr/bin/veldrep "$root"/usr/lib/*.so | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort -u); do
  owner=$(dpkg-query --admindir="$system/var/lib/dpkg" -S "$system/usr/lib/*/$library" | sed 's/:.*//;q' || true)
  [[ -n $owner && $depends == *"$owner "* ]] || fail "$library of '$owner' isn't among the dependencies: $depends"
done

version=$(run "$root/usr/bin/veldrep" --version)
[[ $version == "veldrep $(dpkg-deb -f "$work"/veld-report_*.deb Version)" ]] || fail "its version is '$version'"

start_server env -i PATH="$PATH" "${emulator[@]}" "$root/usr/bin/veldrep"

quietly cmake -G Ninja -S "$root/usr/share/doc/veld_report/examples/ten_lines" -B "$work/ten_lines" \
  -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_FIND_ROOT_PATH="$root"
quietly cmake --build "$work/ten_lines"
quietly run "$work/ten_lines/ten_lines" "$work/store" "$url/ten"
[[ $(cat "$work/stored") == '{"version":"4.2.0","startupMs":312,"firstRun":true}' ]] ||
  fail "the record didn't arrive: $(cat "$work/stored")"
echo "cross_package_test: unpacked, built against, delivered"
