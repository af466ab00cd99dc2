#include "config/settings_keys.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include <nlohmann/json.hpp>

#include "core/file_io.h"
#include "core/log.h"
#include "core/machine_failure.h"
#include "core/platform/file.h"
#include "core/platform/input_file.h"
#include "core/platform/paths.h"
#include "core/text.h"

namespace nvo {
namespace {

using nlohmann::json;

constexpr std::size_t kMostUnknownKeys = 16;   ///< named for one file
constexpr std::size_t kLongestShownKey = 80;   ///< bytes
constexpr std::size_t kLongestLikeKey = 64;    ///< bytes; longer ones resemble nothing
constexpr std::size_t kLettersPerMistake = 4;  ///< of a key, for each letter that may be wrong
constexpr std::size_t kMostMistakes = 3;

struct FileNames {
  SettingsFile file;
  const char* prefix;  ///< of log lines
  const char* name;
};
constexpr FileNames kFiles[] = {{SettingsFile::rip, "RipSettings", "settings.json"},
                                {SettingsFile::job, "JobSettings", "job_settings.json"},
                                {SettingsFile::icc, "IccSettings", "icc_settings.json"}};

const FileNames& names_of(SettingsFile file) {
  return kFiles[static_cast<std::size_t>(file)];
}

/// A dotted path as the object that holds the key and the key.
struct KeyPath {
  std::string_view object, key;

  explicit KeyPath(std::string_view path) : key(path) {
    if (const auto dot = path.rfind('.'); dot != std::string_view::npos) {
      object = path.substr(0, dot);
      key = path.substr(dot + 1);
    }
  }
};

/// Letters to insert, drop, replace or swap with their neighbour to make one text the other.
std::size_t edit_distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> before_last, last, row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    before_last = std::move(last);
    last = row;
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (a[i - 1] != b[j - 1])});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) row[j] = std::min(row[j], before_last[j - 2] + 1);
    }
  }
  return row.back();
}

struct Candidate {
  SettingsFile file;
  const std::string* path;
  std::size_t cost;
};

/// A slip of the pen costs more than the wrong file, and that more than the wrong object of the right file.
constexpr std::size_t kMistakeCost = 4, kFileCost = 2, kObjectCost = 1;

std::optional<Candidate> nearest_key(SettingsFile file, std::string_view object, std::string_view key) {
  if (key.size() > kLongestLikeKey) return std::nullopt;
  const std::string token = normalize_token(key);
  const std::size_t allowed = std::min(token.size() / kLettersPerMistake, kMostMistakes);
  std::optional<Candidate> nearest;
  for (const FileNames& names : kFiles) {
    for (const std::string& path : settings_keys(names.file)) {
      const KeyPath known(path);
      const bool same_object = known.object == object;
      if (names.file != file && !same_object) continue;
      const std::size_t mistakes =
          std::min(edit_distance(token, normalize_token(known.key)),
                   edit_distance(token, normalize_token(path)));  // a path where a key should stand
      if (mistakes > allowed) continue;
      const std::size_t cost =
          mistakes * kMistakeCost + (names.file != file ? kFileCost : 0) + (same_object ? 0 : kObjectCost);
      if (!nearest || cost < nearest->cost) nearest = Candidate{names.file, &path, cost};
    }
  }
  return nearest;
}

std::string shown(std::string_view key) {
  if (key.size() <= kLongestShownKey) return std::string(key);
  std::size_t end = kLongestShownKey;
  while (end > 0 && (static_cast<unsigned char>(key[end]) & 0xC0) == 0x80) --end;  // inside a character
  return std::string(key.substr(0, end)) + "...";
}

std::string advice(SettingsFile file, std::string_view object, std::string_view key) {
  const std::optional<Candidate> nearest = nearest_key(file, object, key);
  if (!nearest) return {};
  const char* const other = names_of(nearest->file).name;
  if (nearest->file == file) return "; did you mean '" + *nearest->path + "'?";
  if (KeyPath(*nearest->path).key == key) return std::string("; it belongs to ") + other;
  return "; did you mean '" + *nearest->path + "' of " + other + "?";
}

/// Walks the objects that are known as such, so that the file decides neither how deep nor how far.
class UnknownKeys {
 public:
  UnknownKeys(SettingsFile file, const std::string& path)
      : file_(file), path_(path), known_(settings_keys(file)) {}

  void look_into(const json& object, const std::string& object_path) {
    for (const auto& [key, value] : object.items()) {
      const std::string path = object_path.empty() ? key : object_path + "." + key;
      if (key.find('.') != std::string::npos || std::ranges::find(known_, path) == known_.end())
        tell(object_path, key);
      else if (value.is_object() && holds_keys(path))
        look_into(value, path);
    }
  }

  void tell_rest() const {
    if (count_ > kMostUnknownKeys)
      log_warn(names_of(file_).prefix, ": ", count_ - kMostUnknownKeys, " more unknown keys in '", path_,
               "' are ignored");
  }

 private:
  bool holds_keys(const std::string& path) const {
    return std::ranges::any_of(known_, [&](const std::string& key) { return key.starts_with(path + "."); });
  }

  void tell(const std::string& object, const std::string& key) {
    if (++count_ > kMostUnknownKeys) return;
    log_warn(names_of(file_).prefix, ": unknown key '", shown(object.empty() ? key : object + "." + key),
             "' in '", path_, "' is ignored", advice(file_, object, key));
  }

  const SettingsFile file_;
  const std::string& path_;
  const std::vector<std::string>& known_;
  std::size_t count_ = 0;
};

}  // namespace

const std::vector<std::string>& settings_keys(SettingsFile file) {
  static const std::array<std::vector<std::string>, 3> keys = {rip_settings_keys(), job_settings_keys(),
                                                               icc_settings_keys()};
  return keys[static_cast<std::size_t>(file)];
}

void warn_of_unknown_keys(SettingsFile file, const json& document, const std::string& path) {
  if (!document.is_object()) return;
  UnknownKeys unknown(file, path);
  unknown.look_into(document, "");
  unknown.tell_rest();
}

void warn_if_out_of_sight(const std::string& path) {
  const int error = path_error(path);
  if (error == 0) return;
  if (!platform::tells_of_path(error)) fail_on_file("look at", path, error);
  const std::string folder = platform::to_utf8(platform::to_path(path).parent_path());
  if (path_error(folder + "/.") != 0)
    log_warn("Settings: cannot enter the folder '", folder, "': ", platform::error_text(error),
             "; the settings files in it are not read, this job prints with defaults");
  else
    log_warn("Settings: cannot look at '", path, "': ", platform::error_text(error),
             "; this job prints without the settings in it");
}

}  // namespace nvo
