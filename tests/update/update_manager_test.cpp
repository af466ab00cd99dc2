#include "update/update_manager.h"

#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

const UpdateIdentity kIdentity = {"0.1.7", "1071", "stable", "windows", "x64"};

UpdateCheckResult offer(bool available, bool mandatory, const std::string& version = "0.2") {
  UpdateCheckResult result;
  result.ok = true, result.update_available = available, result.mandatory = mandatory;
  result.latest_version = version, result.latest_build_id = "2000";
  return result;
}
UpdateCheckResult failure(const std::string& error) {
  UpdateCheckResult result;
  result.error = error;
  return result;
}

class UpdateManagerTest : public testing::Test {
 protected:
  UpdateManagerTest() { ::setenv("XDG_CONFIG_HOME", dir.path().c_str(), 1); }

  GuardOutcome guard(const UpdateCheckResult& result, const UpdateIdentity& identity = kIdentity) {
    return UpdateManager(identity, [&](const UpdateCheckRequest&) { return result; }).guard();
  }
  std::string latch() const { return dir.file("NVO_RIP/mandatory_update_latch.json"); }

  test::TempDir dir;
  test::LogCapture log;
};

TEST_F(UpdateManagerTest, AnAnswerDecidesByItsFlagsAndSaysWhatItOffers) {
  using State = UpdateState;
  using Level = UpdateLevel;
  const std::string none = "No update available.", one = "An update is available.",
                    build = "A newer build of this version is available.",
                    needed_build = "A newer build of this version is required.";
  const std::tuple<UpdateCheckResult, State, Level, std::string, std::string> cases[] = {
      {offer(false, true), State::none, Level::none, none, none},
      {offer(true, false), State::optional, Level::optional, one, one},
      {offer(true, true), State::mandatory, Level::mandatory, "A mandatory update is required.",
       "A mandatory update is required before RIP."},
      {offer(true, false, "0.1.7.0"), State::optional, Level::optional, build, build},
      {offer(true, true, "0.1.7"), State::mandatory, Level::mandatory, needed_build, needed_build},
      {offer(true, false, "0.1.6"), State::optional, Level::none, none, one},
      {failure("x"), State::unavailable, Level::none, "Update check unavailable.",
       "Update check unavailable (non-blocking)."},
  };
  for (const auto& [result, state, level, message, status_line] : cases) {
    std::filesystem::remove(latch());
    UpdateManager manager(kIdentity, [answer = result](const UpdateCheckRequest&) { return answer; });
    const UpdateDecision decision = manager.check();
    EXPECT_EQ(std::tuple(decision.allowed, decision.state, decision.availability_level, decision.message),
              std::tuple(state != State::mandatory, state, level, message));
    EXPECT_EQ(update_status_text(decision, 1), status_line);
    EXPECT_EQ(std::filesystem::exists(latch()), result.ok) << "only an answer touches the latch";
  }
}

TEST_F(UpdateManagerTest, AConfirmedMandatoryUpdateBlocksItsBuildUntilAnAnswerClearsIt) {
  EXPECT_TRUE(guard(failure("no route")).allowed);
  EXPECT_FALSE(guard(offer(true, true)).allowed);
  EXPECT_EQ(log.take().front(),
            "[INFO ] Pre-RIP guard allowed RIP [allowed]: Pre-RIP policy guard passed. (no route)");
  for (std::string UpdateIdentity::*field :
       {&UpdateIdentity::current_version, &UpdateIdentity::current_build_id, &UpdateIdentity::channel,
        &UpdateIdentity::platform, &UpdateIdentity::arch}) {
    UpdateIdentity other = kIdentity;
    other.*field = "other";
    EXPECT_TRUE(guard(failure(""), other).allowed);
  }
  EXPECT_FALSE(guard(failure("")).allowed) << "a failed check leaves the latch alone";
  EXPECT_TRUE(guard(offer(false, false)).allowed);
  EXPECT_TRUE(guard(failure("")).allowed);
}

TEST_F(UpdateManagerTest, ADamagedLatchIsReportedAndIgnored) {
  guard(offer(true, true));
  const std::string good = test::read_all(latch());
  const std::string huge = good + std::string(0x10001, ' ');
  nlohmann::json odd = nlohmann::json::parse(good), foreign = odd;
  odd["mandatory_latched"] = "true";
  foreign["arch"] = 64;
  const std::pair<std::string, bool> cases[] = {
      {"", true},          {good.substr(0, good.size() / 2), true},
      {"[true]", true},    {huge, true},
      {odd.dump(), false}, {foreign.dump(), false},
  };
  for (const auto& [content, is_reported] : cases) {
    test::write_all(latch(), content);
    log.take();
    EXPECT_TRUE(guard(failure("")).allowed) << content.substr(0, 200);
    EXPECT_EQ(log.contains("[ERROR] UpdateManager: ignoring mandatory latch state '" + latch() + "': "),
              is_reported);
  }
}

TEST_F(UpdateManagerTest, ALatchThatCannotBeSavedChangesNoDecision) {
  std::filesystem::create_directories(latch() + "/in the way");
  EXPECT_FALSE(guard(offer(true, true)).allowed);
  EXPECT_EQ(log.count("[ERROR] Atomic write: cannot put in place '" + latch() + "' ("), 1u);
  EXPECT_EQ(log.count("[ERROR] UpdateManager: cannot save mandatory latch state '" + latch() + "': "), 1u);
}

TEST_F(UpdateManagerTest, TheLastGoodResultSurvivesLaterFailures) {
  UpdateCheckResult next;
  UpdateManager manager(kIdentity, [&](const UpdateCheckRequest&) { return next; });
  for (const UpdateCheckResult& result : {failure("first"), offer(true, false), failure("later")}) {
    next = result;
    manager.check();
    EXPECT_EQ(manager.last_good_result()->error, result.error == "first" ? "first" : "");
    EXPECT_EQ(manager.last_decision()->result.error, result.error);
  }
}

}  // namespace
}  // namespace nvo
