#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace nvo {

/// How long the client waits in each phase of one exchange.
struct TransportLimits {
  std::chrono::milliseconds resolve{5000};
  std::chrono::milliseconds connect{5000};   ///< up to and with the TLS handshake
  std::chrono::milliseconds send{10000};     ///< the whole request
  std::chrono::milliseconds receive{15000};  ///< the whole response
};

/// The update service that a build of the program talks to and trusts.
struct UpdateService {
  std::vector<std::string> origins;         ///< HTTPS base URLs: the primary one, then the fallback
  std::vector<std::string> download_hosts;  ///< lower-case names from which a download may come
  std::string public_key;                   ///< RSA SubjectPublicKeyInfo (RFC 5280, DER) in base64
  std::string ca_file;                      ///< PEM file that replaces the system's trust, or empty
  TransportLimits limits;
};

}  // namespace nvo
