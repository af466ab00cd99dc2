#pragma once

namespace nvo::platform {

/// Call behind functions of a library that may leave data in the upper halves of wide vector registers, as
/// those of ISA-L do: until these are cleared, all code that knows registers of 16 bytes only takes up to
/// three times as long. Costs next to nothing.
void clear_upper_registers() noexcept;

}  // namespace nvo::platform
