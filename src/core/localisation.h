#pragma once

#include <array>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace nvo {

/// Languages by number; any other number counts as English.
inline constexpr int kSystemLanguage = 0;
inline constexpr int kEnglish = 1;
inline constexpr int kRussian = 2;
inline constexpr int kFrench = 3;
inline constexpr int kSpanish = 4;
inline constexpr int kChinese = 5;

/// Texts by number. The numbers are those of the table that the graphical front end shares; the rows that
/// only it shows are not built into this program.
enum class TextId : int {
  update_none = 194,
  update_optional_available = 195,
  update_mandatory_required = 196,
  update_mandatory_build_required = 197,
  update_optional_build_available = 198,
  update_check_unavailable = 199,
};

/// Texts in the user's language: the built-in English, overridden by the language files `ru.json`, `fr.json`,
/// `es.json`, `zh.json` and `en.json`, each an object of text keys and texts. They lie in the folder that
/// NVO_UI_LANG_DIR names, or else in `lang` beside the executable. A file is read once, when its language is
/// first wanted; one that is missing or damaged is as good as an empty one. Any thread may ask.
class Localisation {
 public:
  /// The text, or the English one where the language has none; empty for a number without a text.
  std::string text(TextId id, int language);

 private:
  using Store = std::unordered_map<std::string, std::string>;

  /// The language's own text. English takes the place of a missing one, but Russian stays empty.
  std::string own_text(TextId id, int language);
  const Store& store_of(int language);

  std::mutex mutex_;
  std::array<std::optional<Store>, kChinese + 1> stores_;
};

/// The text of the process's one `Localisation`.
std::string tr(TextId id, int language);

}  // namespace nvo
