#include "image/pdf/pdf_objects.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>
#include <vector>

namespace nvo {
namespace {

constexpr std::size_t kMaxObjects = 100'000;
constexpr int kMaxAncestors = 16;
constexpr int kMaxTreeDepth = 32;
constexpr int kMaxTrailers = 8;
constexpr std::size_t kBoxNumbers = 4;
constexpr std::size_t kLeastBoxTokens = 6;  // the key, a bracket and four numbers
constexpr std::string_view kObjectKeyword = "obj";
constexpr std::string_view kObjectEnd = "endobj";

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

std::size_t skip_digits(std::string_view bytes, std::size_t position) {
  while (position < bytes.size() && is_digit(bytes[position])) ++position;
  return position;
}

std::size_t skip_blanks_and_comments(std::string_view bytes, std::size_t position) {
  while (position < bytes.size()) {
    if (is_pdf_whitespace(bytes[position]))
      ++position;
    else if (bytes[position] == '%')
      position = std::min(bytes.find_first_of("\n\r", position), bytes.size());
    else
      break;
  }
  return position;
}

/// The value of the longest tail of these digits that fits 32 bits.
std::int32_t longest_fitting_tail(std::string_view digits) {
  constexpr std::int64_t kLargest = std::numeric_limits<std::int32_t>::max();
  std::int64_t value = 0, weight = 1;
  for (std::size_t i = digits.size(); i-- > 0;) {
    const std::int64_t longer = value + (digits[i] - '0') * weight;
    if (longer > kLargest) break;
    value = longer;
    weight = std::min(weight * 10, kLargest + 1);  // from here on any digit but 0 is too much
  }
  return static_cast<std::int32_t>(value);
}

bool fits_int32(std::string_view digits) {
  digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
  constexpr std::string_view kLargest = "2147483647";
  return digits.size() < kLargest.size() || (digits.size() == kLargest.size() && digits <= kLargest);
}

struct ObjectHeader {
  std::int32_t number = 0, generation = 0;
  std::size_t body = 0;  ///< behind `obj`
};

/// A header whose object number has its first digit at `start` and its last before `digits_end`. A number
/// that is too long counts from its first digit on that leaves one which fits, as if the scan had advanced to
/// it.
std::optional<ObjectHeader> header_at(std::string_view bytes, std::size_t start, std::size_t digits_end) {
  const std::size_t generation = skip_blanks_and_comments(bytes, digits_end);
  const std::size_t generation_end = skip_digits(bytes, generation);
  const std::string_view generation_digits = bytes.substr(generation, generation_end - generation);
  if (generation_digits.empty() || !fits_int32(generation_digits)) return std::nullopt;

  const std::size_t keyword = skip_blanks_and_comments(bytes, generation_end);
  if (!bytes.substr(keyword).starts_with(kObjectKeyword)) return std::nullopt;
  return ObjectHeader{longest_fitting_tail(bytes.substr(start, digits_end - start)),
                      longest_fitting_tail(generation_digits), keyword + kObjectKeyword.size()};
}

std::optional<ObjectHeader> next_header(std::string_view bytes, std::size_t position) {
  for (;;) {
    const std::size_t start = skip_blanks_and_comments(bytes, position);
    if (start >= bytes.size()) return std::nullopt;
    const std::size_t digits_end = skip_digits(bytes, start);
    if (digits_end == start) {
      position = start + 1;
      continue;
    }
    if (const auto header = header_at(bytes, start, digits_end)) return header;
    // What follows the digits is the same for each of them, so none can begin a header.
    position = digits_end;
  }
}

bool is_page(const PdfObject& object) {
  if (object.text.find("/Page") == std::string_view::npos) return false;  // saves most of the tokenising
  const PdfTokens tokens = tokenize_pdf(object.text);
  for (std::size_t i = 0; i + 1 < tokens.size(); ++i)
    if (is_pdf_name(tokens[i], "/Type") && is_pdf_name(tokens[i + 1], "/Page")) return true;
  return false;
}

/// `find` on the tokens of a page, then of its parent and so on, until one gives a result.
template <class Find>
auto find_inherited(std::string_view text, const PdfObjectTable& table, Find find)
    -> decltype(find(PdfTokens())) {
  std::vector<const char*> seen;
  for (int step = 0; step <= kMaxAncestors; ++step) {
    const PdfTokens tokens = tokenize_pdf(text);
    if (auto found = find(tokens)) return found;
    const PdfObject* parent = find_object(table, find_reference(tokens, "/Parent"));
    seen.push_back(text.data());
    const bool again = parent && std::find(seen.begin(), seen.end(), parent->text.data()) != seen.end();
    if (!parent || again) break;  // a circle of parents has nothing new
    text = parent->text;
  }
  return std::nullopt;
}

/// The numbers of one array that might be a box.
struct BoxNumbers {
  std::array<double, kBoxNumbers> values{};
  std::size_t count = 0;
  std::size_t first_index = 0;  ///< token index of the first number, or where reading ended without any
};

BoxNumbers read_box_numbers(PdfTokenSpan tokens, std::size_t i) {
  BoxNumbers numbers;
  for (; i < tokens.size() && numbers.count < kBoxNumbers; ++i) {
    if (tokens[i].type == PdfTokenType::array_close) break;
    if (tokens[i].type != PdfTokenType::number) continue;
    if (numbers.count == 0) numbers.first_index = i;
    numbers.values[numbers.count++] = tokens[i].number;
  }
  if (numbers.count == 0) numbers.first_index = i;
  return numbers;
}

std::optional<PdfBox> find_direct_media_box(PdfTokenSpan tokens) {
  if (tokens.size() < kLeastBoxTokens) return std::nullopt;
  std::size_t i = 0;
  while (i + 1 < tokens.size()) {
    if (!is_pdf_name(tokens[i], "/MediaBox") || tokens[i + 1].type != PdfTokenType::array_open) {
      ++i;
      continue;
    }
    const BoxNumbers numbers = read_box_numbers(tokens, i + 2);
    const auto& [x0, y0, x1, y1] = numbers.values;
    if (numbers.count == kBoxNumbers && x1 > x0 && y1 > y0) return PdfBox{x0, y0, x1, y1};
    // A box that opens before the first number would read these same numbers again.
    i = numbers.first_index;
  }
  return std::nullopt;
}

/// The document's root, as the last trailer that names one has it.
const PdfObject* find_catalog(std::string_view bytes, const PdfObjectTable& table) {
  constexpr std::string_view kRoot = "/Root";
  constexpr std::size_t kReferenceBytes = 64;
  std::size_t position = bytes.rfind(kRoot);
  for (int tries = 0; position != std::string_view::npos && tries < kMaxTrailers; ++tries) {
    const PdfTokens tokens = tokenize_pdf(bytes.substr(position, kReferenceBytes));
    if (const PdfObject* catalog = find_object(table, find_reference(tokens, kRoot))) return catalog;
    if (position == 0) break;
    position = bytes.rfind(kRoot, position - 1);
  }
  return nullptr;
}

std::optional<PdfTokens> find_direct_resources(PdfTokenSpan tokens, const PdfObjectTable& table) {
  for (std::size_t i = 0; i + 1 < tokens.size(); ++i) {
    if (!is_pdf_name(tokens[i], "/Resources")) continue;
    const std::size_t first = i + 1;
    if (const auto number = reference_at(tokens, first)) {
      const PdfObject* object = find_object(table, number);
      return object ? std::optional(tokenize_pdf(object->text)) : std::nullopt;
    }
    const PdfTokenType type = tokens[first].type;
    if (type != PdfTokenType::array_open && type != PdfTokenType::dictionary_open) continue;
    const PdfTokenSpan value = tokens.subspan(first, value_end(tokens, first) - first + 1);
    return PdfTokens(value.begin(), value.end());
  }
  return std::nullopt;
}

}  // namespace

PdfObjectTable build_object_table(std::string_view bytes) {
  PdfObjectTable table;
  std::size_t position = 0;
  while (const auto header = next_header(bytes, position)) {
    const std::size_t end = bytes.find(kObjectEnd, header->body);
    if (end == std::string_view::npos || table.size() == kMaxObjects) break;
    table[header->number] = {header->number, header->generation,
                             bytes.substr(header->body, end - header->body)};
    position = end + kObjectEnd.size();
  }
  return table;
}

const PdfObject* find_object(const PdfObjectTable& table, std::optional<std::int32_t> number) {
  if (!number) return nullptr;
  const auto found = table.find(*number);
  return found == table.end() ? nullptr : &found->second;
}

std::vector<const PdfObject*> find_pages(const PdfObjectTable& table) {
  std::vector<const PdfObject*> pages;
  for (const auto& [number, object] : table)
    if (is_page(object)) pages.push_back(&object);
  return pages;
}

const PdfObject* find_first_page_of_tree(std::string_view bytes, const PdfObjectTable& table) {
  const PdfObject* node = find_catalog(bytes, table);
  const char* way_down = "/Pages";
  for (int step = 0; node && step <= kMaxTreeDepth; ++step) {
    if (is_page(*node)) return node;
    const PdfTokens tokens = tokenize_pdf(node->text);
    const auto value = find_value_span(tokens, way_down);
    if (!value) return nullptr;
    const bool is_list = tokens[value->first].type == PdfTokenType::array_open;
    node = find_object(table, reference_at(tokens, value->first + (is_list ? 1 : 0)));
    way_down = "/Kids";
  }
  return nullptr;
}

double find_user_unit(std::string_view page_text) {
  const PdfTokens tokens = tokenize_pdf(page_text);
  for (std::size_t i = 0; i + 1 < tokens.size(); ++i)
    if (is_pdf_name(tokens[i], "/UserUnit") && tokens[i + 1].type == PdfTokenType::number)
      return tokens[i + 1].number;
  return 1.0;
}

int find_rotation(std::string_view page_text, const PdfObjectTable& table) {
  constexpr int kTurn = 360;
  const auto degrees = find_inherited(
      page_text, table, [](const PdfTokens& tokens) { return find_integer(tokens, "/Rotate"); });
  return (degrees.value_or(0) % kTurn + kTurn) % kTurn;
}

std::optional<PdfBox> find_media_box(std::string_view page_text, const PdfObjectTable& table) {
  return find_inherited(page_text, table,
                        [](const PdfTokens& tokens) { return find_direct_media_box(tokens); });
}

std::optional<PdfTokens> find_resources(std::string_view page_text, const PdfObjectTable& table) {
  return find_inherited(page_text, table,
                        [&](const PdfTokens& tokens) { return find_direct_resources(tokens, table); });
}

}  // namespace nvo
