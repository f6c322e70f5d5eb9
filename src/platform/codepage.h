// Code-page conversion: the component works on 8-bit Windows-1252 text (the ANSI code page);
// automation strings are UTF-16, the file system is UTF-8, zip names are code page 850, and
// XML documents may declare any named character set. Everything goes through iconv.
#pragma once

#include <string>
#include <string_view>

namespace qx::codepage {

// Wide (UTF-16) -> ANSI (1252). A character 1252 cannot hold becomes '?'; a lone surrogate too.
std::string WideToAnsi(std::u16string_view wide);
// ANSI (1252) -> wide (UTF-16). Never fails: the five bytes 1252 leaves undefined
// (0x81 0x8D 0x8F 0x90 0x9D) become the C1 code points of the same value.
std::u16string AnsiToWide(std::string_view ansi);

// ANSI (1252) <-> UTF-8, for file-system calls and JSON output. "café" <-> "caf\xE9".
std::string AnsiToUtf8(std::string_view ansi);
// Invalid UTF-8 sequences and characters 1252 cannot hold become '?'.
std::string Utf8ToAnsi(std::string_view utf8);

// UTF-8 <-> UTF-16.
std::u16string Utf8ToWide(std::string_view utf8);
std::string WideToUtf8(std::u16string_view wide);

// Case in Windows-1252: ASCII letters and the accented letters of both cases (0xC0-0xDE but
// 0xD7, S/Z caron, OE, Y diaeresis). The one case-folding rule for names, extensions and keys:
//   Lower1252('\xC9') => '\xE9';  ToUpper1252(".qxg") => ".QXG";  EqualsNoCase1252("Abc", "aBC")
char Lower1252(char c);
char Upper1252(char c);
std::string ToLower1252(std::string_view text);
std::string ToUpper1252(std::string_view text);
bool EqualsNoCase1252(std::string_view a, std::string_view b);
// Bytewise order of the lower-cased texts, shorter first on a common prefix.
bool LessNoCase1252(std::string_view a, std::string_view b);

// Code page 850 (zip entry names) <-> ANSI (1252). Unmappable characters become '?'.
std::string Cp850ToAnsi(std::string_view cp850);
std::string AnsiToCp850(std::string_view ansi);

// Named character sets ("utf-8", "ISO-8859-1", "windows-1252", "utf-16le", ...), for XML.
// True when iconv knows the name.
bool IsKnownCharset(std::string_view charset);
// Converts `in` from charset `from` to charset `to`. Characters the target cannot hold become
// '?'. Returns false (and leaves `out` empty) when a name is unknown or the input is not valid
// in `from`.
bool ConvertCharset(std::string_view from, std::string_view to, std::string_view in,
                    std::string& out);

}  // namespace qx::codepage
