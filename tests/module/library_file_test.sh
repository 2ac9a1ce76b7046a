#!/usr/bin/env bash
# The built file of the module exports two functions and needs the runtime libraries, and nothing else.
#   library_file_test.sh MODULE_FILE
set -euo pipefail

fail() {
  echo "library_file_test: $*" >&2
  exit 1
}

exported=$(nm -D --defined-only "$1" | sed 's/^[^ ]* //' | sort | paste -sd ,)
[[ $exported == "T zelCanUnloadModule,T zelGetObjectFactory" ]] || fail "it exports $exported"

dynamic=$(readelf -dW "$1")
needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic")
[[ -n $needed ]] || fail "readelf lists no library that it needs"
others=$(grep -vE '^(lib(stdc\+\+|m|gcc_s|c|asan|ubsan|tsan)\.so|ld-linux)' <<<"$needed" || true)
[[ -z $others ]] || fail "it needs $others"
