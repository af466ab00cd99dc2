#include "image/pdf/pdf_stream.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <map>
#include <new>
#include <utility>

#include <zlib.h>

#include "core/text.h"

namespace nvo {
namespace {

constexpr std::size_t kInflateStep = 16'384;
constexpr std::string_view kStreamKeyword = "stream";
constexpr std::string_view kStreamEnd = "endstream";

class Inflater {
 public:
  explicit Inflater(std::string_view data) {
    state_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    state_.avail_in = static_cast<uInt>(data.size());
    ready_ = checked(inflateInit(&state_)) == Z_OK;
  }
  ~Inflater() {
    if (ready_) inflateEnd(&state_);
  }
  Inflater(const Inflater&) = delete;
  Inflater& operator=(const Inflater&) = delete;

  /// Fills `step` as far as it goes. False when the data is damaged or has no end.
  bool next(std::array<char, kInflateStep>& step, std::size_t& produced, bool& at_end) {
    if (!ready_) return false;
    state_.next_out = reinterpret_cast<Bytef*>(step.data());
    state_.avail_out = static_cast<uInt>(step.size());
    const int outcome = checked(inflate(&state_, Z_NO_FLUSH));
    produced = step.size() - state_.avail_out;
    at_end = outcome == Z_STREAM_END;
    return outcome == Z_OK || at_end;
  }

 private:
  /// A shortage of memory is no damage to the data.
  static int checked(int outcome) {
    if (outcome == Z_MEM_ERROR) throw std::bad_alloc();
    return outcome;
  }

  z_stream state_{};
  bool ready_ = false;
};

/// Data that lies behind `stream` and one line end.
std::size_t data_start(std::string_view text, std::size_t keyword) {
  std::size_t start = keyword + kStreamKeyword.size();
  if (start < text.size() && text[start] == '\r') ++start;
  if (start < text.size() && text[start] == '\n') ++start;
  return start;
}

/// The first `/Length` that is not negative. A reference to a length object reads as its object number.
std::optional<double> find_length(PdfTokenSpan tokens) {
  for (std::size_t i = 0; i + 1 < tokens.size(); ++i)
    if (is_pdf_name(tokens[i], "/Length") && tokens[i + 1].type == PdfTokenType::number &&
        tokens[i + 1].number >= 0.0)
      return std::round(tokens[i + 1].number);
  return std::nullopt;
}

std::optional<std::string_view> stream_data(std::string_view text, std::size_t keyword, PdfTokenSpan tokens) {
  const std::size_t start = data_start(text, keyword);
  const auto length = find_length(tokens);
  if (length && *length <= static_cast<double>(text.size() - start))
    return text.substr(start, static_cast<std::size_t>(*length));
  const std::size_t end = text.find(kStreamEnd, start);
  if (end == std::string_view::npos) return std::nullopt;
  return text.substr(start, end - start);
}

bool names_flate(std::string_view dictionary) {
  constexpr std::string_view kName = "/flatedecode";
  const auto same = [](char c, char lower) { return ascii_lower(c) == lower; };
  return std::search(dictionary.begin(), dictionary.end(), kName.begin(), kName.end(), same) !=
         dictionary.end();
}

/// One escape of a string in parentheses, `position` standing behind the backslash.
void append_escape(std::string_view text, std::size_t& position, std::string& out) {
  constexpr std::string_view kLetters = "nrtbf", kMeanings = "\n\r\t\b\f";
  const auto is_octal = [&] {
    return position < text.size() && text[position] >= '0' && text[position] <= '7';
  };
  if (is_octal()) {
    int value = 0;
    for (int digits = 0; digits < 3 && is_octal(); ++digits) value = value * 8 + (text[position++] - '0');
    out += static_cast<char>(value);
    return;
  }
  if (position == text.size()) return;
  const char c = text[position++];
  if (c == '\r' || c == '\n') {  // the line goes on
    if (c == '\r' && position < text.size() && text[position] == '\n') ++position;
    return;
  }
  const std::size_t letter = kLetters.find(c);
  out += letter == std::string_view::npos ? c : kMeanings[letter];
}

/// `text` begins behind the opening parenthesis.
std::optional<std::string> decode_literal_string(std::string_view text) {
  std::string out;
  std::size_t depth = 1;
  for (std::size_t position = 0; position < text.size();) {
    const char c = text[position++];
    if (c == '\\') {
      append_escape(text, position, out);
      continue;
    }
    if (c == '(') ++depth;
    if (c == ')' && --depth == 0) return out;
    if (c == '\r') {  // any line end reads as a line feed
      if (position < text.size() && text[position] == '\n') ++position;
      out += '\n';
    } else {
      out += c;
    }
  }
  return std::nullopt;
}

/// `text` begins behind the opening bracket.
std::optional<std::string> decode_hexadecimal_string(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string out;
  bool half = false;
  for (const char c : text) {
    if (c == '>') return out;  // a missing last digit is 0
    if (is_pdf_whitespace(c)) continue;
    const std::size_t digit = kDigits.find(ascii_lower(c));
    if (digit == std::string_view::npos) return std::nullopt;
    if (half)
      out.back() = static_cast<char>(static_cast<unsigned char>(out.back()) + digit);
    else
      out += static_cast<char>(digit * 16);
    half = !half;
  }
  return std::nullopt;
}

/// Decodes the streams of one page within their common budget, each object once: an array may name the same
/// object any number of times.
class ContentLoader {
 public:
  explicit ContentLoader(const PdfObjectTable& table) : table_(table) {}

