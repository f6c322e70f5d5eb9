#!/usr/bin/env bash
# Several writers of one group, and writers that die: concurrent adds lose nothing, a writer
# killed at any moment leaves the old group or the new one and no stray file, and a group the
# user may not write is refused untouched.
#   writers.sh QXGROUP SOURCE_DIR [KILLS]
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
shopt -s nullglob
kills=${3:-50}  # per layout
exec {pause}<> <(:)  # read -t on it sleeps without starting a process

# layout: group, variable file, offset of the variable's 8-byte name field, a member to delete
# (a zip-based group takes the file's own name, so there the name field is left as it is)
layouts=("school.mag prog1.map 64 main.GREETING.mas" "math.kdg PROG.kdp 60 A.kdn"
         "lesson.qxg PROG.kdp 60 intro.map")

# variable NAME TEMPLATE OFFSET OUT: a copy of TEMPLATE whose name field holds NAME.
variable() {
  cp "$2" "$4"
  printf '%-8s' "$1" | tr ' ' '\0' | dd of="$4" bs=1 seek="$3" conv=notrunc status=none
}

# The same group: byte for byte, or for a zip-based group (whose new member is stamped with the
# time of the add) the same members in an archive that tests whole.
same() {
  cmp -s "$1" "$2" && return 0
  # (copied to a .qxg name first: a hidden temporary name carries no extension to open it by)
  [ "$ext" = qxg ] && cp "$1" same.qxg && unzip -tqq same.qxg >/dev/null 2>&1 &&
    [ "$("$qx" list same.qxg)" = "$("$qx" list "$2")" ] && rm -f same.qxg
}

# Nothing in the folder but what the test put there.
strays() { ls -A | grep -v -x -E 'g\..*|v[A-Z0-9]*\..*|.*\.(ok|err)' ; }

for layout in "${layouts[@]}"; do
  read -r group var offset member <<<"$layout"
  ext=${group##*.}
  vext=${var##*.}

  # ---- 4 adders, 20 files each, into one group at the same time --------------------------
  cp "$src/samples/$group" "g.$ext"
  for a in A B C D; do
    for r in $(seq -w 1 20); do variable "Q$a$r" "$src/samples/$var" "$offset" "vQ$a$r.$vext"; done
  done
  for a in A B C D; do
    (
      for r in $(seq -w 1 20); do "$qx" add "g.$ext" "vQ$a$r.$vext" 2>>"$a.err" || echo "$r" >>"$a.err"; done
    ) &
  done
  wait
  listed=$("$qx" list "g.$ext" | grep -c '\.Q[A-D][0-9][0-9]\.\|^v\?Q[A-D][0-9][0-9]\.')
  [ "$listed" = 80 ] || fail "$group: 80 concurrent adds, $listed listed"
  for a in A B C D; do [ -s "$a.err" ] && fail "$group: adder $a: $(head -c 300 "$a.err")"; done
  rm -f ./*.err vQ*
  [ -z "$(strays)" ] || fail "$group: left after the concurrent adds: $(strays)"

  # ---- kills at random moments of add and delete ------------------------------------------
  variable "KILLED" "$src/samples/$var" "$offset" "vK.$vext"
  cp "$src/samples/$group" before
  cp before "g.$ext" && "$qx" add "g.$ext" "vK.$vext" && cp "g.$ext" "after-add.$ext"
  cp before "g.$ext" && "$qx" delete "g.$ext" "$member" && cp "g.$ext" "after-delete.$ext"
  start=$(date +%s%N)
  cp before "g.$ext" && "$qx" add "g.$ext" "vK.$vext"
  span=$((($(date +%s%N) - start) / 1000 + 1))  # microseconds one add takes here
  finished=0 named=0
  for i in $(seq 1 "$kills"); do
    cp before "g.$ext"
    if [ $((i % 2)) = 0 ]; then op=add; arg="vK.$vext"; else op=delete; arg=$member; fi
    after=after-$op.$ext
    "$qx" "$op" "g.$ext" "$arg" 2>/dev/null &
    pid=$!
    printf -v delay '0.%06d' $(((RANDOM * 32768 + RANDOM) % span))
    read -r -t "$delay" -u "$pause"
    kill -9 "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
    if same "g.$ext" "$after"; then
      finished=$((finished + 1))
    elif ! cmp -s "g.$ext" before; then
      fail "$group: $op killed after $i runs left neither the old nor the new group"
    fi
    # The new file is named only between its last byte and the rename: a kill in that moment
    # may leave it, whole, beside the old group (a later write removes it once it is old).
    left=(.g.*)
    if [ ${#left[@]} != 0 ]; then
      if [ ${#left[@]} = 1 ] && same "${left[0]}" "$after" && cmp -s "g.$ext" before; then
        named=$((named + 1))
      else
        fail "$group: $op killed left ${left[*]}"
      fi
      rm -f "${left[@]}"
    fi
  done
  echo "$group: $kills kills: $finished after the rename, $((kills - finished - named)) before" \
    "the new file was named, $named in between"
  rm -f before after-* same.qxg "vK.$vext"

  # ---- a group the user may not write ------------------------------------------------------
  cp "$src/samples/$group" "g.$ext"
  cp "$src/samples/$var" "v.$vext"
  chmod 444 "g.$ext"
  as=()
  if [ "$(id -u)" = 0 ]; then
    if command -v setpriv >/dev/null; then
      chmod 777 "$work"  # so only the group's own permissions stand in the way
      as=(setpriv --reuid=nobody --regid=nogroup --clear-groups)
    else
      echo "SKIP $group read-only: running as root without setpriv to drop privileges"
      continue
    fi
  fi
  "${as[@]}" "$qx" add "g.$ext" "v.$vext" 2>/dev/null && fail "$group: read-only group was written"
  cmp -s "g.$ext" "$src/samples/$group" || fail "$group: read-only group changed"
  rm -f "g.$ext" "v.$vext"
done

finish writers
