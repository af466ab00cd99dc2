#pragma once

namespace nvo::platform {

/// From here on this process and the programs that it becomes start no process; threads they may have.
/// Binds every user, root too, and cannot be taken back. Nothing happens where the system or the processor
/// knows no such filter. Needs the promise that no new privileges are gained; safe in the copy of a process
/// with several threads.
void stay_alone();

}  // namespace nvo::platform
