#!/usr/bin/env bash
# The built file of the module exports two functions and needs the runtime libraries, and nothing else.
#   library_file_test.sh MODULE_FILE
set -euo pipefail

fail() {
  echo "library_file_test: $*" >&2
  exit 1
}

if [[ $1 == *.dll ]]; then
  headers=$(x86_64-w64-mingw32-objdump -p "$1")
  exported=$(sed -n '/Ordinal.Name Pointer/,/^$/s/.*\[.*[0-9]\] //p' <<<"$headers" | sort | paste -sd ,)
  [[ $exported == "zelCanUnloadModule,zelGetObjectFactory" ]] || fail "it exports $exported"
  needed=$(sed -n 's/.*DLL Name: //p' <<<"$headers" | sort | paste -sd ,)
  [[ $needed == "KERNEL32.dll,msvcrt.dll" ]] || fail "it needs $needed"
  size=$(stat -c %s "$1")
  ((size < 400000)) || fail "it has $size bytes"
  exit
fi

exported=$(nm -D --defined-only "$1" | sed 's/^[^ ]* //' | sort | paste -sd ,)
[[ $exported == "T zelCanUnloadModule,T zelGetObjectFactory" ]] || fail "it exports $exported"

dynamic=$(readelf -dW "$1")
needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic")
[[ -n $needed ]] || fail "readelf lists no library that it needs"
others=$(grep -vE '^(lib(stdc\+\+|m|gcc_s|c|asan|ubsan|tsan)\.so|ld-linux)' <<<"$needed" || true)
[[ -z $others ]] || fail "it needs $others"
