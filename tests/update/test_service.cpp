#include "update/test_service.h"

#include <csignal>
#include <cstdio>
#include <ctime>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nvo::test {
namespace {

using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

void require(bool holds) {
  if (!holds) throw std::runtime_error("test service: OpenSSL or a socket failed");
}

std::string to_base64(const std::string& bytes) {
  std::string text(bytes.size() / 3 * 4 + 5, '\0');
  const int size =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(size));
  return text;
}

/// The signed text, written down apart from the program's own.
std::string canonical(const nlohmann::json& payload) {
  constexpr const char* kKeys[] = {"version",
                                   "endpoint",
                                   "client_nonce",
                                   "issuer",
                                   "issued_at",
                                   "update_available",
                                   "mandatory",
                                   "latest_version",
                                   "latest_build_id",
                                   "minimum_supported_version",
                                   "download_url",
                                   "fallback_download_url",
                                   "sha256",
                                   "size_bytes",
                                   "release_notes",
                                   "published_at",
                                   "channel",
                                   "platform",
                                   "arch"};
  std::string text;
  for (const char* key : kKeys) {
    const auto& value = payload.at(key);
    text += std::string(key) + "=";
    if (value.is_string()) text += value.get<std::string>();
    if (value.is_boolean()) text += value.get<bool>() ? "1" : "0";
    if (value.is_number()) text += value.dump();
    if (value.is_null()) text += "-";
    text += "\n";
  }
  return text;
}

void add_extension(X509* certificate, int id, const char* value) {
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, id, value);
  require(extension && X509_add_ext(certificate, extension, -1) == 1);
  X509_EXTENSION_free(extension);
}

Certificate make_certificate(const char* name, const char* issuer, EVP_PKEY* key, EVP_PKEY* issuer_key) {
  static int serial = 0;
  Certificate certificate(X509_new(), X509_free);
  X509_set_version(certificate.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), ++serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
  X509_set_pubkey(certificate.get(), key);
  const auto set_name = [](X509_NAME* field, const char* text) {
    X509_NAME_add_entry_by_txt(field, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(text), -1,
                               -1, 0);
  };
  set_name(X509_get_subject_name(certificate.get()), name);
  set_name(X509_get_issuer_name(certificate.get()), issuer);
  if (key == issuer_key)
    add_extension(certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
  else
    add_extension(certificate.get(), NID_subject_alt_name, "IP:127.0.0.1,DNS:service.test");
  require(X509_sign(certificate.get(), issuer_key, EVP_sha256()) > 0);
  return certificate;
}

}  // namespace

SigningKey::SigningKey() : key_(EVP_RSA_gen(2048), EVP_PKEY_free) {
  require(key_ != nullptr);
}

std::string SigningKey::public_key() const {
  unsigned char* der = nullptr;
  const int size = i2d_PUBKEY(key_.get(), &der);
  require(size > 0);
  const std::string bytes(reinterpret_cast<char*>(der), static_cast<std::size_t>(size));
  OPENSSL_free(der);
  return to_base64(bytes);
}

std::string SigningKey::sign(const nlohmann::json& payload) const {
  const std::string text = canonical(payload);
  std::string signature(512, '\0');
  std::size_t size = signature.size();
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  require(EVP_DigestSignInit(context, nullptr, EVP_sha256(), nullptr, key_.get()) == 1 &&
          EVP_DigestSign(context, reinterpret_cast<unsigned char*>(signature.data()), &size,
                         reinterpret_cast<const unsigned char*>(text.data()), text.size()) == 1);
  EVP_MD_CTX_free(context);
  signature.resize(size);
  return nlohmann::json{{"payload", payload},
                        {"signature",
                         {{"value", to_base64(signature)},
                          {"algorithm", "RS256"},
                          {"key_id", "nvo-update-signing-v1"},
                          {"canonicalization", "nvo-update-manifest-v1"}}}}
      .dump();
}

