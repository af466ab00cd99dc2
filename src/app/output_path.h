#pragma once

#include <string>

#include "config/job_settings.h"
#include "config/rip_settings.h"

namespace nvo {

/// Settles the path of the print file, and makes its folder where needed. An explicit path is taken as it is,
/// but never over something that exists; otherwise the name comes from the input's, in the configured folder
/// or beside the input, and an older file there will be replaced. A name that no file can have is refused
/// before any folder is made for it. False with a text in `out_error` on failure. Paths are UTF-8. So many
/// parameters, since this is how front ends call it.
bool resolve_output_path(const std::string& input_path, const std::string& explicit_path,
                         const RipSettings& rip_settings, const JobSettings& job_settings,
                         std::string& out_path, std::string& out_error, bool& out_parent_created);

}  // namespace nvo
