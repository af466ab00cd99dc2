#include "core/guarded_call.h"

namespace nvo {

void GuardedCall::run_body(void (*body)(void*), void* data) {
  std::jmp_buf way_out;
  way_out_ = &way_out;
  if (setjmp(way_out) == 0) body(data);
  way_out_ = nullptr;
}

void GuardedCall::leave() noexcept {
  if (!way_out_) return;
  was_left_ = true;
  std::longjmp(*way_out_, 1);
}

}  // namespace nvo
