#pragma once

#include <string>

namespace nvo {

/// Stands for a file's content: equal keys mean equal path, size, time and sampled bytes. Only a valid
/// signature may key a cache.
struct ContentSignature {
  std::string key;
  bool valid = false;
};

/// Signature of the file as it is now. A file that is not there or cannot be asked gives one that is not
/// valid.
ContentSignature make_content_signature(const std::string& path);

}  // namespace nvo
