#pragma once

#include <string>

namespace nvo::platform {

/// The language in which the user wants texts, as its ISO 639 code in lower case ("ru"); empty when the
/// system names none.
std::string ui_language();

}  // namespace nvo::platform
