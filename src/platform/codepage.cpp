#include "platform/codepage.h"

#include <iconv.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace qx::codepage {

namespace {

// Windows-1252 bytes 0x80-0x9F as Unicode. The five bytes the code page leaves undefined map to
// the C1 code points of the same value, as the platform's conversion does.
constexpr std::array<char16_t, 32> kHigh1252 = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,  // 80-87
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,  // 88-8F
    0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,  // 90-97
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,  // 98-9F
};

char16_t AnsiCharToWide(unsigned char c) {
  return (c >= 0x80 && c < 0xA0) ? kHigh1252[c - 0x80] : static_cast<char16_t>(c);
}

// The 1252 byte for a code point, or '?' when the code page cannot hold it.
char WideCharToAnsi(char32_t cp) {
  if (cp < 0x80 || (cp >= 0xA0 && cp <= 0xFF)) return static_cast<char>(cp);
  for (size_t i = 0; i < kHigh1252.size(); ++i)
    if (kHigh1252[i] == cp) return static_cast<char>(0x80 + i);
  return '?';
}

// Decodes one code point from UTF-16; a lone surrogate decodes as U+FFFD.
char32_t NextWide(std::u16string_view s, size_t& i) {
  const char16_t c = s[i++];
  if (c >= 0xD800 && c < 0xDC00 && i < s.size() && s[i] >= 0xDC00 && s[i] < 0xE000)
    return 0x10000 + ((static_cast<char32_t>(c) - 0xD800) << 10) + (s[i++] - 0xDC00);
  if (c >= 0xD800 && c < 0xE000) return 0xFFFD;
  return c;
}

// Decodes one code point from UTF-8; an invalid or overlong sequence decodes as U+FFFD and
// consumes one byte.
char32_t NextUtf8(std::string_view s, size_t& i) {
  const auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char c = b(i);
  if (c < 0x80) {
    ++i;
    return c;
  }
  size_t len = 0;
  char32_t cp = 0, min = 0;
  if ((c & 0xE0) == 0xC0) len = 2, cp = c & 0x1F, min = 0x80;
  else if ((c & 0xF0) == 0xE0) len = 3, cp = c & 0x0F, min = 0x800;
  else if ((c & 0xF8) == 0xF0) len = 4, cp = c & 0x07, min = 0x10000;
  if (len == 0 || i + len > s.size()) {
    ++i;
    return 0xFFFD;
  }
  for (size_t k = 1; k < len; ++k) {
    if ((b(i + k) & 0xC0) != 0x80) {
      ++i;
      return 0xFFFD;
    }
    cp = (cp << 6) | (b(i + k) & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp < 0xE000)) {
    ++i;
    return 0xFFFD;
  }
  i += len;
  return cp;
}

void AppendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

void AppendWide(std::u16string& out, char32_t cp) {
  if (cp < 0x10000) {
    out.push_back(static_cast<char16_t>(cp));
  } else {
    cp -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
  }
}

// Length of the UTF-8 sequence that starts with byte c (1 for a stray byte).
size_t Utf8Length(unsigned char c) {
  if ((c & 0xE0) == 0xC0) return 2;
  if ((c & 0xF0) == 0xE0) return 3;
  if ((c & 0xF8) == 0xF0) return 4;
  return 1;
}

// Open descriptors kept for reuse: XML reading converts text node by text node with the same
// pair of character sets, and iconv_open costs far more than a conversion. A descriptor is taken
// out while in use, so threads never share one; all are closed when the module goes away.
bool g_poolGone = false;  // trivially destructible: still readable during static destruction

