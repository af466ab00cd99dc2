#include "core/pixel_spool.h"

#include <system_error>
#include <utility>

#include "core/machine_failure.h"

namespace nvo {

PixelSpool::PixelSpool(std::string path, std::uint64_t bytes)
    : path_(std::move(path)), folder_(platform::temporary_folder()), bytes_(bytes) {
  require(file_.create(folder_), "make");
  const auto room = file_.room();
  if (room && *room < bytes_)
    throw MachineFailure("the pixels of '" + path_ + "' need a temporary file of " + std::to_string(bytes_) +
                         " bytes in '" + folder_ + "' (TMPDIR), which has room for " + std::to_string(*room));
}

void PixelSpool::allocate() {
  require(file_.allocate(bytes_), "make room for");
}

void PixelSpool::append(const void* data, std::size_t size) {
  require(file_.append(data, size), "write");
}

void PixelSpool::read_at(std::uint64_t offset, void* data, std::size_t size) const {
  require(file_.read_at(offset, data, size), "read");
}

/// `what` failed on the file.
void PixelSpool::require(int error, const char* what) const {
  if (error == 0) return;
  throw std::system_error(error, std::generic_category(),
                          std::string("cannot ") + what + " the temporary file in '" + folder_ +
                              "' (TMPDIR), " + std::to_string(bytes_) + " bytes for the pixels of '" + path_ +
                              "'");
}

}  // namespace nvo
