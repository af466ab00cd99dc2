#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace nvo {

/// Of a settings file, and of a text in one.
inline constexpr std::uint64_t kMaxSettingsFileBytes = std::uint64_t{1} << 20;
inline constexpr std::size_t kMaxSettingsTextBytes = 32768;

/// The least and the most that a number in settings may be.
struct Limits {
  double least = 0.0;
  double most = std::numeric_limits<float>::max();

  bool hold(double number) const { return number >= least && number <= most; }
  /// The nearest number within; not a number stays one.
  template <class Number>
  Number cut(Number number) const {
    return static_cast<Number>(std::clamp(static_cast<double>(number), least, most));
  }
};

}  // namespace nvo
