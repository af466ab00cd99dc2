#include "image/pdf/pdf_tokens.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

#include "core/text.h"

namespace nvo {
namespace {

bool is_delimiter(char c) {
  switch (c) {
    case '%':
    case '(':
    case ')':
    case '/':
    case '<':
    case '>':
    case '[':
    case ']':
    case '{':
    case '}':
      return true;
    default:
      return is_pdf_whitespace(c);
  }
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = ascii_lower(c);
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

/// Walks a text once, token by token.
class Tokenizer {
 public:
  explicit Tokenizer(std::string_view text) : text_(text) {}

  std::optional<PdfToken> next() {
    while (position_ < text_.size()) {
      const char c = text_[position_];
      if (is_pdf_whitespace(c)) {
        ++position_;
      } else if (c == '%') {
        position_ = std::min(text_.find_first_of("\n\r", position_), text_.size());
      } else if (c == '(') {
        skip_string();
      } else if (const auto token = token_here(c)) {
        return token;
      } else {
        ++position_;
      }
    }
    return std::nullopt;
  }

 private:
  std::optional<PdfToken> token_here(char c) {
    switch (c) {
      case '[':
        return take(PdfTokenType::array_open, 1);
      case ']':
        return take(PdfTokenType::array_close, 1);
      case '<':
        return doubled(c) ? std::optional(take(PdfTokenType::dictionary_open, 2)) : std::nullopt;
      case '>':
        return doubled(c) ? std::optional(take(PdfTokenType::dictionary_close, 2)) : std::nullopt;
      case ')':
      case '{':
      case '}':
        return std::nullopt;
      case '/':
        return take(PdfTokenType::name, run_length());
      default:
        return number_or_word();
    }
  }

  bool doubled(char c) const { return position_ + 1 < text_.size() && text_[position_ + 1] == c; }

  /// Bytes from here to the next delimiter, the first byte always counted.
  std::size_t run_length() const {
    std::size_t end = position_ + 1;
    while (end < text_.size() && !is_delimiter(text_[end])) ++end;
    return end - position_;
  }

  PdfToken take(PdfTokenType type, std::size_t length) {
    const PdfToken token{type, text_.substr(position_, length), 0.0};
    position_ += length;
    return token;
  }

  PdfToken number_or_word() {
    PdfToken token = take(PdfTokenType::word, run_length());
    if (const auto number = parse_pdf_number(token.text)) {
      token.type = PdfTokenType::number;
      token.number = *number;
    }
    return token;
  }

  void skip_string() {
    std::size_t depth = 0;
    for (; position_ < text_.size(); ++position_) {
      const char c = text_[position_];
      if (c == '\\') {
        ++position_;
      } else if (c == '(') {
        ++depth;
      } else if (c == ')' && --depth == 0) {
        ++position_;
        return;
      }
    }
    position_ = text_.size();
  }

  std::string_view text_;
  std::size_t position_ = 0;
};

/// A value that came out as nothing although its digits are not: too small for a double.
bool is_underflow(double value, std::string_view digits, bool hexadecimal) {
  if (std::fpclassify(value) == FP_SUBNORMAL) return true;
  if (value != 0.0) return false;
  const std::string_view mantissa = digits.substr(0, digits.find_first_of(hexadecimal ? "pP" : "eE"));
  return mantissa.find_first_not_of("0.") != std::string_view::npos;
}

}  // namespace

bool is_pdf_whitespace(char c) {
  return c == ' ' || c == '\n' || c == '\r' || c == '\t' || c == '\f' || c == '\0';
}

std::optional<double> parse_pdf_number(std::string_view word) {
  // A vertical tab is white space to strtod, but not to PDF.
  word.remove_prefix(std::min(word.find_first_not_of('\v'), word.size()));
  const bool negative = word.starts_with('-');
  if (negative || word.starts_with('+')) word.remove_prefix(1);

  auto format = std::chars_format::general;
  if (word.starts_with("0x") || word.starts_with("0X")) {
    word.remove_prefix(2);
    format = std::chars_format::hex;
    if (word.empty() || (hex_digit(word[0]) < 0 && word[0] != '.')) return std::nullopt;
  }
  if (word.empty() || word[0] == '-') return std::nullopt;  // from_chars would take a second sign

  double value = 0.0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value, format);
  if (error != std::errc() || end != word.data() + word.size()) return std::nullopt;
  if (is_underflow(value, word, format == std::chars_format::hex)) return std::nullopt;
  return negative ? -value : value;
}

std::optional<std::int32_t> round_to_int32(double value) {
  const double rounded = std::round(value);
  if (!(rounded >= std::numeric_limits<std::int32_t>::min() &&
        rounded <= std::numeric_limits<std::int32_t>::max()))
    return std::nullopt;
  return static_cast<std::int32_t>(rounded);
}

PdfTokens tokenize_pdf(std::string_view text) {
  PdfTokens tokens;
  Tokenizer tokenizer(text);
  while (const auto token = tokenizer.next()) {
    if (tokens.size() == kMaxPdfTokens) return {};
    tokens.push_back(*token);
  }
  return tokens;
}

std::string normalize_pdf_name(std::string_view name) {
  if (name.starts_with('/')) name.remove_prefix(1);
  std::string plain;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const bool has_two_more = name[i] == '#' && i + 2 < name.size();
    const int high = has_two_more ? hex_digit(name[i + 1]) : -1;
    const int low = has_two_more ? hex_digit(name[i + 2]) : -1;
    if (high >= 0 && low >= 0) {
      plain += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      plain += name[i];
    }
  }
  return plain;
}

