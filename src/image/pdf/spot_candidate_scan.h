#pragma once

#include <string>

namespace nvo {

/// Does the file's text look as if it named a white or spot colorant? Reads in pieces, so that a file of any
/// size takes about 1 MiB of memory. False for a file that cannot be opened.
bool file_has_spot_candidate(const std::string& path);

}  // namespace nvo
