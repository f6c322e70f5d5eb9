#!/usr/bin/env bash
# Old-style groups and flash files against zip/unzip and cp on the same files, side by side in
# the same run: hyperfine times each pair (medians), /usr/bin/time -v gives each one's peak
# memory. Prints ours / peer; below 1.00 we are faster.
#   bench/run-old-group-bench.sh [QXGROUP] [RUNS] [SIZES...]
# Defaults: build/qxgroup, 5 runs, 2000 and 20000 members. The files live on /dev/shm when it is
# writable (QX_BENCH_DIR overrides); the big files (250 MiB member, 1 GiB flash) are deleted at
# the end. QX_BENCH_BIG=0 skips them.
set -euo pipefail

qx=$(realpath "${1:-build/qxgroup}")
runs=${2:-5}
shift $(( $# > 2 ? 2 : $# )) || true
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(2000 20000)
for tool in hyperfine zip unzip python3 /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "run-old-group-bench: $tool is not installed" >&2; exit 1; }
done
base=${QX_BENCH_DIR:-$([ -w /dev/shm ] && echo /dev/shm || echo /tmp)}
work=$(mktemp -d "$base/qx-old-bench-XXXXXX")
trap 'rm -rf "$work"' EXIT
export QXGROUPMGR_REGISTRY="$work/registry.reg"
cd "$work"

# name ours-command peer-command: prints median times, their ratio, and both peaks.
pair() {
  local name=$1 ours=$2 peer=$3 prep=${4:-true}
  hyperfine -N --style none --warmup 1 --runs "$runs" --prepare "bash -c '$prep'" \
    --export-json pair.json "$ours" "$peer" >/dev/null 2>&1 ||
    hyperfine --style none --warmup 1 --runs "$runs" --prepare "$prep" \
      --export-json pair.json "$ours" "$peer" >/dev/null
  bash -c "$prep"; /usr/bin/time -v bash -c "$ours" >/dev/null 2>time.ours || true
  bash -c "$prep"; /usr/bin/time -v bash -c "$peer" >/dev/null 2>time.peer || true
  python3 - "$name" <<'PY'
import json, re, sys
r = json.load(open("pair.json"))["results"]
def peak(f):
    m = re.search(r"Maximum resident set size \(kbytes\): (\d+)", open(f).read())
    return int(m.group(1)) / 1024 if m else float("nan")
o, p = r[0]["median"] * 1e3, r[1]["median"] * 1e3
print("%-34s %9.1f %9.1f %7.2f %9.1f %9.1f" % (sys.argv[1], o, p, o / p, peak("time.ours"), peak("time.peer")))
PY
}

header() {
  printf '%-34s %9s %9s %7s %9s %9s\n' "task" "ours ms" "peer ms" "ratio" "ours MiB" "peer MiB"
}

make_files() {  # count dir: single-variable MA files of 64 data bytes
  python3 - "$1" "$2" <<'PY'
import os, struct, sys
n, d = int(sys.argv[1]), sys.argv[2]
os.makedirs(d, exist_ok=True)
sig = b"**QXMA**\x01\x00"
for i in range(n):
    name = ("P%05d" % i).encode().ljust(8, b"\0")
    data = bytes([i & 0xFF]) * 64
    f = (sig + b"main".ljust(8, b"\0") + bytes(40) + struct.pack("<H", 1) + struct.pack("<I", 0x52)
         + name + b"\x12\x00\x00\x00" + struct.pack("<I", 0x52 + len(data)) + b"\xA5\x5A" + data)
    open(os.path.join(d, "P%05d.map" % i), "wb").write(f)
PY
}

header
for n in "${sizes[@]}"; do
  rm -rf files && make_files "$n" files
  (cd files && ls > ../names.txt)
  (cd files && "$qx" create ../g.mag $(cat ../names.txt) && zip -q ../g.zip $(cat ../names.txt))
  "$qx" list g.mag > members.txt
  head -n 1000 members.txt | tr '\n' ' ' > get-members.txt
  head -n 1000 names.txt | tr '\n' ' ' > get-files.txt
  pair "expand $n" "$qx expand g.mag -C out" "unzip -q -o g.zip -d out" "rm -rf out; mkdir out"
  pair "get 1000 of $n" "$qx get g.mag $(cat get-members.txt) -C out" \
    "unzip -q -o g.zip $(cat get-files.txt) -d out" "rm -rf out; mkdir out"
  pair "list $n" "$qx list g.mag" "unzip -Z1 g.zip"
  pair "xml $n" "$qx xml g.mag" "unzip -Zl g.zip"
  pair "create $n" "bash -c 'cd files && $qx create ../c.mag \$(cat ../names.txt)'" \
    "bash -c 'cd files && zip -q ../c.zip \$(cat ../names.txt)'" "rm -f c.mag c.zip"
  pair "add 1000 duplicates to $n" "bash -c 'cd files && $qx add ../a.mag \$(cat ../get-files.txt)'" \
    "bash -c 'cd files && zip -q ../a.zip \$(cat ../get-files.txt)'" "cp g.mag a.mag; cp g.zip a.zip"
done
rm -rf files out g.mag g.zip c.mag c.zip a.mag a.zip

if [ "${QX_BENCH_BIG:-1}" != 0 ]; then
  # One 250 MiB member (the size field of an MA entry is 32-bit, the data is not looked at).
  python3 - <<'PY'
import struct
size = 250 << 20
sig = b"**QXMA**\x01\x00"
head = (sig + b"main".ljust(8, b"\0") + bytes(40) + struct.pack("<H", 1) + struct.pack("<I", 0x52)
        + b"BIG".ljust(8, b"\0") + b"\x12\x00\x00\x00" + struct.pack("<I", 0x52 + size) + b"\xA5\x5A")
with open("big.map", "wb") as f:
    f.write(head)
    chunk = bytes(range(256)) * 4096
    for _ in range(size // len(chunk)):
        f.write(chunk)
PY
  "$qx" create big.mag big.map && rm big.map && zip -q -0 big.zip big.mag
  pair "list, one 250 MiB member" "$qx list big.mag" "unzip -Z1 big.zip"
  pair "expand, one 250 MiB member" "$qx expand big.mag -C out" "unzip -q -o big.zip -d out" \
    "rm -rf out; mkdir out"
  rm -rf big.mag big.zip out
  # One 1 GiB flash record.
  python3 - <<'PY'
import struct
size = 1 << 30
h = bytearray(78)
h[0:8] = b"**QXFL**"
h[0x10] = 3; h[0x11:0x14] = b"APP"; h[0x30] = 0x73; h[0x31] = 0x24
h[0x4A:0x4E] = struct.pack("<I", size)
with open("big.kdk", "wb") as f:
    f.write(h)
    chunk = bytes(range(256)) * 4096
    for _ in range(size // len(chunk)):
        f.write(chunk)
PY
  pair "flash, one 1 GiB record (vs cp)" "$qx flash big.kdk -C out" "cp big.kdk out/copy.kdk" \
    "rm -rf out; mkdir out"
  rm -rf big.kdk out
fi
