#include "image/pdf/spot_white.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <filesystem>
#include <system_error>
#include <utility>

#include "core/file_io.h"
#include "core/machine_failure.h"
#include "core/platform/input_file.h"
#include "core/platform/paths.h"
#include "core/text.h"
#include "image/pdf/pdf_objects.h"
#include "image/pdf/pdf_stream.h"
#include "image/pdf/pdf_tokens.h"
#include "image/pdf/spot_color_space.h"
#include "image/pdf/spot_content.h"
#include "image/pdf/spot_image_painter.h"
#include "image/pdf/spot_vector_painter.h"

namespace nvo {
namespace {

constexpr std::uint64_t kMaxFileBytes = 67'108'864;

SpotWhiteResult outcome(std::string status, const PdfPageFacts& facts = {}) {
  return {{}, {}, std::move(status), facts};
}

/// Does a name with one of these beginnings stand at the slash `text[slash]`?
template <std::size_t count>
bool name_begins_with(std::string_view text, std::size_t slash,
                      const std::array<std::string_view, count>& beginnings) {
  const std::string_view rest = text.substr(slash);
  if (rest.size() < 2) return false;
  for (const std::string_view beginning : beginnings)
    if (rest[1] == beginning[1] && rest.starts_with(beginning)) return true;
  return false;
}

/// Compressed objects and compressed cross-reference tables. All of them are names: one pass over the slashes
/// takes linear time even where there is nothing but slashes.
bool has_unsupported_structure(std::string_view lower_case_text) {
  static constexpr std::array<std::string_view, 3> kStructures{"/objstm", "/type /xref", "/type/xref"};
  for (std::size_t i = 0; i < lower_case_text.size(); ++i)
    if (lower_case_text[i] == '/' && name_begins_with(lower_case_text, i, kStructures)) return true;
  return false;
}

/// What the whole file, folded to lower case, says before it is parsed.
struct FileHints {
  bool has_candidate = false;
  bool has_unsupported_structure = false;  ///< objects inside streams, which are not read
};

FileHints read_hints(std::string_view bytes) {
  const std::string lower = ascii_lower(bytes);
  return {has_spot_white_candidate(lower), has_unsupported_structure(lower)};
}

/// A status for a file in which not even a page was found.
SpotWhiteResult unparsed(std::string status, const FileHints& hints, const PdfPageFacts& facts) {
  if (hints.has_unsupported_structure) status += "; PDF object streams/xref streams are unsupported";
  return outcome(std::move(status), facts);
}

/// Looks into the lists of compressed objects, for words only.
void look_into_object_streams(const PdfObjectTable& table, PdfPageFacts& facts) {
  std::uint64_t left = kMaxFileBytes;
  for (const auto& [number, object] : table) {
    const std::string_view dictionary = object.text.substr(0, object.text.find("stream"));
    if (dictionary.size() == object.text.size() || dictionary.find("/ObjStm") == std::string_view::npos)
      continue;
    const auto objects = peek_stream(object.text, std::min(left, kMaxStreamBytes));
    if (!objects) {
      ++facts.closed_lists;
      continue;
    }
    left -= objects->size();
    facts.hides_candidate |= has_spot_white_candidate(ascii_lower(*objects));
  }
}

/// What the page says of itself beside its content.
void describe_page(std::string_view bytes, const PdfObjectTable& table, const PdfObject& page,
                   std::uint32_t page_index, PdfPageFacts& facts) {
  facts.has_page = true;
  facts.rotation = find_rotation(page.text, table);
  facts.user_unit = find_user_unit(page.text);
  const PdfObject* first = page_index == 0 ? find_first_page_of_tree(bytes, table) : nullptr;
  facts.is_page_of_tree = first == &page;
  facts.is_other_page = first && first != &page;
}

bool has_paint(const std::vector<std::uint8_t>& plane) {
  return std::any_of(plane.begin(), plane.end(), [](std::uint8_t value) { return value != 0; });
}

void merge_maximum(std::vector<std::uint8_t>& coverage, std::vector<std::uint8_t>&& plane) {
  if (coverage.empty()) {
    coverage = std::move(plane);
    return;
  }
  std::transform(coverage.begin(), coverage.end(), plane.begin(), coverage.begin(),
                 [](std::uint8_t a, std::uint8_t b) { return std::max(a, b); });
}

/// A page that has all that painting needs.
struct SpotPage {
  const PdfObjectTable& table;
  PageRaster raster;
  PdfTokens resources;
  std::vector<std::string> contents;
};

/// What the two passes over a page left.
struct SpotPaint {
  std::vector<std::uint8_t> coverage, alpha;
  bool vector_found = false, image_found = false, aborted = false;
  bool is_guess = false;  ///< white was read from the only spot, whose name doesn't mean it
};

template <class Painter>
void run_contents(const std::vector<std::string>& contents, Painter& painter) {
  for (const std::string& content : contents) {
    if (painter.aborted()) return;
    painter.run(tokenize_pdf(content));
  }
}

void paint_vectors(const SpotPage& page, SpotColorSpaces& spaces, SpotPaint& paint) {
  const SpotColorantMap colorants = spaces.colorants();
  if (colorants.empty()) return;
  SpotVectorPainter painter(colorants, page.raster);
  run_contents(page.contents, painter);
  if (painter.aborted()) {
    paint.aborted = true;
  } else if (has_paint(painter.mask())) {
    paint.coverage = std::move(painter.mask());
    paint.vector_found = true;
    paint.is_guess = SpotColorSpaces::holds_stand_in(colorants);
  }
}

void paint_images(const SpotPage& page, SpotColorSpaces& spaces, SpotPaint& paint) {
  const SpotImageMap images = find_spot_images(page.resources, page.table);
  if (images.empty()) return;
  SpotImagePainter painter(images, page.table, spaces, page.raster);
  run_contents(page.contents, painter);
  painter.finish();
  if (painter.aborted()) {
    paint.aborted = true;
    return;
  }
  if (has_paint(painter.white_plane())) {
    merge_maximum(paint.coverage, std::move(painter.white_plane()));
    paint.image_found = true;
    paint.is_guess = paint.is_guess || painter.took_stand_in();
  }
  if (has_paint(painter.alpha_plane())) paint.alpha = std::move(painter.alpha_plane());
}

std::string status_of(const SpotPaint& paint, bool has_candidate) {
  if (paint.coverage.empty()) {
    if (paint.aborted) return "interpreter aborted on unsupported/too-complex spot-white content";
    return has_candidate ? "no supported spot-white content found by best-effort parser"
                         : "no spot-white candidate heuristic detected; extraction not needed";
  }
  std::string status = !paint.vector_found ? "extracted image spot-white mask"
                       : paint.image_found ? "extracted vector and image spot-white masks"
                                           : "extracted vector spot-white mask";
  if (paint.aborted) status += "; one spot-white interpreter aborted on unsupported/too-complex content";
  return status;
}

SpotWhiteResult paint_page(const SpotPage& page, bool has_candidate, PdfPageFacts facts) {
  SpotColorSpaces spaces(page.resources, page.table);
  SpotPaint paint;
  paint_vectors(page, spaces, paint);
  paint_images(page, spaces, paint);
  std::string status = status_of(paint, has_candidate);
  facts.white_is_guess = paint.is_guess;
  return {std::move(paint.coverage), std::move(paint.alpha), std::move(status), facts};
}

}  // namespace

bool has_spot_white_candidate(std::string_view text) {
  // A longer name with one of these beginnings counts as well.
  static constexpr std::array<std::string_view, 4> kSeparations{"/separation /white", "/separation/white",
                                                                "/separation /spot", "/separation/spot"};
  static constexpr std::array<std::string_view, 1> kDeviceN{"/devicen"};
  static constexpr std::array<std::string_view, 8> kComponents{
      "/white ", "/white/", "/white]", "/white>", "/spot#20white", "/spot white", "/white_ink", "/white-ink"};
  bool has_device_n = false, has_component = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '/') continue;
    if (name_begins_with(text, i, kSeparations)) return true;
    has_device_n = has_device_n || name_begins_with(text, i, kDeviceN);
    has_component = has_component || name_begins_with(text, i, kComponents);
    if (has_device_n && has_component) return true;
  }
  return false;
}

