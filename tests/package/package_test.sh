#!/usr/bin/env bash
# What is installed, used as a stranger would: with an empty environment, in clean folders, from a prefix outside the
# system's folders, with CMake and with pkg-config, with g++ and clang, as a part of another project, moved, and from
# the .deb packages, whose man pages and completions are looked at.
#   package_test.sh SOURCE_FOLDER BUILD_FOLDER C++_COMPILER
set -euo pipefail

source=$1
build=$2
compiler=$3
. "$(dirname "$0")/../common/delivery_trial.sh"
prefix=$work/prefix

# Runs a command in an empty environment; what it says is only shown if it fails.
clean() {
  env -i PATH="$PATH" HOME="$HOME" CCACHE_BASEDIR="$source" CCACHE_NOHASHDIR=1 ${CCACHE_DIR:+CCACHE_DIR="$CCACHE_DIR"} \
    "$@" >"$work/log" 2>&1 || fail "$*: $(cat "$work/log")"
}
warnings="-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror"

install_prefix() {
  clean cmake --install "$build" --prefix "$prefix"
  # Neither the machine that built it nor the folder that it is in may be known to it.
  same "files with a path of this machine" "$(grep -rlF -e "$source" -e "$build" -e "$prefix" "$prefix" || true)" ""
  local page link
  while IFS=: read -r page link; do
    [[ -e $(dirname "$page")/$link ]] || fail "$page: the link to $link leads nowhere"
  done < <(cd / && grep -roE '[^[]\]\([A-Za-z./_-]+' --include='*.md' "$prefix" | sed -E 's/:.]\(/:/' | grep -v ':https?$')
  [[ -f $prefix/share/doc/veld_report/html/index.html ]] || ! type doxygen >/dev/null 2>&1 || fail "the reference is missing"
}

# The installed examples as one project, from a copy: build_examples FOLDER C_COMPILER C++_COMPILER FLAGS
build_examples() {
  cp -r "$prefix/share/doc/veld_report/examples" "$work/$1"
  printf 'cmake_minimum_required(VERSION 3.25)\nproject(examples C CXX)\n' >"$work/$1/CMakeLists.txt"
  printf 'add_subdirectory(%s)\n' ten_lines described_record own_host c_program tls >>"$work/$1/CMakeLists.txt"
  clean cmake -S "$work/$1" -B "$work/$1" -DCMAKE_C_COMPILER="$2" -DCMAKE_CXX_COMPILER="$3" \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$warnings" -DCMAKE_CXX_FLAGS="$warnings $4" \
    -DCMAKE_NO_SYSTEM_FROM_IMPORTED=ON
  clean cmake --build "$work/$1"
}

# delivers RECORDS PROGRAM ARGUMENT...: run with an empty environment, it delivers these records.
delivers() {
  : >"$work/stored"
  rm -rf "$work/store"
  (cd / && env -i "${@:2}" >"$work/output" 2>&1) || fail "${*:2} ended with $?: $(cat "$work/output")"
  same "records of ${*:2}" "$(cat "$work/stored")" "$1"
}
ten_lines='{"version":"4.2.0","startupMs":312,"firstRun":true}'
c_program='{"event":"started","language":"C"}'

run_examples() {
  delivers "$ten_lines" "$1/ten_lines/ten_lines" "$work/store" "$url/ten"
  delivers "$c_program" "$1/c_program/c_program" "$work/store" "$url/c"
  delivers '{"event":"started"}' "$1/tls/tls" "$work/store" "$url/tls"
  delivers $'{"text":"one"}\n{"text":"two \\"2\\""}' \
    "$1/own_host/own_host" "$prefix/lib/libveld_report.so" "$url/own" one 'two "2"'
  same "output of own_host" "$(cat "$work/output")" "submitted 2, delivered 2"
  delivers '{"order_number":4711,"channel":1,"lines":[{"article":"Gewürzregal","count":1,"price":39.9},{"article":"Dübel 6 mm","count":20,"price":0.05}],"tags":["new customer"],"extra":{"ab_test":{"checkout":"b"}}}
{"event":"checkout","steps":3}' "$1/described_record/described_record" "$work/store" "$url/orders"
  same "output of described_record" "$(tail -n 1 "$work/output")" "accepted 2, delivered 2, waiting 0"
}

