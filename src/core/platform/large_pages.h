#pragma once

#include <cstddef>

namespace nvo::platform {

/// Asks for large pages behind memory that is about to be filled: the first touch of each page costs a fault,
/// and a large page is some hundred small ones. Small areas are left alone. No promise, and no effect on what
/// the memory holds.
void prefer_large_pages(void* memory, std::size_t size) noexcept;

}  // namespace nvo::platform
