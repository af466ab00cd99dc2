#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

#include "core/atomic_file.h"

namespace nvo {

// None of these functions throws for file problems: they return false and, where `error` is not null, say
// why. Paths are UTF-8.

/// Reads a whole regular file of at most `max_bytes` bytes (0 means no cap) into `out`. The size is tested
/// before any byte is read. A file that is not there sets `missing` and leaves `error` empty. A failure of
/// the machine, such as a disk that doesn't read or no memory, is no problem of the file: it throws
/// `system_error` or `bad_alloc`.
bool read_file_bounded(const std::string& path, std::uint64_t max_bytes, std::string& out, std::string* error,
                       bool* missing);

/// Why nothing can be said about `path`, for callers that a `missing` file doesn't satisfy: 0 where its
/// status could be had or nothing is there, otherwise the system's error (`platform::error_text` has its
/// text).
int path_error(const std::string& path);

/// `read_file_bounded` and a JSON parse; `json` is null on failure.
bool read_json_bounded(const std::string& path, std::uint64_t max_bytes, nlohmann::json& json,
                       std::string* error, bool* missing);

/// `AtomicFile` for bytes that are all there. All or nothing: afterwards `path` is the complete new file, or,
/// on failure, what it was before. Makes the parent folder with its ancestors when it is not there. The log
/// has the cause of a failure, with path and size, at ERROR.
bool write_file_atomic(const std::string& path, std::string_view content, std::string* error);

/// A new file beside `target`, under a name that no other process or thread takes.
TempFile create_unique_temp(const std::string& target, std::string* error);

/// Moves `temp` over `target` in one step; waits out another process that has the target open for a moment.
bool atomic_replace(const std::string& temp, const std::string& target, std::string* error);

}  // namespace nvo
