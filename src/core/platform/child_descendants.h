#pragma once

#include <vector>

#include <sys/types.h>

namespace nvo::platform {

/// From here on a process that a child leaves behind becomes a child of this one, whatever session it began.
void adopt_descendants();

/// The processes whose parent this one is.
std::vector<pid_t> own_children();

/// Kills and takes leave of all children of this process but `others`, and of what they leave behind, until
/// none is left. One that can't be killed (it waits for a dead disk) is given up after a second.
void end_descendants(const std::vector<pid_t>& others);

}  // namespace nvo::platform
