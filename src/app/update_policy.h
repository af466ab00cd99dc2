#pragma once

#include "update/update_service.h"

namespace nvo {

/// Asks the service about updates and tells the user and the log what that means: false when the run must not
/// go on.
bool update_policy_allows_run(const UpdateService& service);

}  // namespace nvo
