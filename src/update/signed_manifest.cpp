#include "update/signed_manifest.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <limits>

#include <nlohmann/json.hpp>

#include "core/text.h"
#include "update/https_transport.h"
#include "update/signature.h"

namespace nvo {
namespace {

using nlohmann::json;

constexpr std::uint32_t kManifestVersion = 1;
constexpr const char* kAlgorithm = "RS256";
constexpr const char* kKeyId = "nvo-update-signing-v1";
constexpr const char* kCanonicalization = "nvo-update-manifest-v1";
constexpr std::int64_t kMaxAgeSeconds = 600;
constexpr std::int64_t kMaxFutureSkewSeconds = 300;
constexpr std::uint64_t kMaxDownloadBytes = 0x40000000;
constexpr std::size_t kSha256Digits = 64;

void require(bool holds, const char* otherwise) {
  if (!holds) throw ManifestError(otherwise);
}

/// One object of an answer, whose members are taken by key, type and longest length.
class Members {
 public:
  Members(const json& object, std::string prefix) : object_(object), prefix_(std::move(prefix)) {}

  std::string text(const char* key, std::size_t limit) const {
    const json* member = find(key);
    if (!member || !member->is_string()) fail("Missing/invalid string field: ", key);
    return bounded(*member, key, limit);
  }
  std::optional<std::string> nullable_text(const char* key, std::size_t limit) const {
    const json* member = find(key);
    if (!member) fail("Missing nullable string field: ", key);
    if (member->is_null()) return std::nullopt;
    if (!member->is_string()) fail("Invalid nullable string field: ", key);
    return bounded(*member, key, limit);
  }
  bool flag(const char* key) const {
    const json* member = find(key);
    if (!member || !member->is_boolean()) fail("Missing/invalid bool field: ", key);
    return member->get<bool>();
  }
  std::uint64_t number(const char* key, std::uint64_t limit) const {
    const json* member = find(key);
    if (!member || !member->is_number_integer()) fail("Missing/invalid integer field: ", key);
    if (!member->is_number_unsigned() && member->get<std::int64_t>() < 0)
      fail("Negative value in field: ", key);
    const auto value = member->get<std::uint64_t>();
    if (value > limit) fail("Missing/invalid integer field: ", key);
    return value;
  }

 private:
  const json* find(const char* key) const {
    const auto found = object_.find(key);
    return found == object_.end() ? nullptr : &*found;
  }
  [[noreturn]] static void fail(const char* reason, const std::string& key) {
    throw ManifestError(reason + key);
  }
  std::string bounded(const json& member, const char* key, std::size_t limit) const {
    const auto& value = member.get_ref<const std::string&>();
    if (value.size() > limit) fail("Field too long: ", prefix_ + key);
    return value;
  }

