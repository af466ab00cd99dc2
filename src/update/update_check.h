#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace nvo {

/// The program that asks for updates.
struct UpdateCheckRequest {
  std::string current_version;
  std::string channel;
  std::string platform;
  std::string arch;
  std::string build_id;
};

/// What one check came to. Fields of the offer are set only when the manifest passed every test.
struct UpdateCheckResult {
  bool transport_ok = false;    ///< an origin gave an HTTP response
  bool manifest_valid = false;  ///< and it was a manifest to believe
  bool ok = false;              ///< and its status was 200 to 299
  std::uint32_t http_status = 0;
  bool update_available = false;
  bool mandatory = false;
  std::uint64_t size_bytes = 0;
  std::string latest_version;
  std::string latest_build_id;
  std::string minimum_supported_version;
  std::string download_url;
  std::string fallback_download_url;
  std::string sha256;
  std::string release_notes;
  std::string published_at;
  std::string channel;
  std::string platform;
  std::string arch;
  std::string error;   ///< why the check failed; empty on success
  std::string origin;  ///< the origin that answered
};

using UpdateCheckFunction = std::function<UpdateCheckResult(const UpdateCheckRequest&)>;

}  // namespace nvo
