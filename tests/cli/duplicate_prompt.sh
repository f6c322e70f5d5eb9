#!/usr/bin/env bash
# The questions `add --on-duplicate=ask` and `get` onto an existing file ask in a real terminal:
# each case runs in a detached tmux session, reads the question off the screen, presses keys and
# checks the status, the group, the file on disk and the terminal mode.
#   duplicate_prompt.sh QXGROUP SOURCE_DIR
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
command -v tmux >/dev/null 2>&1 || { echo "duplicate_prompt: tmux not installed, skipped"; exit 0; }
export TMPDIR=$work/tmp  # what a killed command leaves in the private folder goes with $work
mkdir "$TMPDIR"
sock="qxdup$$"
trap 'tmux -L "$sock" kill-server 2>/dev/null; rm -rf "$work"' EXIT INT TERM
wait_until() { local i; for i in $(seq 50); do "$@" && return 0; sleep 0.1; done; return 1; }
differs() { cmp -s "$1" "$2" && echo no || echo yes; }
screen_shows() { tmux -L "$sock" capture-pane -p -t "$1" 2>/dev/null | grep -qF -- "$2"; }

# Same variable name as the group's member, other data: a replacement changes the group.
mkdir -p "$work/new"
python3 -c 'import sys; d = bytearray(open(sys.argv[1], "rb").read()); d[-1] ^= 0x55; open(sys.argv[2], "wb").write(d)' \
  "$src/samples/prog1.map" "$work/new/prog1.map"

# run NAME KEYS STATUS GROUP_CHANGED FILE_REPLACED COMMAND...: COMMAND runs in $dir, which holds
# g.mag and a file of its own named main.PROG1.map; KEYS "kill" kills the command at the question.
run() {
  local name=$1 keys=$2 want=$3 group=$4 file=$5 dir="$work/$1" before=$failures
  shift 5
  mkdir -p "$dir" && cd "$dir" || exit 1
  "$qx" create g.mag "$src/samples/prog1.map" "$src/samples/greeting.mas" || exit 1
  cp g.mag before.mag; echo mine >main.PROG1.map; cp main.PROG1.map mine
  tmux -L "$sock" new-session -d -s "$name" -c "$dir" -x 100 -y 30 \
    "$(printf '%q ' "$@") 2>err; echo \$? >status; stty -a >stty; sleep 60"
  if ! wait_until screen_shows "$name" "Cancel"; then
    fail "$name: no question appeared"; tmux -L "$sock" capture-pane -p -t "$name"; return
  fi
  tmux -L "$sock" capture-pane -p -t "$name" >screen
  if [ "$keys" = kill ]; then
    pkill -KILL -P "$(tmux -L "$sock" display -p -t "$name" '#{pane_pid}')"
  else
    # shellcheck disable=SC2086
    tmux -L "$sock" send-keys -t "$name" $keys
  fi
  wait_until [ -s status ] || { fail "$name: no answer after the keys"; return; }
  [ "$(cat status)" = "$want" ] || fail "$name: status $(cat status) (want $want)"
  [ "$(differs g.mag before.mag)" = "$group" ] || fail "$name: group changed is not $group"
  [ "$(differs main.PROG1.map mine)" = "$file" ] || fail "$name: file replaced is not $file"
  # A killed command cannot put the terminal back.
  [ "$keys" != kill ] && grep -qE '(^| )-(icanon|echo)( |$)' stty && fail "$name: terminal left in raw mode"
  ls -a | grep -q '^\.qxgroup-' && fail "$name: staging folder left"
  if [ "$1" = "$qx" ] && [ "$2" = add ]; then
    grep -qF 'Duplicate File Found' screen && grep -qF \
      'prog1.map already exists in this group file.  What would you like to do?' screen &&
      grep -qF '<[R]eplace>  Replace [A]ll  [S]kip  Cancel' screen || fail "$name: question not as expected"
    [ "$want" = 3 ] && ! grep -qF 'not added to' err && fail "$name: no warning naming the file"
  else
    grep -qF 'File Exists' screen && grep -qF \
      'main.PROG1.map already exists in this folder.  What would you like to do?' screen &&
      grep -qF '[O]verwrite  Overwrite [A]ll <[S]kip>  Cancel' screen || fail "$name: question not as expected"
  fi
  tmux -L "$sock" kill-session -t "$name" 2>/dev/null
  [ $failures -eq "$before" ] && passed=$((passed + 1))
}

add=("$qx" add g.mag "$work/new/prog1.map" --on-duplicate=ask)
run enter Enter 0 yes no "${add[@]}"
run replace r 0 yes no "${add[@]}"
run replace_all a 0 yes no "${add[@]}"
run skip s 3 no no "${add[@]}"
run escape Escape 3 no no "${add[@]}"
# On a terminal without -o or -n, get asks; Skip is the default.
run overwrite o 0 no yes "$qx" get g.mag main.PROG1.map
run overwrite_all a 0 no yes "$qx" get g.mag main.PROG1.map
run keep_on_enter Enter 0 no no "$qx" get g.mag main.PROG1.map
run keep_on_escape Escape 0 no no "$qx" get g.mag main.PROG1.map
run kill_during_extract kill 137 no no "$qx" extract g.mag main.PROG1.map

finish duplicate_prompt
