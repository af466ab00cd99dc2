#include "tools/prt_reader.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "core/platform/paths.h"

namespace nvo {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kBlockBytes = 4u << 20;

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
  throw std::runtime_error(path + ": " + reason);
}

std::uint64_t size_of_regular_file(const std::string& path) {
  std::error_code error;
  const fs::path file = platform::to_path(path);
  const fs::file_status status = fs::status(file, error);
  if (status.type() == fs::file_type::not_found) fail(path, "no such file");
  if (!error && status.type() != fs::file_type::regular) fail(path, "not a regular file");
  const std::uint64_t size = error ? 0 : fs::file_size(file, error);
  if (error) fail(path, "cannot tell its size: " + error.message());
  return size;
}

}  // namespace

PrtReader::PrtReader(const std::string& path) : path_(path) {
  const std::uint64_t size = size_of_regular_file(path);
  file_.open(platform::to_path(path), std::ios::binary);
  if (!file_) fail(path, "cannot open");
  if (size < kPrtHeaderSize)
    fail(path,
         "only " + std::to_string(size) + " bytes, the header alone has " + std::to_string(kPrtHeaderSize));

  std::array<std::uint8_t, kPrtHeaderSize> bytes{};
  if (!file_.read(reinterpret_cast<char*>(bytes.data()), bytes.size())) fail(path, "cannot read the header");
  try {
    header_ = decode_prt_header(bytes);
  } catch (const std::runtime_error& e) {
    fail(path, std::string("header: ") + e.what());
  }

  if (size != prt_file_size(header_))
    fail(path, std::to_string(size) + " bytes, the header promises " +
                   std::to_string(prt_file_size(header_)) + " (" + std::to_string(kPrtHeaderSize) + " + " +
                   std::to_string(prt_cycle_len(header_)) + " x " + std::to_string(header_.height) +
                   " rows)");
  if (prt_cycle_len(header_) > kMaxCycleBytes)
    fail(path, "a row of " + std::to_string(prt_cycle_len(header_)) + " bytes, this program reads at most " +
                   std::to_string(kMaxCycleBytes));
}

std::uint32_t PrtReader::block_cycles() const {
  return std::min(std::max(kBlockBytes / cycle_len(), 1u), header_.height);
}

void PrtReader::read_cycles(std::uint32_t first, std::uint32_t count, std::vector<std::uint8_t>& out) {
  const std::uint64_t size = std::uint64_t{cycle_len()} * count;
  const std::uint64_t offset = kPrtHeaderSize + std::uint64_t{cycle_len()} * first;
  out.resize(size);
  file_.seekg(static_cast<std::streamoff>(offset));
  if (!file_.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(size)))
    fail(path_, "cannot read " + std::to_string(size) + " bytes at offset " + std::to_string(offset));
}

void PrtReader::for_each_cycle(const std::function<void(std::uint32_t, const std::uint8_t*)>& visit) {
  std::vector<std::uint8_t> block;
  for (std::uint32_t first = 0; first < header_.height;) {
    const std::uint32_t count = std::min(block_cycles(), header_.height - first);
    read_cycles(first, count, block);
    for (std::uint32_t i = 0; i < count; ++i) visit(first + i, block.data() + std::size_t{i} * cycle_len());
    first += count;
  }
}

}  // namespace nvo
