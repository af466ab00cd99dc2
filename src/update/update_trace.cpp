#include "update/update_trace.h"

#include <ctime>
#include <exception>

#include <nlohmann/json.hpp>

#include "config/settings_paths.h"
#include "core/platform/append_file.h"
#include "core/platform/clock.h"
#include "core/platform/paths.h"

namespace nvo {
namespace {

using nlohmann::ordered_json;

constexpr const char* kFolder = "logs";
constexpr const char* kFileName = "update_trace.log";

std::filesystem::path make_trace_path() {
  const std::filesystem::path folder = settings_directory() / kFolder;
  std::filesystem::create_directories(folder);
  return folder / kFileName;
}

std::string utc_now() {
  const std::tm time = platform::utc_time(std::time(nullptr));
  char text[32];
  return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &time)};
}

}  // namespace

void UpdateTrace::write(std::string_view stage, const Pairs& pairs) noexcept {
  try {
    append(stage, pairs);
  } catch (const std::exception&) {
  }
}

void UpdateTrace::append(std::string_view stage, const Pairs& pairs) {
  const std::lock_guard lock(mutex_);
  if (path_.empty()) path_ = make_trace_path();
  // A null that becomes an object on the way is left broken where there is no memory for it.
  ordered_json line(ordered_json::value_t::object);
  line["ts"] = utc_now();
  line["stage"] = stage;
  for (const auto& [key, value] : pairs) line[std::string(key)] = value;
  platform::append_to_file(platform::to_utf8(path_),
                           line.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n");
}

}  // namespace nvo
