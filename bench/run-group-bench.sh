#!/usr/bin/env bash
# Times qxgroup on zip-based groups against zip/unzip/zipinfo, side by side in one hyperfine
# run per task, and prints ours / peer (below 1.00 we are faster).
#   bench/run-group-bench.sh [BUILD_DIR] [RUNS]
# Data: 10,000 small files in 50 folders (and 1,000 more for the duplicates), a 1,000-member
# group for the growth ratio, and a group of 100 nested old-style groups of 100 members each.
# The files live on /dev/shm when it is writable (QX_BENCH_DIR overrides).
set -euo pipefail
build=${1:-build}
runs=${2:-5}
qx=$(realpath "$build/qxgroup")
src=$(cd "$(dirname "$0")/.." && pwd)
for tool in hyperfine zip unzip zipinfo python3; do
  command -v "$tool" >/dev/null || { echo "run-group-bench: $tool is not installed" >&2; exit 1; }
done
base=${QX_BENCH_DIR:-$([ -w /dev/shm ] && echo /dev/shm || echo "${TMPDIR:-/tmp}")}
work=$(mktemp -d "$base/qxgroup-bench-XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"

python3 - "$src/scripts" <<'PY'
import os, sys, zipfile
sys.path.insert(0, sys.argv[1])
import importlib.util
spec = importlib.util.spec_from_file_location("samples", os.path.join(sys.argv[1], "make-samples.py"))
m = importlib.util.module_from_spec(spec); spec.loader.exec_module(m)
for d in range(50):
    os.makedirs(f"tree/d{d:02}")
    for f in range(200):
        with open(f"tree/d{d:02}/f{f:03}.txt", "w") as fh: fh.write(f"member {d} {f}\n" * 4)
os.makedirs("tree/dup")
for f in range(1000):
    with open(f"tree/dup/x{f:04}.txt", "w") as fh: fh.write(f"duplicate {f}\n")
os.makedirs("small")
for f in range(1000):
    with open(f"small/f{f:04}.txt", "w") as fh: fh.write(f"member {f}\n" * 4)
with open("one.txt", "w") as fh: fh.write("one more\n")
# 100 old-style groups of 100 variables each, inside one zip-based group.
with zipfile.ZipFile("nested.qxg", "w") as z:
    for g in range(100):
        entries = [(0x05, b"P%03d" % v, m.program_bytes(":Disp %d" % v)) for v in range(100)]
        z.writestr("g%03d.kdg" % g, m.kc_file("KDX", entries))
PY
dirs=$(cd tree && ls -d d?? | tr '\n' ' ')
(cd tree && "$qx" create ../g.qxg $dirs dup && zip -qr ../g.zip $dirs dup)
"$qx" create small.qxg small && zip -qr small.zip small

json=$work/json
mkdir "$json"
bench() {  # NAME OURS PEER [PREPARE]
  local name=$1
  local args=(--warmup 1 --runs "$runs" --export-json "$json/$name.json")
  [ -n "${4:-}" ] && args+=(--prepare "$4")
  hyperfine "${args[@]}" "$2" "$3" >/dev/null
}
bench list "$qx list g.qxg" "unzip -Z1 g.zip"
bench expand "$qx expand g.qxg -C out" "unzip -q g.zip -d out" "rm -rf out; mkdir out"
bench create "sh -c 'cd tree && $qx create ../c.qxg $dirs'" "sh -c 'cd tree && zip -q -r ../c.zip $dirs'" "rm -f c.qxg c.zip"
bench add-one "$qx add g.qxg one.txt" "zip -q g.zip one.txt"
bench add-dups "sh -c 'cd tree && $qx add ../g.qxg dup/* --to dup'" "sh -c 'cd tree && zip -q ../g.zip dup/*'"
bench xml-meta "$qx xml --meta g.qxg" "zipinfo g.zip"
bench xml-vs-list "$qx xml --meta g.qxg" "$qx list g.qxg"
bench growth-list "$qx list g.qxg" "$qx list small.qxg"
bench growth-xml "$qx xml --meta g.qxg" "$qx xml --meta small.qxg"
bench nested "$qx xml --subgroups nested.qxg" "$qx list --tree nested.qxg"

python3 - "$json" <<'PY'
import json, os, sys
rows = [
    ("list 10,000 members", "list", "unzip -Z1"),
    ("expand 10,000 members", "expand", "unzip -q"),
    ("create from 10,000 files", "create", "zip -q -r"),
    ("add one file", "add-one", "zip -q g.zip file"),
    ("add 1,000 duplicates, one call", "add-dups", "zip -q g.zip dup/*"),
    ("xml --meta", "xml-meta", "zipinfo"),
    ("xml --meta vs our list", "xml-vs-list", "qxgroup list"),
    ("list: 10,000 vs 1,000 members", "growth-list", "1,000 members"),
    ("xml --meta: 10,000 vs 1,000", "growth-xml", "1,000 members"),
    ("100 nested groups x 100: xml", "nested", "list --tree"),
]
print("%-34s %10s  %-22s %10s  %s" % ("task", "ours ms", "peer", "peer ms", "ratio"))
for task, key, peer in rows:
    path = os.path.join(sys.argv[1], key + ".json")
    if not os.path.exists(path):
        print("%-34s (not run)" % task); continue
    r = json.load(open(path))["results"]
    a, b = r[0]["median"] * 1000, r[1]["median"] * 1000
    print("%-34s %10.1f  %-22s %10.1f  %.2f" % (task, a, peer, b, a / b))
PY
