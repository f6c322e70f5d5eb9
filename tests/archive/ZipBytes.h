// Zip archives built and taken apart byte by byte from the format's layout tables, so tests
// check VxZip against the format rather than against its own writer.
#pragma once

#include <zlib.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qx::ziptest {

inline void Put16(std::string& s, uint32_t v) {
  s += static_cast<char>(v & 0xFF);
  s += static_cast<char>((v >> 8) & 0xFF);
}
inline void Put32(std::string& s, uint32_t v) {
  Put16(s, v & 0xFFFF);
  Put16(s, v >> 16);
}
inline uint32_t Get16(const std::string& s, size_t at) {
  return static_cast<unsigned char>(s.at(at)) | static_cast<unsigned char>(s.at(at + 1)) << 8;
}
inline uint32_t Get32(const std::string& s, size_t at) { return Get16(s, at) | Get16(s, at + 2) << 16; }

inline uint32_t Crc(const std::string& data) {
  return static_cast<uint32_t>(
      crc32(0, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
}

// Raw deflate (no zlib header), as zip members carry it.
inline std::string Deflate(const std::string& data, int level = 6) {
  z_stream z{};
  deflateInit2(&z, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&z, static_cast<uLong>(data.size())), '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

// One member of a hand-made archive. The optional fields replace what would be correct, to
// make damaged archives.
struct Member {
  Member(std::string n, std::string d, uint16_t m = 8)
      : name(std::move(n)), data(std::move(d)), method(m) {}

  std::string name;
  std::string data;  // uncompressed
  uint16_t method = 8;
  uint16_t flags = 0;  // besides the descriptor bit
  int level = 6;
  bool descriptor = false;           // flag bit 3: zero sizes in the local header, sizes after the data
  bool descriptorSignature = true;  // the optional 0x08074b50 before the descriptor
  uint16_t date = 0x5D76, time = 0xA52F;  // 2026-11-22 20:41:30
  uint32_t externalAttributes = 0x20;
  std::string localExtra;
  std::optional<uint32_t> crc, compressedSize, uncompressedSize, centralCompressedSize;
  std::optional<std::string> payload;  // the member's stored bytes, instead of compressing `data`
};

struct Options {
  std::string prefix;   // bytes before the first header
  std::string comment;  // archive comment
  bool endRecord = true;
  int dropCentral = 0;  // leave out this many central headers at the end
};

inline Options Prefix(std::string bytes) {
  Options o;
  o.prefix = std::move(bytes);
  return o;
}
inline Options Comment(std::string text) {
  Options o;
  o.comment = std::move(text);
  return o;
}
inline Options NoEndRecord() {
  Options o;
  o.endRecord = false;
  return o;
}
inline Options DropCentral(int n) {
  Options o;
  o.dropCentral = n;
  return o;
}

inline std::string Payload(const Member& m) {
  if (m.payload) return *m.payload;
  return m.method == 8 ? Deflate(m.data, m.level) : m.data;
}

inline std::string BuildZip(const std::vector<Member>& members, const Options& o = {}) {
  std::string out = o.prefix;
  std::vector<uint32_t> offsets;
  for (const Member& m : members) {
    const std::string payload = Payload(m);
    const uint32_t crc = m.crc.value_or(Crc(m.data));
    const uint32_t csize = m.compressedSize.value_or(static_cast<uint32_t>(payload.size()));
    const uint32_t usize = m.uncompressedSize.value_or(static_cast<uint32_t>(m.data.size()));
    offsets.push_back(static_cast<uint32_t>(out.size() - o.prefix.size()));
    Put32(out, 0x04034b50);
    Put16(out, 20);
    Put16(out, m.flags | (m.descriptor ? 8 : 0));
    Put16(out, m.method);
    Put16(out, m.time);
    Put16(out, m.date);
    Put32(out, m.descriptor ? 0 : crc);
    Put32(out, m.descriptor ? 0 : csize);
    Put32(out, m.descriptor ? 0 : usize);
    Put16(out, static_cast<uint32_t>(m.name.size()));
    Put16(out, static_cast<uint32_t>(m.localExtra.size()));
    out += m.name + m.localExtra + payload;
    if (m.descriptor) {
      if (m.descriptorSignature) Put32(out, 0x08074b50);
      Put32(out, crc);
      Put32(out, csize);
      Put32(out, usize);
    }
  }
  const size_t directoryStart = out.size();
  const size_t central = members.size() - static_cast<size_t>(o.dropCentral);
  for (size_t i = 0; i < central; ++i) {
    const Member& m = members[i];
    const std::string payload = Payload(m);
    Put32(out, 0x02014b50);
    Put16(out, 20 | 11 << 8);
    Put16(out, 20);
    Put16(out, m.flags | (m.descriptor ? 8 : 0));
    Put16(out, m.method);
    Put16(out, m.time);
    Put16(out, m.date);
    Put32(out, m.crc.value_or(Crc(m.data)));
    Put32(out, m.centralCompressedSize.value_or(
                   m.compressedSize.value_or(static_cast<uint32_t>(payload.size()))));
    Put32(out, m.uncompressedSize.value_or(static_cast<uint32_t>(m.data.size())));
    Put16(out, static_cast<uint32_t>(m.name.size()));
    Put16(out, 0);
    Put16(out, 0);
    Put16(out, 0);
    Put16(out, 0);
    Put32(out, m.externalAttributes);
    Put32(out, offsets[i]);
    out += m.name;
  }
  if (o.endRecord) {
    const size_t directorySize = out.size() - directoryStart;
    Put32(out, 0x06054b50);
    Put16(out, 0);
    Put16(out, 0);
    Put16(out, static_cast<uint32_t>(central));
    Put16(out, static_cast<uint32_t>(central));
    Put32(out, static_cast<uint32_t>(directorySize));
    Put32(out, static_cast<uint32_t>(directoryStart - o.prefix.size()));
    Put16(out, static_cast<uint32_t>(o.comment.size()));
    out += o.comment;
  }
  return out;
}

// The fields of an archive as written: every local header with its name and stored bytes,
// every central header, and the end record. `error` says where reading stopped.
struct ParsedLocal {
  uint32_t version, flags, method, time, date, crc, compressedSize, uncompressedSize, extraLength;
  std::string name, payload;
};
struct ParsedCentral {
  uint32_t madeBy, version, flags, method, time, date, crc, compressedSize, uncompressedSize,
      commentLength, disk, internalAttributes, externalAttributes, localOffset;
  std::string name;
};
struct Parsed {
  std::vector<ParsedLocal> locals;
  std::vector<ParsedCentral> centrals;
  uint32_t entriesOnDisk = 0, entries = 0, directorySize = 0, directoryOffset = 0;
  std::string comment;
  std::string error;
};

inline Parsed ParseZip(const std::string& b) {
  Parsed p;
  size_t pos = 0;
  try {
    while (pos + 4 <= b.size() && Get32(b, pos) == 0x04034b50) {
      ParsedLocal l{Get16(b, pos + 4),  Get16(b, pos + 6),  Get16(b, pos + 8),
                    Get16(b, pos + 10), Get16(b, pos + 12), Get32(b, pos + 14),
                    Get32(b, pos + 18), Get32(b, pos + 22), Get16(b, pos + 28), {}, {}};
      const size_t nameLength = Get16(b, pos + 26);
      l.name = b.substr(pos + 30, nameLength);
      pos += 30 + nameLength + l.extraLength;
      l.payload = b.substr(pos, l.compressedSize);
      pos += l.compressedSize;
      p.locals.push_back(l);
    }
    const size_t directoryStart = pos;
    while (pos + 4 <= b.size() && Get32(b, pos) == 0x02014b50) {
      ParsedCentral c{Get16(b, pos + 4),  Get16(b, pos + 6),  Get16(b, pos + 8),
                      Get16(b, pos + 10), Get16(b, pos + 12), Get16(b, pos + 14),
                      Get32(b, pos + 16), Get32(b, pos + 20), Get32(b, pos + 24),
                      Get16(b, pos + 32), Get16(b, pos + 34), Get16(b, pos + 36),
                      Get32(b, pos + 38), Get32(b, pos + 42), {}};
      c.name = b.substr(pos + 46, Get16(b, pos + 28));
      pos += 46 + c.name.size() + Get16(b, pos + 30) + c.commentLength;
      p.centrals.push_back(c);
    }
    if (Get32(b, pos) != 0x06054b50) {
      p.error = "no end record at " + std::to_string(pos);
      return p;
    }
    if (Get16(b, pos + 4) != 0 || Get16(b, pos + 6) != 0) p.error = "disk numbers";
    p.entriesOnDisk = Get16(b, pos + 8);
    p.entries = Get16(b, pos + 10);
    p.directorySize = Get32(b, pos + 12);
    p.directoryOffset = Get32(b, pos + 16);
    p.comment = b.substr(pos + 22, Get16(b, pos + 20));
    if (pos + 22 + p.comment.size() != b.size()) p.error = "bytes after the end record";
    if (p.directoryOffset != directoryStart || p.directorySize != pos - directoryStart)
      p.error = "end record does not locate the directory";
  } catch (const std::out_of_range&) {
    p.error = "truncated";
  }
  return p;
}

}  // namespace qx::ziptest
