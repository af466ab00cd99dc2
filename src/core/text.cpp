#include "core/text.h"

#include <cstdint>

namespace nvo {

std::string_view trim(std::string_view text) {
  constexpr std::string_view kWhite = " \t\n\v\f\r";
  const auto first = text.find_first_not_of(kWhite);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kWhite) - first + 1);
}

bool is_valid_utf8(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    std::size_t length = 0;
    std::uint32_t value = 0;
    std::uint32_t least = 0;  // smallest value that needs this many bytes
    if (lead < 0x80) {
      ++i;
      continue;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2, value = lead & 0x1Fu, least = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3, value = lead & 0x0Fu, least = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4, value = lead & 0x07u, least = 0x10000;
    } else {
      return false;
    }
    if (length > text.size() - i) return false;
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0u) != 0x80u) return false;
      value = value << 6 | (next & 0x3Fu);
    }
    if (value < least || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

std::string normalize_token(std::string_view text) {
  std::string token;
  for (const char c : text) {
    const bool dropped = static_cast<unsigned char>(c) <= ' ' || c == '_' || c == '-' || c == '.';
    if (!dropped) token += ascii_lower(c);
  }
  return token;
}

std::string lower_extension(std::string_view path) {
  const auto dot = path.rfind('.');
  return dot == std::string_view::npos ? std::string() : ascii_lower(path.substr(dot + 1));
}

std::string escape_controls(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 32 || byte == 127)
      escaped.append({'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]});
    else
      escaped += c;
  }
  return escaped;
}

std::string escape_json(std::string_view text, std::string_view letters) {
  constexpr std::string_view kControls = "\b\f\n\r\t";
  constexpr std::string_view kControlLetters = "bfnrt";
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    const auto control = kControls.find(c);
    if (c == '"' || c == '\\') {
      escaped.append({'\\', c});
    } else if (control != std::string_view::npos &&
               letters.find(kControlLetters[control]) != std::string_view::npos) {
      escaped.append({'\\', kControlLetters[control]});
    } else if (static_cast<unsigned char>(c) < 32) {
      constexpr std::string_view kDigits = "0123456789abcdef";
      escaped.append("\\u00").append({kDigits[static_cast<unsigned char>(c) >> 4], kDigits[c & 15]});
    } else {
      escaped += c;
    }
  }
  return escaped;
}

std::string sanitize_name(std::string_view name) {
  constexpr std::string_view kUnsafe = "\"*/:<>?\\|";
  std::string safe(name);
  for (char& c : safe) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 32 || byte == 127 || kUnsafe.find(c) != std::string_view::npos) c = '_';
  }
  return safe.empty() ? "image" : safe;
}

}  // namespace nvo
