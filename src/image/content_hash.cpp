#include "image/content_hash.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <span>
#include <system_error>
#include <vector>

#include "core/fnv1a.h"
#include "core/machine_failure.h"
#include "core/platform/input_file.h"
#include "core/platform/paths.h"
#include "image/image_types.h"

namespace nvo {
namespace {

constexpr std::uint64_t kSampleBytes = 65536;

// Differs from FNV's own offset basis and is part of the signature's identity.
constexpr std::uint64_t kStartState = 0x14650FB0739D0383ULL;

bool fail(std::string* error, const std::string& text) {
  if (error) *error = text;
  return false;
}

std::uint64_t feed_size(std::uint64_t size, std::uint64_t state) {
  for (int shift = 0; shift < 64; shift += 8) {
    const auto byte = static_cast<unsigned char>(size >> shift);
    state = fnv1a(&byte, 1, state);
  }
  return state;
}

/// Feeds up to `buffer.size()` bytes from `offset` on, as many as there are. False on a read error.
bool feed_bytes(const platform::InputFile& file, std::uint64_t offset, std::span<char> buffer,
                std::uint64_t& state) {
  std::size_t got = 0;
  if (file.read_at(offset, buffer.data(), buffer.size(), got) != 0) return false;
  state = fnv1a(buffer.data(), got, state);
  return true;
}

}  // namespace

bool fast_content_hash(const std::string& path, std::uint64_t size, std::string& out, std::string* error) {
  platform::InputFile file;
  if (file.open(path) != 0) return fail(error, "Cannot open file for content signature.");

  std::vector<char> buffer(std::min(size, kSampleBytes));
  std::uint64_t state = feed_size(size, kStartState);
  if (!feed_bytes(file, 0, buffer, state)) return fail(error, "Content signature read failed.");
  if (size > kSampleBytes && !feed_bytes(file, size - kSampleBytes, buffer, state))
    return fail(error, "Content signature tail read failed.");

  char digits[17];
  static_cast<void>(std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(state)));
  out = digits;
  return true;
}

bool content_hash(const std::string& path, std::string& out, std::string* error) try {
  const std::string normalized = normalize_path(path);
  if (normalized.empty()) return fail(error, "Source path is empty.");

  std::error_code code;
  const auto status = std::filesystem::status(platform::to_path(normalized), code);
  if (status.type() == std::filesystem::file_type::not_found)
    return fail(error, "Source path does not exist.");
  if (code) return fail(error, code.message());
  const auto size = std::filesystem::file_size(platform::to_path(normalized), code);
  if (code) return fail(error, code.message());
  return fast_content_hash(normalized, size, out, error);
} catch (const std::exception& failure) {
  rethrow_machine_failure();
  return fail(error, failure.what());
} catch (...) {
  return fail(error, "Unknown filesystem error.");
}

}  // namespace nvo
