#include "archive/ZipFormat.h"

#include <algorithm>

#include "platform/ByteOrder.h"
#include "platform/codepage.h"

namespace qx::zip {

void ParseLocal(const unsigned char* p, LocalHeader& h) {
  h.flags = ReadLE16(p + 6);
  h.method = ReadLE16(p + 8);
  h.time = ReadLE16(p + 10);
  h.date = ReadLE16(p + 12);
  h.crc = ReadLE32(p + 14);
  h.compressedSize = ReadLE32(p + 18);
  h.uncompressedSize = ReadLE32(p + 22);
  h.nameLength = ReadLE16(p + 26);
  h.extraLength = ReadLE16(p + 28);
}

void ParseCentral(const unsigned char* p, CentralHeader& h) {
  h.madeBy = ReadLE16(p + 4);
  h.flags = ReadLE16(p + 8);
  h.method = ReadLE16(p + 10);
  h.time = ReadLE16(p + 12);
  h.date = ReadLE16(p + 14);
  h.crc = ReadLE32(p + 16);
  h.compressedSize = ReadLE32(p + 20);
  h.uncompressedSize = ReadLE32(p + 24);
  h.nameLength = ReadLE16(p + 28);
  h.extraLength = ReadLE16(p + 30);
  h.commentLength = ReadLE16(p + 32);
  h.internalAttributes = ReadLE16(p + 36);
  h.externalAttributes = ReadLE32(p + 38);
  h.localOffset = ReadLE32(p + 42);
}

uint16_t WrittenMethod(const Record& r) {
  return r.compressedSize == 0 && r.uncompressedSize == 0 ? kMethodStored : r.method;
}

namespace {

void Append(std::vector<unsigned char>& out, const std::string& bytes) {
  out.insert(out.end(), bytes.begin(), bytes.end());
}

}  // namespace

void AppendLocalHeader(const Record& r, std::vector<unsigned char>& out) {
  const size_t at = out.size();
  out.resize(at + kLocalSize);
  unsigned char* b = out.data() + at;
  WriteLE32(&b[0], kLocalSig);
  WriteLE16(&b[4], kVersion);
  WriteLE16(&b[6], r.flags);
  WriteLE16(&b[8], WrittenMethod(r));
  WriteLE16(&b[10], r.dosTime);
  WriteLE16(&b[12], r.dosDate);
  WriteLE32(&b[14], r.crc);
  WriteLE32(&b[18], r.compressedSize);
  WriteLE32(&b[22], r.uncompressedSize);
  WriteLE16(&b[26], static_cast<uint16_t>(r.name.size()));
  WriteLE16(&b[28], 0);
  Append(out, r.name);
}

void AppendCentralHeader(const Record& r, uint32_t localOffset, std::vector<unsigned char>& out) {
  const size_t at = out.size();
  out.resize(at + kCentralSize);
  unsigned char* b = out.data() + at;
  WriteLE32(&b[0], kCentralSig);
  WriteLE16(&b[4], r.madeBy);
  WriteLE16(&b[6], kVersion);
  WriteLE16(&b[8], r.flags);
  WriteLE16(&b[10], WrittenMethod(r));
  WriteLE16(&b[12], r.dosTime);
  WriteLE16(&b[14], r.dosDate);
  WriteLE32(&b[16], r.crc);
  WriteLE32(&b[20], r.compressedSize);
  WriteLE32(&b[24], r.uncompressedSize);
  WriteLE16(&b[28], static_cast<uint16_t>(r.name.size()));
  WriteLE16(&b[30], 0);
  WriteLE16(&b[32], static_cast<uint16_t>(r.comment.size()));
  WriteLE16(&b[34], 0);
  WriteLE16(&b[36], r.internalAttributes);
  WriteLE32(&b[38], r.externalAttributes);
  WriteLE32(&b[42], localOffset);
  Append(out, r.name);
  Append(out, r.comment);
}

std::vector<unsigned char> EndRecordBytes(uint32_t count, uint32_t directorySize,
                                          uint32_t directoryOffset, const std::string& comment) {
  std::vector<unsigned char> b(kEndSize);
  WriteLE32(&b[0], kEndSig);
  WriteLE16(&b[4], 0);
  WriteLE16(&b[6], 0);
  WriteLE16(&b[8], static_cast<uint16_t>(count));
  WriteLE16(&b[10], static_cast<uint16_t>(count));
  WriteLE32(&b[12], directorySize);
  WriteLE32(&b[16], directoryOffset);
  WriteLE16(&b[20], static_cast<uint16_t>(comment.size()));
  Append(b, comment);
  return b;
}

bool LooksLikeText(const unsigned char* data, size_t size) {
  size_t binary = 0, text = 0;
  for (size_t i = 0; i < std::min<size_t>(size, 800); ++i) {
    const unsigned char c = data[i];
    if (c <= 6 || c >= 128)
      ++binary;
    else
      ++text;
  }
  return binary <= text / 4;
}

// ---- Names ------------------------------------------------------------------------------------

namespace {

bool HasHighBytes(const std::string& s) {
  return std::any_of(s.begin(), s.end(), [](char c) { return static_cast<unsigned char>(c) > 127; });
}

std::string AnsiOfStored(const Record& r) {
  // Archives of other tools mark UTF-8 names; ours and older ones hold code page 850 (any
  // byte of 128-159 gives it away) or the ANSI code page.
  if (r.flags & kFlagUtf8) return codepage::Utf8ToAnsi(r.name);
  const bool oem = std::any_of(r.name.begin(), r.name.end(), [](char c) {
    const auto b = static_cast<unsigned char>(c);
    return b >= 128 && b <= 159;
  });
  return oem ? codepage::Cp850ToAnsi(r.name) : r.name;
}

}  // namespace

std::string DisplayName(const Record& r) {
  std::string name;
  DisplayNameInto(r, name);
  return name;
}

void DisplayNameInto(const Record& r, std::string& out) {
  if ((r.flags & kFlagUtf8) == 0 && !HasHighBytes(r.name))
    out.assign(r.name);  // reuses out's storage: no allocation per entry in a walk
  else
    out = AnsiOfStored(r);
  std::replace(out.begin(), out.end(), '/', '\\');
}

bool NormalNameIs(const Record& r, const std::string& normal) {
  if ((r.flags & kFlagUtf8) == 0 && HasHighBytes(r.name)) return NormalNameOfStored(r) == normal;
  if (r.name.size() != normal.size()) return false;
  for (size_t i = 0; i < normal.size(); ++i)
    if ((r.name[i] == '\\' ? '/' : r.name[i]) != normal[i]) return false;
  return true;
}

std::string NormalNameOfStored(const Record& r) {
  std::string name;
  if (r.flags & kFlagUtf8)
    name = r.name;
  else
    name = HasHighBytes(r.name) ? codepage::AnsiToUtf8(AnsiOfStored(r)) : r.name;
  std::replace(name.begin(), name.end(), '\\', '/');
  return name;
}

std::string NormalNameOfGiven(const std::string& ansi) {
  std::string name = ansi;
  if (HasHighBytes(name)) {
    std::string utf8;
    if (codepage::ConvertCharset("ISO-8859-1", "UTF-8", name, utf8)) name = std::move(utf8);
  }
  std::replace(name.begin(), name.end(), '\\', '/');
  return name;
}

}  // namespace qx::zip
