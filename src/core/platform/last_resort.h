#pragma once

namespace nvo::platform {

/// From here on an exception that nobody catches, in whatever thread, ends the process like a failed job: its
/// text on standard error after "Fatal: ", temporary files gone, exit code 2. Needs no memory. Exceptions
/// that are not of the standard library still abort. A program that calls it is guarded from its start, also
/// while static objects are made.
void install_last_resort() noexcept;

}  // namespace nvo::platform
