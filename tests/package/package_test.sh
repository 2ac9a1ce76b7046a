#!/usr/bin/env bash
# Builds the .deb packages, installs them into a clean root with dpkg, builds and runs the three examples
# against what is installed there, looks at the program's man pages and completions, and removes it all again.
#   package_test.sh BUILD_FOLDER C++_COMPILER
set -euo pipefail

build=$1
compiler=$2
work=$(mktemp -d)
server=
cleanup() {
  [[ -z $server ]] || kill "$server" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "package_test: $*" >&2
  exit 1
}
same() {
  [[ $2 == "$3" ]] || fail "$1: expected '$3', got '$2'"
}

root=$work/root
prefix=$root/usr
as_root() { dpkg --root="$root" --log=/dev/null --force-not-root --force-depends --force-script-chrootless "$@"; }
files_of_packages() { find "$root" -mindepth 1 -path "$root/var" -prune -o ! -type d -print; }

install_packages() {
  (cd "$build" && cpack -G DEB -B "$work/packages" >"$work/cpack.log") || fail "cpack: $(cat "$work/cpack.log")"
  mkdir -p "$root"/var/lib/dpkg/{info,updates,triggers}
  touch "$root/var/lib/dpkg/status"
  # The dependencies are this machine's own, which the clean root knows nothing of.
  as_root -i "$work"/packages/*.deb >"$work/dpkg.log" 2>&1 || fail "dpkg -i: $(cat "$work/dpkg.log")"
  [[ -f $prefix/lib/libveld_report.so && -x $prefix/bin/veldrep ]] || fail "the packages lack the module or the program"
}

build_example() {
  local name=$1
  # From a copy, so that nothing of the source tree can be found from there.
  cp -r "$prefix/share/doc/veld_report/examples/$name" "$work/$name"
  {
    cmake -G Ninja -S "$work/$name" -B "$work/$name/build" -DCMAKE_CXX_COMPILER="$compiler" \
      -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror"
    cmake --build "$work/$name/build"
  } >"$work/$name.log" 2>&1 || fail "$name: $(cat "$work/$name.log")"
}

start_server() {
  "$prefix/bin/veldrep" serve --listen 127.0.0.1:0 --out "$work/stored" >"$work/server.log" 2>&1 &
  server=$!
  local try
  for ((try = 0; try < 500; ++try)); do
    url=$(sed -n 's/^listening on //p' "$work/server.log")
    [[ -z $url ]] || return 0
    kill -0 "$server" 2>/dev/null || break
    sleep 0.02
  done
  fail "the server doesn't start: $(cat "$work/server.log")"
}

run_examples() {
  # The module stands in the root's library folder, where only this makes the loader look.
  export LD_LIBRARY_PATH=$prefix/lib
  "$work/ten_lines/build/ten_lines" "$work/store1" "$url/ten" || fail "ten_lines ended with $?"
  same "records of ten_lines" "$(cat "$work/stored")" '{"version":"4.2.0","startupMs":312,"firstRun":true}'

  : >"$work/stored"
  local output
  output=$("$work/described_record/build/described_record" "$work/store2" "$url/orders") ||
    fail "described_record ended with $?"
  same "output of described_record" "$(tail -n 1 <<<"$output")" "accepted 2, delivered 2, waiting 0"
  same "records of described_record" "$(cat "$work/stored")" \
    '{"order_number":4711,"channel":1,"lines":[{"article":"Gewürzregal","count":1,"price":39.9},{"article":"Dübel 6 mm","count":20,"price":0.05}],"tags":["new customer"],"extra":{"ab_test":{"checkout":"b"}}}
{"event":"checkout","steps":3}'

  : >"$work/stored"
  output=$("$work/own_host/build/own_host" "$prefix/lib/libveld_report.so" "$url/own" one 'two "2"') ||
    fail "own_host ended with $?"
  same "output of own_host" "$output" "submitted 2, delivered 2"
  same "records of own_host" "$(cat "$work/stored")" $'{"text":"one"}\n{"text":"two \\"2\\""}'
  unset LD_LIBRARY_PATH
}

check_pkg_config() {
  local flags
  flags=$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs veld_report) || fail "pkg-config has no veld_report"
  # shellcheck disable=SC2086  # the flags are words
  "$compiler" -std=c++20 "$work/ten_lines/main.cpp" $flags -o "$work/by_pkg_config" || fail "no build by pkg-config"
  same "the module's place by pkg-config" \
    "$(realpath "$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --variable=module veld_report)")" \
    "$(realpath "$prefix/lib/libveld_report.so")"
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
  same "completion of serve --lis" "$(complete_words serve --lis)" --listen
  same "completion of queues --store x pe" "$(complete_words queues --store x pe)" peek
  same "completion of queues clear --" "$(complete_words queues clear --)" "--all --help --json --store"
}

remove_packages() {
  as_root --purge veld-report-dev veld-report >"$work/dpkg.log" 2>&1 || fail "dpkg --purge: $(cat "$work/dpkg.log")"
  same "what the removed packages leave behind" "$(files_of_packages)" ""
}

install_packages
for example in ten_lines described_record own_host; do build_example "$example"; done
start_server
run_examples
check_pkg_config
check_man_pages
check_completion
remove_packages
echo "package_test: installed, used and removed"
