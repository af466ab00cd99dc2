#include "compose/color_conversion.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

#include <lcms2.h>
#include <lcms2_plugin.h>

#include "core/guarded_call.h"
#include "core/log.h"
#include "core/machine_failure.h"
#include "core/out_of_memory.h"
#include "core/platform/input_file.h"
#include "core/platform/paths.h"

namespace nvo {
namespace {

constexpr std::uint64_t kMaxProfileBytes = 0x2000000;
constexpr std::size_t kRgbBytes = 3;
constexpr std::size_t kCmykBytes = 4;

bool fail(std::string* error, std::string text) {
  if (error) *error = std::move(text);
  return false;
}

// Faults come back as null handles and are told in this program's own log.
void ignore_message(cmsContext, cmsUInt32Number, const char*) {}

/// The memory of a context. Where it gets none lcms goes on: a profile seems damaged, a transform comes
/// without one of its steps and colours move by a level, or a null pointer is read. So the call that asked
/// for it is left at once. For the thread that uses the context.
struct ContextMemory {
  GuardedCall call;
  bool ran_out = false;

  /// Larger blocks come from damaged profiles; lcms's own allocator refuses them too.
  static constexpr cmsUInt32Number kMaxBlockBytes = 512u << 20;

  /// Of a context; null for the handle under which a context itself is asked for.
  static ContextMemory* of(cmsContext context) {
    return static_cast<ContextMemory*>(cmsGetContextUserData(context));
  }
  static void* allocate(cmsContext context, cmsUInt32Number size) {
    return size > kMaxBlockBytes ? nullptr : checked(context, size, std::malloc(size));
  }
  static void* reallocate(cmsContext context, void* memory, cmsUInt32Number size) {
    return size > kMaxBlockBytes ? nullptr : checked(context, size, std::realloc(memory, size));
  }
  static void release(cmsContext, void* memory) { std::free(memory); }

 private:
  static void* checked(cmsContext context, cmsUInt32Number size, void* memory) {
    if (memory || size == 0) return memory;
    if (ContextMemory* owner = of(context)) {
      owner->ran_out = true;
      owner->call.leave();
    }
    return nullptr;
  }
};

/// What a call has left behind is given up; the job ends anyway.
bool may_be_freed(cmsContext context) {
  return !ContextMemory::of(context)->call.was_left();
}

struct CloseProfile {
  void operator()(void* profile) const {
    if (may_be_freed(cmsGetProfileContextID(profile))) cmsCloseProfile(profile);
  }
};
struct DeleteTransform {
  void operator()(void* transform) const {
    if (may_be_freed(cmsGetTransformContextID(transform))) cmsDeleteTransform(transform);
  }
};
struct DeleteContext {
  void operator()(cmsContext context) const {
    if (may_be_freed(context)) cmsDeleteContext(context);
  }
};
using ProfileHandle = std::unique_ptr<void, CloseProfile>;
using TransformHandle = std::unique_ptr<void, DeleteTransform>;
using ContextHandle = std::unique_ptr<std::remove_pointer_t<cmsContext>, DeleteContext>;

/// A context of lcms whose calls throw where memory runs out.
class Context {
 public:
  cmsContext get() const { return handle_.get(); }

  /// The result of `call()`; no object in it may need a destructor.
  template <class Call>
  auto ask(const Call& call) const {
    const auto answer = memory_->call.run(call);
    if (memory_->ran_out) throw OutOfMemory("IccConverter: out of memory for a colour conversion");
    return answer;
  }

  Context() {
    cmsPluginMemHandler plugin{};
    plugin.base = {cmsPluginMagicNumber, LCMS_VERSION, cmsPluginMemHandlerSig, nullptr};
    plugin.MallocPtr = ContextMemory::allocate;
    plugin.FreePtr = ContextMemory::release;
    plugin.ReallocPtr = ContextMemory::reallocate;
    handle_.reset(ask([&] { return cmsCreateContext(&plugin, memory_.get()); }));
    if (!handle_) throw OutOfMemory("IccConverter: out of memory for a colour engine");
    cmsSetLogErrorHandlerTHR(handle_.get(), ignore_message);
  }

