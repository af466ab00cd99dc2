#include <algorithm>
#include <cmath>
#include <cstdint>
#include <exception>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "config/limits.h"
#include "config/rip_settings.h"
#include "config/settings_keys.h"
#include "config/settings_paths.h"
#include "core/file_io.h"
#include "core/log.h"
#include "core/machine_failure.h"
#include "core/text.h"

namespace nvo {
namespace {

using nlohmann::json;

constexpr std::size_t kLutSize = 256;
constexpr std::uint64_t kMaxThreadCount = 1024;

/// One invalid value; its text goes to the log and the whole file is refused.
class InvalidSettings : public std::exception {
 public:
  explicit InvalidSettings(std::string text) : text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

std::string text_of(double number) {
  std::ostringstream text;
  text << number;
  return text.str();
}

/// One JSON object of the file. Each `take` reads a key into a field, leaves the field alone where the key is
/// absent, and throws `InvalidSettings` with the key's dotted path where the value is invalid. With a list of
/// keys it enters there each key that it is asked for, and absent objects count as empty ones.
class Section {
 public:
  Section(const json& object, std::string prefix, std::vector<std::string>* keys)
      : object_(object), prefix_(std::move(prefix)), keys_(keys) {}

  const json* find(const char* key) const {
    if (keys_ && (keys_->empty() || keys_->back() != label(key))) keys_->push_back(label(key));
    const auto found = object_.find(key);
    return found == object_.end() ? nullptr : &*found;
  }

  std::string label(const char* key) const { return prefix_ + key; }

  std::optional<Section> section(const char* key) const {
    const json* value = find(key);
    static const json kNoKeys = json::object();
    if (!value && keys_) value = &kNoKeys;
    if (!value) return std::nullopt;
    if (!value->is_object()) throw InvalidSettings(label(key) + " must be an object.");
    return Section(*value, label(key) + ".", keys_);
  }

  void take(const char* key, std::string& field) const {
    const json* value = find(key);
    if (!value) return;
    if (!value->is_string()) throw InvalidSettings(label(key) + " must be a string.");
    const auto& text = value->get_ref<const std::string&>();
    if (text.size() > kMaxSettingsTextBytes) throw InvalidSettings(label(key) + " is too large.");
    field = text;
  }

  void take(const char* key, bool& field) const {
    const json* value = find(key);
    if (!value) return;
    if (!value->is_boolean()) throw InvalidSettings(label(key) + " must be a boolean.");
    field = value->get<bool>();
  }

  void take(const char* key, float& field, const Limits& limits) const {
    if (const json* value = find(key)) field = number(*value, label(key), limits);
  }

  void take(const char* key, std::uint32_t& field, std::uint64_t maximum) const {
    const json* value = find(key);
    if (!value) return;
    if (!value->is_number_integer()) throw InvalidSettings(label(key) + " must be a non-negative integer.");
    if (!value->is_number_unsigned() && value->get<std::int64_t>() < 0)
      throw InvalidSettings(label(key) + " must be non-negative.");
    const auto count = value->get<std::uint64_t>();
    if (count > maximum) throw InvalidSettings(label(key) + " exceeds maximum " + std::to_string(maximum));
    field = static_cast<std::uint32_t>(count);
  }

  /// A text key that selects a value.
  template <class Value, class Parse>
  void take_token(const char* key, Value& field, Parse parse) const {
    if (!find(key)) return;
    std::string text;
    take(key, text);
    field = parse(text);
  }

  void take_lut(const char* key, std::vector<float>& field) const {
    const json* value = find(key);
    if (!value || value->is_null()) return;
    if (!value->is_array() || value->size() != kLutSize)
      throw InvalidSettings(label(key) + " must be null or an array of exactly 256 numbers.");
    std::vector<float> lut;
    for (std::size_t i = 0; i < kLutSize; ++i)
      lut.push_back(number((*value)[i], label(key) + "[" + std::to_string(i) + "]", ChannelSettings::kInk));
    field = std::move(lut);
  }

 private:
  static float number(const json& value, const std::string& label, const Limits& limits) {
    const double number = value.is_number() ? value.get<double>() : std::nan("");
    if (!std::isfinite(number)) throw InvalidSettings(label + " must be a finite number.");
    if (!limits.hold(number))
      throw InvalidSettings(label + " must be finite and in range " + text_of(limits.least) + ".." +
                            text_of(limits.most) + ".");
    return static_cast<float>(number);
  }

