#pragma once

#include <string>

#include "update/update_check.h"
#include "update/update_service.h"
#include "update/update_trace.h"

namespace nvo {

/// Asks an update service whether there is a newer version. Only an origin that can't be reached leads to the
/// next one; an answer is final, one that is too large as well. No call throws: a failed check is a result
/// with `error` set.
class UpdateClient {
 public:
  /// `trace` has to outlive the client.
  UpdateClient(UpdateService service, UpdateTrace& trace);

  /// One check, on the calling thread. `origin_override`, if not empty, is the base URL that replaces the
  /// service's origins.
  UpdateCheckResult check_for_update(const std::string& origin_override,
                                     const UpdateCheckRequest& request) const;

 private:
  UpdateService service_;
  UpdateTrace& trace_;
};

}  // namespace nvo
