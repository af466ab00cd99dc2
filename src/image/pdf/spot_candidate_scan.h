#pragma once

#include <string>

namespace nvo {

/// Does the file's text look as if it named a white or spot colorant? Reads in pieces, so that a file of any
/// size takes about 1 MiB of memory. False for a file that isn't there or may not be read;
/// throws where the machine fails.
bool file_has_spot_candidate(const std::string& path);

}  // namespace nvo
