#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "image/pdf/pdf_objects.h"
#include "image/pdf/pdf_tokens.h"

namespace nvo {

/// A colour space of the page in which a component may be white ink.
struct SpotColorant {
  bool found = false;
  std::int32_t component_index = 0;  ///< which colour operand is the white one
  std::int32_t component_count = 0;
  bool is_white = false;
  bool is_called_white = false;  ///< by any name that means white
};

/// Colorants by normalised resource name.
using SpotColorantMap = std::map<std::string, SpotColorant, std::less<>>;

/// The colour space of an image. An indexed one carries its base's flags.
struct ImageColorSpace {
  bool is_separation = false, is_gray = false, is_indexed = false, is_white = false;
  bool is_called_white = false;  ///< by any name that means white
  std::string lookup;            ///< coverage of each index
};

/// One colour space as it is written, without what it refers to.
struct ColorSpaceNode {
  enum class Kind : std::uint8_t {
    unsupported,
    separation,
    device_n,  ///< with a white colorant
    indexed,
    device_gray,
    device_color,
    named,
    reference
  };
  Kind kind = Kind::unsupported;
  bool is_white = false, is_called_white = false;
  std::int32_t component_index = 0, component_count = 0;
  std::string name;                      ///< of a named one: its key in the resources, normalised
  std::int32_t object = 0;               ///< of a reference
  std::unique_ptr<ColorSpaceNode> base;  ///< of an indexed one, like the next two
  std::int32_t highest_index = 0;
  std::int32_t lookup_object = 0;
};

/// The colour spaces that a page can use: those in its resources and those that lie in objects. Each object
/// is read once, however often it is named. For one thread.
class SpotColorSpaces {
 public:
  /// `table` must outlive this.
  SpotColorSpaces(PdfTokenSpan resources, const PdfObjectTable& table);

  /// Colorants of the page by the rule of the sole spot: without a white one, a Separation that is the only
  /// one stands for white; otherwise only white ones stay.
  SpotColorantMap colorants();

  /// The colour space whose value begins at token `i`; nothing when it isn't one that images may have here.
  std::optional<ImageColorSpace> classify_image_space(PdfTokenSpan tokens, std::size_t i);

  /// May an image in a Separation that is not white stand for white? Not where the resources hold a white
  /// Separation or several others.
  bool sole_spot_allowed();

  /// Does one of `colorants` stand for white whose name doesn't mean it?
  static bool holds_stand_in(const SpotColorantMap& colorants);

 private:
  struct LookupObject {
    bool is_stream = false;
    std::optional<std::string> bytes;
  };

  const ColorSpaceNode& object_node(std::int32_t number);
  const LookupObject& lookup_object(std::int32_t number);
  std::optional<std::string> lookup_bytes(std::int32_t number, std::int32_t highest_index);
  SpotColorant resolve_colorant(const ColorSpaceNode& node);
  std::optional<ImageColorSpace> resolve_image_space(const ColorSpaceNode& node, int steps);
  std::optional<ImageColorSpace> resolve_indexed(const ColorSpaceNode& node, int steps);

  const PdfObjectTable& table_;
  std::vector<std::pair<std::string, ColorSpaceNode>> entries_;  ///< of the resources, in file order
  std::map<std::string_view, const ColorSpaceNode*> first_by_name_;
  std::map<std::int32_t, ColorSpaceNode> object_nodes_;
  std::map<std::int32_t, LookupObject> lookup_objects_;
  std::optional<bool> sole_spot_allowed_;
};

}  // namespace nvo
