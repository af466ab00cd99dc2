#pragma once

namespace nvo {

/// True where an environment variable is "1", "true", "on" or "yes", in any case.
bool is_environment_true(const char* name);

/// Warns that an output override from the environment is not honoured; once per process and name.
void warn_ignored_override(const char* name);

}  // namespace nvo
