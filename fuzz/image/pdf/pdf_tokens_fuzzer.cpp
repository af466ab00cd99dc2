// Any bytes as a PDF's body: tokens, objects and every look-up that a page needs.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "image/pdf/pdf_objects.h"
#include "image/pdf/pdf_stream.h"
#include "image/pdf/pdf_tokens.h"

namespace {

/// Every token points into its text.
void check_tokens(std::string_view text) {
  const nvo::PdfTokens tokens = nvo::tokenize_pdf(text);
  for (std::size_t i = 0; i < tokens.size(); ++i) {
    const std::string_view token = tokens[i].text;
    if (token.empty() || token.data() < text.data() || token.end() > text.end()) std::abort();
    const std::size_t end = nvo::value_end(tokens, i);
    if (end < i || end >= tokens.size()) std::abort();
    nvo::fold_pdf_name(token);
  }
  nvo::find_integer(tokens, "/Width");
  nvo::find_dictionary(tokens, "/ColorSpace");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  check_tokens(bytes);
  nvo::decode_pdf_string(bytes);
  const nvo::PdfObjectTable table = nvo::build_object_table(bytes);
  nvo::find_pages(table);
  for (const auto& [number, object] : table) {
    if (number < 0 || object.generation < 0) std::abort();
    const auto box = nvo::find_media_box(object.text, table);
    if (box && !(box->x1 > box->x0 && box->y1 > box->y0)) std::abort();
    nvo::find_resources(object.text, table);
    nvo::load_page_contents(object.text, table);
  }
  return 0;
}
