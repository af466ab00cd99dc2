#pragma once

#include "update/update_service.h"

namespace nvo {

/// The service that this build was made for (CMake cache entries NVO_UPDATE_*).
UpdateService built_in_update_service();

}  // namespace nvo
