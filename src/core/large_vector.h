#pragma once

#include <cstddef>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/platform/large_pages.h"

namespace nvo {

/// Takes large areas straight from the system, on large pages where it has them, and leaves elements that are
/// added without a value as they are.
template <class T>
class LargeAllocator {
 public:
  static_assert(std::is_trivial_v<T>);
  using value_type = T;

  LargeAllocator() = default;
  template <class U>
  LargeAllocator(const LargeAllocator<U>&) {}  // NOLINT: allocators convert

  T* allocate(std::size_t count) {
    if (count > std::numeric_limits<std::size_t>::max() / sizeof(T)) throw std::bad_array_new_length();
    const std::size_t size = count * sizeof(T);
    void* const memory = size < platform::kLargeArea ? ::operator new(size) : platform::allocate_large(size);
    return static_cast<T*>(memory);
  }

  void deallocate(T* memory, std::size_t count) noexcept {
    const std::size_t size = count * sizeof(T);
    if (size < platform::kLargeArea)
      ::operator delete(memory);
    else
      platform::release_large(memory, size);
  }

  void construct(T*) {}
  template <class Value>
  void construct(T* at, Value&& value) {
    *at = std::forward<Value>(value);
  }

  bool operator==(const LargeAllocator&) const { return true; }
};

/// A vector for areas of megabytes that are filled as a whole: what `resize` adds means nothing until it is
/// written.
template <class T>
using LargeVector = std::vector<T, LargeAllocator<T>>;

/// Makes room for `size` elements. Where the room was too small the content is lost.
template <class T>
void reserve_large(LargeVector<T>& values, std::size_t size) {
  if (size <= values.capacity()) return;
  LargeVector<T>().swap(values);  // the old memory first
  values.reserve(size);
}
/// The same, on large pages as far as they fit between other memory.
template <class T>
void reserve_large(std::vector<T>& values, std::size_t size) {
  if (size <= values.capacity()) return;
  std::vector<T>().swap(values);
  values.reserve(size);
  platform::prefer_large_pages(values.data(), size * sizeof(T));
}

/// Gives a vector another size; what it holds then means nothing.
template <class T>
void resize_large(LargeVector<T>& values, std::size_t size) {
  reserve_large(values, size);
  values.resize(size);
}

}  // namespace nvo
