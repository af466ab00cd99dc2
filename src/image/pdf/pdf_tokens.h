#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace nvo {

enum class PdfTokenType : std::uint8_t {
  number,
  name,
  word,
  array_open,
  array_close,
  dictionary_open,
  dictionary_close
};

struct PdfToken {
  PdfTokenType type = PdfTokenType::word;
  std::string_view text;  ///< as it stands in the file: a name with its slash, a number as written
  double number = 0.0;    ///< of a number; may be infinite or not a number
};

using PdfTokens = std::vector<PdfToken>;
using PdfTokenSpan = std::span<const PdfToken>;

inline constexpr std::size_t kMaxPdfTokens = 750'000;

// Nothing below throws for bad input, and all of it takes time linear in its input. Tokens point into the
// text that they were made from. There is no tree of values: a look-up walks a flat list of tokens, ignores
// nesting and compares keys byte for byte, slash included.

/// The tokens of a text; none at all when there are more than `kMaxPdfTokens`. Strings in parentheses yield
/// no token, the digits of hexadecimal strings a word or a number.
PdfTokens tokenize_pdf(std::string_view text);

/// The value of a whole word as C's `strtod` reads it in the "C" locale, hexadecimal and infinite forms
/// included; nothing for other words and for values that a double cannot hold.
std::optional<double> parse_pdf_number(std::string_view word);

/// Nearest integer, halves away from zero; nothing when the value is not finite or doesn't fit.
std::optional<std::int32_t> round_to_int32(double value);

bool is_pdf_whitespace(char c);

/// A name without its slash, `#20` and the like decoded: the form in which resources are looked up.
std::string normalize_pdf_name(std::string_view name);
/// A normalised name's letters and digits, in lower case: the form in which colorants are compared.
std::string fold_pdf_name(std::string_view name);

bool is_pdf_name(const PdfToken& token, std::string_view text);

/// The object number N of `N G R` at token `i`.
std::optional<std::int32_t> reference_at(PdfTokenSpan tokens, std::size_t i);

/// Index of the last token of the value that begins at `i`: the balancing close of an array or dictionary
/// (the last token of all when none balances), the R of a reference, else `i` itself.
std::size_t value_end(PdfTokenSpan tokens, std::size_t i);

struct PdfValueSpan {
  std::size_t first = 0, last = 0;  ///< `last` belongs to the value
};
/// The value behind the first name equal to `key`.
std::optional<PdfValueSpan> find_value_span(PdfTokenSpan tokens, std::string_view key);

/// The span of a value that is an array or dictionary standing there itself: what lies between its brackets.
std::optional<PdfTokenSpan> find_dictionary(PdfTokenSpan tokens, std::string_view key);

/// The number behind the first `key` that has one, rounded.
std::optional<std::int32_t> find_integer(PdfTokenSpan tokens, std::string_view key);

/// The object number behind the first `key` that is followed by `N G R`.
std::optional<std::int32_t> find_reference(PdfTokenSpan tokens, std::string_view key);

}  // namespace nvo
