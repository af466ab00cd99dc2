#pragma once

#include <string>
#include <vector>

#include "tools/prt_reader.h"

namespace nvo {

/// What is wrong with a file that could be opened: header fields that no writer leaves so, and padding that
/// is not zero. One text for each; of padding the first places are named and the rest counted. Empty for a
/// whole file.
std::vector<std::string> find_damage(PrtReader& reader);

}  // namespace nvo
