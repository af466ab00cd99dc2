#include "update/update_manager.h"

#include <cstdint>
#include <utility>

#include <nlohmann/json.hpp>

#include "config/settings_paths.h"
#include "core/file_io.h"
#include "core/localisation.h"
#include "core/log.h"
#include "core/platform/paths.h"
#include "core/text.h"
#include "update/version_order.h"

namespace nvo {
namespace {

using nlohmann::json;

constexpr const char* kLatchFileName = "mandatory_update_latch.json";
constexpr std::uint64_t kMaxLatchBytes = 0x10000;

std::string or_default(std::string text, const char* fallback) {
  return text.empty() ? fallback : text;
}

std::string make_latch_path() {
  std::string path = platform::to_utf8(settings_directory() / kLatchFileName);
  return is_valid_utf8(path) ? path : std::string();
}

std::string text_member(const json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

bool flag_member(const json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_boolean() && found->get<bool>();
}

UpdateIdentity identity_member(const json& object) {
  return {text_member(object, "current_version"), text_member(object, "current_build_id"),
          text_member(object, "channel"), text_member(object, "platform"), text_member(object, "arch")};
}

/// The status line in the user's language, where that isn't English: the English messages say it already.
std::string translated_status(const UpdateDecision& decision) {
  std::string text = update_status_text(decision, kSystemLanguage);
  return text == update_status_text(decision, kEnglish) ? std::string() : text;
}

GuardOutcome outcome_of(const UpdateDecision& decision) {
  if (!decision.allowed || decision.state == UpdateState::mandatory)
    return {false, "mandatory_update_required",
            or_default(decision.message, "A mandatory update is required before RIP."),
            translated_status(decision)};
  GuardOutcome outcome{true, "allowed", "Pre-RIP policy guard passed.", ""};
  if (decision.state == UpdateState::optional)
    outcome.detail = or_default(decision.message, "Optional update available.");
  else if (decision.state == UpdateState::unavailable)
    outcome.detail = or_default(decision.result.error, "Update check unavailable.");
  return outcome;
}

}  // namespace

UpdateAvailability update_availability(const UpdateIdentity& identity, const UpdateCheckResult& result) {
  UpdateAvailability availability;
  if (!result.ok) {
    availability.message = "Update check unavailable.";
    return availability;
  }
  const bool other_build = is_other_build_of_same_version(identity.current_version, identity.current_build_id,
                                                          result.latest_version, result.latest_build_id);
  const bool newer = compare_versions(result.latest_version, identity.current_version) > 0;
  availability.same_version_newer_build = other_build;
  availability.update_available = result.update_available && (newer || other_build);
  if (!availability.update_available) {
    availability.message = "No update available.";
  } else if (result.mandatory) {
    availability.level = UpdateLevel::mandatory;
    availability.message =
        other_build ? "A newer build of this version is required." : "A mandatory update is required.";
  } else {
    availability.level = UpdateLevel::optional;
    availability.message =
        other_build ? "A newer build of this version is available." : "An update is available.";
  }
  return availability;
}

std::string update_status_text(const UpdateDecision& decision, int language) {
  const bool build_only = decision.same_version_newer_build;
  switch (decision.state) {
    case UpdateState::none:
      break;
    case UpdateState::optional:
      return tr(build_only ? TextId::update_optional_build_available : TextId::update_optional_available,
                language);
    case UpdateState::mandatory:
      return tr(build_only ? TextId::update_mandatory_build_required : TextId::update_mandatory_required,
                language);
    case UpdateState::unavailable:
      return tr(TextId::update_check_unavailable, language);
  }
  return tr(TextId::update_none, language);
}

std::string guard_summary(const GuardOutcome& outcome) {
  std::string line = outcome.allowed ? "Pre-RIP guard allowed RIP" : "Pre-RIP guard blocked RIP";
  line += " [" + outcome.code + "]: " + outcome.message;
  if (!outcome.detail.empty() && outcome.detail != outcome.message) line += " (" + outcome.detail + ")";
  return line;
}

UpdateManager::UpdateManager(UpdateIdentity identity, UpdateCheckFunction check_function)
    : identity_(std::move(identity)),
      check_function_(std::move(check_function)),
      latch_path_(make_latch_path()) {
  load_latch();
}

UpdateDecision UpdateManager::check() {
  const UpdateCheckResult result =
      check_function_({identity_.current_version, identity_.channel, identity_.platform, identity_.arch,
                       identity_.current_build_id});
  UpdateDecision decision = decide(result);
  last_decision_ = decision;
  if (result.ok || !last_good_result_) last_good_result_ = result;
  if (result.ok) {
    mandatory_latched_ = decision.state == UpdateState::mandatory;
    save_latch();
  }
  return decision;
}

GuardOutcome UpdateManager::guard() {
  GuardOutcome outcome = outcome_of(check());
  log_info(guard_summary(outcome));
  return outcome;
}

UpdateDecision UpdateManager::decide(const UpdateCheckResult& result) const {
  UpdateAvailability availability = update_availability(identity_, result);
  UpdateDecision decision;
  decision.result = result;
  decision.availability_level = availability.level;
  decision.update_available = availability.update_available;
  decision.same_version_newer_build = availability.same_version_newer_build;
  decision.availability_message = std::move(availability.message);

  if (!result.ok) {
    decision.allowed = !mandatory_latched_;
    decision.state = mandatory_latched_ ? UpdateState::mandatory : UpdateState::unavailable;
    decision.message = mandatory_latched_
                           ? "Update check unavailable, but a mandatory update was previously confirmed."
                           : "Update check unavailable.";
  } else if (!result.update_available) {
    decision.message = "No update available.";
  } else if (result.mandatory) {
    decision.allowed = false;
    decision.state = UpdateState::mandatory;
    decision.message = or_default(decision.availability_message, "A mandatory update is required.");
  } else {
    decision.state = UpdateState::optional;
    decision.message = or_default(decision.availability_message, "An update is available.");
  }
  return decision;
}

void UpdateManager::load_latch() {
  if (latch_path_.empty()) return;
  json latch;
  std::string error;
  bool missing = false;
  try {
    if (read_json_bounded(latch_path_, kMaxLatchBytes, latch, &error, &missing)) {
      if (!latch.is_object())
        error = "JSON root must be an object";
      else
        mandatory_latched_ = flag_member(latch, "mandatory_latched") && identity_member(latch) == identity_;
    }
  } catch (const std::system_error& failure) {  // A disk that doesn't read is no reason to stop the shop.
    error = failure.what();
  }
  if (!missing && !error.empty())
    log_error("UpdateManager: ignoring mandatory latch state '", latch_path_, "': ", error);
}

void UpdateManager::save_latch() const {
  if (latch_path_.empty()) return;
  const json latch = {{"mandatory_latched", mandatory_latched_},
                      {"current_version", identity_.current_version},
                      {"current_build_id", identity_.current_build_id},
                      {"channel", identity_.channel},
                      {"platform", identity_.platform},
                      {"arch", identity_.arch}};
  std::string error;
  if (!write_file_atomic(latch_path_, latch.dump(2) + "\n", &error))
    log_error("UpdateManager: cannot save mandatory latch state '", latch_path_,
              "': ", or_default(error, "unknown error"));
}

}  // namespace nvo