# by_pkg_config PACKAGE COMPILER ARGUMENT...
by_pkg_config() {
  local flags
  flags=$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs "$1") || fail "pkg-config has no $1"
  # shellcheck disable=SC2086  # the flags are words
  clean "${@:2}" $warnings $flags -o "$work/$1"
}

check_pkg_config() {
  local examples=$prefix/share/doc/veld_report/examples
  by_pkg_config veld_report clang++-14 -std=c++20 "$examples/ten_lines/main.cpp"
  delivers "$ten_lines" "$work/veld_report" "$work/store" "$url/ten"
  by_pkg_config veld_report_c clang-14 "$examples/c_program/main.c"
  delivers "$c_program" "$work/veld_report_c" "$work/store" "$url/c"
  by_pkg_config veld_report_static "$compiler" -std=c++20 "$examples/ten_lines/main.cpp"
  same "what g++ says to C++17" "$("$compiler" -std=c++17 -fsyntax-only -I "$prefix/include" "$examples/ten_lines/main.cpp" 2>&1 |
    grep -c 'error:.*veld_report needs C++20')" 2
}

# The installation is gone: a program with the module in it needs nothing else, others need the module beside them.
check_moved() {
  mv "$prefix" "$work/away"
  delivers "$ten_lines" "$work/veld_report_static" "$work/store" "$url/ten"
  mkdir -p "$work/moved/bin" "$work/moved/lib"
  cp "$work/gcc/ten_lines/ten_lines" "$work/moved/bin"
  ! (cd / && env -i "$work/moved/bin/ten_lines" "$work/nothing" "$url/ten") >"$work/output" 2>&1 || fail "it runs without the module"
  grep -q "$work/moved/lib.*loader" "$work/output" || fail "it doesn't say where it looked: $(cat "$work/output")"
  [[ ! -e $work/nothing ]] || fail "a failed start leaves $(ls "$work/nothing")"
  cp "$work/away/lib/libveld_report.so" "$work/moved/lib"
  delivers "$ten_lines" "$work/moved/bin/ten_lines" "$work/store" "$url/ten"
  mv "$work/away" "$prefix"
}

