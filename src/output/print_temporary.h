#pragma once

#include <string>
#include <vector>

namespace nvo {

/// Path of the temporary file in which a print file for `target` grows, the `attempt`-th to find a free one:
/// beside the target, `<name>.nvo_tmp_<process>_<clock>_<attempt>`.
std::string print_temporary_path(const std::string& target, int attempt);

/// Removes what jobs for `target` left behind that were killed or lost their machine: files named as above
/// whose process is not alive and that nobody has locked. Returns their paths. Throws only for memory.
std::vector<std::string> remove_abandoned_prints(const std::string& target);

}  // namespace nvo
