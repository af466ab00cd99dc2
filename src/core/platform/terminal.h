#pragma once

#include <cstddef>
#include <string>

namespace nvo::platform {

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
