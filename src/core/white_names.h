#pragma once

#include <string_view>

namespace nvo {

/// Does the name of an ink or channel, in one of a few languages, most likely stand for white ink? For
/// warnings: what prints as white is decided elsewhere, by the rules of a format.
bool names_white_ink(std::string_view name);

}  // namespace nvo