 private:
  std::unique_ptr<ContextMemory> memory_ = std::make_unique<ContextMemory>();
  ContextHandle handle_;
};

struct OpenedProfile {
  std::vector<std::uint8_t> bytes;
  ProfileHandle handle;
};

/// `what` names the profile in the text: "input RGB", "output CMYK".
bool open_profile(const Context& context, const char* what, const std::string& path, OpenedProfile& profile,
                  std::string* error) {
  const std::string text = std::string("Cannot open ") + what + " profile: " + path;
  std::string reason;
  if (!read_profile_file(path, profile.bytes, &reason)) return fail(error, text + ": " + reason);
  profile.handle.reset(context.ask([&] {
    return cmsOpenProfileFromMemTHR(context.get(), profile.bytes.data(),
                                    static_cast<cmsUInt32Number>(profile.bytes.size()));
  }));
  return profile.handle ? true : fail(error, text);
}

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
                      std::string& error) {
  if (!(slot.*kind.tried)) {
    std::string reason;
    auto converter = std::make_unique<IccConverter>();
    if ((*converter.*kind.open)(settings, &reason, slot.quiet)) {
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

bool is_cmyk(const OpenedProfile& profile) {
  return cmsGetColorSpace(profile.handle.get()) == cmsSigCmykData;
}

/// The runs of equal pixels in a block. A pixel's colour depends on nothing but itself, so that one
/// conversion serves a whole run, and artwork consists of little else.
class RunBlock {
 public:
  static constexpr std::size_t kMaxPixels = 1024;

  /// Takes up to `kMaxPixels` pixels of `Bytes` bytes. False when there are too few long runs to gain by
  /// them.
  template <std::size_t Bytes>
  bool collapse(const std::uint8_t* src, std::size_t pixels) {
    runs_ = 0;
    for (std::size_t i = 0; i < pixels; ++i, src += Bytes) {
      std::memcpy(&distinct_[runs_ * Bytes], src, Bytes);
      end_[runs_] = static_cast<std::uint16_t>(i + 1);
      runs_ += i + 1 == pixels || std::memcmp(src, src + Bytes, Bytes) != 0;
    }
    return runs_ <= pixels / 2;
  }

  /// Converts one pixel of each run and writes the run.
  void convert(cmsHTRANSFORM transform, std::uint8_t* dst) {
    cmsDoTransform(transform, distinct_.data(), converted_.data(), static_cast<cmsUInt32Number>(runs_));
    std::size_t pixel = 0;
    for (std::size_t run = 0; run < runs_; ++run)
      for (; pixel < end_[run]; ++pixel)
        std::memcpy(dst + pixel * kCmykBytes, &converted_[run * kCmykBytes], kCmykBytes);
  }

 private:
  std::array<std::uint8_t, kMaxPixels * kCmykBytes> distinct_, converted_;
  std::array<std::uint16_t, kMaxPixels> end_;
  std::size_t runs_ = 0;
};

template <std::size_t Bytes>
void convert_pixels(cmsHTRANSFORM transform, const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels,
                    RunBlock& block) {
  while (pixels != 0) {
    const std::size_t count = std::min(pixels, RunBlock::kMaxPixels);
    if (block.collapse<Bytes>(src, count)) {
      block.convert(transform, dst);
    } else {
      cmsDoTransform(transform, src, dst, static_cast<cmsUInt32Number>(count));
    }
    src += count * Bytes;
    dst += count * kCmykBytes;
    pixels -= count;
  }
}

}  // namespace

bool read_profile_file(const std::string& path, std::vector<std::uint8_t>& bytes, std::string* error) {
  bytes.clear();
  if (path.empty()) return fail(error, "path is empty");
  std::error_code code;
  if (!std::filesystem::is_regular_file(platform::to_path(path), code)) {
    if (code && !platform::tells_of_path(code.value())) fail_on_file("look at", path, code.value());
    return fail(error, "file does not exist or is not a regular file");
  }
  platform::InputFile file;
  if (const int failure = file.open(path); failure != 0) {
    if (!platform::tells_of_path(failure)) fail_on_file("open", path, failure);
    return fail(error, "cannot open file");
  }
  const std::uint64_t size = file.size();
  if (size == 0) return fail(error, "profile file is empty");
  if (size > kMaxProfileBytes)
    return fail(error, "profile file exceeds size cap (" + std::to_string(size) + " bytes > " +
                           std::to_string(kMaxProfileBytes) + ")");

  bytes.resize(size);
  std::size_t done = 0;
  if (const int failure = file.read_at(0, bytes.data(), size, done); failure != 0)
    fail_on_file("read", path, failure);
  if (done != size) {
    bytes.clear();
    return fail(error, "cannot read complete profile file");
  }
  return true;
}

/// A context of its own for every converter: lcms then shares no state between threads. It stands first and
/// so dies last.
struct IccConverter::Impl {
  Context context;
  OpenedProfile input;
  OpenedProfile output;
  TransformHandle transform;
  bool input_is_cmyk = false;
  RunBlock runs;

  /// Takes the opened input profile, opens the output profile and builds the transform. Once both profiles
  /// are open, what was held before is released, whatever follows.
  bool open(OpenedProfile new_input, bool from_cmyk, const IccSettings& settings, std::string* error);
  void close();
};

bool IccConverter::Impl::open(OpenedProfile new_input, bool from_cmyk, const IccSettings& settings,
                              std::string* error) {
  OpenedProfile new_output;
  if (!open_profile(context, "output CMYK", settings.output_profile, new_output, error)) return false;
  close();
  if (!is_cmyk(new_output)) return fail(error, "Output profile is not CMYK");
  TransformHandle new_transform(context.ask([&] {
    return cmsCreateTransformTHR(context.get(), new_input.handle.get(), from_cmyk ? TYPE_CMYK_8 : TYPE_RGB_8,
                                 new_output.handle.get(), TYPE_CMYK_8,
                                 static_cast<cmsUInt32Number>(settings.intent),
                                 settings.use_bpc ? cmsFLAGS_BLACKPOINTCOMPENSATION : 0);
  }));
  if (!new_transform) return fail(error, "cmsCreateTransform failed");
  input = std::move(new_input);
  output = std::move(new_output);
  transform = std::move(new_transform);
  input_is_cmyk = from_cmyk;
  return true;
}

void IccConverter::Impl::close() {
  transform.reset();
  input = {};
  output = {};
}

IccConverter::IccConverter() : impl_(std::make_unique<Impl>()) {}
IccConverter::~IccConverter() = default;

bool IccConverter::open_rgb_to_cmyk(const IccSettings& settings, std::string* error, bool quiet) {
  OpenedProfile input;
  if (settings.input_rgb_profile.empty()) {
    input.handle.reset(impl_->context.ask([&] { return cmsCreate_sRGBProfileTHR(impl_->context.get()); }));
    if (!input.handle) return fail(error, "Cannot open input RGB profile: ");
  } else if (!open_profile(impl_->context, "input RGB", settings.input_rgb_profile, input, error)) {
    return false;
  }
  if (!impl_->open(std::move(input), /*from_cmyk=*/false, settings, error)) return false;
  if (quiet) return true;
  log_info("IccConverter: RGB->CMYK [",
           settings.input_rgb_profile.empty() ? std::string_view("sRGB") : settings.input_rgb_profile, " -> ",
           settings.output_profile, "]");
  return true;
}

bool IccConverter::open_cmyk_to_cmyk(const IccSettings& settings, std::string* error, bool quiet) {
  if (settings.input_cmyk_profile.empty()) return fail(error, "Input CMYK profile not specified");
  OpenedProfile input;
  if (!open_profile(impl_->context, "input CMYK", settings.input_cmyk_profile, input, error)) return false;
  if (!is_cmyk(input)) return fail(error, "Input profile is not CMYK: " + settings.input_cmyk_profile);
  if (!impl_->open(std::move(input), /*from_cmyk=*/true, settings, error)) return false;
  if (quiet) return true;
  log_info("IccConverter: CMYK->CMYK [", settings.input_cmyk_profile, " -> ", settings.output_profile, "]");
  return true;
}

bool IccConverter::transform(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels) {
  if (!impl_->transform || pixels == 0) return false;
  const auto convert = impl_->input_is_cmyk ? convert_pixels<kCmykBytes> : convert_pixels<kRgbBytes>;
  return impl_->context.ask([&] {
    convert(impl_->transform.get(), src, dst, pixels, impl_->runs);
    return true;
  });
}

void IccConverter::close() {
  impl_->close();
}

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
}

bool ColorConversion::init_rgb_icc(WorkerIcc* worker, std::string& error) {
  const LockedSlot locked = lock_slot(worker, shared_, icc_mutex_);
  if (!wanted()) {
    error = kRgbToCmyk.not_wanted;
    return false;
  }
  return ensure_converter(locked.slot, kRgbToCmyk, settings_, error);
}

bool ColorConversion::init_cmyk_icc(WorkerIcc* worker, std::string& error) {
  if (force_cmyk_icc_fail_) return true;
  const LockedSlot locked = lock_slot(worker, shared_, icc_mutex_);
  if (!wanted() || settings_.input_cmyk_profile.empty()) {
    error = kCmykToCmyk.not_wanted;
    return false;
  }
  return ensure_converter(locked.slot, kCmykToCmyk, settings_, error);
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