  /// False when the stream cannot be had; an object that is not there is no failure.
  bool add(std::int32_t number) {
    if (const auto known = known_.find(number); known != known_.end())
      return append(contents_[known->second]);
    const PdfObject* object = find_object(table_, number);
    if (!object) return true;
    auto data = decode_stream(object->text, tokenize_pdf(object->text), kMaxContentBytes - used_);
    if (!data) return false;
    known_[number] = contents_.size();
    return append(std::move(*data));
  }

  std::vector<std::string> take() { return std::move(contents_); }

 private:
  bool append(std::string data) {
    const std::uint64_t left = kMaxContentBytes - used_;
    if (left == 0 || data.size() > left) return false;
    used_ += data.size();
    contents_.push_back(std::move(data));
    return true;
  }

  const PdfObjectTable& table_;
  std::vector<std::string> contents_;
  std::map<std::int32_t, std::size_t> known_;
  std::uint64_t used_ = 0;
};

}  // namespace

std::optional<std::string> inflate_bytes(std::string_view data, std::uint64_t max_bytes) {
  Inflater inflater(data);
  std::string out;
  std::array<char, kInflateStep> step;
  for (bool at_end = false; !at_end;) {
    std::size_t produced = 0;
    if (!inflater.next(step, produced, at_end)) return std::nullopt;
    if (produced > max_bytes - out.size()) return std::nullopt;
    out.append(step.data(), produced);
  }
  return out;
}

bool has_stream(std::string_view object_text) {
  return object_text.find(kStreamKeyword) != std::string_view::npos;
}

std::optional<std::string> decode_stream(std::string_view object_text, PdfTokenSpan tokens,
                                         std::uint64_t max_bytes) {
  const std::size_t keyword = object_text.find(kStreamKeyword);
  if (max_bytes == 0 || keyword == std::string_view::npos) return std::nullopt;
  const auto data = stream_data(object_text, keyword, tokens);
  if (!data) return std::nullopt;

  const std::uint64_t limit = std::min(max_bytes, kMaxStreamBytes);
  if (names_flate(object_text.substr(0, keyword))) return inflate_bytes(*data, limit);
  if (data->size() > limit) return std::nullopt;
  return std::string(*data);
}

std::optional<std::string> peek_stream(std::string_view object_text, std::uint64_t max_bytes) {
  const std::size_t keyword = object_text.find(kStreamKeyword);
  if (keyword == std::string_view::npos) return std::nullopt;
  std::string_view data = object_text.substr(data_start(object_text, keyword));
  if (auto inflated = inflate_bytes(data, max_bytes)) return inflated;
  if (object_text.substr(0, keyword).find("/Filter") != std::string_view::npos) return std::nullopt;
  data = data.substr(0, data.rfind(kStreamEnd));
  if (data.size() > max_bytes) return std::nullopt;
  return std::string(data);
}

std::optional<std::string> decode_pdf_string(std::string_view object_text) {
  while (!object_text.empty() && is_pdf_whitespace(object_text.front())) object_text.remove_prefix(1);
  if (object_text.starts_with('(')) return decode_literal_string(object_text.substr(1));
  if (object_text.starts_with('<')) return decode_hexadecimal_string(object_text.substr(1));
  return std::nullopt;
}

std::vector<std::string> load_page_contents(std::string_view page_text, const PdfObjectTable& table) {
  const PdfTokens tokens = tokenize_pdf(page_text);
  ContentLoader loader(table);
  for (std::size_t i = 0; i + 1 < tokens.size(); ++i) {
    if (!is_pdf_name(tokens[i], "/Contents")) continue;
    const std::size_t value = i + 1;
    if (const auto number = reference_at(tokens, value)) {
      if (!loader.add(*number)) return {};
      return loader.take();
    }
    if (tokens[value].type != PdfTokenType::array_open) continue;
    const std::size_t close = value_end(tokens, value);
    for (std::size_t item = value + 1; item + 2 < close; ++item) {
      const auto number = reference_at(tokens, item);
      if (number && !loader.add(*number)) return {};
    }
    return loader.take();
  }
  return {};
}

}  // namespace nvo
