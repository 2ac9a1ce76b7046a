# What the trials of the packages share, to be sourced. It makes the folder $work, which goes with the script, as the
# report server does.
work=$(mktemp -d)
server=
cleanup() {
  [[ -z $server ]] || kill "$server" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "$(basename "$0" .sh): $*" >&2
  exit 1
}
same() {
  [[ $2 == "$3" ]] || fail "$1: expected '$3', got '$2'"
}
# Runs a command; what it says is only shown if it fails.
quietly() {
  "$@" >"$work/log" 2>&1 || fail "$*: $(cat "$work/log")"
}

# start_server COMMAND...: a report server on a free port, whose url goes to $url and whose records to $work/stored.
# COMMAND is veldrep, perhaps behind what starts it, but no function: the end would reach only the shell that runs it.
start_server() {
  : >"$work/server.log"  # the server's own may come after the first look
  "$@" serve --listen 127.0.0.1:0 --out "$work/stored" >"$work/server.log" 2>&1 &
  server=$!
  local try
  for ((try = 0; try < 1000; ++try)); do
    url=$(sed -n 's/^listening on //p' "$work/server.log")
    [[ -z $url ]] || return 0
    kill -0 "$server" 2>/dev/null || break
    sleep 0.02
  done
  fail "the server doesn't start: $(cat "$work/server.log")"
}