std::string fold_pdf_name(std::string_view name) {
  std::string folded = ascii_lower(normalize_pdf_name(name));
  std::erase_if(folded, [](char c) { return !((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')); });
  return folded;
}

bool is_pdf_name(const PdfToken& token, std::string_view text) {
  return token.type == PdfTokenType::name && token.text == text;
}

std::optional<std::int32_t> reference_at(PdfTokenSpan tokens, std::size_t i) {
  if (i + 2 >= tokens.size() || tokens[i].type != PdfTokenType::number ||
      tokens[i + 1].type != PdfTokenType::number || tokens[i + 2].type != PdfTokenType::word ||
      tokens[i + 2].text != "R")
    return std::nullopt;
  return round_to_int32(tokens[i].number);
}

std::size_t value_end(PdfTokenSpan tokens, std::size_t i) {
  const PdfTokenType open = tokens[i].type;
  if (open != PdfTokenType::array_open && open != PdfTokenType::dictionary_open)
    return reference_at(tokens, i) ? i + 2 : i;

  const PdfTokenType close =
      open == PdfTokenType::array_open ? PdfTokenType::array_close : PdfTokenType::dictionary_close;
  std::size_t depth = 0;
  for (; i < tokens.size(); ++i) {
    if (tokens[i].type == open) ++depth;
    if (tokens[i].type == close && --depth == 0) return i;
  }
  return tokens.size() - 1;
}

std::optional<PdfValueSpan> find_value_span(PdfTokenSpan tokens, std::string_view key) {
  for (std::size_t i = 0; i + 1 < tokens.size(); ++i)
    if (is_pdf_name(tokens[i], key)) return PdfValueSpan{i + 1, value_end(tokens, i + 1)};
  return std::nullopt;
}

std::optional<PdfTokenSpan> find_dictionary(PdfTokenSpan tokens, std::string_view key) {
  const auto value = find_value_span(tokens, key);
  if (!value || tokens[value->first].type != PdfTokenType::dictionary_open) return std::nullopt;
  const std::size_t first = value->first + 1;
  return value->last < first ? PdfTokenSpan() : tokens.subspan(first, value->last - first);
}

std::optional<std::int32_t> find_integer(PdfTokenSpan tokens, std::string_view key) {
  for (std::size_t i = 0; i + 1 < tokens.size(); ++i)
    if (is_pdf_name(tokens[i], key) && tokens[i + 1].type == PdfTokenType::number)
      return round_to_int32(tokens[i + 1].number);
  return std::nullopt;
}

std::optional<std::int32_t> find_reference(PdfTokenSpan tokens, std::string_view key) {
  for (std::size_t i = 0; i + 1 < tokens.size(); ++i) {
    if (!is_pdf_name(tokens[i], key)) continue;
    if (const auto number = reference_at(tokens, i + 1)) return number;
  }
  return std::nullopt;
}

}  // namespace nvo
