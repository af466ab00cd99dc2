#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace nvo::test {

/// Sets or, with null, unsets an environment variable while it lives.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    set(value);
  }
  ~ScopedVariable() { set(old_ ? old_->c_str() : nullptr); }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  void set(const char* value) { value != nullptr ? ::setenv(name_, value, 1) : ::unsetenv(name_); }

  const char* name_;
  std::optional<std::string> old_;
};

}  // namespace nvo::test
