#pragma once

#include <cstdint>
#include <string>

namespace nvo {

/// A 64-bit hash, as 16 hexadecimal digits, of a file's size and of its first and last 64 KiB: cheap however
/// large the file is. A change in the middle of a large file does not alter it; callers add the file's time.
bool fast_content_hash(const std::string& path, std::uint64_t size, std::string& out, std::string* error);

/// The same for a path alone; looks up the size itself.
bool content_hash(const std::string& path, std::string& out, std::string* error);

}  // namespace nvo
