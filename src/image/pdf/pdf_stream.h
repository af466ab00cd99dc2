#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "image/pdf/pdf_objects.h"
#include "image/pdf/pdf_tokens.h"

namespace nvo {

/// No decoded stream is longer, whatever its reader would take.
inline constexpr std::uint64_t kMaxStreamBytes = 16'777'216;
/// All content streams of a page together.
inline constexpr std::uint64_t kMaxContentBytes = 33'554'432;

/// Decodes one zlib stream; bytes behind its end are ignored. Nothing when it is damaged, cut short or longer
/// than `max_bytes`.
std::optional<std::string> inflate_bytes(std::string_view data, std::uint64_t max_bytes);

/// Does this object hold the word `stream`?
bool has_stream(std::string_view object_text);

/// The data of an object's stream, inflated when its dictionary names FlateDecode; any other filter is passed
/// over and its bytes come as they are. `tokens` are those of the whole `object_text`. Nothing when there is
/// no stream or the data is damaged or longer than `max_bytes` or `kMaxStreamBytes`.
std::optional<std::string> decode_stream(std::string_view object_text, PdfTokenSpan tokens,
                                         std::uint64_t max_bytes);

/// What an object's stream holds, whatever its dictionary says of length and filter: inflated where that
/// works, as it is where no filter is named. Nothing where it stays closed or is longer than `max_bytes`.
std::optional<std::string> peek_stream(std::string_view object_text, std::uint64_t max_bytes);

/// The string, in parentheses or hexadecimal, that an object's text begins with.
std::optional<std::string> decode_pdf_string(std::string_view object_text);

/// The decoded content streams of a page, in order. Empty when there is none, when one of them cannot be
/// decoded or when all together are longer than `kMaxContentBytes`; references to objects that are not there
/// are skipped.
std::vector<std::string> load_page_contents(std::string_view page_text, const PdfObjectTable& table);

}  // namespace nvo
