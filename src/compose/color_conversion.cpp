#include "compose/color_conversion.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "core/log.h"

namespace nvo {
namespace {

constexpr std::size_t kCmykBytes = 4;

/// The formula for one separation; everything but the level of a channel follows from the pixel's brightest
/// channel.
struct GreyReplacement {
  float black;
  float scale;

  explicit GreyReplacement(std::uint32_t brightest)
      : black(1.0f - static_cast<float>(brightest) / 255.0f),
        scale(black >= 1.0f ? 0.0f : 1.0f / (1.0f - black)) {}

  float ink(std::uint32_t level) const {
    return ((1.0f - static_cast<float>(level) / 255.0f) - black) * scale;
  }
};

std::uint8_t ink_byte(float amount) {
  return static_cast<std::uint8_t>(amount * 255.0f + 0.5f);
}

/// Every answer of the formula: by the brightest channel of a pixel and the channel's own level, which is
/// never above it.
struct FormulaTables {
  std::array<std::array<std::uint8_t, 256>, 256> ink{};
  std::array<std::uint8_t, 256> black{};

  FormulaTables() {
    for (std::uint32_t brightest = 0; brightest < 256; ++brightest) {
      const GreyReplacement formula(brightest);
      black[brightest] = ink_byte(formula.black);
      for (std::uint32_t level = 0; level <= brightest; ++level)
        ink[brightest][level] = ink_byte(formula.ink(level));
    }
  }
};

/// One of the two conversions of a job: where its converter lives in a slot, how it is opened, what is said
/// when it is not there.
struct ConversionKind {
  std::unique_ptr<IccConverter> WorkerIcc::*converter;
  std::string WorkerIcc::*error;
  bool WorkerIcc::*tried;
  bool (IccConverter::*open)(const IccSettings&, std::string*, bool quiet);
  const char* not_wanted;
  const char* failed;
};

constexpr ConversionKind kRgbToCmyk = {
    &WorkerIcc::rgb,
    &WorkerIcc::rgb_error,
    &WorkerIcc::rgb_tried,
    &IccConverter::open_rgb_to_cmyk,
    "ICC disabled or output profile is empty",
    "RGB->CMYK ICC init failed",
};
constexpr ConversionKind kCmykToCmyk = {
    &WorkerIcc::cmyk,
    &WorkerIcc::cmyk_error,
    &WorkerIcc::cmyk_tried,
    &IccConverter::open_cmyk_to_cmyk,
    "ICC disabled or CMYK/output profile is empty",
    "CMYK->CMYK ICC init failed",
};

/// Opens the slot's converter the first time it is asked for. True when there is one.
bool ensure_converter(WorkerIcc& slot, const ConversionKind& kind, const IccSettings& settings,
                      FirstOpened& first, std::string& error) {
  if (!(slot.*kind.tried)) {
    std::string reason;
    auto converter = std::make_unique<IccConverter>();
    const std::lock_guard one_opens(first.opening);
    if (first.converter) {
      converter->open_as(*first.converter, slot.quiet);
      slot.*kind.converter = std::move(converter);
    } else if ((*converter.*kind.open)(settings, &reason, slot.quiet)) {
      first.converter = std::make_unique<IccConverter>();
      first.converter->open_as(*converter, /*quiet=*/true);
      slot.*kind.converter = std::move(converter);
      (slot.*kind.error).clear();
    } else {
      slot.*kind.error = reason.empty() ? kind.failed : reason;
    }
    slot.*kind.tried = true;  // not before: a failure of the machine is none of the profile
  }
  if (slot.*kind.converter) return true;
  error = slot.*kind.error;
  return false;
}

/// A worker's slot is its own; the shared one comes with the lock.
struct LockedSlot {
  std::unique_lock<std::mutex> lock;
  WorkerIcc& slot;
};

LockedSlot lock_slot(WorkerIcc* worker, WorkerIcc& shared, std::mutex& mutex) {
  return worker ? LockedSlot{{}, *worker} : LockedSlot{std::unique_lock(mutex), shared};
}

bool run_converter(IccConverter* converter, const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels) {
  return converter && converter->transform(src, dst, pixels);
}

/// True for the one thread that raises the flag.
bool raise_once(std::atomic<bool>& flag) {
  bool expected = false;
  return flag.compare_exchange_strong(expected, true);
}

}  // namespace

void rgb_to_cmyk_simple(const std::uint8_t* rgb, std::uint8_t* cmyk, std::size_t pixels) {
  static const FormulaTables tables;
  for (std::size_t i = 0; i < pixels; ++i, rgb += 3, cmyk += kCmykBytes) {
    const std::uint8_t brightest = std::max({rgb[0], rgb[1], rgb[2]});
    const auto& ink = tables.ink[brightest];
    cmyk[0] = ink[rgb[0]];
    cmyk[1] = ink[rgb[1]];
    cmyk[2] = ink[rgb[2]];
    cmyk[3] = tables.black[brightest];
  }
}

void ColorConversion::reset(const IccSettings& settings) {
  const std::lock_guard lock(icc_mutex_);
  settings_ = settings;
  cmyk_runtime_warned_ = false;
  rgb_fallback_warned_ = false;
  shared_ = {};
  first_rgb_.converter.reset();
  first_cmyk_.converter.reset();
}

bool ColorConversion::init_rgb_icc(WorkerIcc* worker, std::string& error) {
  const LockedSlot locked = lock_slot(worker, shared_, icc_mutex_);
  if (!wanted()) {
    error = kRgbToCmyk.not_wanted;
    return false;
  }
  return ensure_converter(locked.slot, kRgbToCmyk, settings_, first_rgb_, error);
}

bool ColorConversion::init_cmyk_icc(WorkerIcc* worker, std::string& error) {
  if (force_cmyk_icc_fail_) return true;
  const LockedSlot locked = lock_slot(worker, shared_, icc_mutex_);
  if (!wanted() || settings_.input_cmyk_profile.empty()) {
    error = kCmykToCmyk.not_wanted;
    return false;
  }
  return ensure_converter(locked.slot, kCmykToCmyk, settings_, first_cmyk_, error);
}

void ColorConversion::convert_rgb_row(WorkerIcc* worker, const std::uint8_t* rgb, std::uint8_t* cmyk,
                                      std::size_t pixels) {
  {
    const LockedSlot locked = lock_slot(worker, shared_, icc_mutex_);
    if (run_converter(locked.slot.rgb.get(), rgb, cmyk, pixels)) return;
  }
  warn_rgb_fallback("RGB->CMYK ICC conversion failed at runtime");
  rgb_to_cmyk_simple(rgb, cmyk, pixels);
}

void ColorConversion::convert_cmyk_row(WorkerIcc* worker, const std::uint8_t* src, std::uint8_t* dst,
                                       std::size_t pixels) {
  if (!force_cmyk_icc_fail_) {
    const LockedSlot locked = lock_slot(worker, shared_, icc_mutex_);
    if (run_converter(locked.slot.cmyk.get(), src, dst, pixels)) return;
  }
  std::copy_n(src, pixels * kCmykBytes, dst);
  if (raise_once(cmyk_runtime_warned_))
    log_warn("StripCompositor: CMYK->CMYK ICC conversion failed at runtime; using CMYK passthrough");
}

void ColorConversion::warn_rgb_fallback(const std::string& error) {
  if (!wanted() || !raise_once(rgb_fallback_warned_)) return;
  log_warn(
      "StripCompositor: RGB->CMYK ICC unavailable; using simple RGB->CMYK fallback; color accuracy may be "
      "reduced; "
      "missing profile or conversion error: ",
      error.empty() ? std::string_view("unknown ICC error") : error);
}

}  // namespace nvo