nlohmann::json good_payload(const std::string& nonce, int age_s) {
  const std::time_t issued = std::time(nullptr) - age_s;
  char issued_at[32];
  std::strftime(issued_at, sizeof issued_at, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&issued));
  return {{"version", 1},
          {"endpoint", "/v1/update/check"},
          {"client_nonce", nonce},
          {"issuer", "nvo-update-api-prod"},
          {"issued_at", issued_at},
          {"update_available", true},
          {"mandatory", false},
          {"latest_version", "0.2.0"},
          {"latest_build_id", "2000"},
          {"minimum_supported_version", "0.1.0"},
          {"download_url", "https://Downloads.Example.test/nvo.exe"},
          {"fallback_download_url", nullptr},
          {"sha256", std::string(64, 'a')},
          {"size_bytes", 0x40000000},
          {"release_notes", "First line\nsecond = line"},
          {"published_at", ""},
          {"channel", "stable"},
          {"platform", "windows"},
          {"arch", "x64"}};
}

Answer http_answer(const std::string& body, const std::string& status) {
  return {"HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body};
}

LoopbackServer::LoopbackServer(Script script, const std::string& ca_file)
    : script_(std::move(script)), context_(SSL_CTX_new(TLS_server_method()), SSL_CTX_free) {
  std::signal(SIGPIPE, SIG_IGN);  // clients leave in the middle
  const KeyHandle authority_key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  const KeyHandle key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  static int count = 0;
  const std::string name = "test authority " + std::to_string(++count);
  const Certificate authority =
      make_certificate(name.c_str(), name.c_str(), authority_key.get(), authority_key.get());
  const Certificate own = make_certificate("test server", name.c_str(), key.get(), authority_key.get());
  require(SSL_CTX_use_certificate(context_.get(), own.get()) == 1 &&
          SSL_CTX_use_PrivateKey(context_.get(), key.get()) == 1);
  std::FILE* file = std::fopen(ca_file.c_str(), "w");
  require(file && PEM_write_X509(file, authority.get()) == 1);
  std::fclose(file);

  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* plain = reinterpret_cast<sockaddr*>(&address);
  require(::bind(listener_, plain, size) == 0 && ::listen(listener_, 8) == 0 &&
          ::getsockname(listener_, plain, &size) == 0);
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { serve(); });
}

LoopbackServer::~LoopbackServer() {
  ::shutdown(listener_, SHUT_RDWR);  // ends the wait for connections
  thread_.join();
  ::close(listener_);
}

std::string LoopbackServer::origin(const std::string& host) const {
  return "https://" + host + ":" + std::to_string(port_);
}

void LoopbackServer::serve() {
  for (;;) {
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) return;
    SSL* connection = SSL_new(context_.get());
    SSL_set_fd(connection, client);
    if (SSL_accept(connection) == 1) talk(connection);
    SSL_free(connection);
    ::close(client);
  }
}

void LoopbackServer::talk(SSL* connection) const {
  std::string request;
  char buffer[4096];
  const auto read_more = [&] {
    const int count = SSL_read(connection, buffer, sizeof buffer);
    if (count > 0) request.append(buffer, static_cast<std::size_t>(count));
    return count > 0;
  };
  nlohmann::json body;  // whole as soon as it parses
  while (!body.is_object()) {
    if (!read_more()) return;
    const auto head = request.find("\r\n\r\n");
    if (head != std::string::npos) body = nlohmann::json::parse(request.substr(head), nullptr, false);
  }
  if (request.rfind("POST /v1/update/check HTTP/1.1\r\n", 0) != 0 ||
      request.find("\r\nContent-Type: application/json\r\n") == std::string::npos ||
      request.find("\r\nAccept: application/json\r\n") == std::string::npos ||
      request.find("\r\nUser-Agent: nvo_rip_update/1.0\r\n") == std::string::npos)
    return;
  const Answer answer = script_(body);
  std::size_t sent = 0;
  while (sent < answer.bytes.size()) {
    const int count =
        SSL_write(connection, answer.bytes.data() + sent, static_cast<int>(answer.bytes.size() - sent));
    if (count <= 0) return;
    sent += static_cast<std::size_t>(count);
  }
  if (answer.hold)
    while (read_more()) {
    }
  else
    SSL_shutdown(connection);
}

}  // namespace nvo::test
