#!/bin/sh
# `qxgroup add --on-duplicate=ask` on a real /dev/tty (tmux): the refusal box and SIGTERM
# mid-prompt leave the terminal in normal mode and the group as it was. Keys: ui_test; answers:
# tests/cli/duplicate_prompt.sh.   terminal_prompt_check.sh QXGROUP SOURCE_DIR; skipped without tmux.
set -u
qx=$1 src=$2
command -v tmux >/dev/null 2>&1 || { echo "terminal_prompt_check: tmux not installed, skipped"; exit 0; }
work=$(mktemp -d) sock="qxprompt$$" failures=0
trap 'tmux -L "$sock" kill-server 2>/dev/null; rm -rf "$work"' EXIT INT TERM
wait_until() { i=0; until "$@"; do [ $i -ge 50 ] && return 1; sleep 0.1; i=$((i + 1)); done; }
screen_shows() { tmux -L "$sock" capture-pane -p -t "$1" 2>/dev/null | grep -qF -- "$2"; }
fail() { echo "FAIL $1: $2"; [ -f "$3" ] && sed 's/^/    | /' "$3"; failures=$((failures + 1)); }

# run_case NAME FILE MARKER KEYS STATUS: adds FILE to a group holding prog1.map, waits for
# MARKER, then sends KEYS (tmux send-keys arguments) or SIGTERM for "killed".
run_case() {
  name=$1 file=$2 marker=$3 keys=$4 want=$5 before=$failures dir="$work/$1"
  mkdir -p "$dir" && "$qx" create "$dir/g.mag" "$src/samples/prog1.map" || exit 1
  cp "$dir/g.mag" "$dir/before.mag"
  tmux -L "$sock" new-session -d -s "$name" -x 100 -y 30 \
    "sh -c 'echo \$\$ >\"$dir/pid\"; exec \"$qx\" add \"$dir/g.mag\" \"$file\" --on-duplicate=ask' \
     2>'$dir/err'; echo \$? >'$dir/status'; stty -a >'$dir/stty'; sleep 60"
  wait_until screen_shows "$name" "$marker" || { tmux -L "$sock" capture-pane -p -t "$name" >"$dir/screen"
    fail "$name" "prompt did not appear" "$dir/screen"; return; }
  # shellcheck disable=SC2086
  if [ "$keys" = killed ]; then kill -TERM "$(cat "$dir/pid")"; else tmux -L "$sock" send-keys -t "$name" $keys; fi
  wait_until [ -s "$dir/status" ] || { fail "$name" "no answer after the keys" "$dir/err"; return; }
  [ "$(cat "$dir/status")" = "$want" ] || fail "$name" "status $(cat "$dir/status") (want $want)" "$dir/err"
  cmp -s "$dir/g.mag" "$dir/before.mag" || fail "$name" "the group changed" ""
  ! grep -qE '(^| )-(icanon|echo)( |$)' "$dir/stty" || fail "$name" "terminal left in raw mode" "$dir/stty"
  tmux -L "$sock" kill-session -t "$name" 2>/dev/null
  [ "$failures" -eq "$before" ] && echo "ok   $name"
}

run_case message_box "$src/samples/Hello.kdk" "<OK>" Enter 1
run_case sigterm "$src/samples/prog1.map" Cancel killed 143
[ $failures -eq 0 ] || { echo "terminal_prompt_check: $failures failed"; exit 1; }
echo "terminal_prompt_check: all passed"
