#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace nvo {

/// An update service's answer that must not be believed; its text says why.
class ManifestError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The service's statement about updates, bound to one request by the nonce. Times are UTC texts like
/// "2025-01-31T23:59:59Z".
struct UpdateManifest {
  std::uint32_t version = 0;  ///< of this form
  std::string endpoint;
  std::string client_nonce;
  std::string issuer;
  std::string issued_at;
  bool update_available = false;
  bool mandatory = false;
  std::string latest_version;
  std::optional<std::string> latest_build_id;
  std::string minimum_supported_version;
  std::string download_url;
  std::optional<std::string> fallback_download_url;
  std::string sha256;
  std::uint64_t size_bytes = 0;
  std::optional<std::string> release_notes;
  std::string published_at;
  std::string channel;
  std::string platform;
  std::string arch;
};

struct ManifestSignature {
  std::string value;  ///< base64 or base64url
  std::string algorithm;
  std::string key_id;
  std::string canonicalization;
};

struct SignedManifest {
  UpdateManifest payload;
  ManifestSignature signature;
};

/// Largest body of an answer that is looked at.
inline constexpr std::size_t kMaxManifestBytes = 0x40000;

/// Reads the JSON form; every member has its type and its longest length. Throws `ManifestError`.
SignedManifest decode_signed_manifest(std::string_view body);

/// What is signed: a line "key=value" for each field of the payload, in their order.
std::string canonical_manifest(const UpdateManifest& manifest);

/// Tests what an update has to be downloaded from: HTTPS URLs of `download_hosts`, without a user,
/// backslashes or escapes in the host, a digest and a size. Throws `ManifestError`.
void check_download_offer(const UpdateManifest& manifest, const std::vector<std::string>& download_hosts);

/// Seconds since 1970 of a text like "2025-01-31T23:59:59Z", or nothing when it is none.
std::optional<std::int64_t> parse_utc_time(const std::string& text);

/// What an answer to one request has to match.
struct ManifestExpectations {
  std::string endpoint;
  std::string client_nonce;
  std::string issuer;
  std::optional<std::int64_t> now;  ///< seconds since 1970; nothing when the clock can't be read
  std::string public_key;           ///< as `verify_rs256` wants it
  std::vector<std::string> download_hosts;
};

/// Decodes an answer and tests all of it, the signature before the offer. Throws `ManifestError`, or another
/// `std::runtime_error` where the signature does not hold.
UpdateManifest verify_manifest(std::string_view body, const ManifestExpectations& expected);

}  // namespace nvo
