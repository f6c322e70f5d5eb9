#!/bin/sh
# The terminal prompt on a real /dev/tty (tmux): answer, screen text and normal mode afterwards,
# also after SIGTERM. Usage: terminal_prompt_check.sh [test_resources]; skipped without tmux.
set -u

if ! command -v tmux >/dev/null 2>&1; then
  echo "terminal_prompt_check: tmux not installed, skipped"
  exit 0
fi

root=$(cd "$(dirname "$0")/../.." && pwd)
bin=${1:-}
if [ -z "$bin" ]; then
  bin=$(ls -t "$root"/build*/tests/test_resources 2>/dev/null | head -n 1)
fi
if [ -z "$bin" ] || [ ! -x "$bin" ]; then
  echo "terminal_prompt_check: test_resources not found; build it or pass its path" >&2
  exit 1
fi

work=$(mktemp -d)
sock="qxprompt$$"
failures=0
trap 'tmux -L "$sock" kill-server 2>/dev/null; rm -rf "$work"' EXIT INT TERM

# Runs a check until it holds, for up to 5 s.
wait_until() {
  i=0
  until "$@"; do
    [ $i -ge 50 ] && return 1
    sleep 0.1
    i=$((i + 1))
  done
}

screen_shows() { tmux -L "$sock" capture-pane -p -t "$1" 2>/dev/null | grep -qF -- "$2"; }

fail() {
  echo "FAIL $1: $2"
  [ -f "$3" ] && sed 's/^/    | /' "$3"
  failures=$((failures + 1))
}

# run_case NAME MODE KEYS EXPECTED: keys are tmux send-keys arguments; EXPECTED is the
# printed result, or "killed" to send SIGTERM instead of keys.
run_case() {
  name=$1 mode=$2 keys=$3 expected=$4
  before=$failures
  dir="$work/$name"
  mkdir -p "$dir"
  session="p$(echo "$name" | tr -c 'a-zA-Z0-9\n' '_')"
  tmux -L "$sock" new-session -d -s "$session" -x 100 -y 30 \
    "QX_PROMPT_MODE=$mode QX_PROMPT_PIDFILE='$dir/pid' '$bin' --gtest_also_run_disabled_tests \
     --gtest_filter='*TerminalPromptDriver*' >'$dir/out' 2>&1; stty -a >'$dir/stty'; \
     touch '$dir/done'; sleep 60"
  if [ "$mode" = message ]; then marker="<OK>"; else marker="Cancel"; fi
  if ! wait_until screen_shows "$session" "$marker"; then
    tmux -L "$sock" capture-pane -p -t "$session" >"$dir/screen" 2>/dev/null
    fail "$name" "prompt did not appear" "$dir/screen"
    tmux -L "$sock" kill-session -t "$session" 2>/dev/null
    return
  fi
  tmux -L "$sock" capture-pane -p -t "$session" >"$dir/screen"
  if [ "$expected" = killed ]; then
    kill -TERM "$(cat "$dir/pid")"
  else
    # shellcheck disable=SC2086
    tmux -L "$sock" send-keys -t "$session" $keys
  fi
  if ! wait_until [ -e "$dir/done" ]; then
    fail "$name" "no answer after the keys" "$dir/screen"
    tmux -L "$sock" kill-session -t "$session" 2>/dev/null
    return
  fi
  if [ "$expected" = killed ]; then
    if grep -q 'result=' "$dir/out"; then fail "$name" "the prompt survived SIGTERM" "$dir/out"; fi
  elif ! grep -qx "result=$expected" "$dir/out"; then
    fail "$name" "expected result=$expected" "$dir/out"
  fi
  if grep -qE '(^| )-(icanon|echo)( |$)' "$dir/stty"; then
    fail "$name" "terminal left in raw mode" "$dir/stty"
  fi
  if [ "$mode" = dialog ] && ! grep -qF '<[R]eplace>  Replace [A]ll  [S]kip  Cancel' "$dir/screen"; then
    fail "$name" "buttons not shown as expected" "$dir/screen"
  fi
  if [ "$mode" = dialog ] && ! grep -qF 'PROG%1.kdp already exists in this group file.' "$dir/screen"; then
    fail "$name" "message text not shown as expected" "$dir/screen"
  fi
  tmux -L "$sock" kill-session -t "$session" 2>/dev/null
  [ "$failures" -eq "$before" ] && echo "ok   $name"
}

# Every key kind is covered on a pty by ui_test.cpp; here the controlling terminal itself.
run_case enter dialog "Enter" 1
run_case other_key_ignored dialog "x Up S" 3
run_case message_box message "Enter" 1
run_case sigterm dialog "" killed

if [ $failures -ne 0 ]; then
  echo "terminal_prompt_check: $failures failed"
  exit 1
fi
echo "terminal_prompt_check: all passed"
