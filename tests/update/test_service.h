#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>
#include <openssl/evp.h>
#include <openssl/ssl.h>

namespace nvo::test {

using KeyHandle = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

/// An RSA key made for this run, signing what an update service signs.
class SigningKey {
 public:
  SigningKey();
  std::string public_key() const;  ///< SubjectPublicKeyInfo in base64
  /// The JSON text of a payload with its signature.
  std::string sign(const nlohmann::json& payload) const;

 private:
  KeyHandle key_;
};

/// A payload that passes every test of a request with this nonce. `age_s` seconds old.
nlohmann::json good_payload(const std::string& nonce, int age_s = 0);

/// What the server does with one request: sends these bytes, and then closes the connection or holds it until
/// the client has left.
struct Answer {
  std::string bytes;
  bool hold = false;
};
/// An HTTP response of this body.
Answer http_answer(const std::string& body, const std::string& status = "200 OK");

/// An HTTPS server on 127.0.0.1, with an authority of its own. Its certificate names the address and
/// "service.test".
class LoopbackServer {
 public:
  using Script = std::function<Answer(const nlohmann::json& request)>;

  LoopbackServer(Script script, const std::string& ca_file);
  ~LoopbackServer();
  std::string origin(const std::string& host = "127.0.0.1") const;

 private:
  void serve();
  void talk(SSL* connection) const;

  Script script_;
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_;
  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::thread thread_;
};

}  // namespace nvo::test