class DescriptorPool {
 public:
  ~DescriptorPool() {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const Entry& e : entries_) iconv_close(e.cd);
    entries_.clear();
    g_poolGone = true;
  }

  iconv_t Acquire(const std::string& to, const std::string& from) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      for (size_t i = entries_.size(); i-- > 0;)
        if (entries_[i].to == to && entries_[i].from == from) {
          const iconv_t cd = entries_[i].cd;
          entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(i));
          return cd;
        }
    }
    return iconv_open(to.c_str(), from.c_str());
  }

  void Release(const std::string& to, const std::string& from, iconv_t cd) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (entries_.size() < kMaxKept) {
        entries_.push_back({to, from, cd});
        return;
      }
    }
    iconv_close(cd);
  }

 private:
  static constexpr size_t kMaxKept = 16;
  struct Entry {
    std::string to, from;
    iconv_t cd;
  };
  std::mutex mutex_;
  std::vector<Entry> entries_;
};

DescriptorPool& Pool() {
  static DescriptorPool pool;
  return pool;
}

// One iconv conversion descriptor, borrowed from the pool and given back on every way out.
class Converter {
 public:
  Converter(std::string to, std::string from)
      : to_(std::move(to)), from_(std::move(from)),
        cd_(g_poolGone ? iconv_open(to_.c_str(), from_.c_str()) : Pool().Acquire(to_, from_)) {}
  ~Converter() {
    if (!ok()) return;
    if (g_poolGone)
      iconv_close(cd_);
    else
      Pool().Release(to_, from_, cd_);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;
  bool ok() const { return cd_ != reinterpret_cast<iconv_t>(-1); }

  // Converts all of `in`. When `replacement` is given the source must be UTF-8: a character
  // the target cannot hold is skipped and `replacement` written in its place. Otherwise any
  // character that cannot be converted fails the conversion.
  bool Run(std::string_view in, std::string& out, const std::string* replacement = nullptr) {
    out.clear();
    iconv(cd_, nullptr, nullptr, nullptr, nullptr);  // a reused descriptor starts afresh
    char* src = const_cast<char*>(in.data());
    size_t srcLeft = in.size();
    std::string buf(in.size() * 4 + 16, '\0');
    for (;;) {
      char* dst = buf.data();
      size_t dstLeft = buf.size();
      const size_t r = iconv(cd_, &src, &srcLeft, &dst, &dstLeft);
      out.append(buf.data(), buf.size() - dstLeft);
      if (r != static_cast<size_t>(-1)) break;
      if (errno == E2BIG) continue;
      if (errno == EILSEQ && replacement != nullptr && srcLeft > 0) {
        const size_t skip = std::min(Utf8Length(static_cast<unsigned char>(*src)), srcLeft);
        src += skip;
        srcLeft -= skip;
        out += *replacement;
        continue;
      }
      return false;  // invalid or incomplete input
    }
    char* dst = buf.data();
    size_t dstLeft = buf.size();
    iconv(cd_, nullptr, nullptr, &dst, &dstLeft);  // shift state back to initial
    out.append(buf.data(), buf.size() - dstLeft);
    return true;
  }

 private:
  std::string to_, from_;
  iconv_t cd_;
};

}  // namespace

std::u16string AnsiToWide(std::string_view ansi) {
  std::u16string out(ansi.size(), u'\0');
  for (size_t i = 0; i < ansi.size(); ++i) out[i] = AnsiCharToWide(static_cast<unsigned char>(ansi[i]));
  return out;
}

std::string WideToAnsi(std::u16string_view wide) {
  std::string out;
  out.reserve(wide.size());
  for (size_t i = 0; i < wide.size();) out.push_back(WideCharToAnsi(NextWide(wide, i)));
  return out;
}

std::string AnsiToUtf8(std::string_view ansi) {
  std::string out;
  out.reserve(ansi.size() + ansi.size() / 4);
  for (unsigned char c : ansi) AppendUtf8(out, AnsiCharToWide(c));
  return out;
}

std::string Utf8ToAnsi(std::string_view utf8) {
  std::string out;
  out.reserve(utf8.size());
  for (size_t i = 0; i < utf8.size();) out.push_back(WideCharToAnsi(NextUtf8(utf8, i)));
  return out;
}

