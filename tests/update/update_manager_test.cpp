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
  result.ok = true;
  result.update_available = available, result.mandatory = mandatory;
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
  const std::string none = "No update available.", one = "An update is available.",
                    build = "A newer build of this version is available.",
                    needed_build = "A newer build of this version is required.";
  const std::tuple<UpdateCheckResult, UpdateState, UpdateLevel, std::string, std::string> cases[] = {
      {offer(false, false), State::none, UpdateLevel::none, none, none},
      {offer(false, true), State::none, UpdateLevel::none, none, none},
      {offer(true, false), State::optional, UpdateLevel::optional, one, one},
      {offer(true, true), State::mandatory, UpdateLevel::mandatory, "A mandatory update is required.",
       "A mandatory update is required before RIP."},
      {offer(true, false, "0.1.7.0"), State::optional, UpdateLevel::optional, build, build},
      {offer(true, true, "0.1.7"), State::mandatory, UpdateLevel::mandatory, needed_build, needed_build},
      {offer(true, false, "0.1.6"), State::optional, UpdateLevel::none, none, one},
      {failure("x"), State::unavailable, UpdateLevel::none, "Update check unavailable.",
       "Update check unavailable (non-blocking)."},
  };
  for (const auto& [result, state, level, message, status_line] : cases) {
    std::filesystem::remove(latch());
    UpdateManager manager(kIdentity, [answer = result](const UpdateCheckRequest&) { return answer; });
    const UpdateDecision decision = manager.check();
    EXPECT_EQ(decision.allowed, state != State::mandatory) << message;
    EXPECT_EQ(decision.state, state) << message;
    EXPECT_EQ(decision.availability_level, level) << message;
    EXPECT_EQ(decision.message, message);
    EXPECT_EQ(update_status_text(decision, 1), status_line);
    EXPECT_EQ(std::filesystem::exists(latch()), result.ok) << "only an answer touches the latch";
  }
}

TEST_F(UpdateManagerTest, AConfirmedMandatoryUpdateBlocksItsBuildUntilAnAnswerClearsIt) {
  EXPECT_TRUE(guard(failure("no route")).allowed);
  EXPECT_FALSE(guard(offer(true, true)).allowed);
  EXPECT_EQ(
      log.take(),
      (std::vector<std::string>{
          "[INFO ] Pre-RIP guard allowed RIP [allowed]: Pre-RIP policy guard passed. (no route)",
          "[INFO ] Pre-RIP guard blocked RIP [mandatory_update_required]: A mandatory update is required."}));
  const GuardOutcome offline = guard(failure("no route"));
  EXPECT_FALSE(offline.allowed);
  EXPECT_EQ(offline.code, "mandatory_update_required");
  EXPECT_EQ(offline.message, "Update check unavailable, but a mandatory update was previously confirmed.");

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
  for (const std::string& content :
       {std::string(), good.substr(0, good.size() / 2), std::string("[true]"), huge}) {
    test::write_all(latch(), content);
    log.take();
    EXPECT_TRUE(guard(failure("")).allowed);
    EXPECT_EQ(log.count("[ERROR] UpdateManager: ignoring mandatory latch state '" + latch() + "': "), 1u);
  }
  nlohmann::json odd = nlohmann::json::parse(good);
  odd["mandatory_latched"] = "true";
  odd["arch"] = 64;
  test::write_all(latch(), odd.dump());
  log.take();
  EXPECT_TRUE(guard(failure("")).allowed);
  EXPECT_FALSE(log.contains("[ERROR]"));
}

TEST_F(UpdateManagerTest, ALatchThatCannotBeSavedChangesNoDecision) {
  std::filesystem::create_directories(latch() + "/in the way");
  EXPECT_FALSE(guard(offer(true, true)).allowed);
  EXPECT_EQ(log.count("[ERROR] UpdateManager: cannot save mandatory latch state '" + latch() + "': "), 1u);
}

TEST_F(UpdateManagerTest, TheLastGoodResultSurvivesLaterFailures) {
  UpdateCheckResult next = failure("first");
  UpdateManager manager(kIdentity, [&](const UpdateCheckRequest&) { return next; });
  manager.check();
  EXPECT_EQ(manager.last_good_result()->error, "first");
  next = offer(true, false);
  manager.check();
  next = failure("later");
  manager.check();
  EXPECT_TRUE(manager.last_good_result()->ok);
  EXPECT_EQ(manager.last_decision()->result.error, "later");
}

}  // namespace
}  // namespace nvo
