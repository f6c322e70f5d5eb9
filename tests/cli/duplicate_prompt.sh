#!/usr/bin/env bash
# `qxgroup add --on-duplicate=ask`, and the question `get` asks about an existing file, in a
# real terminal: runs it inside a detached tmux session,
# reads the question off the screen, presses keys and checks what became of the group.
#   duplicate_prompt.sh QXGROUP SOURCE_DIR
set -u
qx=$1
src=$2
if ! command -v tmux >/dev/null 2>&1; then
  echo "duplicate_prompt: tmux not installed, skipped"
  exit 0
fi
work=$(mktemp -d)
export TMPDIR=$work/tmp  # what a killed command leaves in the private folder goes with $work
mkdir "$TMPDIR"
sock="qxdup$$"
trap 'tmux -L "$sock" kill-server 2>/dev/null; rm -rf "$work"' EXIT INT TERM
failures=0

wait_until() {
  local i=0
  until "$@"; do
    [ $i -ge 50 ] && return 1
    sleep 0.1
    i=$((i + 1))
  done
}
screen() { tmux -L "$sock" capture-pane -p -t "$1" 2>/dev/null; }
screen_shows() { screen "$1" | grep -qF -- "$2"; }

# Same variable name as the group's member, other data: a replacement changes the group.
mkdir -p "$work/new"
python3 - "$src/samples/prog1.map" "$work/new/prog1.map" <<'PY'
import sys
data = bytearray(open(sys.argv[1], 'rb').read())
data[-1] ^= 0x55
open(sys.argv[2], 'wb').write(data)
PY

# run_case NAME KEYS STATUS CHANGED: CHANGED is yes when the member must have been replaced.
run_case() {
  local name=$1 keys=$2 want=$3 changed=$4
  local dir="$work/$name" before=$failures
  mkdir -p "$dir"
  "$qx" create "$dir/g.mag" "$src/samples/prog1.map" "$src/samples/greeting.mas" || exit 1
  cp "$dir/g.mag" "$dir/before.mag"
  tmux -L "$sock" new-session -d -s "$name" -x 100 -y 30 \
    "'$qx' add '$dir/g.mag' '$work/new/prog1.map' --on-duplicate=ask 2>'$dir/err'; \
     echo \$? >'$dir/status'; stty -a >'$dir/stty'; sleep 60"
  if ! wait_until screen_shows "$name" "Cancel"; then
    echo "FAIL $name: no prompt appeared"; screen "$name" | sed 's/^/    | /'
    failures=$((failures + 1)); return
  fi
  screen "$name" >"$dir/screen"
  # shellcheck disable=SC2086
  tmux -L "$sock" send-keys -t "$name" $keys
  if ! wait_until [ -s "$dir/status" ]; then
    echo "FAIL $name: no answer after the keys"; failures=$((failures + 1)); return
  fi
  local got
  got=$(cat "$dir/status")
  [ "$got" = "$want" ] || { echo "FAIL $name: status $got (want $want)"; failures=$((failures + 1)); }
  if cmp -s "$dir/g.mag" "$dir/before.mag"; then local now=no; else local now=yes; fi
  [ "$now" = "$changed" ] || { echo "FAIL $name: group changed=$now (want $changed)"; failures=$((failures + 1)); }
  grep -qF 'Duplicate File Found' "$dir/screen" ||
    { echo "FAIL $name: caption missing"; failures=$((failures + 1)); }
  grep -qF 'prog1.map already exists in this group file.  What would you like to do?' "$dir/screen" ||
    { echo "FAIL $name: question missing"; failures=$((failures + 1)); }
  grep -qF '<[R]eplace>  Replace [A]ll  [S]kip  Cancel' "$dir/screen" ||
    { echo "FAIL $name: buttons missing"; failures=$((failures + 1)); }
  if [ "$want" = 3 ] && ! grep -qF 'not added to' "$dir/err"; then
    echo "FAIL $name: no warning naming the file"; failures=$((failures + 1))
  fi
  if grep -qE '(^| )-(icanon|echo)( |$)' "$dir/stty"; then
    echo "FAIL $name: terminal left in raw mode"; failures=$((failures + 1))
  fi
  tmux -L "$sock" kill-session -t "$name" 2>/dev/null
  [ $failures -eq "$before" ] && echo "ok   $name"
}

