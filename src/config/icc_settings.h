#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace nvo {

/// Which profiles colour conversion uses. Paths are UTF-8.
struct IccSettings {
  bool enabled = false;
  std::string input_rgb_profile;   ///< empty: the built-in sRGB
  std::string input_cmyk_profile;  ///< empty: CMYK sources pass unchanged
  std::string output_profile;
  std::int32_t intent = 1;  ///< 0 perceptual, 1 relative colorimetric, 2 saturation, 3 absolute colorimetric
  bool use_bpc = true;      ///< black point compensation
};

/// `icc_settings.json` beside the main settings file.
std::string default_icc_settings_path();

/// Reads the file at `path`, or at the default path. A file that is not there gives the defaults silently,
/// anything wrong with it the defaults and an ERROR line; keys that nobody knows warn. Throws only where the
/// machine has failed.
IccSettings load_icc_settings();
IccSettings load_icc_settings(const std::string& path);

/// Takes the record from a JSON object; absent keys keep their defaults, unknown ones are ignored. At the
/// first fault returns false with a text in `error` (may be null) and leaves `out` as it was.
bool parse_icc_settings(const nlohmann::json& json, IccSettings& out, std::string* error);

}  // namespace nvo
