#pragma once

#include <cstddef>

namespace nvo::platform {

/// Whether standard error is a terminal, so that somebody may be watching it.
bool standard_error_is_terminal();

/// Columns of that terminal at this moment; 80 where it doesn't tell.
std::size_t standard_error_columns();

/// Tells whether text without a line break stands on standard error at this moment.
void set_line_unfinished(bool unfinished) noexcept;

/// Breaks such a line, once, unless the terminal has been stopped. For the end of the process: safe in a
/// signal handler.
void end_unfinished_line() noexcept;

}  // namespace nvo::platform
