#!/usr/bin/env bash
# Every example of `qxgroup --help`, of each subcommand's --help and of the README's command-line
# block runs as written, next to copies of the sample files, with status 0.
#   examples.sh QXGROUP SOURCE_DIR
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
shopt -s lastpipe  # the counters live on after `... | run_block`
mkdir "$work/bin"
ln -s "$qx" "$work/bin/qxgroup"
export PATH="$work/bin:$PATH"
ran=0

# A scratch folder as a new user has it: the sample files, a samples/ folder and out/.
scratch() {
  rm -rf "$work/s" && mkdir -p "$work/s/out" "$work/s/samples" &&
    cp "$src"/samples/* "$work/s/" && cp "$src"/samples/* "$work/s/samples/"
}

# run_block NAME: the commands on stdin, in one shell, each must succeed.
run_block() {
  local name=$1 line
  while IFS= read -r line; do
    [ -n "$line" ] || continue
    ran=$((ran + 1))
    if ! (cd "$work/s" && bash -c "set -e; $line") >"$work/out" 2>&1; then
      fail "$name: $line"; sed 's/^/    | /' "$work/out" | head -5
    fi
  done
}

examples() { sed -n '/^Examples\?:$/,/^$/s/^  \(qxgroup .*\)/\1/p'; }

scratch
qxgroup --help | examples | run_block "--help"
for sub in $(qxgroup --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\) .*/\1/p'); do
  # Each subcommand's examples in a fresh scratch folder.
  qxgroup "$sub" --help | examples >"$work/lines"
  scratch
  run_block "$sub --help" <"$work/lines"
done
scratch
sed -n '/^## The command line/,/^```$/p' "$src/README.md" | sed -n '/^```sh$/,/^```$/p' |
  sed '1d;$d' | run_block README

[ "$ran" -gt 10 ] || fail "only $ran examples found"
passed=$((ran - failures))
finish examples
