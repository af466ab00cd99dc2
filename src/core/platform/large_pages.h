#pragma once

#include <cstddef>

namespace nvo::platform {

/// From this size on an area is worth an allocation of its own, in bytes.
inline constexpr std::size_t kLargeArea = std::size_t{1} << 20;

/// Memory for `size` zero bytes that begins on a large page where the system has them: the first touch of a
/// page costs a fault, and a large page is some hundred small ones. Only touched pages cost memory. Throws
/// `bad_alloc`.
void* allocate_large(std::size_t size);
/// Gives back what `allocate_large` gave for this size.
void release_large(void* memory, std::size_t size) noexcept;

/// Asks for large pages behind other memory that is about to be filled. No promise, and no effect on what the
/// memory holds.
void prefer_large_pages(void* memory, std::size_t size) noexcept;

}  // namespace nvo::platform
