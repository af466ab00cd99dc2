#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "screen/device_grid.h"
#include "screen/rip_engine.h"

// What RipEngine and PlainScreening share; for nobody else.
namespace nvo {

/// One call of the engine, checked and placed on the device grid.
struct RipEngine::PlaneJob : Request {
  bool whole_plane = false;  ///< `process`: sequential, tells its progress
  bool white = false, hard = false;
  std::uint32_t dev_w = 0, dev_h = 0;  ///< of the whole plane
  DeviceRows dev_rows{};               ///< of this call
  DeviceRowWindow window{};            ///< those of them that are delivered

  explicit PlaneJob(const Request& request) : Request(request) {}

  std::uint32_t height() const { return dev_rows.end - dev_rows.first; }
  /// White on its own nearest path, for which no choke is announced.
  bool white_special() const { return white && hard; }
};

/// The masks that a call applies before the threshold, if any: those it was given or those it computed
/// itself.
class RipEngine::AppliedChoke {
 public:
  AppliedChoke() = default;
  explicit AppliedChoke(const ChokeContext* given) : given_(given) {}
  explicit AppliedChoke(ChokeContext own) : own_(std::move(own)) {}

  const ChokeContext* context() const { return own_ ? &*own_ : given_; }

 private:
  const ChokeContext* given_ = nullptr;
  std::optional<ChokeContext> own_;
};

}  // namespace nvo
