#include "core/env_override.h"

#include <mutex>
#include <set>
#include <string>

#include "core/log.h"
#include "core/platform/environment.h"
#include "core/text.h"

namespace nvo {

bool is_environment_true(const char* name) {
  const std::string word = ascii_lower(platform::environment(name).value_or(""));
  return word == "1" || word == "true" || word == "on" || word == "yes";
}

void warn_ignored_override(const char* name) {
  static std::mutex mutex;
  static std::set<std::string> seen;
  {
    const std::lock_guard lock(mutex);
    if (!seen.insert(name).second) return;
  }
  log_warn(
      "RIP output env override ignored in production/release: ", name,
      " (enable NVO_ENABLE_RIP_DEBUG_ENV_OVERRIDES or NVO_RIP_ALLOW_OUTPUT_ENV_OVERRIDES for dev builds)");
}

}  // namespace nvo