std::u16string Utf8ToWide(std::string_view utf8) {
  std::u16string out;
  out.reserve(utf8.size());
  for (size_t i = 0; i < utf8.size();) AppendWide(out, NextUtf8(utf8, i));
  return out;
}

std::string WideToUtf8(std::u16string_view wide) {
  // Mostly ASCII (whole XML listings pass through here): copied unit for unit until the first
  // character that needs more than one byte.
  std::string out(wide.size(), '\0');
  size_t i = 0;
  for (; i < wide.size() && wide[i] < 0x80; ++i) out[i] = static_cast<char>(wide[i]);
  out.resize(i);
  while (i < wide.size()) AppendUtf8(out, NextWide(wide, i));
  return out;
}

std::string Cp850ToAnsi(std::string_view cp850) {
  // Every byte of code page 850 is defined, so only 1252's gaps give '?'.
  Converter c("UTF-8", "CP850");
  std::string utf8;
  if (!c.ok() || !c.Run(cp850, utf8)) return std::string(cp850.size(), '?');
  return Utf8ToAnsi(utf8);
}

std::string AnsiToCp850(std::string_view ansi) {
  Converter c("CP850", "UTF-8");
  const std::string question = "?";
  std::string out;
  if (!c.ok() || !c.Run(AnsiToUtf8(ansi), out, &question)) return std::string(ansi.size(), '?');
  return out;
}

bool IsKnownCharset(std::string_view charset) {
  Converter c("UTF-8", std::string(charset));
  return c.ok();
}

bool ConvertCharset(std::string_view from, std::string_view to, std::string_view in,
                    std::string& out) {
  out.clear();
  // Through UTF-8: the first step checks the input, the second replaces what the target
  // cannot hold by '?' (iconv's //TRANSLIT would guess instead).
  Converter toUtf8("UTF-8", std::string(from));
  Converter fromUtf8(std::string(to), "UTF-8");
  if (!toUtf8.ok() || !fromUtf8.ok()) return false;
  std::string utf8;
  if (!toUtf8.Run(in, utf8)) return false;
  // The question mark in the target's own encoding (two bytes in UTF-16, say).
  std::string question;
  if (!fromUtf8.Run("?", question)) question.assign(1, '?');
  std::string result;
  if (!fromUtf8.Run(utf8, result, &question)) return false;
  out = std::move(result);
  return true;
}

// ---- Case ------------------------------------------------------------------------------------

char Lower1252(char ch) {
  const auto c = static_cast<unsigned char>(ch);
  if ((c >= 'A' && c <= 'Z') || (c >= 0xC0 && c <= 0xDE && c != 0xD7))
    return static_cast<char>(c + 0x20);
  switch (c) {
    case 0x8A: return '\x9A';  // S caron
    case 0x8C: return '\x9C';  // OE
    case 0x8E: return '\x9E';  // Z caron
    case 0x9F: return '\xFF';  // Y diaeresis
    default: return ch;
  }
}

char Upper1252(char ch) {
  const auto c = static_cast<unsigned char>(ch);
  if ((c >= 'a' && c <= 'z') || (c >= 0xE0 && c <= 0xFE && c != 0xF7))
    return static_cast<char>(c - 0x20);
  switch (c) {
    case 0x9A: return '\x8A';
    case 0x9C: return '\x8C';
    case 0x9E: return '\x8E';
    case 0xFF: return '\x9F';
    default: return ch;
  }
}

std::string ToLower1252(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = Lower1252(c);
  return out;
}

std::string ToUpper1252(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = Upper1252(c);
  return out;
}

bool EqualsNoCase1252(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (Lower1252(a[i]) != Lower1252(b[i])) return false;
  return true;
}

bool LessNoCase1252(std::string_view a, std::string_view b) {
  const size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    const auto x = static_cast<unsigned char>(Lower1252(a[i]));
    const auto y = static_cast<unsigned char>(Lower1252(b[i]));
    if (x != y) return x < y;
  }
  return a.size() < b.size();
}

}  // namespace qx::codepage
