#include "image/pdf/spot_color_space.h"

#include <algorithm>
#include <cmath>

#include "core/white_names.h"
#include "image/pdf/pdf_stream.h"

namespace nvo {
namespace {

using Kind = ColorSpaceNode::Kind;

constexpr int kMaxNestedSpaces = 32;
constexpr std::size_t kMaxLookupBytes = 256;
constexpr double kMaxIndex = kMaxLookupBytes - 1;

bool is_white_name(std::string_view folded) {
  return folded == "white" || folded == "spotwhite" || folded == "whiteink";
}

bool is_usable_name(std::string_view folded) {
  return !folded.empty() && folded != "all" && folded != "none";
}

bool opens_array(PdfTokenSpan tokens, std::size_t i) {
  return i < tokens.size() && tokens[i].type == PdfTokenType::array_open;
}

ColorSpaceNode parse_separation(PdfTokenSpan tokens, std::size_t name) {
  ColorSpaceNode node;
  if (name >= tokens.size() || tokens[name].type != PdfTokenType::name) return node;
  const std::string folded = fold_pdf_name(tokens[name].text);
  if (!is_usable_name(folded)) return node;
  node.kind = Kind::separation;
  node.is_white = is_white_name(folded);
  node.is_called_white = node.is_white || names_white_ink(folded);
  node.component_count = 1;
  return node;
}

ColorSpaceNode parse_device_n(PdfTokenSpan tokens, std::size_t names) {
  ColorSpaceNode node;
  if (!opens_array(tokens, names)) return node;
  const std::size_t close = value_end(tokens, names);
  for (std::size_t i = names + 1; i < close; ++i) {
    if (tokens[i].type != PdfTokenType::name) continue;
    if (node.kind == Kind::unsupported && is_white_name(fold_pdf_name(tokens[i].text))) {
      node.kind = Kind::device_n;
      node.is_white = true;
      node.component_index = node.component_count;
    }
    ++node.component_count;
  }
  return node;
}

ColorSpaceNode parse_value(PdfTokenSpan tokens, std::size_t i, int depth);

ColorSpaceNode parse_indexed(PdfTokenSpan tokens, std::size_t base, int depth) {
  ColorSpaceNode node;
  if (base >= tokens.size()) return node;
  const std::size_t highest = value_end(tokens, base) + 1;
  if (highest >= tokens.size() || tokens[highest].type != PdfTokenType::number ||
      std::isnan(tokens[highest].number))
    return node;
  const auto lookup = reference_at(tokens, highest + 1);
  if (!lookup) return node;
  node.base = std::make_unique<ColorSpaceNode>(parse_value(tokens, base, depth + 1));
  node.kind = Kind::indexed;
  node.highest_index =
      static_cast<std::int32_t>(std::round(std::clamp(tokens[highest].number, 0.0, kMaxIndex)));
  node.lookup_object = *lookup;
  return node;
}

ColorSpaceNode parse_name(std::string_view name) {
  ColorSpaceNode node;
  if (name == "/DeviceGray") {
    node.kind = Kind::device_gray;
  } else if (name == "/DeviceRGB" || name == "/DeviceCMYK") {
    node.kind = Kind::device_color;
  } else {
    node.kind = Kind::named;
    node.name = normalize_pdf_name(name);
  }
  return node;
}

/// The colour space that is written at token `i`.
ColorSpaceNode parse_value(PdfTokenSpan tokens, std::size_t i, int depth) {
  ColorSpaceNode node;
  if (i >= tokens.size() || depth > kMaxNestedSpaces) return node;
  if (tokens[i].type == PdfTokenType::name) return parse_name(tokens[i].text);
  if (const auto number = reference_at(tokens, i)) {
    node.kind = Kind::reference;
    node.object = *number;
    return node;
  }
  if (!opens_array(tokens, i) || i + 1 >= tokens.size()) return node;
  if (is_pdf_name(tokens[i + 1], "/Separation")) return parse_separation(tokens, i + 2);
  if (is_pdf_name(tokens[i + 1], "/DeviceN")) return parse_device_n(tokens, i + 2);
  if (is_pdf_name(tokens[i + 1], "/Indexed")) return parse_indexed(tokens, i + 2, depth);
  return node;
}

bool is_lone_spot(const SpotColorant& colorant) {
  return colorant.found && !colorant.is_white && colorant.component_count == 1;
}

void apply_sole_spot_rule(SpotColorantMap& colorants) {
  const auto spots = std::count_if(colorants.begin(), colorants.end(),
                                   [](const auto& entry) { return is_lone_spot(entry.second); });
  const bool has_white = std::any_of(colorants.begin(), colorants.end(),
                                     [](const auto& entry) { return entry.second.is_white; });
  if (spots == 0 || (spots == 1 && !has_white)) return;
  std::erase_if(colorants, [](const auto& entry) { return is_lone_spot(entry.second); });
}

}  // namespace

SpotColorSpaces::SpotColorSpaces(PdfTokenSpan resources, const PdfObjectTable& table) : table_(table) {
  const PdfTokenSpan spaces = find_dictionary(resources, "/ColorSpace").value_or(PdfTokenSpan());
  for (std::size_t i = 0; i + 1 < spaces.size(); ++i) {
    if (spaces[i].type != PdfTokenType::name) continue;
    entries_.emplace_back(normalize_pdf_name(spaces[i].text), parse_value(spaces, i + 1, 0));
    i = value_end(spaces, i + 1);
  }
  for (const auto& [name, node] : entries_) first_by_name_.emplace(name, &node);
}

const ColorSpaceNode& SpotColorSpaces::object_node(std::int32_t number) {
  const auto [entry, is_new] = object_nodes_.try_emplace(number);
  if (is_new)
    if (const PdfObject* object = find_object(table_, number))
      entry->second = parse_value(tokenize_pdf(object->text), 0, 0);
  return entry->second;
}

SpotColorant SpotColorSpaces::resolve_colorant(const ColorSpaceNode& start) {
  const ColorSpaceNode* node = &start;
  for (int step = 0; node->kind == Kind::reference; ++step) {
    if (step == kMaxNestedSpaces) return {};
    node = &object_node(node->object);
  }
  if (node->kind != Kind::separation && node->kind != Kind::device_n) return {};
  return {true, node->component_index, node->component_count, node->is_white, node->is_called_white};
}

SpotColorantMap SpotColorSpaces::colorants() {
  SpotColorantMap colorants;
  for (const auto& [name, node] : entries_) {
    const SpotColorant colorant = resolve_colorant(node);
    if (colorant.found) colorants[name] = colorant;
  }
  apply_sole_spot_rule(colorants);
  return colorants;
}

std::optional<ImageColorSpace> SpotColorSpaces::classify_image_space(PdfTokenSpan tokens, std::size_t i) {
  return resolve_image_space(parse_value(tokens, i, 0), 0);
}

std::optional<ImageColorSpace> SpotColorSpaces::resolve_image_space(const ColorSpaceNode& node, int steps) {
  if (steps > kMaxNestedSpaces) return std::nullopt;
  ImageColorSpace space;
  switch (node.kind) {
    case Kind::reference:
      return resolve_image_space(object_node(node.object), steps + 1);
    case Kind::named: {
      const auto entry = first_by_name_.find(node.name);
      return entry == first_by_name_.end() ? std::nullopt : resolve_image_space(*entry->second, steps + 1);
    }
    case Kind::indexed:
      return resolve_indexed(node, steps);
    case Kind::separation:
      space.is_separation = true;
      space.is_white = node.is_white;
      space.is_called_white = node.is_called_white;
      return space;
    case Kind::device_gray:
      space.is_gray = true;
      return space;
    case Kind::device_color:
      return space;
    case Kind::device_n:
    case Kind::unsupported:
      break;
  }
  return std::nullopt;
}

std::optional<ImageColorSpace> SpotColorSpaces::resolve_indexed(const ColorSpaceNode& node, int steps) {
  auto space = resolve_image_space(*node.base, steps + 1);
  if (!space || !space->is_separation) return std::nullopt;
  auto lookup = lookup_bytes(node.lookup_object, node.highest_index);
  if (!lookup) return std::nullopt;
  space->is_indexed = true;
  space->lookup = std::move(*lookup);
  return space;
}

const SpotColorSpaces::LookupObject& SpotColorSpaces::lookup_object(std::int32_t number) {
  const auto [entry, is_new] = lookup_objects_.try_emplace(number);
  LookupObject& lookup = entry->second;
  const PdfObject* object = is_new ? find_object(table_, number) : nullptr;
  if (!object) return lookup;
  lookup.is_stream = has_stream(object->text);
  lookup.bytes = lookup.is_stream ? decode_stream(object->text, tokenize_pdf(object->text), kMaxLookupBytes)
                                  : decode_pdf_string(object->text);
  if (lookup.bytes && lookup.bytes->size() > kMaxLookupBytes) lookup.bytes->resize(kMaxLookupBytes);
  return lookup;
}

std::optional<std::string> SpotColorSpaces::lookup_bytes(std::int32_t number, std::int32_t highest_index) {
  const LookupObject& lookup = lookup_object(number);
  const auto needed = static_cast<std::size_t>(highest_index) + 1;
  if (!lookup.bytes || lookup.bytes->size() < needed) return std::nullopt;
  if (lookup.is_stream && lookup.bytes->size() > needed) return std::nullopt;  // a stream may not be longer
  return lookup.bytes->substr(0, needed);
}

bool SpotColorSpaces::holds_stand_in(const SpotColorantMap& colorants) {
  return std::any_of(colorants.begin(), colorants.end(), [](const auto& entry) {
    return is_lone_spot(entry.second) && !entry.second.is_called_white;
  });
}

bool SpotColorSpaces::sole_spot_allowed() {
  if (!sole_spot_allowed_) {
    std::size_t spots = 0;
    bool has_white = false;
    for (const auto& [name, node] : entries_) {
      const auto space = resolve_image_space(node, 0);
      if (!space || !space->is_separation) continue;
      has_white |= space->is_white;
      spots += !space->is_white;
    }
    sole_spot_allowed_ = spots <= 1 && !has_white;
  }
  return *sole_spot_allowed_;
}

}  // namespace nvo
