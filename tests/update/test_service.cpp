#include "update/test_service.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <sstream>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nvo::test {
namespace {

using Key = std::shared_ptr<EVP_PKEY>;
using Certificate = std::shared_ptr<X509>;

void require(bool holds) {
  if (!holds) throw std::runtime_error("test service: OpenSSL or a socket failed");
}

std::string to_base64(const unsigned char* bytes, std::size_t size) {
  std::string text(size / 3 * 4 + 5, '\0');
  text.resize(static_cast<std::size_t>(
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes, static_cast<int>(size))));
  return text;
}

/// The signed text, written down apart from the program's own.
std::string canonical(const nlohmann::json& payload) {
  std::istringstream keys(
      "version endpoint client_nonce issuer issued_at update_available mandatory latest_version "
      "latest_build_id "
      "minimum_supported_version download_url fallback_download_url sha256 size_bytes release_notes "
      "published_at "
      "channel platform arch");
  std::string text;
  for (std::string key; keys >> key;) {
    const auto& value = payload.at(key);
    text += key + "=";
    if (value.is_string()) text += value.get<std::string>();
    if (value.is_boolean()) text += value.get<bool>() ? "1" : "0";
    if (value.is_number()) text += value.dump();
    if (value.is_null()) text += "-";
    text += "\n";
  }
  return text;
}

/// A certificate of an authority where `names` is null, else of a server.
Certificate make_certificate(const std::string& subject, const Key& key, const std::string& issuer,
                             const Key& issuer_key, const char* names, long ends_in_s) {
  static int serial = 0;
  const Certificate certificate(X509_new(), X509_free);
  X509* const made = certificate.get();
  X509_set_version(made, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(made), ++serial);
  X509_gmtime_adj(X509_getm_notBefore(made), -3600);
  X509_gmtime_adj(X509_getm_notAfter(made), ends_in_s);
  X509_set_pubkey(made, key.get());
  const auto set_name = [](X509_NAME* field, const std::string& text) {
    X509_NAME_add_entry_by_txt(field, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(text.data()),
                               -1, -1, 0);
  };
  set_name(X509_get_subject_name(made), subject);
  set_name(X509_get_issuer_name(made), issuer);
  X509_EXTENSION* const extension =
      names ? X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, names)
            : X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, "critical,CA:TRUE");
  require(extension && X509_add_ext(made, extension, -1) == 1);
  X509_EXTENSION_free(extension);
  require(X509_sign(made, issuer_key.get(), EVP_sha256()) > 0);
  return certificate;
}

/// A server's side of TLS, whose authority goes into a file.
std::shared_ptr<SSL_CTX> make_context(const std::string& ca_file, const ServerTerms& terms) {
  static int count = 0;
  const std::string issuer = "test authority " + std::to_string(++count);
  const Key authority_key(EVP_EC_gen("P-256"), EVP_PKEY_free), key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  const Certificate authority = make_certificate(issuer, authority_key, issuer, authority_key, nullptr,
                                                 terms.authority_has_expired ? -60 : 3600);
  const Certificate own = make_certificate("test server", key, issuer, authority_key, terms.names, 3600);
  std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  require(SSL_CTX_use_certificate(context.get(), own.get()) == 1 &&
          SSL_CTX_use_PrivateKey(context.get(), key.get()) == 1);
  std::FILE* file = std::fopen(ca_file.c_str(), "w");
  require(file && PEM_write_X509(file, authority.get()) == 1);
  std::fclose(file);
  return context;
}

/// A connection in clear or, with `tls`, under TLS.
struct Stream {
  int socket;
  SSL* tls = nullptr;

  bool read(std::string& text) const {
    char bytes[4096];
    const int count =
        tls ? SSL_read(tls, bytes, sizeof bytes) : static_cast<int>(::recv(socket, bytes, sizeof bytes, 0));
    text.append(bytes, static_cast<std::size_t>(std::max(count, 0)));
    return count > 0;
  }
  bool write(const std::string& text) const {
    const int size = static_cast<int>(text.size());
    return size == 0 ||
           (tls ? SSL_write(tls, text.data(), size) : ::send(socket, text.data(), text.size(), 0)) == size;
  }
  void give(const Answer& answer) const {
    bool is_there = write(answer.bytes);
    std::string ignored;
    pollfd client{socket, POLLIN, 0};
    if (answer.then == Answer::hold)
      while (is_there) is_there = read(ignored);
    if (answer.then == Answer::trickle)
      while (is_there) is_there = ::poll(&client, 1, 20) == 0 && write(" ");
    if (tls && is_there) SSL_shutdown(tls);
  }
};

}  // namespace

SigningKey::SigningKey() : key_(EVP_RSA_gen(2048), EVP_PKEY_free) {}

std::string SigningKey::public_key() const {
  unsigned char* der = nullptr;
  const int size = i2d_PUBKEY(key_.get(), &der);
  require(size > 0);
  const std::string text = to_base64(der, static_cast<std::size_t>(size));
  OPENSSL_free(der);
  return text;
}

