#include "config/icc_settings.h"

#include <cstddef>
#include <exception>
#include <string_view>
#include <utility>
#include <variant>

#include <nlohmann/json.hpp>

#include "config/limits.h"
#include "config/settings_keys.h"
#include "config/settings_paths.h"
#include "core/file_io.h"
#include "core/log.h"
#include "core/machine_failure.h"

namespace nvo {
namespace {

using nlohmann::json;

constexpr std::int32_t kMaxIntent = 3;

struct KeyRule {
  const char* key;
  std::variant<bool IccSettings::*, std::string IccSettings::*, std::int32_t IccSettings::*> field;
};

// The first fault ends the parse, so the order of the rows is the order in which faults are found.
constexpr KeyRule kKeyRules[] = {
    {"enabled", &IccSettings::enabled},
    {"input_rgb_profile", &IccSettings::input_rgb_profile},
    {"input_cmyk_profile", &IccSettings::input_cmyk_profile},
    {"output_profile", &IccSettings::output_profile},
    {"intent", &IccSettings::intent},
    {"use_bpc", &IccSettings::use_bpc},
};

// Each of these takes a value into its field and returns what is wrong with it, to be put behind the key;
// null for nothing.

const char* take(const json& value, bool& field) {
  if (!value.is_boolean()) return " must be a boolean.";
  field = value.get<bool>();
  return nullptr;
}

const char* take(const json& value, std::string& field) {
  if (!value.is_string()) return " must be a string.";
  const auto& text = value.get_ref<const std::string&>();
  if (text.size() > kMaxSettingsTextBytes) return " is too large.";
  field = text;
  return nullptr;
}

const char* take(const json& value, std::int32_t& field) {
  if (!value.is_number_integer()) return " must be an integer.";
  const bool in_range = value.is_number_unsigned()
                            ? value.get<std::uint64_t>() <= kMaxIntent
                            : value.get<std::int64_t>() >= 0 && value.get<std::int64_t>() <= kMaxIntent;
  if (!in_range) return " is outside the supported range.";
  field = value.get<std::int32_t>();
  return nullptr;
}

bool fail(std::string* error, std::string text) {
  if (error) *error = std::move(text);
  return false;
}

IccSettings read_settings(const std::string& path) {
  json document;
  std::string error;
  bool missing = false;
  if (!read_json_bounded(path, kMaxSettingsFileBytes, document, &error, &missing)) {
    if (missing)
      warn_if_out_of_sight(path);
    else
      log_error("IccSettings: falling back to defaults for '", path, "': ", error);
    return {};
  }
  IccSettings settings;
  if (parse_icc_settings(document, settings, &error))
    warn_of_unknown_keys(SettingsFile::icc, document, path);
  else
    log_error("IccSettings: invalid config for '", path, "': ", error, "; falling back to defaults.");
  return settings;
}

}  // namespace

std::vector<std::string> icc_settings_keys() {
  std::vector<std::string> keys;
  for (const KeyRule& rule : kKeyRules) keys.emplace_back(rule.key);
  return keys;
}

std::string default_icc_settings_path() {
  constexpr std::string_view kMainName = "settings.json";
  std::string path = settings_path();
  if (const auto at = path.find(kMainName); at != std::string::npos)
    path.replace(at, kMainName.size(), "icc_settings.json");
  return path;
}

IccSettings load_icc_settings() {
  return load_icc_settings(default_icc_settings_path());
}

IccSettings load_icc_settings(const std::string& path) {
  try {
    return read_settings(path);
  } catch (const std::exception& e) {
    rethrow_machine_failure();
    log_error("IccSettings: parse failed for '", path, "': ", e.what(), "; falling back to defaults.");
  } catch (...) {
    log_error("IccSettings: parse failed for '", path, "': unknown error; falling back to defaults.");
  }
  return {};
}

bool parse_icc_settings(const json& document, IccSettings& out, std::string* error) {
  if (!document.is_object()) return fail(error, "top-level JSON must be an object.");
  IccSettings parsed;
  for (const KeyRule& rule : kKeyRules) {
    const auto found = document.find(rule.key);
    if (found == document.end()) continue;
    const char* fault = std::visit([&](auto member) { return take(*found, parsed.*member); }, rule.field);
    if (fault) return fail(error, std::string(rule.key) + fault);
  }
  out = std::move(parsed);
  return true;
}

}  // namespace nvo
