#include "image/pdf/spot_image.h"

#include <cstddef>
#include <utility>

#include "image/pdf/pdf_stream.h"
#include "image/pdf/pdf_tokens.h"

namespace nvo {
namespace {

constexpr std::uint64_t kMaxImagePixels = 16'777'216;
constexpr std::int32_t kBitsPerSample = 8;
constexpr std::int32_t kHorizontalDifferencing = 2;

// Units of work, see WorkBudget.
constexpr std::uint64_t kObjectByteWork = 16;
constexpr std::uint64_t kSampleWork = 4;

void undo_differencing(CoveragePlane& plane) {
  for (std::size_t row = 0; row < plane.height; ++row) {
    char* samples = plane.samples.data() + row * plane.width;
    for (std::size_t x = 1; x < plane.width; ++x)
      samples[x] = static_cast<char>(static_cast<std::uint8_t>(samples[x]) +
                                     static_cast<std::uint8_t>(samples[x - 1]));
  }
}

/// An image's samples as they are stored; empty unless they are 8 bits each and exactly as many as its size
/// says.
CoveragePlane decode_plane(const PdfObject& object, PdfTokenSpan tokens) {
  const auto width = find_integer(tokens, "/Width"), height = find_integer(tokens, "/Height");
  if (!width || !height || *width < 1 || *height < 1) return {};
  if (find_integer(tokens, "/BitsPerComponent") != kBitsPerSample) return {};
  CoveragePlane plane{static_cast<std::uint32_t>(*width), static_cast<std::uint32_t>(*height), {}};
  const std::uint64_t pixels = std::uint64_t{plane.width} * plane.height;
  if (pixels > kMaxImagePixels) return {};

  auto samples = decode_stream(object.text, tokens, pixels);
  if (!samples || samples->size() != pixels) return {};
  plane.samples = std::move(*samples);
  if (find_integer(tokens, "/Predictor") == kHorizontalDifferencing) undo_differencing(plane);
  return plane;
}

void apply_lookup(CoveragePlane& plane, const std::string& lookup) {
  for (char& sample : plane.samples) {
    const auto index = static_cast<std::uint8_t>(sample);
    sample = index < lookup.size() ? lookup[index] : '\0';
  }
}

}  // namespace

std::optional<SpotImage> SpotImageReader::read(std::int32_t number, WorkBudget& work) {
  const PdfObject* found = find_object(table_, number);
  if (!found) return SpotImage();
  const PdfObject& object = *found;
  if (!work.spend(object.text.size() * kObjectByteWork)) return std::nullopt;
  const PdfTokens tokens = tokenize_pdf(object.text);
  const PdfObject* mask = find_object(table_, find_reference(tokens, "/SMask"));
  if (mask && !work.spend(mask->text.size() * kObjectByteWork)) return std::nullopt;

  SpotImage image{decode_white(object, tokens), mask ? decode_soft_mask(*mask) : CoveragePlane()};
  if (!work.spend((image.white.samples.size() + image.alpha.samples.size()) * kSampleWork))
    return std::nullopt;
  return image;
}

CoveragePlane SpotImageReader::decode_white(const PdfObject& object, PdfTokenSpan tokens) {
  const auto value = find_value_span(tokens, "/ColorSpace");
  const auto space = value ? spaces_.classify_image_space(tokens, value->first) : std::nullopt;
  if (!space || !space->is_separation) return {};
  if (!space->is_white && !spaces_.sole_spot_allowed()) return {};
  CoveragePlane plane = decode_plane(object, tokens);
  took_stand_in_ = took_stand_in_ || (!space->is_called_white && !plane.samples.empty());
  if (space->is_indexed) apply_lookup(plane, space->lookup);
  return plane;
}

CoveragePlane SpotImageReader::decode_soft_mask(const PdfObject& mask) {
  const PdfTokens tokens = tokenize_pdf(mask.text);
  const auto value = find_value_span(tokens, "/ColorSpace");
  const auto space = value ? spaces_.classify_image_space(tokens, value->first) : std::nullopt;
  if (space && !space->is_gray) return {};
  return decode_plane(mask, tokens);
}

}  // namespace nvo
