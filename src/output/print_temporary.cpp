#include "output/print_temporary.h"

#include <charconv>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "core/atomic_file.h"
#include "core/platform/clock.h"
#include "core/platform/file.h"
#include "core/platform/paths.h"

namespace nvo {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kMark = ".nvo_tmp_";

/// Takes a decimal number off the front of a text.
bool take_number(std::string_view& text, unsigned long& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || (text[0] == '0' && end - text.data() > 1)) return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return true;
}

/// Whether `rest` is what stands behind the mark, and by which process.
bool is_ending(std::string_view rest, unsigned long& process) {
  unsigned long clock = 0, attempt = 0;
  const auto take_bar = [&] {
    if (!rest.starts_with('_')) return false;
    rest.remove_prefix(1);
    return true;
  };
  return take_number(rest, process) && take_bar() && take_number(rest, clock) && take_bar() &&
         take_number(rest, attempt) && rest.empty();
}

}  // namespace

std::string print_temporary_path(const std::string& target, int attempt) {
  return path_beside(target, std::string(kMark) + std::to_string(platform::process_id()) + "_" +
                                 std::to_string(platform::monotonic_nanoseconds()) + "_" +
                                 std::to_string(attempt));
}

std::vector<std::string> remove_abandoned_prints(const std::string& target) {
  const fs::path beginning = platform::to_path(path_beside(target, kMark));
  const std::string name = platform::to_utf8(beginning.filename());
  const fs::path folder = beginning.has_parent_path() ? beginning.parent_path() : fs::path(".");
  std::vector<std::string> removed;
  for (const std::string& found : platform::names_in_folder(platform::to_utf8(folder), name)) {
    unsigned long process = 0;
    if (!is_ending(std::string_view(found).substr(name.size()), process)) continue;
    const std::string path = platform::to_utf8(folder / platform::to_path(found));
    if (!platform::may_be_alive(process) && platform::remove_if_unlocked(path)) removed.push_back(path);
  }
  return removed;
}

}  // namespace nvo
