#pragma once

#include <utility>

namespace nvo {

/// Runs an action, which must not throw, when the scope is left in whatever way.
template <class Action>
class ScopeExit {
 public:
  explicit ScopeExit(Action action) : action_(std::move(action)) {}
  ~ScopeExit() { action_(); }
  ScopeExit(const ScopeExit&) = delete;
  ScopeExit& operator=(const ScopeExit&) = delete;

 private:
  Action action_;
};

}  // namespace nvo
