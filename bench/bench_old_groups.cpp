// Adding n single-variable files to an MA-style group in one call: the group is read once,
// changed in memory and written once, so the cost should grow about linearly with n.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "containers/OldGroupContainerMA.h"

namespace {

std::string Le16(unsigned v) { return {static_cast<char>(v & 0xFF), static_cast<char>(v >> 8 & 0xFF)}; }
std::string Le32(uint32_t v) { return Le16(v & 0xFFFF) + Le16(v >> 16); }
std::string Padded(std::string s, size_t n) {
  s.resize(n, '\0');
  return s;
}

const std::string kSig = Padded("**QXMA**\x01", 10);

void Write(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(),
                                                                static_cast<std::streamsize>(bytes.size()));
}

// A program of 64 data bytes in the folder "main".
std::string SingleFile(const std::string& name) {
  const std::string data(64, 'p');
  return kSig + Padded("main", 8) + std::string(40, '\0') + Le16(1) + Le32(0x52) + Padded(name, 8) +
         std::string("\x12\x00\x00\x00", 4) + Le32(static_cast<uint32_t>(0x52 + data.size())) +
         "\xA5\x5A" + data;
}

std::string EmptyGroup() {
  return kSig + std::string(8, '\0') + std::string(40, '\0') + Le16(1) + Le32(0x52) + Padded("main", 8) +
         std::string("\x1F\x00\x00\x00", 4) + Le32(0x52) + "\x5A\xA5";
}

struct Workspace {
  Workspace() {
    char tmpl[] = "/tmp/bench-old-groups-XXXXXX";
    dir = ::mkdtemp(tmpl) != nullptr ? tmpl : "/tmp";
    ::setenv("QXGROUPMGR_REGISTRY", (dir + "/registry.reg").c_str(), 1);
  }
  ~Workspace() {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
  std::string dir;
};

void BM_AddToMAGroupInOneCall(benchmark::State& state) {
  static Workspace ws;
  const auto n = static_cast<size_t>(state.range(0));
  qx::StringList files;
  for (size_t i = 0; i < n; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "V%05zu", i);
    files.push_back(ws.dir + "/" + name + ".map");
    Write(files.back(), SingleFile(name));
  }
  const std::string group = ws.dir + "/g.mag";
  for (auto _ : state) {
    state.PauseTiming();
    Write(group, EmptyGroup());
    qx::OldGroupContainerMA c(group, nullptr);
    int32_t prompt = 0;
    state.ResumeTiming();
    if (c.AddMembers(files, "", &prompt, nullptr, nullptr) != 1) state.SkipWithError("add failed");
  }
  state.SetComplexityN(static_cast<int64_t>(n));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
  for (const std::string& f : files) std::filesystem::remove(f);
}
BENCHMARK(BM_AddToMAGroupInOneCall)->Arg(1)->Arg(100)->Arg(1000)->Arg(5000)->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);

}  // namespace

BENCHMARK_MAIN();
