#include "formats/MemberNames.h"

#include <algorithm>
#include <array>
#include <utility>

#include "formats/DeviceFamily.h"

namespace qx {

namespace {

// ---- MA-style families -----------------------------------------------------------------------

// Type code => file-name letter, the same for MA, NA, NBX and ra.
constexpr std::array<std::pair<uint8_t, char>, 23> kMATypeLetters{{
    {0x00, 'e'}, {0x04, 'l'}, {0x06, 'm'}, {0x0A, 'c'}, {0x0B, 't'}, {0x0C, 's'},
    {0x0D, 'd'}, {0x0E, 'a'}, {0x10, 'i'}, {0x12, 'p'}, {0x13, 'f'}, {0x14, 'x'},
    {0x18, 'h'}, {0x1C, 'y'}, {0x1D, 'b'}, {0x1F, 'g'}, {0x21, 'z'}, {0x23, 'u'},
    {0x24, 'k'}, {0x25, 'q'}, {0x26, 'b'}, {0x27, 'b'}, {0x8B, 't'},
}};

bool HasMATypeLetters(std::string_view sig) {
  return sig == kSigMA || sig == kSigNA || sig == kSigNBX || sig == kSigRa;
}

// ---- KC-style families -----------------------------------------------------------------------

enum class KCFamily { KA, KC, KDX, Other };

KCFamily KCFamilyOf(std::string_view sig) {
  if (sig == kSigKA) return KCFamily::KA;
  if (sig == kSigKC) return KCFamily::KC;
  if (sig == kSigKDX) return KCFamily::KDX;
  return KCFamily::Other;
}

constexpr unsigned char kTheta = 0xC1;

// Names decided by the type alone (window settings, programs ...). An empty extension letter
// means the type has no rule in that family and the name decides.
struct TypeRule {
  uint8_t type;
  const char* fixedName;  // null: the entry's own name text
  char ka, kc, kdx;       // extension letters; 0 = no rule in that family
};
constexpr std::array<TypeRule, 9> kTypeRules{{
    {0x0F, "WindowRange", 'w', 'w', 'w'},
    {0x10, "UserZoomWin", 'w', 'z', 'z'},
    {0x11, "TableSetup", 't', 't', 't'},
    {0x05, nullptr, 'p', 'p', 'p'},
    {0x06, nullptr, 'p', 'p', 'p'},
    {0x15, nullptr, 0, 0, 'v'},
    {0x17, nullptr, 0, 'g', 'g'},
    {0x1A, nullptr, 'v', 0, 0},
    {0x24, nullptr, 'k', 0, 'k'},
}};

// Bytes that, first in a name, stand for a class of built-in variables.
constexpr std::array<unsigned char, 10> kTokenBytes{0x5C, 0x5D, 0x5E, 0x60, 0x61,
                                                    0x62, 0x63, 0x7E, 0xAA, 0xBB};

bool IsTokenByte(unsigned char c) {
  for (unsigned char t : kTokenBytes)
    if (t == c) return true;
  return false;
}

char Ch(unsigned v) { return static_cast<char>(static_cast<unsigned char>(v)); }

// Every 0xC1 written out as "theta".
std::string WithTheta(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 8);
  for (char c : text) {
    if (static_cast<unsigned char>(c) == kTheta)
      out += "theta";
    else
      out += c;
  }
  return out;
}

// Numbered KC/KDX variables count from 1, with 9 meaning "0": b = 0 => '1', 8 => '9', 9 => '0'.
char KCDigit(unsigned b) { return b == 9 ? '0' : Ch('1' + b); }

// A name and its extension letter; no letter means no extension.
struct Named {
  std::string name;
  char letter = 0;
};

// A list's own name: the bytes after the token and its index byte, up to 5, to the first zero.
//   5D 06 'M' 'Y' 'L' 'S' 'T' 00 => "MYLST"
std::string OwnListName(const NameField& field) {
  NameField rest{};
  std::copy(field.begin() + 2, field.begin() + 7, rest.begin());
  return WithTheta(NameFieldText(rest));
}

// KC and KDX names of token form (first byte `token`, second byte `b`); nullopt = no rule.
std::optional<Named> KCTokenName(unsigned char token, unsigned b, const NameField& field) {
  switch (token) {
    case 0x5C:  // matrix: [A] ...
      return Named{std::string(1, Ch('A' + b)), 'm'};
    case 0x5D:  // list: L1 - L6, or a list of its own name
      if (b < 6) return Named{std::string("L") + Ch('1' + b), 'l'};
      return Named{OwnListName(field), 'l'};
    case 0x5E:  // equation
      if (b < 0x10) return std::nullopt;
      if (b <= 0x1F) return Named{std::string("Y") + (b == 0x19 ? '0' : Ch(b + 0x21)), 'y'};
      if (b <= 0x3F)
        return Named{std::string(1, b % 2 == 0 ? 'X' : 'Y') + Ch('1' + (b - 0x20) / 2) + "T", 'y'};
      if (b <= 0x7F) return Named{std::string("r") + Ch(b - 0x0F), 'y'};
      return Named{std::string(1, Ch(b - 0x0B)), 'y'};
    case 0x60:
      return Named{std::string("Pic") + KCDigit(b), 'i'};
    case 0x61:
      return Named{std::string("GDB") + KCDigit(b), 'd'};
    case 0xAA:
      return Named{std::string("Str") + KCDigit(b), 's'};
    default:
      return std::nullopt;
  }
}

// KA names of token form.
std::optional<Named> KATokenName(unsigned char token, unsigned b, const NameField& field) {
  switch (token) {
    case 0x5D:
      if (b >= 1 && b <= 6) return Named{std::string("L") + Ch('0' + b), 'l'};
      return Named{OwnListName(field), 'l'};
    case 0x5E:
      if (b >= 0x10 && b <= 0x1F) return Named{std::string("Y") + Ch('1' + (b & 0x0F)), 'y'};
      if (b >= 0x80 && b <= 0x8F) return Named{std::string("C") + Ch('1' + (b & 0x0F)), 'c'};
      return std::nullopt;
    case 0x60:
      return Named{std::string("Pic") + Ch('0' + b), 'i'};
    default:
      return std::nullopt;
  }
}

// A name that is one variable letter: A, theta, ...
Named LetterName(KCFamily family, std::string_view text, uint8_t type) {
  const std::string letter(text.substr(0, 1));
  if (family == KCFamily::KA) {
    const bool real = type == 0x00 || (type >= 0x14 && type <= 0x17);
    return Named{letter, real ? 'n' : '\0'};
  }
  const bool theta = !letter.empty() && static_cast<unsigned char>(letter[0]) == kTheta;
  return Named{theta ? std::string("theta") : letter, type == 0x00 ? 'n' : 'c'};
}

}  // namespace

