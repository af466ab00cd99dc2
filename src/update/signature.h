#pragma once

#include <string>
#include <string_view>

namespace nvo {

/// Starts OpenSSL for the process without a configuration file, and takes those variables out of the
/// environment by which it or libcurl would load modules, trust authorities or write down session keys. Comes
/// before the first use of either; further calls do nothing.
void start_crypto();

/// Checks an RSASSA-PKCS1-v1_5 signature with SHA-256 (RFC 8017) of `message`. `signature` is base64 or
/// base64url, padded or not; `public_key` is a SubjectPublicKeyInfo (DER) in base64. Throws
/// `std::runtime_error` with the reason when it is not this key's signature of this message.
void verify_rs256(std::string_view message, std::string_view signature, std::string_view public_key);

/// 16 bytes of the system's random generator as 32 lower-case hexadecimal digits; empty when it fails.
std::string random_nonce();

}  // namespace nvo