  const json& object_;
  std::string prefix_;
};

const json& object_of(const json& parent, const char* key, const char* missing) {
  const auto found = parent.find(key);
  if (found == parent.end() || !found->is_object()) throw ManifestError(missing);
  return *found;
}

ManifestSignature decode_signature(const json& object) {
  const Members members(object, "signature.");
  ManifestSignature signature;
  signature.value = members.text("value", 8192);
  signature.algorithm = members.text("algorithm", 32);
  signature.key_id = members.text("key_id", 128);
  signature.canonicalization = members.text("canonicalization", 128);
  return signature;
}

UpdateManifest decode_payload(const json& object) {
  const Members members(object, "payload.");
  constexpr std::size_t kMaxUrl = 2048, kMaxText = 64, kMaxId = 128, kMaxNotes = 65536;
  UpdateManifest manifest;
  manifest.version =
      static_cast<std::uint32_t>(members.number("version", std::numeric_limits<std::uint32_t>::max()));
  manifest.endpoint = members.text("endpoint", kMaxText);
  manifest.client_nonce = members.text("client_nonce", kMaxId);
  manifest.issuer = members.text("issuer", kMaxId);
  manifest.issued_at = members.text("issued_at", kMaxText);
  manifest.update_available = members.flag("update_available");
  manifest.mandatory = members.flag("mandatory");
  manifest.latest_version = members.text("latest_version", kMaxText);
  manifest.latest_build_id = members.nullable_text("latest_build_id", kMaxId);
  manifest.minimum_supported_version = members.text("minimum_supported_version", kMaxText);
  manifest.download_url = members.text("download_url", kMaxUrl);
  manifest.fallback_download_url = members.nullable_text("fallback_download_url", kMaxUrl);
  manifest.sha256 = members.text("sha256", kMaxText);
  manifest.size_bytes = members.number("size_bytes", std::numeric_limits<std::uint64_t>::max());
  manifest.release_notes = members.nullable_text("release_notes", kMaxNotes);
  manifest.published_at = members.text("published_at", kMaxText);
  manifest.channel = members.text("channel", kMaxText);
  manifest.platform = members.text("platform", kMaxText);
  manifest.arch = members.text("arch", kMaxText);
  return manifest;
}

/// Other programs take URLs apart by other rules, so the host has to stand where nobody can see another one:
/// printable ASCII (RFC 3986), no user, no backslash, no escapes or brackets in the host.
bool is_plain_https_url(std::string_view url) {
  constexpr std::string_view kScheme = "https://";
  const auto is_url_byte = [](char c) { return c > ' ' && c <= '~' && c != '\\'; };
  if (!std::all_of(url.begin(), url.end(), is_url_byte) ||
      ascii_lower(url.substr(0, kScheme.size())) != kScheme)
    return false;
  url.remove_prefix(kScheme.size());
  const std::string_view authority = url.substr(0, url.find_first_of("/?#"));
  const auto colon = authority.find(':');
  const std::string host = ascii_lower(authority.substr(0, colon));
  if (host.empty() || host.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-.") != std::string::npos)
    return false;
  if (colon == std::string_view::npos) return true;
  const std::string_view port = authority.substr(colon + 1);
  return !port.empty() && port.find_first_not_of("0123456789") == std::string_view::npos;
}

void check_download_url(const std::string& url, const std::string& label,
                        const std::vector<std::string>& hosts) {
  if (url.find('\0') != std::string::npos) throw ManifestError("Invalid URL encoding: " + label);
  const auto parsed = parse_url(url);
  if (!parsed) throw ManifestError("Cannot parse URL: " + label);
  if (parsed->scheme != "https") throw ManifestError("URL must use HTTPS: " + label);
  if (!is_plain_https_url(url)) throw ManifestError("Cannot parse URL: " + label);
  const std::string host = ascii_lower(parsed->host);
  if (std::find(hosts.begin(), hosts.end(), host) == hosts.end())
    throw ManifestError("Update download host is not allowed: " + host);
}

bool is_sha256(std::string_view text) {
  return text.size() == kSha256Digits &&
         text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

void check_identity(const SignedManifest& answer, const ManifestExpectations& expected) {
  require(!expected.endpoint.empty() && !expected.client_nonce.empty() && !expected.issuer.empty(),
          "Signed update manifest expectations are incomplete");
  require(answer.signature.algorithm == kAlgorithm, "Unexpected signature algorithm");
  require(answer.signature.canonicalization == kCanonicalization, "Unexpected signature canonicalization");
  require(answer.signature.key_id == kKeyId, "Unexpected signing key id");
  const UpdateManifest& manifest = answer.payload;
  require(manifest.version == kManifestVersion, "Unsupported signed update manifest version");
  require(manifest.issuer == expected.issuer, "Signed update manifest issuer mismatch");
  require(manifest.endpoint == expected.endpoint, "Signed update manifest endpoint mismatch");
  require(manifest.client_nonce == expected.client_nonce, "Signed update manifest nonce mismatch");
}

void check_freshness(const std::string& issued_at, std::optional<std::int64_t> now) {
  const auto issued = parse_utc_time(issued_at);
  require(issued.has_value(), "Invalid issued_at format");
  require(now.has_value(), "Cannot read local system time");
  require(*issued >= *now - kMaxAgeSeconds, "Signed update manifest is stale");
  require(*issued <= *now + kMaxFutureSkewSeconds,
          "Signed update manifest is outside future clock-skew window");
}

}  // namespace

SignedManifest decode_signed_manifest(std::string_view body) {
  require(body.size() <= kMaxManifestBytes, "JSON body exceeds maximum allowed size");
  const json root = json::parse(body, nullptr, false);
  require(root.is_object(), "JSON root must be an object");
  require(root.contains("payload"), "Missing payload in signed update manifest");
  const json& payload = object_of(root, "payload", "Missing payload object");
  const json& signature = object_of(root, "signature", "Missing signature object");
  SignedManifest answer;
  answer.signature = decode_signature(signature);
  answer.payload = decode_payload(payload);
  return answer;
}

std::string canonical_manifest(const UpdateManifest& manifest) {
  std::string lines;
  const auto add = [&](const char* key, const std::string& value) {
    lines.append(key).append("=").append(value).append("\n");
  };
  const auto add_flag = [&](const char* key, bool value) { add(key, value ? "1" : "0"); };
  const auto add_nullable = [&](const char* key, const std::optional<std::string>& value) {
    add(key, value.value_or("-"));
  };
  add("version", std::to_string(manifest.version));
  add("endpoint", manifest.endpoint);
  add("client_nonce", manifest.client_nonce);
  add("issuer", manifest.issuer);
  add("issued_at", manifest.issued_at);
  add_flag("update_available", manifest.update_available);
  add_flag("mandatory", manifest.mandatory);
  add("latest_version", manifest.latest_version);
  add_nullable("latest_build_id", manifest.latest_build_id);
  add("minimum_supported_version", manifest.minimum_supported_version);
  add("download_url", manifest.download_url);
  add_nullable("fallback_download_url", manifest.fallback_download_url);
  add("sha256", manifest.sha256);
  add("size_bytes", std::to_string(manifest.size_bytes));
  add_nullable("release_notes", manifest.release_notes);
  add("published_at", manifest.published_at);
  add("channel", manifest.channel);
  add("platform", manifest.platform);
  add("arch", manifest.arch);
  return lines;
}

void check_download_offer(const UpdateManifest& manifest, const std::vector<std::string>& download_hosts) {
  if (manifest.update_available || !manifest.download_url.empty())
    check_download_url(manifest.download_url, "payload.download_url", download_hosts);
  if (const std::string fallback = manifest.fallback_download_url.value_or(""); !fallback.empty())
    check_download_url(fallback, "payload.fallback_download_url", download_hosts);
  if (!manifest.update_available) return;
  require(is_sha256(manifest.sha256), "Invalid sha256");
  require(manifest.size_bytes >= 1 && manifest.size_bytes <= kMaxDownloadBytes, "Invalid size_bytes");
}

std::optional<std::int64_t> parse_utc_time(const std::string& text) {
  if (text.size() < 20 || text.back() != 'Z' || text[4] != '-' || text[7] != '-' || text[10] != 'T' ||
      text[13] != ':' || text[16] != ':')
    return std::nullopt;
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d", &year, &month, &day, &hour, &minute, &second) != 6)
    return std::nullopt;

  namespace chrono = std::chrono;
  const chrono::year_month_day date(chrono::year(year), chrono::month(static_cast<unsigned>(month)),
                                    chrono::day(static_cast<unsigned>(day)));
  const auto is_below = [](int value, int limit) { return value >= 0 && value < limit; };
  if (!date.ok() || !is_below(hour, 24) || !is_below(minute, 60) || !is_below(second, 60))
    return std::nullopt;
  const auto days = chrono::sys_days(date).time_since_epoch();
  return chrono::seconds(days).count() + (hour * 60 + minute) * 60 + second;
}

UpdateManifest verify_manifest(std::string_view body, const ManifestExpectations& expected) {
  SignedManifest answer = decode_signed_manifest(body);
  UpdateManifest& manifest = answer.payload;
  check_identity(answer, expected);
  check_freshness(manifest.issued_at, expected.now);
  verify_rs256(canonical_manifest(manifest), answer.signature.value, expected.public_key);
  check_download_offer(manifest, expected.download_hosts);
  require(manifest.published_at.empty() || parse_utc_time(manifest.published_at), "Invalid published_at");
  return std::move(manifest);
}

}  // namespace nvo
