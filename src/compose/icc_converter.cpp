#include "compose/icc_converter.h"

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <system_error>
#include <type_traits>
#include <utility>

#include <lcms2.h>
#include <lcms2_plugin.h>

#include "compose/color_memory.h"
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

bool is_cmyk(const OpenedProfile& profile) {
  return cmsGetColorSpace(profile.handle.get()) == cmsSigCmykData;
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

/// What two profiles come to. Nothing of it changes after it was made, lcms's own memory of the last pixel
/// included, of which each call takes a copy; so any number of threads may convert through it.
class IccConverter::Transform {
 public:
  /// The work of one converter; its context shares no state with that of another.
  Context context;  ///< stands first and so dies last
  OpenedProfile input, output;
  TransformHandle handle;
  bool from_cmyk = false;
  std::string announcement;

  bool open_input(const char* what, const std::string& path, std::string* error) {
    return open_profile(context, what, path, input, error);
  }
  bool open_output(const std::string& path, std::string* error) {
    return open_profile(context, "output CMYK", path, output, error);
  }
  bool build(const IccSettings& settings, std::string* error) {
    if (!is_cmyk(output)) return fail(error, "Output profile is not CMYK");
    handle.reset(context.ask([&] {
      return cmsCreateTransformTHR(context.get(), input.handle.get(), from_cmyk ? TYPE_CMYK_8 : TYPE_RGB_8,
                                   output.handle.get(), TYPE_CMYK_8,
                                   static_cast<cmsUInt32Number>(settings.intent),
                                   settings.use_bpc ? cmsFLAGS_BLACKPOINTCOMPENSATION : 0);
    }));
    return handle ? true : fail(error, "cmsCreateTransform failed");
  }
  /// Asks for no memory.
  void convert(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels) const {
    cmsDoTransform(handle.get(), src, dst, static_cast<cmsUInt32Number>(pixels));
  }
};

struct IccConverter::Impl {
  std::shared_ptr<const Transform> transform;
  std::optional<ColorMemory> memory;

  /// Completes a transform whose input profile is open. Once both are, what was held before is released,
  /// whatever follows.
  bool open(std::shared_ptr<Transform> opening, const IccSettings& settings, bool quiet, std::string* error);
  void hold(std::shared_ptr<const Transform> opened, bool quiet);
};

bool IccConverter::Impl::open(std::shared_ptr<Transform> opening, const IccSettings& settings, bool quiet,
                              std::string* error) {
  if (!opening->open_output(settings.output_profile, error)) return false;
  transform.reset();
  if (!opening->build(settings, error)) return false;
  opening->announcement += " -> " + settings.output_profile + "]";
  hold(std::move(opening), quiet);
  return true;
}

void IccConverter::Impl::hold(std::shared_ptr<const Transform> opened, bool quiet) {
  transform = std::move(opened);
  memory.emplace();
  if (!quiet) log_info("IccConverter: ", transform->announcement);
}

IccConverter::IccConverter() : impl_(std::make_unique<Impl>()) {}
IccConverter::~IccConverter() = default;

bool IccConverter::open_rgb_to_cmyk(const IccSettings& settings, std::string* error, bool quiet) {
  auto opening = std::make_shared<Transform>();
  const std::string& path = settings.input_rgb_profile;
  if (path.empty()) {
    opening->input.handle.reset(
        opening->context.ask([&] { return cmsCreate_sRGBProfileTHR(opening->context.get()); }));
    if (!opening->input.handle) return fail(error, "Cannot open input RGB profile: ");
  } else if (!opening->open_input("input RGB", path, error)) {
    return false;
  }
  opening->announcement = "RGB->CMYK [" + (path.empty() ? "sRGB" : path);
  return impl_->open(std::move(opening), settings, quiet, error);
}

bool IccConverter::open_cmyk_to_cmyk(const IccSettings& settings, std::string* error, bool quiet) {
  const std::string& path = settings.input_cmyk_profile;
  if (path.empty()) return fail(error, "Input CMYK profile not specified");
  auto opening = std::make_shared<Transform>();
  if (!opening->open_input("input CMYK", path, error)) return false;
  if (!is_cmyk(opening->input)) return fail(error, "Input profile is not CMYK: " + path);
  opening->from_cmyk = true;
  opening->announcement = "CMYK->CMYK [" + path;
  return impl_->open(std::move(opening), settings, quiet, error);
}

void IccConverter::open_as(const IccConverter& other, bool quiet) {
  impl_->hold(other.impl_->transform, quiet);
}

bool IccConverter::transform(const std::uint8_t* src, std::uint8_t* dst, std::size_t pixels) {
  if (!impl_->transform || pixels == 0) return false;
  const auto convert = [this](const std::uint8_t* from, std::uint8_t* to, std::size_t count) {
    impl_->transform->convert(from, to, count);
  };
  if (impl_->transform->from_cmyk)
    impl_->memory->convert<kCmykBytes>(src, dst, pixels, convert);
  else
    impl_->memory->convert<kRgbBytes>(src, dst, pixels, convert);
  return true;
}

void IccConverter::close() {
  impl_->transform.reset();
  impl_->memory.reset();
}

}  // namespace nvo
