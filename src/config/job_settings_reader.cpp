#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <exception>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include <nlohmann/json.hpp>

#include "config/job_settings.h"
#include "config/job_settings_check.h"
#include "config/limits.h"
#include "config/settings_keys.h"
#include "config/settings_paths.h"
#include "core/file_io.h"
#include "core/log.h"
#include "core/machine_failure.h"
#include "core/text.h"

namespace nvo {
namespace {

using nlohmann::json;

// ---- Tokens ----

/// One spelling of a value, as it is compared.
template <class Value>
struct Token {
  std::string_view token;
  Value value;
};

constexpr Token<SheetPlacementMode> kPlacementTokens[] = {
    {"left", SheetPlacementMode::align_left},          {"alignleft", SheetPlacementMode::align_left},
    {"center", SheetPlacementMode::align_center},      {"centre", SheetPlacementMode::align_center},
    {"aligncenter", SheetPlacementMode::align_center}, {"aligncentre", SheetPlacementMode::align_center},
    {"right", SheetPlacementMode::align_right},        {"alignright", SheetPlacementMode::align_right}};

constexpr Token<ResamplingMode> kResamplingTokens[] = {
    {"smooth", ResamplingMode::smooth},         {"bilinear", ResamplingMode::smooth},
    {"area", ResamplingMode::smooth},           {"box", ResamplingMode::smooth},
    {"soft", ResamplingMode::smooth},           {"hard", ResamplingMode::hard},
    {"nearest", ResamplingMode::hard},          {"nearestneighbor", ResamplingMode::hard},
    {"nearestneighbour", ResamplingMode::hard}, {"edge", ResamplingMode::hard},
    {"hardedge", ResamplingMode::hard}};

constexpr Token<std::uint32_t> kChannelTokens[] = {
    {"c", kChannelC},      {"cyan", kChannelC},      {"m", kChannelM},     {"magenta", kChannelM},
    {"y", kChannelY},      {"yellow", kChannelY},    {"k", kChannelK},     {"key", kChannelK},
    {"black", kChannelK},  {"w", kChannelW},         {"white", kChannelW}, {"off", kChannelOff},
    {"none", kChannelOff}, {"disabled", kChannelOff}};

constexpr WhiteChokeSetting kDistanceMask = WhiteChokeSetting::legacy_same_grid_distance_mask;
constexpr Token<WhiteChokeSetting> kChokeTokens[] = {
    {"baseline", WhiteChokeSetting::baseline},
    {"distancemask", kDistanceMask},
    {"distmask", kDistanceMask},
    {"samegrid", kDistanceMask},
    {"experimental", kDistanceMask},
    {"distancemaskexperimental", kDistanceMask},
    {"experimentaldistancemask", kDistanceMask},
    {"samegriddistancemask", kDistanceMask},
    {"distancemasksamegrid", kDistanceMask},
    {"distancemaskexperimentalsamegrid", kDistanceMask},
    {"production", WhiteChokeSetting::production},
    {"prod", WhiteChokeSetting::production},
    {"default", WhiteChokeSetting::production},
    {"device", WhiteChokeSetting::production},
    {"devicedomain", WhiteChokeSetting::production},
    {"devicedomainchoke", WhiteChokeSetting::production},
    {"devicedomainexperimental", WhiteChokeSetting::production},
    {"deviceexperimental", WhiteChokeSetting::production},
    {"ripdomain", WhiteChokeSetting::production},
    {"ripdomainexperimental", WhiteChokeSetting::production},
    {"adaptive", WhiteChokeSetting::adaptive},
    {"adaptivewhite", WhiteChokeSetting::adaptive},
    {"adaptivechoke", WhiteChokeSetting::adaptive},
    {"adaptivewhitechoke", WhiteChokeSetting::adaptive}};

/// What an unknown token becomes, and how the warning calls it.
template <class Value>
struct Fallback {
  Value value;
  const char* name;
};

void warn_of_token(const std::string& key, const std::string& text, std::string_view used) {
  log_warn("JobSettings: unknown ", key, " token '", text, "'; using ", used);
}

template <class Value>
Value parse_token(std::span<const Token<Value>> tokens, const std::string& key, const std::string& text,
                  Fallback<Value> fallback) {
  const std::string token = normalize_token(text);
  for (const Token<Value>& row : tokens)
    if (row.token == token) return row.value;
  warn_of_token(key, text, fallback.name);
  return fallback.value;
}

// ---- Keys: what each takes and where it goes ----

enum class ValueType { flag, number, text, list, object };

/// Of each value type, how the log calls what a key of it takes.
constexpr const char* kTypeNames[] = {"true or false", "a number", "a text", "a list of texts", "an object"};

bool has_type(const json& value, ValueType type) {
  switch (type) {
    case ValueType::flag:
      return value.is_boolean();
    case ValueType::number:
      return value.is_number();
    case ValueType::text:
      return value.is_string();
    case ValueType::list:
      return value.is_array();
    case ValueType::object:
      return value.is_object();
  }
  return false;
}

struct Flag {
  static constexpr ValueType type = ValueType::flag;
  bool JobSettings::*field;
};

/// A number cut to a range.
struct Amount {
  static constexpr ValueType type = ValueType::number;
  float JobSettings::*field;
  Limits limits;
};

struct ResamplingChoice {
  static constexpr ValueType type = ValueType::text;
  ResamplingMode JobSettings::*field;
  Fallback<ResamplingMode> fallback;
};

/// A key with rules of its own. `key` is its name in the file; the value has the type.
struct Special {
  ValueType type;
  void (*apply)(const json& value, const char* key, JobSettings& job);
};

struct KeyRow {
  const char* key;
  std::variant<Flag, Amount, ResamplingChoice, Special> rule;
};

void apply_device_board(const json& value, const char* key, JobSettings& job) {
  const auto& board = value.get_ref<const std::string&>();
  if (normalize_token(board) == "hoson")
    job.device_board = DeviceBoard::hoson;
  else
    log_warn("JobSettings: unknown ", key, " '", board, "' is ignored; using hoson");
}

void apply_print_head(const json& value, const char* key, JobSettings& job) {
  const auto& text = value.get_ref<const std::string&>();
  const std::optional<PrintHead> head = find_print_head(normalize_token(text));
  job.print_head = head.value_or(JobSettings().print_head);
  if (!head) warn_of_token(key, text, print_head_name(job.head()));
}

void apply_print_mode_id(const json& value, const char*, JobSettings& job) {
  const auto& id = value.get_ref<const std::string&>();
  if (const PrintMode* mode = find_print_mode(job.head(), id))
    job.print_mode = *mode;
  else if (const PrintMode* legacy = find_legacy_print_mode(id))
    job.print_mode = resolve_print_mode(job.head(), *legacy);
}

void apply_channel_map(const json& value, const char* key, JobSettings& job) {
  std::vector<std::uint32_t> slots;
  if (const std::uint32_t count = slot_count(job.head()); value.size() > count)
    log_warn("JobSettings: ", key, " has ", value.size(), " entries for the ", count, " slots of print_head ",
             print_head_name(job.head()), "; the last ones are not used");
  for (std::size_t i = 0; i < value.size(); ++i) {
    const std::string label = std::string(key) + "[" + std::to_string(i) + "]";
    slots.push_back(
        parse_token<std::uint32_t>(kChannelTokens, label, value[i].get<std::string>(), {kChannelOff, "Off"}));
  }
  job.output_channel_map = normalize_channel_map(job.head(), slots);
}

void apply_placement(const json& value, const char* key, JobSettings& job) {
  job.sheet_placement_mode = parse_token<SheetPlacementMode>(
      kPlacementTokens, key, value.get<std::string>(), {SheetPlacementMode::align_center, "AlignCenter"});
}

void apply_icc(const json& value, const char* key, JobSettings& job) {
  std::string error;
  if (!parse_icc_settings(value, job.icc, &error))
    log_warn("JobSettings: ", key, " is skipped, icc_settings.json holds: ", error);
}

constexpr std::string_view kInkBudget = "InkBudget";

void apply_legacy_white_mode(const json& value, const char*, JobSettings&) {
  const auto& name = value.get_ref<const std::string&>();
  if (name == "SourceCoverage") return;
  if (name != "SolidUnderbase" && name != kInkBudget) {
    log_warn("JobSettings: unknown legacy white_generation_mode '", name, "' ignored; using SourceCoverage.");
    return;
  }
  log_warn("JobSettings: legacy white_generation_mode '", name, "' migrated to SourceCoverage");
  if (name == kInkBudget) log_warn("JobSettings: legacy InkBudget maps to white_ink_limit_enabled.");
}

void apply_choke_algorithm(const json& value, const char* key, JobSettings& job) {
  job.white_choke_algorithm = parse_token<WhiteChokeSetting>(kChokeTokens, key, value.get<std::string>(),
                                                             {WhiteChokeSetting::production, "production"});
}

/// The number within the range; says so where it had to be cut.
double cut(double number, const Limits& limits, const char* key) {
  const double within = limits.cut(number);
  if (within != number) log_warn("JobSettings: ", key, " ", number, " is out of range; using ", within);
  return within;
}

void apply_min_width(const json& value, const char* key, JobSettings& job) {
  const double width = value.get<double>();
  if (!std::isfinite(width)) return;
  job.white_choke_adaptive_min_width_dots =
      static_cast<std::int32_t>(cut(std::round(width), WhiteChoke::kMinWidthDots, key));
}

constexpr Fallback<ResamplingMode> kSmooth{ResamplingMode::smooth, "smooth"};
constexpr Fallback<ResamplingMode> kHard{ResamplingMode::hard, "hard"};

// The order is that in which keys take effect: of two keys for one field the later one wins.
constexpr KeyRow kKeys[] = {
    {"device_board", Special{ValueType::text, apply_device_board}},
    {"print_head", Special{ValueType::text, apply_print_head}},
    {"print_mode_id", Special{ValueType::text, apply_print_mode_id}},
    {"output_channel_map", Special{ValueType::list, apply_channel_map}},
    {"nesting_gap_in", Amount{&JobSettings::repeated_file_gap_in, JobSettings::kGapIn}},
    {"repeated_file_gap_in", Amount{&JobSettings::repeated_file_gap_in, JobSettings::kGapIn}},
    {"sheet_width_in", Amount{&JobSettings::sheet_width_in, JobSettings::kSheetLengthIn}},
    {"max_length_in", Amount{&JobSettings::max_length_in, JobSettings::kSheetLengthIn}},
    {"sheet_margin_left_in", Amount{&JobSettings::sheet_margin_left_in, SheetMargins::kMarginIn}},
    {"sheet_margin_right_in", Amount{&JobSettings::sheet_margin_right_in, SheetMargins::kMarginIn}},
    {"sheet_margin_top_in", Amount{&JobSettings::sheet_margin_top_in, SheetMargins::kMarginIn}},
    {"sheet_margin_bottom_in", Amount{&JobSettings::sheet_margin_bottom_in, SheetMargins::kMarginIn}},
    {"sheet_placement_mode", Special{ValueType::text, apply_placement}},
    {"icc", Special{ValueType::object, apply_icc}},
    {"white_generation_mode", Special{ValueType::text, apply_legacy_white_mode}},
    {"white_choke_enabled", Flag{&JobSettings::white_choke_enabled}},
    {"use_color_expansion_over_white", Flag{&JobSettings::white_choke_enabled}},
    {"white_choke_amount_px_at_300dpi",
     Amount{&JobSettings::white_choke_amount_px_at_300dpi, WhiteChoke::kAmountPx}},
    {"expansion_amount_px_at_300dpi",
     Amount{&JobSettings::white_choke_amount_px_at_300dpi, WhiteChoke::kAmountPx}},
    {"white_choke_algorithm", Special{ValueType::text, apply_choke_algorithm}},
    {"white_choke_strategy", Special{ValueType::text, apply_choke_algorithm}},
    {"white_choke_adaptive_min_width_dots", Special{ValueType::number, apply_min_width}},
    {"adaptive_white_choke_min_width_dots", Special{ValueType::number, apply_min_width}},
    {"white_choke_adaptive_protect_light_enabled",
     Flag{&JobSettings::white_choke_adaptive_protect_light_enabled}},
    {"adaptive_white_choke_protect_light_enabled",
     Flag{&JobSettings::white_choke_adaptive_protect_light_enabled}},
    {"white_choke_adaptive_lightness_threshold",
     Amount{&JobSettings::white_choke_adaptive_lightness_threshold, WhiteChoke::kLightness}},
    {"adaptive_white_choke_lightness_threshold",
     Amount{&JobSettings::white_choke_adaptive_lightness_threshold, WhiteChoke::kLightness}},
    {"color_resampling_mode", ResamplingChoice{&JobSettings::color_resampling_mode, kSmooth}},
    {"color_resampling", ResamplingChoice{&JobSettings::color_resampling_mode, kSmooth}},
    {"color_resampling_linear_light", Flag{&JobSettings::color_resampling_linear_light}},
    {"white_resampling_mode", ResamplingChoice{&JobSettings::white_resampling_mode, kHard}},
    {"white_resampling", ResamplingChoice{&JobSettings::white_resampling_mode, kHard}},
    {"white_ink_limit_enabled", Flag{&JobSettings::white_ink_limit_enabled}},
    {"total_ink_budget_pct", Amount{&JobSettings::total_ink_budget_pct, WhiteInkLimit::kPercent}},
    {"max_white_pct", Amount{&JobSettings::max_white_pct, WhiteInkLimit::kPercent}},
    {"min_white_pct", Amount{&JobSettings::min_white_pct, WhiteInkLimit::kPercent}},
};

void apply(const Flag& rule, const json& value, const char*, JobSettings& job) {
  job.*rule.field = value.get<bool>();
}

void apply(const Amount& rule, const json& value, const char* key, JobSettings& job) {
  const double number = value.get<double>();
  if (!std::isfinite(number)) return;
  job.*rule.field = static_cast<float>(cut(number, rule.limits, key));
}

void apply(const ResamplingChoice& rule, const json& value, const char* key, JobSettings& job) {
  job.*rule.field =
      parse_token<ResamplingMode>(kResamplingTokens, key, value.get<std::string>(), rule.fallback);
}

void apply(const Special& rule, const json& value, const char* key, JobSettings& job) {
  rule.apply(value, key, job);
}

void apply_keys(const json& document, JobSettings& job) {
  for (const KeyRow& row : kKeys) {
    const auto found = document.find(row.key);
    if (found == document.end()) continue;
    const ValueType type = std::visit([](const auto& rule) { return rule.type; }, row.rule);
    if (has_type(*found, type))
      std::visit([&](const auto& rule) { apply(rule, *found, row.key, job); }, row.rule);
    else
      log_warn("JobSettings: ", row.key, " must be ", kTypeNames[static_cast<std::size_t>(type)],
               "; this value (", found->type_name(), ") is skipped");
  }
  // An old file's InkBudget stands above the newer key.
  const auto legacy = document.find("white_generation_mode");
  if (legacy != document.end() && legacy->is_string() && legacy->get_ref<const std::string&>() == kInkBudget)
    job.white_ink_limit_enabled = true;
}

void normalize(JobSettings& job) {
  if (job.min_white_pct > job.max_white_pct) {
    log_warn("JobSettings: min_white_pct ", job.min_white_pct, " is above max_white_pct; using ",
             job.max_white_pct);
    job.min_white_pct = job.max_white_pct;
  }
  job.print_mode = resolve_print_mode(job.head(), job.print_mode);
  job.output_channel_map = normalize_channel_map(job.head(), job.output_channel_map);
  job.white_generation_mode = WhiteGenerationMode::source_coverage;
  if (job.white_choke_algorithm != WhiteChokeSetting::adaptive)
    job.white_choke_algorithm = WhiteChokeSetting::production;
  std::int32_t& min_width = job.white_choke_adaptive_min_width_dots;
  min_width = WhiteChoke::kMinWidthDots.cut(min_width);
  float& threshold = job.white_choke_adaptive_lightness_threshold;
  threshold = std::isnan(threshold) ? WhiteChoke::kDefaultLightness : WhiteChoke::kLightness.cut(threshold);
}

/// The value of a key where it has the type, or null.
const json* find_value(const json& document, const char* key, ValueType type) {
  const auto found = document.find(key);
  return found != document.end() && has_type(*found, type) ? &*found : nullptr;
}

/// Null where there is no document that could be read.
json read_document(const std::string& path) {
  json document;
  std::string error;
  bool missing = false;
  if (read_json_bounded(path, kMaxSettingsFileBytes, document, &error, &missing)) {
    if (!document.is_object()) {
      log_warn("JobSettings: '", path, "' holds no JSON object; the defaults hold");
      document = json::object();
    }
  } else if (missing) {
    warn_if_out_of_sight(path);
  } else {
    log_error("JobSettings: falling back to defaults for '", path, "': ", error);
  }
  return document;
}

JobSettings read_job(JobSettings job, const json& document, const std::string& path) {
  if (!find_value(document, "output_channel_map", ValueType::list))
    job.output_channel_map.clear();  // the default map of whichever head the file ends with
  apply_keys(document, job);
  normalize(job);
  warn_of_unknown_keys(SettingsFile::job, document, path);
  return job;
}

/// What the file asks for and won't get.
void warn_of_unmet(const JobSettings& job, const json& document, const RipSettings& rip_settings) {
  const json* const mode = find_value(document, "print_mode_id", ValueType::text);
  const json* const icc = find_value(document, "icc", ValueType::object);
  IccSettings ignored;
  const bool has_icc = icc && parse_icc_settings(*icc, ignored, nullptr);
  warn_of_unmet_settings(job, mode ? mode->get_ptr<const std::string*>() : nullptr, rip_settings,
                         has_icc ? "JobSettings: icc" : "IccSettings");
}

}  // namespace

std::vector<std::string> job_settings_keys() {
  std::vector<std::string> keys;
  for (const KeyRow& row : kKeys) {
    keys.emplace_back(row.key);
    if (const auto* special = std::get_if<Special>(&row.rule); special && special->apply == apply_icc)
      for (const std::string& key : icc_settings_keys()) keys.push_back(std::string(row.key) + "." + key);
  }
  return keys;
}

std::string job_settings_path() {
  constexpr std::string_view kMainName = "settings.json";
  std::string path = settings_path();
  const auto at = path.find(kMainName);
  return at == std::string::npos ? path + ".job_settings.json"
                                 : path.replace(at, kMainName.size(), "job_settings.json");
}

JobSettings load_job_settings(const RipSettings& rip_settings) {
  return load_job_settings(rip_settings, job_settings_path());
}

JobSettings load_job_settings(const RipSettings& rip_settings, const std::string& path) {
  JobSettings job = default_job_settings(rip_settings, load_icc_settings());
  json document;
  try {
    document = read_document(path);
    if (document.is_object()) job = read_job(job, document, path);
  } catch (const std::exception& e) {
    rethrow_machine_failure();
    log_error("JobSettings: parse failed for '", path, "': ", e.what());
    document = nullptr;
  } catch (...) {
    log_error("JobSettings: parse failed for '", path, "': unknown error");
    document = nullptr;
  }
  warn_of_unmet(job, document, rip_settings);
  return job;
}

}  // namespace nvo