run_case enter Enter 0 yes
run_case replace r 0 yes
run_case replace_all a 0 yes
run_case skip s 3 no
run_case escape Escape 3 no

# get onto an existing file, on a terminal without -o or -n: asked, Skip the default. KEYS
# "kill": extract instead, killed while it asks; the group and the folder stay as they were.
# overwrite_case NAME KEYS REPLACED
overwrite_case() {
  local name=$1 keys=$2 replaced=$3
  local dir="$work/$name" before=$failures
  mkdir -p "$dir"
  echo mine >"$dir/main.PROG1.map"; cp "$dir/main.PROG1.map" "$dir/mine"
  cp "$src/samples/school.mag" "$dir/g.mag"
  local cmd=get; [ "$keys" = kill ] && cmd=extract
  tmux -L "$sock" new-session -d -s "$name" -x 100 -y 30 \
    "'$qx' $cmd '$dir/g.mag' main.PROG1.map -C '$dir' 2>'$dir/err'; \
     echo \$? >'$dir/status'; sleep 60"
  if ! wait_until screen_shows "$name" "Cancel"; then
    echo "FAIL $name: no question appeared"; screen "$name" | sed 's/^/    | /'
    failures=$((failures + 1)); return
  fi
  screen "$name" >"$dir/screen"
  if [ "$keys" = kill ]; then
    pkill -KILL -P "$(tmux -L "$sock" display -p -t "$name" '#{pane_pid}')"
  else
    # shellcheck disable=SC2086
    tmux -L "$sock" send-keys -t "$name" $keys
  fi
  if ! wait_until [ -s "$dir/status" ]; then
    echo "FAIL $name: no answer after the keys"; failures=$((failures + 1)); return
  fi
  [ "$(cat "$dir/status")" = "$([ "$keys" = kill ] && echo 137 || echo 0)" ] ||
    { echo "FAIL $name: status $(cat "$dir/status")"; failures=$((failures + 1)); }
  cmp -s "$dir/g.mag" "$src/samples/school.mag" || { echo "FAIL $name: group changed"; failures=$((failures + 1)); }
  if cmp -s "$dir/main.PROG1.map" "$dir/mine"; then local now=no; else local now=yes; fi
  [ "$now" = "$replaced" ] || { echo "FAIL $name: replaced=$now (want $replaced)"; failures=$((failures + 1)); }
  grep -qF 'File Exists' "$dir/screen" && grep -qF \
    'main.PROG1.map already exists in this folder.  What would you like to do?' "$dir/screen" &&
    grep -qF '[O]verwrite  Overwrite [A]ll <[S]kip>  Cancel' "$dir/screen" ||
    { echo "FAIL $name: question not as expected"; sed 's/^/    | /' "$dir/screen"; failures=$((failures + 1)); }
  ls -a "$dir" | grep -q '^\.qxgroup-' && { echo "FAIL $name: staging folder left"; failures=$((failures + 1)); }
  tmux -L "$sock" kill-session -t "$name" 2>/dev/null
  [ $failures -eq "$before" ] && echo "ok   $name"
}

overwrite_case overwrite o yes
overwrite_case overwrite_all a yes
overwrite_case keep_on_enter Enter no
overwrite_case keep_on_escape Escape no
overwrite_case kill_during_extract kill no

if [ $failures -ne 0 ]; then
  echo "duplicate_prompt: $failures failed"
  exit 1
fi
echo "duplicate_prompt: all passed"