# As a part of another project, which wants the libraries only.
check_subproject() {
  local fetch
  # The lines of the page.
  fetch=$(sed -n '/^include(FetchContent)$/,/^```$/{/^```$/!p}' "$source/docs/getting-started.md")
  [[ $fetch == *MakeAvailable* ]] || fail "getting-started.md doesn't show how to be a part of a project any more"
  mkdir "$work/parent"
  cp "$prefix/share/doc/veld_report/examples/ten_lines/main.cpp" "$work/parent"
  cat >"$work/parent/CMakeLists.txt" <<EOF
cmake_minimum_required(VERSION 3.25)
project(parent C CXX)
${fetch//\/the\/folder\/of\/this\/project/$source}
foreach(kit IN ITEMS host host_static)
  add_executable(with_\${kit} main.cpp)
  target_compile_options(with_\${kit} PRIVATE $warnings)
  target_link_libraries(with_\${kit} PRIVATE veld_report::\${kit})
endforeach()
add_custom_target(own DEPENDS with_host with_host_static)
EOF
  # With the flags of the build, so that ccache has the objects.
  clean cmake -S "$work/parent" -B "$work/parent/build" -DCMAKE_CXX_COMPILER="$compiler" -DVELD_WERROR=ON \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE=-O2 -DCMAKE_CXX_COMPILER_LAUNCHER="$(type -P ccache || true)"
  clean cmake --build "$work/parent/build" --target own
  same "programs of the subproject" "$(find "$work/parent/build" -name veldrep)" ""
  delivers "$ten_lines" "$work/parent/build/with_host" "$work/store" "$url/ten"
  delivers "$ten_lines" "$work/parent/build/with_host_static" "$work/store" "$url/ten"
}

root=$work/root
service_files="etc/veld-report/server.toml usr/lib/systemd/system/veld-report-server.service usr/lib/systemd/system/veld-report-server.socket usr/share/man/man8/veld-report-server.8"
as_root() { dpkg --root="$root" --log=/dev/null --force-not-root --force-depends --force-script-chrootless "$@"; }
files_of_packages() { find "$root" -mindepth 1 -path "$root/var" -prune -o ! -type d -print; }

install_packages() {
  (cd "$build" && cpack -G DEB -B "$work/packages" >"$work/cpack.log") || fail "cpack: $(cat "$work/cpack.log")"
  mkdir -p "$root"/var/lib/dpkg/{info,updates,triggers}
  touch "$root/var/lib/dpkg/status"
  # The dependencies are this machine's own, which the clean root knows nothing of.
  as_root -i "$work"/packages/*.deb >"$work/dpkg.log" 2>&1 || fail "dpkg -i: $(cat "$work/dpkg.log")"
  same "files of the service" "$(cd "$root" && ls etc/*/* usr/lib/systemd/system/* usr/share/man/man8/* | xargs)" "$service_files"
  same "configuration files of the service" "$(as_root -s veld-report-server | sed -n '/^Conffiles/,/^[^ ]/s/^ \([^ ]*\) .*/\1/p')" "/etc/veld-report/server.toml"
  same "files in the other packages" "$(cd "$root/usr" && find . ! -type d ! -path './lib/systemd/*' ! -path '*/man8/*' | sort)" \
    "$(cd "$prefix" && find . ! -type d | sort)"
  prefix=$root/usr
  ! grep -r rpath "$prefix/lib/pkgconfig" || fail "a package of the system sets a RUNPATH"
  echo '{"a":1}' >"$work/record"
  delivers '{"a":1}' "$prefix/bin/veldrep" send --store "$work/store" --url "$url/deb" "$work/record"
}

# The installed pages as a reader would follow them.
run_pages() {
  local page
  for page in getting-started security; do
    clean PATH="$prefix/bin:$PATH" CMAKE_PREFIX_PATH="$prefix" PKG_CONFIG_PATH="$prefix/lib/pkgconfig" "$@" \
      "$source/scripts/run-page" "$prefix/share/doc/veld_report/docs/$page.md"
  done
}

long_options() { grep -oE -- '--[a-z][a-z-]+' | sort -u; }
# commands_of COMMAND...: the commands that it names in its help.
commands_of() { "$@" --help | sed -n '/^Subcommands:/,/^[^ ]/s/^  \([a-z][a-z-]*\).*/\1/p'; }

# All options of a command and of the commands below it.
options_of() {
  local part
  "$@" --help | sed '/^Example/,$d' | grep -E '^ +-' | long_options
  for part in $(commands_of "$@"); do options_of "$@" "$part"; done
}

# The options that a man page explains: the lines behind .TP in the section of options.
options_in_page() {
  sed 's/\\-/-/g' "$1" | sed -n '/^.SH OPTIONS/,/^.SH EXIT/p' | grep -A1 '^.TP' | long_options
}

check_versions() {
  same "veldrep --version" "$("$prefix/bin/veldrep" --version)" \
    "veldrep $(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --modversion veld_report)"
}

has_example() {
  "$prefix/bin/veldrep" "$@" --help | grep "^Example: veldrep $1" >/dev/null || fail "veldrep $* --help has no example"
}

# Every command and option that the program knows is in its man page, and nothing else is.
check_man_pages() {
  local command commands page part
  commands=$(commands_of "$prefix/bin/veldrep")
  [[ -n $commands ]] || fail "veldrep --help names no commands"
  for command in $commands; do
    page=$prefix/share/man/man1/veldrep-$command.1
    [[ -f $page ]] || fail "veldrep $command has no man page"
    same "options in $(basename "$page")" "$(options_in_page "$page" | xargs)" \
      "$(options_of "$prefix/bin/veldrep" "$command" | sort -u | xargs)"
    for part in $(commands_of "$prefix/bin/veldrep" "$command"); do
      grep -qw "$part" "$page" || fail "$(basename "$page") doesn't name $part"
      has_example "$command" "$part"
    done
    has_example "$command"
    grep -q "veldrep.*-$command" "$prefix/share/man/man1/veldrep.1" || fail "veldrep.1 doesn't name $command"
  done
}

# The example of a configuration is one that serve takes, and shows every option and each default that is a number.
check_configuration() {
  local example=$root/etc/veld-report/server.toml
  same "options in $(basename "$example")" "$(sed -nE 's/^(# )?([a-z-]+) = .*/--\2/p' "$example" | sort -u | xargs)" \
    "$(options_of "$prefix/bin/veldrep" serve | grep -vE '^--(help|config|check-config)$' | sort -u | xargs)"
  same "defaults in $(basename "$example")" "$(sed -nE 's/^# ([a-z-]+) = ([0-9]+).*/--\1=\2/p' "$example" | sort | xargs)" \
    "$("$prefix/bin/veldrep" serve --help | sed -nE 's/^ *(--[a-z-]+) [^ ]*=([0-9]+)( .*)?$/\1=\2/p' | sort | xargs)"
  same "check of $(basename "$example")" "$(cd "$work" && "$prefix/bin/veldrep" serve --config "$example" --check-config 2>&1)" good
}

# The units as systemd reads them, without the system's own, and how far their sandbox goes: below 10 of 100 is "safe".
check_units() {
  local unit=$prefix/lib/systemd/system/veld-report-server.service
  same "what systemd says to the units" "$(systemd-analyze verify --root="$root" --man=no "$unit" "${unit%service}socket" 2>&1 | grep -E ':[0-9]+: |/usr/bin/veldrep' || true)" ""
  systemd-analyze security --offline=yes --threshold=9 --no-pager "$unit" >"$work/log" || fail "the sandbox: $(tail -n 1 "$work/log")"
}

complete_words() (
  # shellcheck disable=SC1091
  source "$prefix/share/bash-completion/completions/veldrep"
  COMP_WORDS=("$prefix/bin/veldrep" "$@")
  COMP_CWORD=$#
  _veldrep
  printf '%s\n' "${COMPREPLY[@]}" | sort | xargs
)

check_completion() {
  same "completion of ke" "$(complete_words ke)" keygen
  same "completion of serve --c" "$(complete_words serve --c)" \
    "--capture --certificate --certificate-key --check-config --config --connections"
  same "completion of queues --store x pe" "$(complete_words queues --store x pe)" peek
  same "completion of queues clear --" "$(complete_words queues clear --)" "--all --help --json --store"
}

remove_packages() {
  as_root --purge veld-report-dev veld-report-server veld-report >"$work/dpkg.log" 2>&1 || fail "dpkg --purge: $(cat "$work/dpkg.log")"
  same "what the removed packages leave behind" "$(files_of_packages)" ""
}

install_prefix
build_examples gcc cc "$compiler" ""
build_examples clang clang-14 clang++-14 -D_GLIBCXX_DEBUG
run_pages
start_server "$prefix/bin/veldrep"
run_examples "$work/gcc"
run_examples "$work/clang"
check_pkg_config
check_moved
check_subproject
install_packages
run_pages LD_LIBRARY_PATH="$prefix/lib"
check_versions
check_man_pages
check_configuration
check_units
check_completion
remove_packages
echo "package_test: installed, used and removed"
