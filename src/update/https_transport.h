#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "update/update_service.h"

namespace nvo {

/// The parts of a URL that the update client looks at. The scheme is lower case, the port 0 when none is
/// named.
struct Url {
  std::string scheme;
  std::string host;
  std::uint16_t port = 0;
};

/// Nothing when the text is no absolute URL with a host.
std::optional<Url> parse_url(const std::string& text);

/// What came of one request: a response with its status and body, or the text and the code of a failure. A
/// response that is too large to be looked at has a status and an `error`, and no body.
struct HttpsAnswer {
  bool received = false;
  std::uint32_t status = 0;
  std::string body;
  std::string error;
  int error_code = 0;
};

/// Sends JSON to HTTPS servers, one request at a time: the system's proxy settings, certificates verified, no
/// redirects, every phase within its limit. The process has to ignore broken-pipe signals. One thread at a
/// time; nothing is thrown but `std::bad_alloc`.
class HttpsTransport {
 public:
  /// `ca_file` names the PEM file of the authorities to trust; empty for those of the system. `max_body` is
  /// the most bytes that an answer may have.
  HttpsTransport(TransportLimits limits, std::string ca_file, std::size_t max_body);
  ~HttpsTransport();
  HttpsTransport(const HttpsTransport&) = delete;
  HttpsTransport& operator=(const HttpsTransport&) = delete;

  /// Starts to look up the hosts of these URLs, so that a later `post` finds the name or, where the resolver
  /// is silent, has waited for it since now.
  void look_up_early(const std::vector<std::string>& urls);

  HttpsAnswer post(const std::string& url, std::string_view json);

 private:
  class Session;
  std::unique_ptr<Session> session_;
};

}  // namespace nvo
