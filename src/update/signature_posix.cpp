#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include "update/signature.h"

namespace nvo {
namespace {

constexpr std::size_t kNonceBytes = 16;
constexpr std::size_t kMaxBase64Text = 1 << 20;  // its size has to fit the decoder's `int`

template <class T, void (*free_object)(T*)>
struct Deleter {
  void operator()(T* object) const { free_object(object); }
};
using KeyInfo = std::unique_ptr<X509_PUBKEY, Deleter<X509_PUBKEY, X509_PUBKEY_free>>;
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX, EVP_MD_CTX_free>>;

/// The library keeps reasons for failures a thread; ours are told in our own words.
struct ErrorQueueGuard {
  ~ErrorQueueGuard() { ERR_clear_error(); }
};

std::string to_padded_base64(std::string_view text) {
  std::string padded(text);
  std::replace(padded.begin(), padded.end(), '-', '+');
  std::replace(padded.begin(), padded.end(), '_', '/');
  padded.append((4 - padded.size() % 4) % 4, '=');
  return padded;
}

std::size_t padding_of(std::string_view padded) {
  const auto last = padded.find_last_not_of('=');
  return last == std::string_view::npos ? padded.size() : padded.size() - last - 1;
}

/// Bytes that well-formed base64 stands for.
std::size_t decoded_size(std::string_view padded) {
  constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const std::size_t padding = padding_of(padded);
  const std::string_view digits = padded.substr(0, padded.size() - padding);
  if (padding > 2 || padded.size() > kMaxBase64Text ||
      digits.find_first_not_of(kAlphabet) != std::string_view::npos)
    throw std::runtime_error("Base64 decode size query failed");
  return padded.size() / 4 * 3 - padding;
}

std::string decode_base64(std::string_view text) {
  const std::string padded = to_padded_base64(text);
  const std::size_t size = decoded_size(padded);
  std::string bytes(padded.size() / 4 * 3, '\0');
  const int decoded =
      EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                      reinterpret_cast<const unsigned char*>(padded.data()), static_cast<int>(padded.size()));
  if (decoded != static_cast<int>(bytes.size())) throw std::runtime_error("Base64 decode failed");
  bytes.resize(size);  // the decoder writes a zero for each padding character
  return bytes;
}

Key import_rsa_key(std::string_view base64) {
  const std::string der = decode_base64(base64);
  const auto* position = reinterpret_cast<const unsigned char*>(der.data());
  const auto* const end = position + der.size();
  const KeyInfo info(d2i_X509_PUBKEY(nullptr, &position, static_cast<long>(der.size())));
  if (!info || position != end) throw std::runtime_error("Failed to decode SPKI public key");
  Key key(X509_PUBKEY_get(info.get()));
  if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA)
    throw std::runtime_error("Failed to import public key");
  return key;
}

}  // namespace

void start_crypto() {
  static const bool started = [] {
    for (const char* name :
         {"OPENSSL_CONF", "OPENSSL_CONF_INCLUDE", "OPENSSL_MODULES", "OPENSSL_ENGINES", "SSL_CERT_FILE",
          "SSL_CERT_DIR", "SSLKEYLOGFILE", "CURL_CA_BUNDLE", "CTLOG_FILE"})
      ::unsetenv(name);
    return OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr) == 1;
  }();
  static_cast<void>(started);
}

void verify_rs256(std::string_view message, std::string_view signature, std::string_view public_key) {
  const ErrorQueueGuard guard;
  const std::string bytes = decode_base64(signature);
  const Key key = import_rsa_key(public_key);

  const DigestContext context(EVP_MD_CTX_new());
  // PKCS #1 v1.5 is what an RSA key verifies with unless told otherwise.
  if (!context || EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1 ||
      EVP_DigestVerifyUpdate(context.get(), message.data(), message.size()) != 1)
    throw std::runtime_error("SHA-256 hash generation failed");
  if (bytes.empty()) throw std::runtime_error("Signature is empty");
  if (EVP_DigestVerifyFinal(context.get(), reinterpret_cast<const unsigned char*>(bytes.data()),
                            bytes.size()) != 1)
    throw std::runtime_error("Signature verification failed");
}

std::string random_nonce() {
  start_crypto();
  // Where there was no memory for its context, the library would crash.
  if (!OSSL_LIB_CTX_get0_global_default()) throw std::bad_alloc();
  std::array<unsigned char, kNonceBytes> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    ERR_clear_error();
    return {};
  }
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string nonce;
  for (const unsigned char byte : bytes) nonce.append({kDigits[byte >> 4], kDigits[byte & 15]});
  return nonce;
}

}  // namespace nvo
