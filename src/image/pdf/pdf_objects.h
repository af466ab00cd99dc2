#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

#include "image/pdf/pdf_tokens.h"

namespace nvo {

/// An indirect object: what stands between `obj` and `endobj`, stream data included.
struct PdfObject {
  std::int32_t number = 0, generation = 0;
  std::string_view text;
};

/// Objects by number; their texts point into the bytes of the file.
using PdfObjectTable = std::map<std::int32_t, PdfObject>;

/// A page's box in its own space; x1 is above x0 and y1 above y0.
struct PdfBox {
  double x0 = 0.0, y0 = 0.0, x1 = 0.0, y1 = 0.0;
};

/// Everything in the file that looks like `N G obj ... endobj`, at most 100,000 objects; the last definition
/// of a number holds. No cross-reference table is read, so damaged ones do no harm. Linear in the file's
/// size.
PdfObjectTable build_object_table(std::string_view bytes);

/// The object with this number, or null.
const PdfObject* find_object(const PdfObjectTable& table, std::optional<std::int32_t> number);

/// The pages in the order of object numbers.
std::vector<const PdfObject*> find_pages(const PdfObjectTable& table);

/// The page with which the page tree begins. Null where something on the way to it is not a plain object.
const PdfObject* find_first_page_of_tree(std::string_view bytes, const PdfObjectTable& table);

/// The number of a page's own `/UserUnit`, 1 where it has none.
double find_user_unit(std::string_view page_text);

// These look at a page and at no more than 16 ancestors.

/// `/Rotate` in degrees from 0 to 359.
int find_rotation(std::string_view page_text, const PdfObjectTable& table);

/// The first usable MediaBox that stands in one of them itself, not behind a reference.
std::optional<PdfBox> find_media_box(std::string_view page_text, const PdfObjectTable& table);

/// The tokens of the page's resources.
std::optional<PdfTokens> find_resources(std::string_view page_text, const PdfObjectTable& table);

}  // namespace nvo
