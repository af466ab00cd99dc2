#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace nvo {

/// A plane of bytes that somebody else owns: `height` rows of `width` bytes, `pitch` bytes from row to row. A
/// null view stands for a plane that there is not. Debug builds check each access.
template <class Byte>
class BasicPlaneView {
 public:
  BasicPlaneView() = default;
  BasicPlaneView(Byte* data, std::uint32_t width, std::uint32_t height, std::size_t pitch)
      : data_(data), width_(width), height_(height), pitch_(pitch) {
    assert(data == nullptr || pitch >= width);
  }
  /// Rows without gaps.
  BasicPlaneView(Byte* data, std::uint32_t width, std::uint32_t height)
      : BasicPlaneView(data, width, height, width) {}
  /// What may be written may be read.
  operator BasicPlaneView<const Byte>() const  // NOLINT(google-explicit-constructor)
      requires(!std::is_const_v<Byte>) {
    return {data_, width_, height_, pitch_};
  }

  bool null() const { return data_ == nullptr; }
  std::uint32_t width() const { return width_; }
  std::uint32_t height() const { return height_; }
  std::size_t pitch() const { return pitch_; }

  Byte* row(std::size_t y) const {
    assert(data_ != nullptr && y < height_);
    return data_ + y * pitch_;
  }
  Byte& at(std::size_t x, std::size_t y) const {
    assert(x < width_);
    return row(y)[x];
  }
  /// `height` rows from row `y` on, of each `width` bytes from column `x` on; null of a null view.
  BasicPlaneView part(std::size_t x, std::size_t y, std::uint32_t width, std::uint32_t height) const {
    if (null()) return {};
    assert(x + width <= width_ && y + height <= height_);
    return {data_ + y * pitch_ + x, width, height, pitch_};
  }
  bool same_size(const auto& other) const { return width_ == other.width() && height_ == other.height(); }

 private:
  Byte* data_ = nullptr;
  std::uint32_t width_ = 0, height_ = 0;
  std::size_t pitch_ = 0;
};

using PlaneView = BasicPlaneView<const std::uint8_t>;
using MutablePlaneView = BasicPlaneView<std::uint8_t>;

/// Copies a plane to one of its size.
inline void copy_plane(const PlaneView& from, const MutablePlaneView& to) {
  assert(from.same_size(to));
  for (std::size_t y = 0; y < from.height(); ++y) std::copy_n(from.row(y), from.width(), to.row(y));
}

}  // namespace nvo
