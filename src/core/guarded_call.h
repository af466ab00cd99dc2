#pragma once

#include <csetjmp>

namespace nvo {

/// Calls into a C library that has no way to be told that a call is over. Callbacks of the library, an
/// allocator or a message handler, may leave the call under way by a long jump, where going on would make the
/// library read what it could not make. Its records are then in any state: they may not be used again, nor
/// freed. For one thread at a time.
class GuardedCall {
 public:
  /// The result of `call()`, or an empty one where it was left. No object in the call may need a destructor.
  template <class Call>
  auto run(const Call& call) {
    struct Question {
      const Call& call;
      decltype(call()) answer;
    } question{call, {}};
    run_body([](void* data) { static_cast<Question*>(data)->answer = static_cast<Question*>(data)->call(); },
             &question);
    return question.answer;
  }

  /// For callbacks: doesn't return while a call is under way.
  void leave() noexcept;
  /// Whether a call was ever left.
  bool was_left() const { return was_left_; }

 private:
  void run_body(void (*body)(void*), void* data);

  std::jmp_buf* way_out_ = nullptr;  ///< of the call under way
  bool was_left_ = false;
};

}  // namespace nvo
