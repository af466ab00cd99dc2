#include "core/localisation.h"

#include <array>
#include <set>
#include <tuple>

#include <gtest/gtest.h>

#include "support/scoped_variable.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

class LocalisationTest : public testing::Test {
 protected:
  void write(const std::string& name, const std::string& content) {
    test::write_all(dir.file(name), content);
  }

  test::TempDir dir;
  test::ScopedVariable folder{"NVO_UI_LANG_DIR", dir.path().c_str()};
};

TEST_F(LocalisationTest, AFileOverridesWhatItHasAndEnglishFillsTheRest) {
  write("ru.json", R"({"UpdateStatusNoUpdate":"r","UpdateStatusOptionalAvailable":"",
                       "updateStatusMandatoryRequired":"wrong case","UpdateStatusCheckUnavailable":7})");
  write("fr.json", R"({"UpdateStatusNoUpdate":"f","UpdateStatusOptionalAvailable":""})");
  write("en.json", R"({"UpdateStatusNoUpdate":"e","UpdateStatusOptionalAvailable":"e2"})");
  const std::tuple<TextId, int, std::string> cases[] = {
      {TextId::update_none, 2, "r"},
      {TextId::update_none, 3, "f"},
      {TextId::update_none, 5, "No update available."},
      {TextId::update_none, 6, "e"},
      {TextId::update_none, -1, "e"},
      {TextId::update_optional_available, 2, "e2"},  // Russian falls back on the English file, others don't
      {TextId::update_optional_available, 3, "An update is available."},
      {TextId::update_mandatory_required, 2, "A mandatory update is required before RIP."},
      {TextId::update_check_unavailable, 2, "Update check unavailable (non-blocking)."},
      {TextId{193}, 1, ""},
  };
  Localisation texts;
  for (const auto& [id, language, expected] : cases)
    EXPECT_EQ(texts.text(id, language), expected) << static_cast<int>(id) << " in " << language;

  write("fr.json", R"({"UpdateStatusNoUpdate":"later"})");
  EXPECT_EQ(texts.text(TextId::update_none, 3), "f") << "read once";
}

TEST_F(LocalisationTest, DamagedFilesCountAsEmpty) {
  const std::string good = R"({"UpdateStatusNoUpdate":"x"})";
  for (const std::string& content :
       {std::string(), good.substr(1), "[" + good + "]", good + std::string(1 << 20, ' ')}) {
    write("es.json", content);
    EXPECT_EQ(Localisation().text(TextId::update_none, 4), "No update available.") << content.size();
  }
}

TEST_F(LocalisationTest, TheSystemLanguageIsTheFirstThatTheEnvironmentNames) {
  for (const char* name : {"en", "ru", "fr", "es", "zh"})
    write(name + std::string(".json"), "{\"UpdateStatusNoUpdate\":\"" + std::string(name) + "\"}");
  const std::array<const char*, 4> cases[] = {
      {"", "", "", "en"},      {"zh_CN.UTF-8", "fr", "es", "zh"}, {"", "fr@euro", "es", "fr"},
      {"", "", "es-MX", "es"}, {"C", "ru", "ru", "en"},           {"", "", "RU_ru", "ru"},
      {"rus", "", "zh", "en"}, {"", "de_DE.UTF-8", "fr", "en"},
  };
  for (const auto& [all, messages, lang, language] : cases) {
    const test::ScopedVariable first("LC_ALL", all), second("LC_MESSAGES", messages), third("LANG", lang);
    EXPECT_EQ(Localisation().text(TextId::update_none, 0), language) << all << messages << lang;
  }
}

TEST_F(LocalisationTest, TheShippedLanguagesSayEverythingInTheirOwnWords) {
  for (const char* languages : {NVO_LANGUAGE_FILES, ""}) {  // without a folder: those beside the executable
    const test::ScopedVariable used("NVO_UI_LANG_DIR", languages);
    Localisation texts;
    for (int id = 194; id <= 199; ++id) {
      std::set<std::string> different;
      for (int language = 1; language <= 5; ++language) different.insert(texts.text(TextId{id}, language));
      EXPECT_EQ(different.size(), 5u) << id;
    }
  }
}

}  // namespace
}  // namespace nvo
