#!/usr/bin/env bash
# The zip for Windows, unzipped and used as a stranger would, under Wine, against a report server on this machine.
#   zip_test.sh SOURCE_FOLDER BUILD_FOLDER VELDREP
set -euo pipefail

source=$1
build=$2
target=x86_64-w64-mingw32
. "$(dirname "$0")/../common/delivery_trial.sh"

(cd "$build" && quietly cpack -G ZIP -B "$work/zip")
mkdir "$work/Paket mit Lücke"
(cd "$work/Paket mit Lücke" && quietly cmake -E tar xf "$work"/zip/*.zip)
prefix=$(echo "$work/Paket mit Lücke"/*)

# Of the machine that built it, nothing: the compiler's own paths may stand in texts, but not in what is linked.
same "files with a path of this machine" "$(grep -rlaF -e "$source" -e "$build" -e "$work" "$prefix" || true)" ""
same "files with a path of the compiler" "$(grep -rlaE '/usr/|/build' "$prefix"/{bin,lib,include} || true)" ""
"$source/tests/module/library_file_test.sh" "$prefix/bin/veld_report.dll"
system='advapi32|bcrypt|crypt32|kernel32|msvcrt|normaliz|shell32|user32|winmm|ws2_32'
for file in "$prefix"/bin/*; do
  headers=$($target-objdump -p "$file")
  same "what $file needs" "$(sed -n 's/.*DLL Name: //p' <<<"$headers" | grep -viE "^($system)\.dll$" || true)" ""
  version=$(strings -el "$file" | grep -A1 '^FileVersion$' | tail -n 1)
  [[ $(basename "$prefix") == "veld-report-$version-windows-x86_64" ]] || fail "$file has the version '$version'"
done
exports=$($target-objdump -p "$prefix/bin/veld_report_c.dll" | sed -n 's/^\t\[ *[0-9]*\] \([a-z_A-Z].*\)/\1/p')
same "exports of veld_report_c.dll" "$exports" "$(grep -oE '^  \w+' "$prefix/lib/veld_report_c.def" | xargs -n 1 | sort)"

# The examples as they are in it, by CMake; then as its README.txt says, by pkg-config and from the .def file.
cp -r "$prefix/share/doc/veld_report/examples" "$work/examples"
printf 'cmake_minimum_required(VERSION 3.25)\nproject(examples C CXX)\n' >"$work/examples/CMakeLists.txt"
printf 'add_subdirectory(%s)\n' ten_lines described_record c_program >>"$work/examples/CMakeLists.txt"
quietly cmake -S "$work/examples" -B "$work/made" -DCMAKE_SYSTEM_NAME=Windows -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER=$target-gcc-posix -DCMAKE_CXX_COMPILER=$target-g++-posix -DCMAKE_EXE_LINKER_FLAGS=-static
quietly cmake --build "$work/made"
flags=$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs veld_report_static)
eval "$target-g++-posix -std=c++20 -static '$work/examples/ten_lines/main.cpp' $flags -o '$work/made/one_file.exe'"
$target-dlltool -d "$prefix/lib/veld_report_c.def" -l "$work/imports.a"
$target-gcc-posix -I "$prefix/include" "$work/examples/c_program/main.c" "$work/imports.a" -o "$work/made/by_def.exe"

start_server "$3"

# delivers RECORDS PROGRAM ARGUMENT...
delivers() {
  : >"$work/stored"
  (cd "$work" && rm -rf store && quietly wine "${@:2}")
  same "records of ${*:2}" "$(cat "$work/stored")" "$1"
}
ten_lines='{"version":"4.2.0","startupMs":312,"firstRun":true}'
c_program='{"event":"started","language":"C"}'
delivers "$ten_lines" "$work/made/one_file.exe" store "$url/one"
! (cd "$work" && wine "$work/made/ten_lines/ten_lines.exe" nothing "$url/ten") >"$work/log" 2>&1 || fail "it runs without the module"
grep -q 'Looked in .*ten_lines.*PATH' "$work/log" || fail "it doesn't say where it looked: $(cat "$work/log")"
cp "$prefix/bin/veld_report.dll" "$work/made/ten_lines"
delivers "$ten_lines" "$work/made/ten_lines/ten_lines.exe" store "$url/ten"
export WINEPATH=$prefix/bin
delivers "$c_program" "$work/made/c_program/c_program.exe" store "$url/c"
delivers "$c_program" "$work/made/by_def.exe" store "$url/c"
quietly wine "$work/made/described_record/described_record.exe" "$work/store" "$url/orders"
echo '{"a":"ü"}' >"$work/record"
delivers '{"a":"ü"}' "$prefix/bin/veldrep.exe" send --store store --url "$url/program" record
echo "zip_test: unzipped, built against and run"
