// The zip service against the command-line peers on the same archives and files, in one run:
// open and list 10,000 entries (unzip -Z1, Python zipfile), extract them all (unzip -q), and
// write 10,000 small and 100 large members from files on disk (zip -q). Peers run as child
// processes, so every benchmark here measures wall-clock time; a peer's time includes starting
// its process (about a millisecond for unzip and zip, tens of milliseconds for Python).
// bench/run-zip-bench.sh prints the best-of-N table with ratios.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "archive/VxZip.h"

namespace {

namespace stdfs = std::filesystem;

constexpr int kSmallCount = 10000;
constexpr int kLargeCount = 100;
constexpr size_t kLargeSize = 1 << 20;

void Write(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Text that deflates about as well as calculator programs do, with some noise mixed in.
std::string Content(size_t n, uint32_t seed) {
  std::string out;
  out.reserve(n + 64);
  uint32_t x = seed * 2654435761u + 1;
  while (out.size() < n) {
    x = x * 1664525u + 1013904223u;
    out += "Disp " + std::to_string(x % 100000) + ":If X>" + std::to_string(x >> 20) + ":Then\r\n";
    out += static_cast<char>(x >> 24);
  }
  out.resize(n);
  return out;
}

std::string Q(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

bool Sh(const std::string& command) { return std::system(command.c_str()) == 0; }

// Files on disk and the 10,000-entry archive made from them, shared by every benchmark.
struct Workspace {
  Workspace() {
    // On tmpfs when there is one: after many deletions ext4 spends more and more time finding
    // free inodes, which would drown the readers' own cost and drift from run to run.
    const char* env = std::getenv("QX_BENCH_DIR");
    std::string base = env != nullptr && *env ? env : (::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
    std::string tmpl = base + "/bench-zip-XXXXXX";
    dir = ::mkdtemp(tmpl.data()) != nullptr ? tmpl : "/tmp/bench-zip";
    small = dir + "/small";
    large = dir + "/large";
    archive = dir + "/small.zip";
    for (int i = 0; i < kSmallCount; ++i) {
      char name[48];
      std::snprintf(name, sizeof name, "grp%02d/prog%05d.kdp", i % 50, i);
      smallNames.push_back(name);
      stdfs::create_directories(stdfs::path(small + "/" + name).parent_path());
      Write(small + "/" + name, Content(200 + static_cast<size_t>(i % 7) * 150, static_cast<uint32_t>(i)));
    }
    stdfs::create_directories(large);
    for (int i = 0; i < kLargeCount; ++i) {
      largeNames.push_back("big" + std::to_string(i) + ".bin");
      Write(large + "/" + largeNames.back(), Content(kLargeSize, static_cast<uint32_t>(100000 + i)));
    }
    // The archive every reader lists and extracts, written by zip so that a slow writer of ours
    // does not slow down the set-up and the readers all get the same input.
    ok = Sh("cd " + Q(small) + " && zip -q -r -D " + Q(archive) + " .");
  }
  ~Workspace() {
    std::error_code ec;
    stdfs::remove_all(dir, ec);
  }
  std::string dir, small, large, archive;
  std::vector<std::string> smallNames, largeNames;
  bool ok = false;
};

Workspace& Ws() {
  static Workspace ws;
  return ws;
}

bool Ready(benchmark::State& state) {
  if (!Ws().ok) state.SkipWithError("could not make the 10,000-entry archive (is zip installed?)");
  return Ws().ok;
}

void Fresh(const std::string& path) {
  std::error_code ec;
  stdfs::remove_all(path, ec);
}

// ---- open and list ----------------------------------------------------------------------------

void BM_List_Ours(benchmark::State& state) {
  if (!Ready(state)) return;
  for (auto _ : state) {
    qx::VxZip zip;
    if (!zip.OpenZip(Ws().archive.c_str())) state.SkipWithError("OpenZip failed");
    uint64_t total = 0;
    int n = 0;
    qx::VxString name;
    for (auto e = zip.FirstEntry(); e; e = e->NextEntry()) {
      e->GetFileName(name);
      total += e->GetUncompressedSize() + static_cast<uint64_t>(name.GetLength());
      ++n;
    }
    if (n != kSmallCount) state.SkipWithError("wrong entry count");
    benchmark::DoNotOptimize(total);
  }
}

void BM_List_UnzipZ1(benchmark::State& state) {
  if (!Ready(state)) return;
  for (auto _ : state) {
    if (!Sh("unzip -Z1 " + Q(Ws().archive) + " >/dev/null")) state.SkipWithError("unzip failed");
  }
}

void BM_List_PythonZipfile(benchmark::State& state) {
  if (!Ready(state)) return;
  for (auto _ : state) {
    if (!Sh("python3 -c 'import sys, zipfile\n"
            "for i in zipfile.ZipFile(sys.argv[1]).infolist(): i.filename, i.file_size' " +
            Q(Ws().archive))) {
      state.SkipWithError("python3 failed");
    }
  }
}

// Python's start-up alone, to read its listing figure against.
void BM_List_PythonStartup(benchmark::State& state) {
  for (auto _ : state) {
    if (!Sh("python3 -c 'import sys, zipfile'")) state.SkipWithError("python3 failed");
  }
}

// ---- extract ----------------------------------------------------------------------------------

void BM_Extract_Ours(benchmark::State& state) {
  if (!Ready(state)) return;
  const std::string out = Ws().dir + "/out-ours";
  for (auto _ : state) {
    state.PauseTiming();
    Fresh(out);
    state.ResumeTiming();
    qx::VxZip zip;
    if (!zip.OpenZip(Ws().archive.c_str()) || !zip.Extract(out.c_str())) state.SkipWithError("Extract failed");
  }
  Fresh(out);
}

void BM_Extract_Unzip(benchmark::State& state) {
  if (!Ready(state)) return;
  const std::string out = Ws().dir + "/out-unzip";
  for (auto _ : state) {
    state.PauseTiming();
    Fresh(out);
    state.ResumeTiming();
    if (!Sh("unzip -q -o " + Q(Ws().archive) + " -d " + Q(out))) state.SkipWithError("unzip failed");
  }
  Fresh(out);
}

// ---- write ------------------------------------------------------------------------------------

// Reads each file and appends it, then writes the archive: what zip does with the same files.
void WriteOurs(benchmark::State& state, const std::string& folder, const std::vector<std::string>& names) {
  const std::string out = Ws().dir + "/written-ours.zip";
  for (auto _ : state) {
    state.PauseTiming();
    Fresh(out);
    state.ResumeTiming();
    qx::VxZip zip;
    bool ok = zip.NewZip(out.c_str());
    for (const std::string& name : names) {
      qx::VxByteData data;
      ok = ok && data.LoadFile((folder + "/" + name).c_str()) && zip.AppendData(name.c_str(), data) != nullptr;
    }
    if (!ok || !zip.WriteZip()) state.SkipWithError("writing failed");
  }
  // A fast archive that unzip cannot read would be no result.
  if (!Sh("unzip -tqq " + Q(out))) state.SkipWithError("unzip -t refuses the archive written");
  Fresh(out);
}

void WriteZipTool(benchmark::State& state, const std::string& folder) {
  const std::string out = Ws().dir + "/written-zip.zip";
  for (auto _ : state) {
    state.PauseTiming();
    Fresh(out);  // zip would otherwise update the archive it finds
    state.ResumeTiming();
    if (!Sh("cd " + Q(folder) + " && zip -q -r -D " + Q(out) + " .")) state.SkipWithError("zip failed");
  }
  Fresh(out);
}

void BM_WriteSmall_Ours(benchmark::State& state) {
  if (Ready(state)) WriteOurs(state, Ws().small, Ws().smallNames);
}
void BM_WriteSmall_Zip(benchmark::State& state) {
  if (Ready(state)) WriteZipTool(state, Ws().small);
}
void BM_WriteLarge_Ours(benchmark::State& state) {
  if (Ready(state)) WriteOurs(state, Ws().large, Ws().largeNames);
}
void BM_WriteLarge_Zip(benchmark::State& state) {
  if (Ready(state)) WriteZipTool(state, Ws().large);
}

}  // namespace

BENCHMARK(BM_List_Ours)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_List_UnzipZ1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_List_PythonZipfile)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_List_PythonStartup)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Extract_Ours)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_Extract_Unzip)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_WriteSmall_Ours)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_WriteSmall_Zip)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_WriteLarge_Ours)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(BM_WriteLarge_Zip)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

BENCHMARK_MAIN();
