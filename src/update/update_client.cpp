#include "update/update_client.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <exception>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/log.h"
#include "core/machine_failure.h"
#include "core/text.h"
#include "update/https_transport.h"
#include "update/signature.h"
#include "update/signed_manifest.h"

namespace nvo {
namespace {

constexpr const char* kPath = "/v1/update/check";
constexpr const char* kIssuer = "nvo-update-api-prod";
constexpr std::size_t kMaxRequestBytes = 16384;

std::string make_request_body(const UpdateCheckRequest& request, const std::string& nonce) {
  nlohmann::ordered_json body(nlohmann::ordered_json::value_t::object);  // as in the trace
  body["current_version"] = request.current_version;
  body["channel"] = request.channel;
  body["platform"] = request.platform;
  body["arch"] = request.arch;
  body["client_nonce"] = nonce;
  if (!request.build_id.empty()) body["build_id"] = request.build_id;
  std::string text = body.dump();
  if (text.size() > kMaxRequestBytes)
    throw std::length_error("Update request payload exceeds maximum allowed size");
  return text;
}

/// Scheme, host and port of a base URL.
std::string to_origin(const std::string& base_url) {
  if (!is_valid_utf8(base_url)) throw std::runtime_error("Invalid API URL encoding");
  const auto url = parse_url(base_url);
  if (!url) throw std::runtime_error("Cannot parse API URL");
  if (url->scheme != "https") throw std::runtime_error("Update API URL must use HTTPS");
  if (url->host.empty()) throw std::runtime_error("API URL host is empty");
  return "https://" + url->host + (url->port == 0 ? "" : ":" + std::to_string(url->port));
}

std::vector<std::string> to_origins(const std::vector<std::string>& base_urls) {
  std::vector<std::string> origins;
  for (const std::string& url : base_urls) origins.push_back(to_origin(url));
  return origins;
}

std::vector<std::string> urls_of(const std::vector<std::string>& origins) {
  std::vector<std::string> urls;
  for (const std::string& origin : origins) urls.push_back(origin + kPath);
  return urls;
}

std::optional<std::int64_t> seconds_since_1970() {
  const std::time_t now = std::time(nullptr);
  return now == std::time_t{-1} ? std::nullopt : std::optional<std::int64_t>(now);
}

void adopt_manifest(UpdateCheckResult& result, UpdateManifest manifest) {
  result.manifest_valid = true;
  result.update_available = manifest.update_available;
  result.mandatory = manifest.mandatory;
  result.size_bytes = manifest.size_bytes;
  result.latest_version = std::move(manifest.latest_version);
  result.latest_build_id = std::move(manifest.latest_build_id).value_or("");
  result.minimum_supported_version = std::move(manifest.minimum_supported_version);
  result.download_url = std::move(manifest.download_url);
  result.fallback_download_url = std::move(manifest.fallback_download_url).value_or("");
  result.sha256 = std::move(manifest.sha256);
  result.release_notes = std::move(manifest.release_notes).value_or("");
  result.published_at = std::move(manifest.published_at);
  result.channel = std::move(manifest.channel);
  result.platform = std::move(manifest.platform);
  result.arch = std::move(manifest.arch);
}

/// One check on its way through the origins.
class Check {
 public:
  Check(const UpdateService& service, UpdateTrace& trace, UpdateCheckResult& result)
      : service_(service), trace_(trace), result_(result) {}

  void run(const std::vector<std::string>& base_urls, const UpdateCheckRequest& request) {
    nonce_ = random_nonce();
    if (nonce_.empty()) throw std::runtime_error("Cannot generate update client nonce");
    const std::string body = make_request_body(request, nonce_);
    trace_.write("update_check_start", {{"current_version", request.current_version},
                                        {"build_id", request.build_id},
                                        {"channel", request.channel},
                                        {"platform", request.platform},
                                        {"arch", request.arch}});
    const std::vector<std::string> origins = to_origins(base_urls);
    HttpsTransport transport(service_.limits, service_.ca_file, kMaxManifestBytes);
    transport.look_up_early(urls_of(origins));
    for (const std::string& origin : origins) {
      is_fallback_ = &origin != &origins.front();
      HttpsAnswer answer = transport.post(origin + kPath, body);
      if (answer.received) return judge(origin, answer);
      note_unreachable(origin, answer);
    }
  }

 private:
  void note_unreachable(const std::string& origin, const HttpsAnswer& answer) {
    result_.error = answer.error;
    trace_.write(fail_stage(), {{"origin", origin},
                                {"error", answer.error},
                                {"winhttp_error_code", std::to_string(answer.error_code)},
                                {"reason", "transport failed"}});
    log_warn("Update check transport failed on origin ", origin, ": ", answer.error);
  }

  void judge(const std::string& origin, const HttpsAnswer& answer) {
    result_.transport_ok = true;
    result_.origin = origin;
    result_.http_status = answer.status;
    result_.error = answer.error;
    if (answer.error.empty()) believe(answer.body);
    if (!result_.manifest_valid) {
      trace_.write(fail_stage(), {{"origin", origin},
                                  {"error", result_.error},
                                  {"http_status", std::to_string(answer.status)},
                                  {"parse_error", result_.error},
                                  {"reason", "response parse failed"}});
      return;
    }
    result_.ok = answer.status >= 200 && answer.status <= 299;
    if (!result_.ok) {
      result_.error = "HTTP " + std::to_string(answer.status);
      return;
    }
    trace_.write(is_fallback_ ? "update_check_fallback_ok" : "update_check_primary_ok",
                 {{"origin", origin},
                  {"latest_version", result_.latest_version},
                  {"latest_build_id", result_.latest_build_id},
                  {"effective_url", origin + kPath}});
    if (is_fallback_) log_info("Update check fallback origin succeeded: ", origin);
  }

  /// Adopts the answer if it is one to believe.
  void believe(const std::string& body) {
    try {
      adopt_manifest(result_, verify_manifest(body, {kPath, nonce_, kIssuer, seconds_since_1970(),
                                                     service_.public_key, service_.download_hosts}));
    } catch (const std::exception& e) {
      result_.error = failure_text(e);
    }
  }

  const char* fail_stage() const {
    return is_fallback_ ? "update_check_fallback_fail" : "update_check_primary_fail";
  }

  const UpdateService& service_;
  UpdateTrace& trace_;
  UpdateCheckResult& result_;
  std::string nonce_;
  bool is_fallback_ = false;
};

}  // namespace

UpdateClient::UpdateClient(UpdateService service, UpdateTrace& trace)
    : service_(std::move(service)), trace_(trace) {}

UpdateCheckResult UpdateClient::check_for_update(const std::string& origin_override,
                                                 const UpdateCheckRequest& request) const {
  UpdateCheckResult result;
  try {
    const std::vector<std::string> origins =
        origin_override.empty() ? service_.origins : std::vector<std::string>{origin_override};
    Check(service_, trace_, result).run(origins, request);
  } catch (const std::exception& e) {
    result.error = failure_text(e);
  }
  return result;
}

}  // namespace nvo
