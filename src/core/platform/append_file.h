#pragma once

#include <string>
#include <string_view>

namespace nvo::platform {

/// Adds `text` to the end of a regular file, which is made if it isn't there, in one write. Links are not
/// followed, and pipes or devices neither opened nor waited for. Returns 0 or the system's error.
int append_to_file(const std::string& path, std::string_view text);

}  // namespace nvo::platform
