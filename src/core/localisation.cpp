#include "core/localisation.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <string_view>

#include <nlohmann/json.hpp>

#include "core/file_io.h"
#include "core/platform/environment.h"
#include "core/platform/paths.h"
#include "core/platform/ui_language.h"

namespace nvo {
namespace {

constexpr std::uint64_t kMaxLanguageFileBytes = 1 << 20;

struct Row {
  TextId id;
  const char* key;
  const char* english;
};

constexpr Row kRows[] = {
    {TextId::update_none, "UpdateStatusNoUpdate", "No update available."},
    {TextId::update_optional_available, "UpdateStatusOptionalAvailable", "An update is available."},
    {TextId::update_mandatory_required, "UpdateStatusMandatoryRequired",
     "A mandatory update is required before RIP."},
    {TextId::update_mandatory_build_required, "UpdateStatusMandatoryBuildRequired",
     "A newer build of this version is required."},
    {TextId::update_optional_build_available, "UpdateStatusOptionalBuildAvailable",
     "A newer build of this version is available."},
    {TextId::update_check_unavailable, "UpdateStatusCheckUnavailable",
     "Update check unavailable (non-blocking)."},
};

const Row* find_row(TextId id) {
  const auto* row =
      std::find_if(std::begin(kRows), std::end(kRows), [&](const Row& r) { return r.id == id; });
  return row == std::end(kRows) ? nullptr : row;
}

bool is_known_key(const std::string& key) {
  return std::any_of(std::begin(kRows), std::end(kRows), [&](const Row& row) { return row.key == key; });
}

const char* file_name_of(int language) {
  constexpr const char* kFileNames[] = {"en.json", "en.json", "ru.json", "fr.json", "es.json", "zh.json"};
  return kFileNames[language];
}

std::filesystem::path language_folder() {
  if (const auto folder = platform::environment("NVO_UI_LANG_DIR"); folder && !folder->empty())
    return platform::to_path(*folder);
  return platform::executable_directory() / "lang";
}

int system_language() {
  const std::string code = platform::ui_language();
  if (code == "ru") return kRussian;
  if (code == "fr") return kFrench;
  if (code == "es") return kSpanish;
  if (code == "zh") return kChinese;
  return kEnglish;
}

int resolve_language(int language) {
  if (language == kSystemLanguage) return system_language();
  return language < kEnglish || language > kChinese ? kEnglish : language;
}

std::unordered_map<std::string, std::string> read_texts(int language) {
  const std::string path = platform::to_utf8(language_folder() / file_name_of(language));
  nlohmann::json file;
  std::unordered_map<std::string, std::string> texts;
  try {
    if (!read_json_bounded(path, kMaxLanguageFileBytes, file, nullptr, nullptr) || !file.is_object())
      return texts;
  } catch (const std::system_error&) {  // No run fails for the wording of its messages.
    return texts;
  }
  for (const auto& [key, value] : file.items())
    if (value.is_string() && is_known_key(key)) texts.emplace(key, value.get<std::string>());
  return texts;
}

}  // namespace

std::string Localisation::text(TextId id, int language) {
  language = resolve_language(language);
  std::string found = own_text(id, language);
  return found.empty() && language != kEnglish ? own_text(id, kEnglish) : found;
}

std::string Localisation::own_text(TextId id, int language) {
  const Row* row = find_row(id);
  if (!row) return {};
  const std::lock_guard lock(mutex_);
  const Store& store = store_of(language);
  if (const auto found = store.find(row->key); found != store.end() && !found->second.empty())
    return found->second;
  return language == kRussian ? "" : row->english;
}

const Localisation::Store& Localisation::store_of(int language) {
  auto& store = stores_[static_cast<std::size_t>(language)];
  if (!store) store = read_texts(language);
  return *store;
}

std::string tr(TextId id, int language) {
  static Localisation localisation;
  return localisation.text(id, language);
}

}  // namespace nvo