SpotWhiteResult extract_spot_white_from_bytes(std::string_view bytes, std::uint32_t page_index,
                                              std::uint32_t width, std::uint32_t height) {
  if (width == 0 || height == 0) return outcome("skipped: rendered page dimensions are empty");
  const FileHints hints = read_hints(bytes);
  const PdfObjectTable table = build_object_table(bytes);
  PdfPageFacts facts;
  if (hints.has_unsupported_structure) look_into_object_streams(table, facts);
  if (table.empty())
    return unparsed("parse found no indirect objects supported by the partial parser", hints, facts);
  const std::vector<const PdfObject*> pages = find_pages(table);
  facts.page_objects = static_cast<std::uint32_t>(pages.size());
  if (page_index >= pages.size())
    return unparsed("parse found no page object supported by the partial parser", hints, facts);
  const PdfObject& page = *pages[page_index];
  describe_page(bytes, table, page, page_index, facts);
  const auto box = find_media_box(page.text, table);
  if (!box) return outcome("parse found page object but no supported MediaBox", facts);
  facts.box_width = box->x1 - box->x0;
  facts.box_height = box->y1 - box->y0;
  auto resources = find_resources(page.text, table);
  if (!resources) return outcome("parse found page object but no supported page resources", facts);
  std::vector<std::string> contents = load_page_contents(page.text, table);
  if (contents.empty())
    return outcome(
        "parse found page/resources but no supported content streams (unsupported filters or stream caps may "
        "apply)",
        facts);
  return paint_page({table, {*box, width, height}, std::move(*resources), std::move(contents)},
                    hints.has_candidate, facts);
}

SpotWhiteResult extract_spot_white(const std::string& path, std::uint32_t page_index, std::uint32_t width,
                                   std::uint32_t height) {
  if (width == 0 || height == 0) return extract_spot_white_from_bytes({}, page_index, width, height);
  std::error_code unknown_size;
  const std::uint64_t size = std::filesystem::file_size(platform::to_path(path), unknown_size);
  if (unknown_size && !platform::tells_of_path(unknown_size.value()))
    fail_on_file("examine", path, unknown_size.value());
  if (!unknown_size && size > kMaxFileBytes)
    return outcome(
        "skipped: PDF file is over 64 MiB spot-white extractor cap; visual render may still work under the "
        "512 "
        "MiB PDF render cap");
  std::string bytes;
  bool missing = false;
  if (!read_file_bounded(path, kMaxFileBytes, bytes, nullptr, &missing))
    return outcome("skipped: could not read PDF bytes within the 64 MiB spot-white extractor cap");
  return extract_spot_white_from_bytes(bytes, page_index, width, height);
}

}  // namespace nvo
