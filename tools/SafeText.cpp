#include "tools/SafeText.h"

#include <cstdint>

#include <fmt/format.h>

namespace Mvpnstat {

namespace {

constexpr char32_t kInvalid = 0xFFFFFFFF;

// Decodes the sequence at s[i]; sets len to the bytes it takes (1 for an invalid byte, which
// gives kInvalid).
char32_t decode(std::string_view s, size_t i, size_t& len) {
  const auto byte = [&](size_t k) { return static_cast<uint8_t>(s[i + k]); };
  const uint8_t b0 = byte(0);
  len = 1;
  if (b0 < 0x80) return b0;
  size_t n;
  char32_t cp;
  char32_t min;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    n = 2, cp = b0 & 0x1F, min = 0x80;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    n = 3, cp = b0 & 0x0F, min = 0x800;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    n = 4, cp = b0 & 0x07, min = 0x10000;
  } else {
    return kInvalid;  // a continuation byte, an overlong lead (C0, C1) or above F4
  }
  if (i + n > s.size()) return kInvalid;
  for (size_t k = 1; k < n; ++k) {
    if ((byte(k) & 0xC0) != 0x80) return kInvalid;
    cp = (cp << 6) | (byte(k) & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return kInvalid;
  len = n;
  return cp;
}

bool isControl(char32_t cp) {
  return cp < 0x20 || (cp >= 0x7F && cp <= 0x9F);
}

}  // namespace

std::string jsonQuote(std::string_view s) {
  std::string out = "\"";
  out.reserve(s.size() + 2);
  for (size_t i = 0, len = 0; i < s.size(); i += len) {
    const char32_t cp = decode(s, i, len);
    switch (cp) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case kInvalid:
        out += "\\ufffd";
        break;
      default:
        if (isControl(cp) || cp == 0x2028 || cp == 0x2029) {
          out += fmt::format("\\u{:04x}", static_cast<uint32_t>(cp));
        } else {
          out.append(s.substr(i, len));
        }
    }
  }
  return out + "\"";
}

std::string displayText(std::string_view s, Shown shown) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0, len = 0; i < s.size(); i += len) {
    const char32_t cp = decode(s, i, len);
    if (cp == '\\') {
      out += shown == Shown::text ? "\\\\" : "\\";
    } else if (cp == '\n' && shown == Shown::dump) {
      out += '\n';
    } else if (cp == kInvalid || cp < 0x20 || cp == 0x7F) {
      out += fmt::format("\\x{:02x}", static_cast<uint8_t>(s[i]));
    } else if (isControl(cp)) {
      out += fmt::format("\\u{:04x}", static_cast<uint32_t>(cp));
    } else {
      out.append(s.substr(i, len));
    }
  }
  return out;
}

}  // namespace Mvpnstat
