#pragma once

#include <optional>
#include <string>

namespace nvo::platform {

/// Value of an environment variable, or nothing when it is not set.
std::optional<std::string> environment(const char* name);

}  // namespace nvo::platform
