#pragma once

#include <cstddef>
#include <string>

namespace nvo::platform {

/// Gives each closed standard stream the null device, so that no other file gets its number; what is done
/// with the stream fails as before. First thing in `main`.
void open_standard_streams() noexcept;

/// Whether both outputs lead to the same place, so that a reader of the one sees the other as well.
bool standard_outputs_are_one() noexcept;

/// Writes a line to standard error, control characters shown as `escape_controls` does. For when memory has
/// run out: needs none.
void write_error_line(const char* prefix, const char* text) noexcept;

/// Whether standard error is a terminal, so that somebody may be watching it.
bool standard_error_is_terminal();

/// Columns of that terminal at this moment; 80 where it doesn't tell.
std::size_t standard_error_columns();

/// Writes text to standard error. `unfinished` tells whether a line without its break stands there
/// afterwards. Nothing is written any more once the last line has been ended. For one thread at a time.
void write_unless_ended(const std::string& text, bool unfinished) noexcept;

/// Breaks a line that stands unfinished, unless the terminal has been stopped, and lets none follow. For the
/// end of the process: safe in a signal handler, whatever the other threads do.
void end_last_line() noexcept;

}  // namespace nvo::platform
