#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>
#include <openssl/ssl.h>

namespace nvo::test {

/// An RSA key made for this run, signing what an update service signs.
class SigningKey {
 public:
  SigningKey();
  std::string public_key() const;  ///< SubjectPublicKeyInfo in base64
  /// The JSON text of a payload with its signature.
  std::string sign(const nlohmann::json& payload) const;

 private:
  std::shared_ptr<EVP_PKEY> key_;
};

/// A payload that passes every test of a request with this nonce. `age_s` seconds old.
nlohmann::json good_payload(const std::string& nonce, int age_s = 0);

/// What a server does with one request: sends these bytes, and then closes the connection, holds it until the
/// client has left, or sends a blank every 20 ms until then.
struct Answer {
  enum Then { close, hold, trickle };
  std::string bytes;
  Then then = close;
};
/// An HTTP response of this body.
Answer http_answer(const std::string& body, const std::string& status = "200 OK");

/// A port of this machine. Connections stand, but nobody accepts them.
class Listener {
 public:
  explicit Listener(const std::string& address = "127.0.0.1", const std::string& port = "0");
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  int socket() const { return socket_; }
  std::string port() const;
  /// From now on who calls gets no sign of life.
  void fall_silent();

 private:
  int socket_ = -1, filler_ = -1;
};

struct ServerTerms {
  std::string address = "127.0.0.1";
  /// Of the certificate.
  const char* names = "IP:127.0.0.1,IP:::1,DNS:service.test,DNS:two.test,DNS:dual.test";
  bool authority_has_expired = false;
  Answer
      as_proxy;  ///< sent in clear where TLS does not begin at once: the server plays a proxy and its origin
};

/// An HTTPS server with an authority of its own.
class LoopbackServer {
 public:
  using Script = std::function<Answer(const nlohmann::json& request)>;

  LoopbackServer(Script script, const std::string& ca_file, ServerTerms terms = {});
  ~LoopbackServer();
  std::string origin(const std::string& host = "127.0.0.1") const;
  std::string port() const { return listener_.port(); }

 private:
  void serve() const;
  void answer_check(SSL* tls) const;

  Script script_;
  ServerTerms terms_;
  std::shared_ptr<SSL_CTX> context_;
  Listener listener_;
  std::thread thread_;
};

}  // namespace nvo::test
