#pragma once

#include <exception>
#include <functional>
#include <string>

namespace nvo::test {

/// Text of the exception that a call throws; empty when it throws none.
inline std::string failure_of(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::exception& e) {
    return e.what();
  }
  return {};
}

}  // namespace nvo::test
