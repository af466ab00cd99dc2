#pragma once

#include <algorithm>
#include <csignal>
#include <ctime>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <nlohmann/json.hpp>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nvo::test {

using nlohmann::json;

inline void require(bool holds) {
  if (!holds) throw std::runtime_error("test service: OpenSSL or a socket failed");
}

inline std::string to_base64(const unsigned char* bytes, std::size_t size) {
  std::string text(size / 3 * 4 + 5, '\0');
  text.resize(static_cast<std::size_t>(
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes, static_cast<int>(size))));
  return text;
}

/// The signed text, written down apart from the program's own.
inline std::string canonical(const json& payload) {
  std::istringstream keys(
      "version endpoint client_nonce issuer issued_at update_available mandatory latest_version "
      "latest_build_id minimum_supported_version download_url fallback_download_url sha256 size_bytes "
      "release_notes published_at channel platform arch");
  std::string text;
  for (std::string key; keys >> key;) {
    const json& value = payload.at(key);
    text += key + "=";
    if (value.is_string()) text += value.get<std::string>();
    if (value.is_boolean()) text += value.get<bool>() ? "1" : "0";
    if (value.is_number()) text += value.dump();
    if (value.is_null()) text += "-";
    text += "\n";
  }
  return text;
}

/// The RSA key of the service and its servers, made for this run.
inline EVP_PKEY* service_key() {
  static const std::shared_ptr<EVP_PKEY> made(EVP_RSA_gen(2048), EVP_PKEY_free);
  return made.get();
}

/// Its SubjectPublicKeyInfo in base64.
inline std::string public_key() {
  unsigned char der[512], *end = der;
  require(i2d_PUBKEY(service_key(), &end) > 0);
  return to_base64(der, static_cast<std::size_t>(end - der));
}

/// The JSON text of a payload with its signature.
inline std::string sign(const json& payload, EVP_PKEY* key = service_key()) {
  const std::string text = canonical(payload);
  unsigned char signature[512];
  std::size_t size = sizeof signature;
  const std::shared_ptr<EVP_MD_CTX> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  require(EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
          EVP_DigestSign(context.get(), signature, &size, reinterpret_cast<const unsigned char*>(text.data()),
                         text.size()) == 1);
  const json signed_by = {{"value", to_base64(signature, size)},
                          {"algorithm", "RS256"},
                          {"key_id", "nvo-update-signing-v1"},
                          {"canonicalization", "nvo-update-manifest-v1"}};
  return json{{"payload", payload}, {"signature", signed_by}}.dump();
}

/// A payload that passes every test of a request with this nonce.
inline json good_payload(const std::string& nonce) {
  json payload = json::parse(R"({
      "version": 1, "endpoint": "/v1/update/check", "issuer": "nvo-update-api-prod", "update_available": true,
      "mandatory": false, "latest_version": "0.2.0", "latest_build_id": "2000",
      "minimum_supported_version": "0.1.0", "download_url": "https://Downloads.Example.test/nvo.exe",
      "fallback_download_url": null, "size_bytes": 1073741824, "release_notes": "First line\nsecond = line",
      "published_at": "", "channel": "stable", "platform": "windows", "arch": "x64"})");
  const std::time_t now = std::time(nullptr);
  char issued_at[32];
  std::strftime(issued_at, sizeof issued_at, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&now));
  payload.update({{"issued_at", issued_at}, {"client_nonce", nonce}, {"sha256", std::string(64, 'a')}});
  return payload;
}

