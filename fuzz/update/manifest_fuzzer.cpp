// Any bytes as the answer of an update service: all that happens to it, as far as the signature and, as if
// that held, beyond. Only exceptions may come of it.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string_view>

#include "update/signature.h"
#include "update/signed_manifest.h"
#include "update/version_order.h"

namespace {

// Nobody has its private half.
constexpr const char* kPublicKey =
    "MFwwDQYJKoZIhvcNAQEBBQADSwAwSAJBALx30RAIkjfvUzPbsyig/T4V/Ay2+hfFGMWRzMJbqIhG4wZ5xudbjX3xLlUk/h8b"
    "eddqwTpsSVnFs4tQd2SvrQsCAwEAAQ==";

void look_at(std::string_view body) {
  const nvo::SignedManifest answer = nvo::decode_signed_manifest(body);
  const nvo::UpdateManifest& manifest = answer.payload;
  nvo::parse_utc_time(manifest.issued_at);
  nvo::parse_utc_time(manifest.published_at);
  nvo::compare_versions(manifest.latest_version, manifest.minimum_supported_version);
  const std::string message = nvo::canonical_manifest(manifest);
  try {
    nvo::verify_rs256(message, answer.signature.value, kPublicKey);
  } catch (const std::exception&) {
  }
  nvo::check_download_offer(manifest, {"downloads.example.test"});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    look_at({reinterpret_cast<const char*>(data), size});
  } catch (const std::exception&) {
  }
  return 0;
}
