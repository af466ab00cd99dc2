#include <cstdlib>

#include "core/platform/environment.h"

namespace nvo::platform {

std::optional<std::string> environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::optional<std::string>(value) : std::nullopt;
}

}  // namespace nvo::platform