  const json& object_;
  std::string prefix_;
  std::vector<std::string>* keys_;
};

PerformanceMode parse_performance_mode(const std::string& text) {
  const std::string word = ascii_lower(text);
  return word == "manual" || word == "custom" || word == "user" ? PerformanceMode::manual
                                                                : PerformanceMode::automatic;
}

TriState parse_tri_state(const std::string& text) {
  const std::string word = ascii_lower(text);
  for (const char* on : {"1", "true", "on", "yes", "enable", "enabled", "force", "forced"})
    if (word == on) return TriState::on;
  for (const char* off : {"0", "false", "off", "no", "disable", "disabled"})
    if (word == off) return TriState::off;
  return TriState::automatic;
}

void take_channels(const Section& top, RipSettings& settings) {
  const auto channels = top.section("channels");
  if (!channels) return;
  constexpr const char* kKeys[] = {"C", "M", "Y", "K", "W"};
  for (std::size_t i = 0; i < settings.channels.size(); ++i) {
    const auto channel = channels->section(kKeys[i]);
    if (!channel) continue;
    channel->take("limit", settings.channels[i].limit, ChannelSettings::kInk);
    channel->take("gamma", settings.channels[i].gamma, ChannelSettings::kGamma);
    channel->take_lut("lut", settings.channels[i].lut);
  }
}

void take_performance(const Section& top, RipPerformance& block) {
  const auto performance = top.section("rip_performance");
  if (!performance) return;
  performance->take_token("mode", block.mode, parse_performance_mode);
  performance->take_token("parallel_sheets", block.parallel_sheets, parse_tri_state);
  performance->take("sheet_threads", block.sheet_threads, kMaxThreadCount);
  performance->take_token("parallel_channels", block.parallel_channels, parse_tri_state);
  performance->take("channel_threads", block.channel_threads, kMaxThreadCount);
  performance->take_token("parallel_rows", block.parallel_rows, parse_tri_state);
  performance->take("row_threads", block.row_threads, kMaxThreadCount);
  performance->take("max_concurrent_jobs", block.max_concurrent_jobs, kMaxThreadCount);
  if (const auto autotune = performance->section("autotune")) {
    autotune->take("generated_at", block.autotune.generated_at);
    autotune->take("machine", block.autotune.machine);
    autotune->take("workload", block.autotune.workload);
    autotune->take("case", block.autotune.run_case);
  }
  if (const auto inputs = performance->section("autotune_inputs")) {
    inputs->take("workload", block.autotune_inputs.workload);
    inputs->take("folder_path", block.autotune_inputs.folder_path);
    inputs->take("preset", block.autotune_inputs.preset);
    inputs->take("qty", block.autotune_inputs.qty, RipPerformance::AutotuneInputs::kMaxQty);
  }
}

std::vector<std::string> split_markers(std::string_view text) {
  constexpr std::string_view kSeparators = ",;\t\n\r";
  std::vector<std::string> markers;
  while (!text.empty()) {
    const auto end = std::min(text.find_first_of(kSeparators), text.size());
    if (const auto marker = trim(text.substr(0, end)); !marker.empty()) markers.emplace_back(marker);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return markers;
}

void take_markers(const Section& copies, std::vector<std::string>& field) {
  const json* value = copies.find("markers");
  if (!value) return;
  const std::string label = copies.label("markers");
  std::vector<std::string> markers;
  if (value->is_string()) {
    const auto& text = value->get_ref<const std::string&>();
    if (text.size() > kMaxSettingsTextBytes) throw InvalidSettings(label + " is too large.");
    markers = split_markers(text);
  } else if (value->is_array()) {
    for (std::size_t i = 0; i < value->size(); ++i) {
      const std::string element = label + "[" + std::to_string(i) + "]";
      if (!(*value)[i].is_string()) throw InvalidSettings(element + " must be a string.");
      const auto& text = (*value)[i].get_ref<const std::string&>();
      if (text.size() > kMaxSettingsTextBytes) throw InvalidSettings(element + " is too large.");
      markers.push_back(text);
    }
  } else {
    throw InvalidSettings(label + " must be a string or array.");
  }
  if (!markers.empty()) field = std::move(markers);
}

void take_filename_copies(const Section& top, FilenameCopies& copies) {
  const auto section = top.section("filename_copies");
  if (!section) return;
  section->take("enabled", copies.enabled);
  section->take_token("position", copies.position, parse_filename_copies_position);
  take_markers(*section, copies.markers);
}

// The order of the keys is that in which faults are found.
RipSettings parse_rip_settings(const json& document, std::vector<std::string>* keys = nullptr) {
  if (!document.is_object()) throw InvalidSettings("top-level JSON must be an object.");
  RipSettings settings;
  const Section top(document, "", keys);
  take_channels(top, settings);
  top.take("last_tiff_path", settings.last_tiff_path);
  top.take("print_mode_id", settings.print_mode_id);
  top.take("nesting_gap_in", settings.nesting_gap_in, RipSettings::kNestingGapIn);
  top.take("sheet_width_in", settings.sheet_width_in, RipSettings::kSheetWidthIn);
  top.take("max_length_in", settings.max_length_in, RipSettings::kMaxLengthIn);
  top.take("width_policy", settings.width_policy);
  top.take("custom_output_folder_enabled", settings.custom_output_folder_enabled);
  top.take("custom_output_folder_path", settings.custom_output_folder_path);
  top.take("ui_language", settings.ui_language);
  top.take_token("display_units", settings.display_units, parse_display_units);
  top.take("last_seen_release_notes_key", settings.last_seen_release_notes_key);
  take_performance(top, settings.rip_performance);
  take_filename_copies(top, settings.filename_copies);
  return settings;
}

RipSettings read_rip_settings(const std::string& path) {
  json document;
  std::string error;
  bool missing = false;
  if (!read_json_bounded(path, kMaxSettingsFileBytes, document, &error, &missing)) {
    if (missing)
      warn_if_out_of_sight(path);
    else
      log_error("RipSettings: falling back to defaults for '", path, "': ", error);
    return {};
  }
  try {
    RipSettings settings = parse_rip_settings(document);
    warn_of_unknown_keys(SettingsFile::rip, document, path);
    return settings;
  } catch (const InvalidSettings& e) {
    log_error("RipSettings: invalid config for '", path, "': ", e.what(), "; falling back to defaults.");
    return {};
  }
}

}  // namespace

std::vector<std::string> rip_settings_keys() {
  std::vector<std::string> keys;
  parse_rip_settings(json::object(), &keys);
  return keys;
}

RipSettings load_rip_settings() {
  return load_rip_settings(settings_path());
}

RipSettings load_rip_settings(const std::string& path) {
  try {
    return read_rip_settings(path);
  } catch (const std::exception& e) {
    rethrow_machine_failure();
    log_error("RipSettings: parse failed for '", path, "': ", e.what(), "; falling back to defaults.");
  } catch (...) {
    log_error("RipSettings: parse failed for '", path, "': unknown error; falling back to defaults.");
  }
  return {};
}

std::string parse_display_units(const std::string& text) {
  static constexpr std::pair<std::string_view, const char*> kTokens[] = {
      {"in", "in"}, {"inch", "in"},       {"inches", "in"},
      {"mm", "mm"}, {"millimeter", "mm"}, {"millimeters", "mm"},
      {"cm", "cm"}, {"centimeter", "cm"}, {"centimeters", "cm"},
      {"m", "m"},   {"meter", "m"},       {"meters", "m"}};
  const std::string token = normalize_token(text);
  for (const auto& [spelling, unit] : kTokens)
    if (spelling == token) return unit;
  log_warn("DisplayUnits: unknown display_units token '", text, "'; using in.");
  return "in";
}

CopiesPosition parse_filename_copies_position(std::string_view text) {
  std::string token;
  for (const char c : text)
    if (c != ' ' && c != '-' && c != '_') token += ascii_lower(c);
  for (const char* before : {"numberbeforemarker", "beforemarker", "numberbefore", "before"})
    if (token == before) return CopiesPosition::number_before_marker;
  return CopiesPosition::number_after_marker;
}

}  // namespace nvo
