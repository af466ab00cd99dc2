#pragma once

#include <cstddef>
#include <vector>

#include "core/platform/large_pages.h"

namespace nvo {

/// Makes room for `size` elements, on large pages where the system has them. Where the room was too small
/// the content is lost.
template <class T>
void reserve_large(std::vector<T>& values, std::size_t size) {
  if (size <= values.capacity()) return;
  std::vector<T>().swap(values);  // the old memory first
  values.reserve(size);
  platform::prefer_large_pages(values.data(), size * sizeof(T));
}

/// Gives a vector another size; what it holds then means nothing.
template <class T>
void resize_large(std::vector<T>& values, std::size_t size) {
  reserve_large(values, size);
  values.resize(size);
}

}  // namespace nvo
