// VxXml against libxml2 and pugixml on the same generated manifest-shaped document, and the
// cost of walking every match of a tag with resumed searches.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "archive/VxXml.h"

#ifdef QX_BENCH_LIBXML2
#include <libxml/parser.h>
#include <libxml/tree.h>
#endif
#ifdef QX_BENCH_PUGIXML
#include <pugixml.hpp>
#endif

namespace {

// An IMS manifest grown to `targetBytes`: metadata up front, then resources with files and
// per-resource metadata, entities and long descriptions, as authoring tools write them.
std::string MakeManifest(size_t targetBytes) {
  std::string s =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!-- generated for benchmarking -->\n"
      "<manifest xmlns=\"http://www.imsglobal.org/xsd/imscp_v1p1\" "
      "xmlns:imsmd=\"http://www.imsglobal.org/xsd/imsmd_v1p2\" identifier=\"MANIFEST-1\">\n"
      "  <metadata>\n    <schema>IMS Content</schema>\n    <schemaversion>1.2</schemaversion>\n"
      "    <imsmd:lom><imsmd:general><imsmd:title><imsmd:langstring xml:lang=\"en\">Bench"
      "</imsmd:langstring></imsmd:title></imsmd:general></imsmd:lom>\n  </metadata>\n"
      "  <organizations/>\n  <resources>\n";
  for (int i = 0; s.size() < targetBytes; ++i) {
    std::string n = std::to_string(i);
    s += "    <resource identifier=\"RES-" + n + "\" type=\"webcontent\" href=\"items/item" + n +
         ".xml\">\n      <metadata>\n        <imsmd:lom>\n          <imsmd:general>\n"
         "            <imsmd:title><imsmd:langstring xml:lang=\"en\">Item " + n +
         " &amp; answers</imsmd:langstring></imsmd:title>\n"
         "            <imsmd:description><imsmd:langstring xml:lang=\"en\">A question about "
         "projectile motion, with a diagram &lt;fig " + n + "&gt; and a worked answer that "
         "runs on for more than eighty characters so that it folds.</imsmd:langstring>"
         "</imsmd:description>\n          </imsmd:general>\n        </imsmd:lom>\n"
         "      </metadata>\n      <file href=\"items/item" + n + ".xml\"/>\n"
         "      <file href=\"images/fig" + n + ".png\"/>\n    </resource>\n";
  }
  s += "  </resources>\n</manifest>\n";
  return s;
}

const std::string& Manifest() {
  static const std::string text = MakeManifest(20u << 20);
  return text;
}

void BM_VxXml_Load(benchmark::State& state) {
  const std::string& text = Manifest();
  for (auto _ : state) {
    qx::VxXml doc;
    if (!doc.LoadXml(text.c_str())) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(doc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_VxXml_Load)->Unit(benchmark::kMillisecond);

void BM_VxXml_GetXml(benchmark::State& state) {
  qx::VxXml doc;
  doc.LoadXml(Manifest().c_str());
  qx::VxString out;
  for (auto _ : state) {
    doc.GetXml(out);
    benchmark::DoNotOptimize(out.GetString());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * Manifest().size()));
}
BENCHMARK(BM_VxXml_GetXml)->Unit(benchmark::kMillisecond);

#ifdef QX_BENCH_LIBXML2
void BM_libxml2_Parse(benchmark::State& state) {
  const std::string& text = Manifest();
  for (auto _ : state) {
    xmlDocPtr doc = xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                                  XML_PARSE_NONET | XML_PARSE_HUGE);
    if (doc == nullptr) state.SkipWithError("parse failed");
    xmlFreeDoc(doc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_libxml2_Parse)->Unit(benchmark::kMillisecond);

void BM_libxml2_Serialise(benchmark::State& state) {
  const std::string& text = Manifest();
  xmlDocPtr doc = xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                                XML_PARSE_NONET | XML_PARSE_HUGE);
  for (auto _ : state) {
    xmlChar* out = nullptr;
    int size = 0;
    xmlDocDumpMemory(doc, &out, &size);
    benchmark::DoNotOptimize(out);
    xmlFree(out);
  }
  xmlFreeDoc(doc);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_libxml2_Serialise)->Unit(benchmark::kMillisecond);
#endif

#ifdef QX_BENCH_PUGIXML
struct StringWriter : pugi::xml_writer {
  std::string out;
  void write(const void* data, size_t size) override {
    out.append(static_cast<const char*>(data), size);
  }
};

void BM_pugixml_Parse(benchmark::State& state) {
  const std::string& text = Manifest();
  for (auto _ : state) {
    pugi::xml_document doc;
    if (!doc.load_buffer(text.data(), text.size())) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(doc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_pugixml_Parse)->Unit(benchmark::kMillisecond);

void BM_pugixml_Serialise(benchmark::State& state) {
  const std::string& text = Manifest();
  pugi::xml_document doc;
  doc.load_buffer(text.data(), text.size());
  for (auto _ : state) {
    StringWriter writer;
    doc.save(writer, "", pugi::format_raw);
    benchmark::DoNotOptimize(writer.out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_pugixml_Serialise)->Unit(benchmark::kMillisecond);
#endif

// Every "file" element of a listing with n elements, found one after another with `after`.
void BM_VxXml_FindAllWithAfter(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  qx::VxXml doc;
  doc.SetTag("group");
  std::unique_ptr<qx::VxXml> dir;
  for (int i = 0; i < n; ++i) {
    if (i % 50 == 0) dir = doc.AddChild("dir", nullptr);
    dir->AddChild("file", ("member" + std::to_string(i) + ".kdp").c_str());
  }
  for (auto _ : state) {
    int found = 0;
    for (auto e = doc.FindTagWithContent(nullptr, "file", "*"); e;
         e = doc.FindTagWithContent(e.get(), "file", "*")) {
      ++found;
    }
    if (found != n) state.SkipWithError("wrong count");
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_VxXml_FindAllWithAfter)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