/// What a server does with one request: sends these bytes, and then closes the connection, holds it until the
/// client has left, or sends a blank every 20 ms until then.
struct Answer {
  enum Then { close, hold, trickle };
  std::string bytes;
  Then then = close;
};
/// An HTTP response of this body.
inline Answer http_answer(const std::string& body) {
  return {"HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body};
}

using Script = std::function<Answer(const json& request)>;

/// Answers with a good manifest and these members in it.
inline Script manifest_with(const json& changes = json::object()) {
  return [changes](const json& request) {
    json payload = good_payload(request.at("client_nonce"));
    payload.update(changes);
    return http_answer(sign(payload));
  };
}

/// A port of this machine. Connections stand, but nobody accepts them.
class Listener {
 public:
  explicit Listener(const char* address = "127.0.0.1", int port = 0)
      : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    std::signal(SIGPIPE, SIG_IGN);  // clients and servers leave in the middle
    place_.sin_family = AF_INET;
    place_.sin_port = htons(static_cast<std::uint16_t>(port));
    auto* const place = reinterpret_cast<sockaddr*>(&place_);
    socklen_t size = sizeof place_;
    require(::inet_pton(AF_INET, address, &place_.sin_addr) == 1 && ::bind(socket_, place, size) == 0 &&
            ::listen(socket_, 8) == 0 && ::getsockname(socket_, place, &size) == 0);
  }

  ~Listener() { ::close(filler_), ::close(socket_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  int socket() const { return socket_; }
  int port() const { return ntohs(place_.sin_port); }
  std::string url(const std::string& scheme = "https", const std::string& host = "127.0.0.1") const {
    return scheme + "://" + host + ":" + std::to_string(port());
  }
  /// From now on who calls gets no sign of life.
  void fall_silent() {
    filler_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    // The system drops calls to a full queue, and this one has room for a single connection.
    ::listen(socket_, 0);
    ::connect(filler_, reinterpret_cast<sockaddr*>(&place_), sizeof place_);
  }

 private:
  sockaddr_in place_{};
  int socket_ = -1, filler_ = -1;
};

struct ServerTerms {
  const char* names = "IP:127.0.0.1,DNS:service.test,DNS:two.test";  ///< of the certificate
  std::string as_proxy = {};  ///< sent in clear before TLS begins: the server plays a proxy and its origin
};

/// A server's side of TLS.
inline std::shared_ptr<SSL_CTX> make_context(const std::string& ca_file, const ServerTerms& terms) {
  const std::shared_ptr<X509> certificate(X509_new(), X509_free);
  X509* const made = certificate.get();
  X509_set_version(made, X509_VERSION_3);
  X509_gmtime_adj(X509_getm_notBefore(made), -3600);
  X509_gmtime_adj(X509_getm_notAfter(made), 3600);
  X509_set_pubkey(made, service_key());
  X509_NAME* const name = X509_get_subject_name(made);
  const unsigned char text[] = "test";
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text, -1, -1, 0);
  X509_set_issuer_name(made, name);
  X509_EXTENSION* const names = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, terms.names);
  require(names && X509_add_ext(made, names, -1) == 1);
  X509_EXTENSION_free(names);
  std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  require(X509_sign(made, service_key(), EVP_sha256()) > 0 &&
          SSL_CTX_use_certificate(context.get(), made) == 1 &&
          SSL_CTX_use_PrivateKey(context.get(), service_key()) == 1);
  const std::shared_ptr<BIO> file(BIO_new_file(ca_file.c_str(), "w"), BIO_free);
  require(file && PEM_write_bio_X509(file.get(), made) == 1);
  return context;
}

// The clients of a server: sockets in clear or under TLS.

inline bool read(BIO* client, std::string& text) {
  char bytes[4096];
  const int count = BIO_read(client, bytes, sizeof bytes);
  text.append(bytes, static_cast<std::size_t>(std::max(count, 0)));
  return count > 0;
}

inline bool write(BIO* client, const std::string& text) {
  const int size = static_cast<int>(text.size());
  return BIO_write(client, text.data(), size) == size;
}

/// An HTTPS server. Its certificate, signed by itself, goes into a file.
class LoopbackServer : public Listener {
 public:
  LoopbackServer(Script script, const std::string& ca_file, const ServerTerms& terms = {})
      : script_(std::move(script)), as_proxy_(terms.as_proxy), context_(make_context(ca_file, terms)) {
    thread_ = std::thread([this] { serve(); });
  }
  ~LoopbackServer() {
    ::shutdown(socket(), SHUT_RDWR);  // ends the wait for connections
    thread_.join();
  }

 private:
  void serve() const {
    for (int client; (client = ::accept4(socket(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      BIO* const clear = BIO_new_socket(client, BIO_CLOSE);
      const std::shared_ptr<BIO> tls(BIO_push(BIO_new_ssl(context_.get(), 0), clear), BIO_free_all);
      std::string connect;
      while (!as_proxy_.empty() && connect.find("\r\n\r\n") == std::string::npos && read(clear, connect)) {
      }
      write(clear, as_proxy_);
      answer_check(tls.get());
    }
  }

  void answer_check(BIO* client) const {
    std::string request;
    json body;  // whole as soon as it parses
    while (!body.is_object()) {
      if (!read(client, request)) return;
      const auto head = request.find("\r\n\r\n");
      if (head != std::string::npos) body = json::parse(request.substr(head), nullptr, false);
    }
    for (const char* line : {"POST /v1/update/check HTTP/1.1\r\n", "\r\nContent-Type: application/json\r\n",
                             "\r\nAccept: application/json\r\n", "\r\nUser-Agent: nvo_rip_update/1.0\r\n"})
      if (request.find(line) == std::string::npos) return;
    const Answer answer = script_(body);
    pollfd socket{static_cast<int>(BIO_get_fd(client, nullptr)), POLLIN, 0};
    bool is_there = write(client, answer.bytes);
    while (is_there && answer.then != Answer::close)  // a client that leaves can be read from
      is_there = ::poll(&socket, 1, answer.then == Answer::hold ? -1 : 20) == 0 && write(client, " ");
  }

  Script script_;
  std::string as_proxy_;
  std::shared_ptr<SSL_CTX> context_;
  std::thread thread_;
};

}  // namespace nvo::test
