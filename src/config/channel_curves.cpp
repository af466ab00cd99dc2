#include <algorithm>
#include <cmath>

#include "config/rip_settings.h"

namespace nvo {
namespace {

constexpr float kMaxInk = 255.0f;
constexpr std::size_t kCurveSize = 256;

std::vector<float> channel_curve(const ChannelSettings& channel) {
  std::vector<float> curve(kCurveSize);
  if (channel.lut.size() == kCurveSize) {
    std::transform(channel.lut.begin(), channel.lut.end(), curve.begin(), [](float value) {
      return std::isfinite(value) && value > 0.0f ? std::min(value, kMaxInk) : 0.0f;
    });
    return curve;
  }
  const float limit = std::isfinite(channel.limit) ? ChannelSettings::kInk.cut(channel.limit) : 0.0f;
  const bool usable = std::isfinite(channel.gamma) && channel.gamma > 0.0f;
  const float gamma = ChannelSettings::kGamma.cut(usable ? channel.gamma : 1.0f);
  for (std::size_t i = 0; i < kCurveSize; ++i) {
    const float t = static_cast<float>(i) / kMaxInk;
    curve[i] = std::clamp(std::pow(t, gamma) * limit, 0.0f, kMaxInk);
  }
  return curve;
}

}  // namespace

std::vector<std::vector<float>> channel_curves(const RipSettings& settings) {
  std::vector<std::vector<float>> curves;
  for (const ChannelSettings& channel : settings.channels) curves.push_back(channel_curve(channel));
  curves.push_back(curves.back());
  return curves;
}

}  // namespace nvo