std::string SigningKey::sign(const nlohmann::json& payload) const {
  const std::string text = canonical(payload);
  unsigned char signature[512];
  std::size_t size = sizeof signature;
  const std::shared_ptr<EVP_MD_CTX> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  require(EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key_.get()) == 1 &&
          EVP_DigestSign(context.get(), signature, &size, reinterpret_cast<const unsigned char*>(text.data()),
                         text.size()) == 1);
  const nlohmann::json signed_by = {{"value", to_base64(signature, size)},
                                    {"algorithm", "RS256"},
                                    {"key_id", "nvo-update-signing-v1"},
                                    {"canonicalization", "nvo-update-manifest-v1"}};
  return nlohmann::json{{"payload", payload}, {"signature", signed_by}}.dump();
}

nlohmann::json good_payload(const std::string& nonce, int age_s) {
  auto payload = nlohmann::json::parse(R"({
      "version": 1, "endpoint": "/v1/update/check", "issuer": "nvo-update-api-prod", "update_available": true,
      "mandatory": false, "latest_version": "0.2.0", "latest_build_id": "2000",
      "minimum_supported_version": "0.1.0", "download_url": "https://Downloads.Example.test/nvo.exe",
      "fallback_download_url": null, "size_bytes": 1073741824, "release_notes": "First line\nsecond = line",
      "published_at": "", "channel": "stable", "platform": "windows", "arch": "x64"})");
  const std::time_t issued = std::time(nullptr) - age_s;
  char issued_at[32];
  std::strftime(issued_at, sizeof issued_at, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&issued));
  payload["issued_at"] = issued_at;
  payload["client_nonce"] = nonce;
  payload["sha256"] = std::string(64, 'a');
  return payload;
}

Answer http_answer(const std::string& body, const std::string& status) {
  return {"HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body};
}

Listener::Listener(const std::string& address, const std::string& port) {
  sockaddr_storage place{};
  auto* const v4 = reinterpret_cast<sockaddr_in*>(&place);
  auto* const v6 = reinterpret_cast<sockaddr_in6*>(&place);
  const bool is_v4 = ::inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1;
  require(is_v4 || ::inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1);
  place.ss_family = is_v4 ? AF_INET : AF_INET6;
  v4->sin_port = htons(static_cast<std::uint16_t>(std::stoi(port)));  // in the same place in both
  socket_ = ::socket(place.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::bind(socket_, reinterpret_cast<sockaddr*>(&place), is_v4 ? sizeof *v4 : sizeof *v6) == 0 &&
      ::listen(socket_, 8) == 0)
    return;
  ::close(socket_);
  require(false);
}

Listener::~Listener() {
  ::close(filler_);
  ::close(socket_);
}

std::string Listener::port() const {
  sockaddr_in6 place{};
  socklen_t size = sizeof place;
  ::getsockname(socket_, reinterpret_cast<sockaddr*>(&place), &size);
  return std::to_string(ntohs(place.sin6_port));
}

void Listener::fall_silent() {
  sockaddr_storage place{};
  socklen_t size = sizeof place;
  ::getsockname(socket_, reinterpret_cast<sockaddr*>(&place), &size);
  filler_ = ::socket(place.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  // The system drops calls to a full queue, and this one has room for a single connection.
  ::listen(socket_, 0);
  ::connect(filler_, reinterpret_cast<sockaddr*>(&place), size);
}

LoopbackServer::LoopbackServer(Script script, const std::string& ca_file, ServerTerms terms)
    : script_(std::move(script)),
      terms_(std::move(terms)),
      context_(make_context(ca_file, terms_)),
      listener_(terms_.address) {
  std::signal(SIGPIPE, SIG_IGN);  // clients leave in the middle
  thread_ = std::thread([this] { serve(); });
}

LoopbackServer::~LoopbackServer() {
  ::shutdown(listener_.socket(), SHUT_RDWR);  // ends the wait for connections
  thread_.join();
}

std::string LoopbackServer::origin(const std::string& host) const {
  return "https://" + host + ":" + port();
}

void LoopbackServer::serve() const {
  for (;;) {
    const int client = ::accept4(listener_.socket(), nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) return;
    std::string request;
    if (!terms_.as_proxy.bytes.empty()) {
      const Stream clear{client};
      while (request.find("\r\n\r\n") == std::string::npos && clear.read(request)) {
      }
      clear.give(terms_.as_proxy);
    }
    const std::shared_ptr<SSL> tls(SSL_new(context_.get()), SSL_free);
    SSL_set_fd(tls.get(), client);
    if (SSL_accept(tls.get()) == 1) answer_check(tls.get());
    ::close(client);
  }
}

void LoopbackServer::answer_check(SSL* tls) const {
  const Stream client{SSL_get_fd(tls), tls};
  std::string request;
  nlohmann::json body;  // whole as soon as it parses
  while (!body.is_object()) {
    if (!client.read(request)) return;
    const auto head = request.find("\r\n\r\n");
    if (head != std::string::npos) body = nlohmann::json::parse(request.substr(head), nullptr, false);
  }
  for (const char* line : {"POST /v1/update/check HTTP/1.1\r\n", "\r\nContent-Type: application/json\r\n",
                           "\r\nAccept: application/json\r\n", "\r\nUser-Agent: nvo_rip_update/1.0\r\n"})
    if (request.find(line) == std::string::npos) return;
  client.give(script_(body));
}

}  // namespace nvo::test
