#pragma once

#include <optional>
#include <string>

#include "update/update_check.h"

namespace nvo {

/// The program that is running, as the latch remembers it.
struct UpdateIdentity {
  std::string current_version;
  std::string current_build_id;
  std::string channel;
  std::string platform;
  std::string arch;

  bool operator==(const UpdateIdentity&) const = default;
};

enum class UpdateState : int { none = 0, optional = 1, mandatory = 2, unavailable = 3 };
enum class UpdateLevel : int { none = 0, optional = 1, mandatory = 2 };

/// What an answer offers to the program that asked.
struct UpdateAvailability {
  UpdateLevel level = UpdateLevel::none;
  bool update_available = false;
  bool same_version_newer_build = false;
  std::string message;
};

UpdateAvailability update_availability(const UpdateIdentity& identity, const UpdateCheckResult& result);

/// What one check means for the run.
struct UpdateDecision {
  bool allowed = true;
  UpdateState state = UpdateState::none;
  UpdateCheckResult result;
  UpdateLevel availability_level = UpdateLevel::none;
  bool update_available = false;
  bool same_version_newer_build = false;
  std::string availability_message;
  std::string message;
};

/// The decision's status line in a language of `tr`.
std::string update_status_text(const UpdateDecision& decision, int language);

/// Whether a job may start.
struct GuardOutcome {
  bool allowed = true;
  std::string code;
  std::string message;
  std::string detail;
};

/// The outcome in one line, as the log has it.
std::string guard_summary(const GuardOutcome& outcome);

/// Decides whether this run may go on, and remembers a mandatory update across runs in the latch, a small
/// file in the user's settings folder: while the service can't be reached, an update that was once confirmed
/// goes on to block the version and build that it was confirmed for. Throws only what the check function
/// throws. Used by one thread at a time.
class UpdateManager {
 public:
  UpdateManager(UpdateIdentity identity, UpdateCheckFunction check_function);

  /// Runs the check, decides, and sets or clears the latch when the check succeeded.
  UpdateDecision check();

  /// `check()` and its outcome for the stage before a job, logged.
  GuardOutcome guard();

  /// The last decision, if there was a check.
  const std::optional<UpdateDecision>& last_decision() const { return last_decision_; }
  /// The last result that was good, or the first one as long as none was.
  const std::optional<UpdateCheckResult>& last_good_result() const { return last_good_result_; }

 private:
  void load_latch();
  void save_latch() const;
  UpdateDecision decide(const UpdateCheckResult& result) const;

  UpdateIdentity identity_;
  UpdateCheckFunction check_function_;
  std::string latch_path_;
  bool mandatory_latched_ = false;
  std::optional<UpdateCheckResult> last_good_result_;
  std::optional<UpdateDecision> last_decision_;
};

}  // namespace nvo
