#include "tools/prt_reader.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "core/platform/file.h"

namespace nvo {
namespace {

constexpr std::uint32_t kBlockBytes = 4u << 20;

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
  throw std::runtime_error(path + ": " + reason);
}

/// Opens a file that may be read without waiting for anybody.
void open_regular_file(const std::string& path, platform::InputFile& file) {
  const int error = file.open(path);
  if (error == 0) return;
  platform::PathStatus status;
  const int status_error = platform::path_status(path, status);
  if (platform::means_not_found(status_error)) fail(path, "no such file");
  if (status_error == 0 && !status.is_regular) fail(path, "not a regular file");
  fail(path, "cannot open: " + platform::error_text(error));
}

}  // namespace

bool begins_as_print_file(const std::string& path) {
  platform::InputFile file;
  open_regular_file(path, file);
  std::array<std::uint8_t, sizeof kPrtMagic> bytes{};
  std::size_t read = 0;
  if (const int error = file.read_at(0, bytes.data(), bytes.size(), read))
    fail(path, "cannot read: " + platform::error_text(error));
  std::uint32_t magic = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) magic |= std::uint32_t{bytes[i]} << (8 * i);
  return read == bytes.size() && magic == kPrtMagic;
}

PrtReader::PrtReader(const std::string& path) : path_(path) {
  open_regular_file(path, file_);
  const std::uint64_t size = file_.size();
  if (size < kPrtHeaderSize)
    fail(path,
         "only " + std::to_string(size) + " bytes, the header alone has " + std::to_string(kPrtHeaderSize));

  std::array<std::uint8_t, kPrtHeaderSize> bytes{};
  read_at(0, bytes.data(), bytes.size());
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
  read_at(offset, out.data(), out.size());
}

void PrtReader::read_at(std::uint64_t offset, std::uint8_t* out, std::size_t size) const {
  std::size_t read = 0;
  const int error = file_.read_at(offset, out, size, read);
  if (error == 0 && read == size) return;
  fail(path_, "cannot read " + std::to_string(size) + " bytes at offset " + std::to_string(offset) + ": " +
                  (error != 0 ? platform::error_text(error) : "the file has become shorter"));
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
