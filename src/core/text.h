#pragma once

#include <string>
#include <string_view>

namespace nvo {

/// Folds ASCII A to Z to lower case; every other byte stays.
inline char ascii_lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline std::string ascii_lower(std::string_view text) {
  std::string folded(text);
  for (char& c : folded) c = ascii_lower(c);
  return folded;
}

/// Text without leading and trailing blank, tab, line feed, vertical tab, form feed and carriage return.
std::string_view trim(std::string_view text);

/// True for well-formed UTF-8: no overlong form, surrogate, value above U+10FFFF or stray continuation byte.
bool is_valid_utf8(std::string_view text);

/// A settings token in the form in which it is compared: lower case, without control characters, blanks, `_`,
/// `-` and `.`.
std::string normalize_token(std::string_view text);

/// The text behind the last "." of the whole path, folded to lower case; empty when there is no dot.
std::string lower_extension(std::string_view path);

/// A file name with the bytes `"*/:<>?\|` and control characters replaced by `_`; "image" when empty.
std::string sanitize_name(std::string_view name);

/// Text for a person's eyes: bytes below 32 and 127, which may come from a file and steer a terminal or forge
/// a line, as \\xNN. Everything else stays.
std::string escape_controls(std::string_view text);

/// Text for a JSON string: quote and backslash with a backslash, the control characters whose letters stand
/// in `letters` (of "bfnrt") as a backslash and that letter, the others below 32 as \u00xx in lower case.
std::string escape_json(std::string_view text, std::string_view letters);

}  // namespace nvo
