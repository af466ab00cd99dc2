#pragma once

namespace nvo::platform {

/// From here on this process and the programs that it becomes start no process, and write, make,
/// rename, cut and remove no file by its name. Threads they may have, and what they hold open they may use.
/// Binds every user, root too, and cannot be taken back. Nothing happens where the system or the processor
/// knows no such filter. Needs the promise that no new privileges are gained; safe in the copy of a process
/// with several threads.
void stay_harmless();

}  // namespace nvo::platform
