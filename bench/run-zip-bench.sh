#!/usr/bin/env bash
# Runs bench_zip (ours and the peers in the same run, N repetitions each) and prints the best
# wall-clock time of each with the ratio ours / peer; below 1.00 we are faster.
#   bench/run-zip-bench.sh [BUILD_DIR] [REPETITIONS]
# BUILD_DIR must be configured with -DQX_BUILD_BENCH=ON, preferably Release. The files live on
# /dev/shm when it is writable (QX_BENCH_DIR overrides).
set -euo pipefail

build=${1:-build-bench}
reps=${2:-5}
bin="$build/bench/bench_zip"
[ -x "$bin" ] || { echo "run-zip-bench: no $bin (cmake --build $build --target bench_zip)" >&2; exit 1; }
for tool in unzip zip python3; do
  command -v "$tool" >/dev/null || { echo "run-zip-bench: $tool is not installed" >&2; exit 1; }
done

json=$(mktemp)
trap 'rm -f "$json"' EXIT
"$bin" --benchmark_repetitions="$reps" --benchmark_out="$json" --benchmark_out_format=json >&2

python3 - "$json" <<'PY'
import json, sys
runs = json.load(open(sys.argv[1]))["benchmarks"]
best = {}
for r in runs:
    if r.get("run_type") != "iteration" or r.get("error_occurred"):
        continue
    name = r["run_name"].split("/")[0]
    ms = r["real_time"] * {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[r["time_unit"]]
    best[name] = min(ms, best.get(name, ms))
rows = [
    ("open + list 10,000 entries", "BM_List_Ours", "unzip -Z1", "BM_List_UnzipZ1"),
    ("open + list 10,000 entries", "BM_List_Ours", "python zipfile", "BM_List_PythonZipfile"),
    ("  (python start-up alone)", None, "python3 -c import", "BM_List_PythonStartup"),
    ("extract 10,000 entries", "BM_Extract_Ours", "unzip -q", "BM_Extract_Unzip"),
    ("write 10,000 small members", "BM_WriteSmall_Ours", "zip -q", "BM_WriteSmall_Zip"),
    ("write 100 x 1 MB members", "BM_WriteLarge_Ours", "zip -q", "BM_WriteLarge_Zip"),
]
def fmt(v):
    return "n/a" if v is None else "%.1f" % v
print("%-30s %10s  %-18s %10s  %s" % ("task", "ours ms", "peer", "peer ms", "ours/peer"))
for task, ours, peer, peer_key in rows:
    o = best.get(ours) if ours else None
    p = best.get(peer_key)
    ratio = "%.2f" % (o / p) if o is not None and p else "-"
    print("%-30s %10s  %-18s %10s  %s" % (task, fmt(o), peer, fmt(p), ratio))
PY
