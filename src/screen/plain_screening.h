#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "screen/choke/choke_context.h"
#include "screen/rip_engine.h"

namespace nvo {

/// What thresholding saw, for diagnosis.
struct PreThresholdCapture {
  std::uint32_t width = 0, height = 0;  ///< device dots
  bool device_choke_used = false;       ///< choke masks were applied, to colour or to white
  std::string algorithm;
  ChokeContext choke;                ///< the context that was applied; empty if none was
  std::vector<std::uint8_t> values;  ///< value before the threshold, clamped and rounded to a byte
};

/// Screening as it is told: the whole plane of values is sampled and choked before it is screened, on the
/// calling thread. No job takes this way; it is for diagnosis and gives the drops of the engine's own.
class PlainScreening {
 public:
  explicit PlainScreening(RipEngine& engine) : engine_(engine) {}

  /// As `RipEngine::process` and `RipEngine::process_strip`.
  DropMap process(const RipEngine::Request& request, PreThresholdCapture& capture);
  void process_strip(DropMap& out, const RipEngine::Request& request, PreThresholdCapture& capture);

 private:
  void screen(const RipEngine::PlaneJob& job, PreThresholdCapture& capture, DropMap& out);

  RipEngine& engine_;
};

}  // namespace nvo
