#include "formats/FlashFile.h"

#include <algorithm>
#include <array>

#include "platform/ByteOrder.h"
#include "platform/Diagnostic.h"
#include "platform/StreamCopy.h"
#include "formats/DeviceFamily.h"

namespace qx {

namespace {

constexpr HRESULT kCannotCreate = static_cast<HRESULT>(0x8007006Eu);

struct DeviceCode {
  uint8_t device;
  int variant;  // -1: any
  std::string_view code;
};

// Device byte (and for 0x88 the variant byte) -> extension code of the target family.
constexpr std::array<DeviceCode, 5> kDeviceCodes{{
    {0x73, -1, "kd"},
    {0x74, -1, "ka"},
    {0x98, -1, "ma"},
    {0x88, 8, "ra"},
    {0x88, -1, "nb"},
}};

struct KindInfo {
  uint8_t kind;
  char letter;
  std::string_view word;  // the default name is this word followed by 0
};

constexpr std::array<KindInfo, 3> kKinds{{
    {kFlashKindApp, 'k', "APP"},
    {kFlashKindBase, 'u', "BASE"},
    {kFlashKindCert, 'q', "CERT"},
}};

const KindInfo* FindKind(uint8_t kind) {
  for (const KindInfo& k : kKinds)
    if (k.kind == kind) return &k;
  return nullptr;
}

}  // namespace

std::string FlashExtension(uint8_t device, uint8_t kind, uint8_t variant) {
  const KindInfo* k = FindKind(kind);
  if (k == nullptr) return {};
  for (const DeviceCode& d : kDeviceCodes)
    if (d.device == device && (d.variant < 0 || d.variant == variant))
      return "." + std::string(d.code) + k->letter;
  return {};
}

HRESULT ExpandFlashRecords(fs::File& flash, const std::string& destFolder, std::string& outFiles,
                           std::string_view flashName) {
  const uint64_t fileSize = flash.Size();
  std::vector<unsigned char> data;
  while (flash.Tell() < fileSize) {
    const uint64_t at = flash.Tell();
    const auto stop = [&](const char* what) {
      if (at == 0)
        diag::Record("not-a-flash-file", flashName, std::string("not a flash file (") + what + ")");
      else
        diag::Record("not-a-flash-record", flashName,
                     std::string(what) + " (record at offset " + std::to_string(at) +
                         "); the records before it were written");
      return S_FALSE;
    };
    std::array<unsigned char, kFlashHeaderSize> header{};
    if (flash.Read(header.data(), header.size()) != header.size()) return stop("header cut short");
    if (!std::equal(kSigFlash.begin(), kSigFlash.end(), header.begin()))
      return stop("no flash signature");

    // Checked against what is left before anything is written: a damaged length must not
    // leave a file that the record cannot fill.
    const uint32_t dataLength = ReadLE32(&header[kFlashDataLengthAt]);
    const uint64_t dataAt = flash.Tell();
    if (dataLength > fileSize - dataAt) return stop("data length past the end of the file");
    const uint64_t next = dataAt + dataLength;

    const uint8_t kind = header[kFlashKindAt];
    if (kind == kFlashKindSkipped) {
      if (!flash.Seek(next)) return stop("data cut short");
      continue;
    }

    // The name never reaches past the header, whatever its length byte says.
    const size_t nameLength =
        std::min<size_t>(header[kFlashNameLengthAt], kFlashHeaderSize - kFlashNameAt);
    std::string name(reinterpret_cast<const char*>(&header[kFlashNameAt]), nameLength);
    name.resize(std::min(name.size(), name.find('\0')));  // the name is C text: a zero ends it
    std::replace(name.begin(), name.end(), '/', '_');
    if (name.empty()) {
      if (const KindInfo* k = FindKind(kind)) name = std::string(k->word) + "0";
    }

    const std::string outPath =
        destFolder + name + FlashExtension(header[kFlashDeviceAt], kind, header[kFlashVariantAt]);
    fs::File out = fs::File::CreateWrite(outPath);
    if (!out.IsOpen()) {
      diag::Record("cannot-write", outPath, "cannot be created");
      return kCannotCreate;
    }
    // The data goes across in chunks, so memory stays small whatever the record's size. A
    // source that ends early (cut short, or shrunk meanwhile) leaves no part-written file.
    out.Write(header.data(), header.size());
    if (fs::CopyRange(flash, dataAt, dataLength, out) == fs::CopyEnd::kShortRead) {
      out.Close();
      fs::DeleteFile(outPath);
      return stop("data cut short");
    }
    out.Close();
    outFiles += outPath;
    outFiles += ',';
    if (!flash.Seek(next)) return stop("data cut short");
  }
  return S_OK;
}

}  // namespace qx