std::optional<std::string> TypeExtensionMA(uint8_t type, std::string_view familySignature) {
  if (!HasMATypeLetters(familySignature)) return std::string();
  const FamilyInfo* family = FindFamilyBySignature(familySignature);
  for (const auto& [code, letter] : kMATypeLetters)
    if (code == type) return "." + std::string(family->extensionCode) + letter;
  return std::nullopt;
}

std::string MemberFileNameMA(std::string_view folder, std::string_view translatedName, uint8_t type,
                             std::string_view familySignature) {
  std::string name;
  if (!folder.empty()) {
    name.append(folder);
    name += '.';
  }
  name.append(translatedName);
  name += TypeExtensionMA(type, familySignature).value_or(std::string());
  return name;
}

std::string MemberFileNameKC(const NameField& nameField, uint8_t type, std::string_view familySignature) {
  const KCFamily family = KCFamilyOf(familySignature);
  NameField field = nameField;
  if (family == KCFamily::KDX)
    for (unsigned char& c : field)
      if (c == 0x5B) c = kTheta;
  const std::string text = NameFieldText(field);
  if (family == KCFamily::Other) return text;

  const FamilyInfo* info = FindFamilyBySignature(familySignature);
  const auto withExtension = [&](std::string name, char letter) {
    if (letter != 0) name += "." + std::string(info->extensionCode) + letter;
    return name;
  };

  for (const TypeRule& rule : kTypeRules) {
    if (rule.type != type) continue;
    const char letter = family == KCFamily::KA ? rule.ka : family == KCFamily::KC ? rule.kc : rule.kdx;
    if (letter == 0) break;
    return withExtension(rule.fixedName ? std::string(rule.fixedName) : WithTheta(text), letter);
  }

  const unsigned char first = field[0];
  if (!IsTokenByte(first)) {
    const Named n = LetterName(family, text, type);
    return withExtension(n.name, n.letter);
  }
  const unsigned b = field[1];
  const std::optional<Named> n =
      family == KCFamily::KA ? KATokenName(first, b, field) : KCTokenName(first, b, field);
  if (!n) return text;
  return withExtension(n->name, n->letter);
}

std::string RenameForGroupFamily(std::string_view memberName, std::string_view groupFamilySignature) {
  std::string name(memberName);
  const FamilyInfo* family = FindFamilyBySignature(groupFamilySignature);
  const size_t dot = name.rfind('.');
  if (family == nullptr || dot == std::string::npos) return name;
  name.replace(dot, 3, "." + std::string(family->extensionCode));
  return name;
}

}  // namespace qx
