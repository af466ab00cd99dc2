#include "app/update_policy.h"

#include <cstdio>
#include <string>

#include "app/app_version.h"
#include "core/log.h"
#include "update/update_client.h"
#include "update/update_manager.h"
#include "update/update_trace.h"

namespace nvo {
namespace {

UpdateIdentity identity_of(const AppVersion& version) {
  return {version.version, version.build_id, version.channel, version.platform, version.arch};
}

void report_block(const GuardOutcome& outcome) {
  std::string text = "Pre-RIP guard blocked RIP: " + outcome.message + " (" + outcome.code + ")\n";
  if (!outcome.detail.empty() && outcome.detail != outcome.message) text += outcome.detail + "\n";
  std::fputs(text.c_str(), stderr);
  log_error(guard_summary(outcome));
}

void report_status(const UpdateDecision& decision) {
  if (decision.state == UpdateState::optional) {
    log_info("Update available: ", decision.result.latest_version);
  } else if (decision.state == UpdateState::unavailable) {
    const std::string& error = decision.result.error;
    log_warn("Update check unavailable: ", error.empty() ? "unknown error" : error);
  }
}

}  // namespace

bool update_policy_allows_run(const UpdateService& service) {
  UpdateTrace trace;
  const UpdateClient client(service, trace);
  UpdateManager manager(identity_of(app_version()), [&](const UpdateCheckRequest& request) {
    return client.check_for_update("", request);
  });
  const GuardOutcome outcome = manager.guard();
  if (!outcome.allowed) {
    report_block(outcome);
    return false;
  }
  if (manager.last_decision()) report_status(*manager.last_decision());
  return true;
}

}  // namespace nvo
