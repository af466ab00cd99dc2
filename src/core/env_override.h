#pragma once

namespace nvo {

/// Warns that an output override from the environment is not honoured; once per process and name.
void warn_ignored_override(const char* name);

}  // namespace nvo
