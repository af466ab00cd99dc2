#pragma once

#include <string>

namespace nvo {

/// The release that this executable is, as the version query and the update policy name it.
struct AppVersion {
  std::string version;
  std::string build_id;
  std::string channel;  ///< lower case
  std::string platform;
  std::string arch;
};

AppVersion app_version();

/// One line of JSON with the fields in their order and no blanks.
std::string version_json(const AppVersion& version);

}  // namespace nvo
