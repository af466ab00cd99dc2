#pragma once

#include <algorithm>
#include <limits>

namespace nvo {

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
