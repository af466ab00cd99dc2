#pragma once

#include <cstddef>

namespace nvo::platform {

/// Whether standard error is a terminal, so that somebody may be watching it.
bool standard_error_is_terminal();

/// Columns of that terminal at this moment; 80 where it doesn't tell.
std::size_t standard_error_columns();

}  // namespace nvo::platform
