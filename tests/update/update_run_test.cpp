// The whole program against a service on this machine.

#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"
#include "update/test_service.h"

namespace nvo {
namespace {

using nlohmann::json;
using test::LoopbackServer;
using test::manifest_with;
using testing::HasSubstr;

class UpdateRun : public testing::Test {
 protected:
  UpdateRun() { test::write_tiff(dir.file("art.tif"), test::cmykw_tiff(16, 16, {})); }

  /// A server that stays until the next one is started.
  void serve(const test::Script& script) {
    server = std::make_unique<LoopbackServer>(script, dir.file("ca.pem"));
    const json record = {{"origins", {server->url()}},
                         {"download_hosts", {"downloads.example.test"}},
                         {"public_key", test::public_key()},
                         {"ca_file", dir.file("ca.pem")}};
    test::write_all(dir.file("service.json"), record.dump());
  }
  test::Outcome rip(const char* program = NVO_UPDATE_TEST_PROGRAM, const char* language = "C",
                    std::map<std::string, std::string> environment = {}) {
    std::filesystem::remove(dir.file("art.prt"));
    environment.insert({{"XDG_CONFIG_HOME", dir.file("config")},
                        {"NVO_UPDATE_TEST_SERVICE", dir.file("service.json")},
                        {"LC_ALL", language},
                        {"no_proxy", "*"}});
    const auto outcome =
        test::run_to_end({"/usr/bin/timeout", "60", program, dir.file("art.tif")}, environment);
    EXPECT_EQ(std::filesystem::exists(dir.file("art.prt")), outcome.code == 0);
    return outcome;
  }

  test::TempDir dir;
  std::unique_ptr<LoopbackServer> server;
};

TEST_F(UpdateRun, AnOptionalUpdateIsLoggedAndTheJobGoesOn) {
  json request;
  serve([&](const json& asked) { return manifest_with()(request = asked); });
  const std::string origin = server->url();
  test::Outcome outcome = rip();
  server.reset();
  EXPECT_EQ(outcome.code, 0) << outcome.out;
  EXPECT_THAT(outcome.out,
              HasSubstr("[INFO ] Pre-RIP guard allowed RIP [allowed]: Pre-RIP policy guard passed. "
                        "(An update is available.)\n"));
  EXPECT_THAT(outcome.out, HasSubstr("[INFO ] Update available: 0.2.0\n"));

  EXPECT_THAT(request.at("client_nonce").get<std::string>(), testing::MatchesRegex("[0-9a-f]{32}"));
  request.erase("client_nonce");
  EXPECT_EQ(request, json::parse(R"({"current_version":"0.1.7","channel":"stable","platform":"windows",
                                     "arch":"x64","build_id":"1071"})"));
  EXPECT_THAT(
      test::read_all(dir.file("config/NVO_RIP/logs/update_trace.log")),
      testing::MatchesRegex("\\{\"ts\":\"[-0-9]+T[:0-9]+Z\",\"stage\":\"update_check_start\","
                            "\"current_version\":\"0.1.7\",\"build_id\":\"1071\",\"channel\":\"stable\","
                            "\"platform\":\"windows\",\"arch\":\"x64\"\\}\n"
                            "\\{\"ts\":\"[^\"]+\",\"stage\":\"update_check_primary_ok\",\"origin\":\"" +
                            origin +
                            "\",\"latest_version\":\"0.2.0\",\"latest_build_id\":\"2000\","
                            "\"effective_url\":\"" +
                            origin + "/v1/update/check\"\\}\n"));

  outcome = rip();
  EXPECT_EQ(outcome.code, 0) << "without the server";
  EXPECT_THAT(outcome.out,
              HasSubstr("[WARN ] Update check unavailable: WinHTTP send/receive failed (code=7)\n"));
  EXPECT_EQ(outcome.err, "");
}

TEST_F(UpdateRun, AMandatoryUpdateBlocksAlsoWithoutTheServerUntilTheNewBuildRuns) {
  const auto is_blocked = [&](const std::string& reason) {
    const test::Outcome outcome = rip();
    EXPECT_EQ(outcome.code, 4);
    EXPECT_EQ(outcome.err, "Pre-RIP guard blocked RIP: " + reason + " (mandatory_update_required)\n");
    EXPECT_THAT(outcome.out,
                HasSubstr("[ERROR] Pre-RIP guard blocked RIP [mandatory_update_required]: " + reason + "\n"));
  };
  const std::string remembered = "Update check unavailable, but a mandatory update was previously confirmed.";
  serve(manifest_with({{"mandatory", true}}));
  is_blocked("A mandatory update is required.");
  EXPECT_EQ(rip(NVO_UPDATE_TEST_PROGRAM, "ru_RU.UTF-8").err,
            "Pre-RIP guard blocked RIP: A mandatory update is required. (mandatory_update_required)\n"
            "Перед обработкой (RIP) необходимо установить обязательное обновление.\n");
  server.reset();
  is_blocked(remembered);
  EXPECT_EQ(rip(NVO_NEXT_BUILD_TEST_PROGRAM).code, 0);
  is_blocked(remembered);
  serve(manifest_with({{"update_available", false}}));
  EXPECT_EQ(rip().code, 0) << "the service took it back";
}

TEST_F(UpdateRun, TheEnvironmentHasNoSayInTheCheck) {
  test::write_all(dir.file("openssl.cnf"),
                  "openssl_conf = all\n[all]\nssl_conf = ssl\n[ssl]\nsystem_default = tls\n"
                  "[tls]\nMaxProtocol = TLSv1\n");  // with which no connection stands
  serve(manifest_with());
  const test::Outcome outcome = rip(NVO_UPDATE_TEST_PROGRAM, "C",
                                    {{"OPENSSL_CONF", dir.file("openssl.cnf")},
                                     {"OPENSSL_MODULES", dir.file("")},
                                     {"SSLKEYLOGFILE", dir.file("keys")},
                                     {"SSL_CERT_FILE", "/dev/null"}});
  EXPECT_THAT(outcome.out, HasSubstr("[INFO ] Update available: 0.2.0\n"));
  EXPECT_FALSE(std::filesystem::exists(dir.file("keys")));
}

/// Pipes and links stand where the check reads and writes; they are neither waited for nor followed.
TEST_F(UpdateRun, OnlyRegularFilesAreReadOrWritten) {
  const std::string own = dir.file("config/NVO_RIP/"), latch = own + "mandatory_update_latch.json";
  std::filesystem::create_directories(own + "logs");
  ASSERT_EQ(::mkfifo(latch.c_str(), 0600) | ::mkfifo(dir.file("ru.json").c_str(), 0600), 0);
  test::write_all(dir.file("precious"), "");
  std::filesystem::create_symlink(dir.file("precious"), own + "logs/update_trace.log");
  serve(manifest_with({{"mandatory", true}}));
  const auto blocked = [&] {
    return rip(NVO_UPDATE_TEST_PROGRAM, "ru_RU.UTF-8", {{"NVO_UI_LANG_DIR", dir.path()}});
  };
  test::Outcome outcome = blocked();
  EXPECT_EQ(outcome.code, 4);
  EXPECT_THAT(outcome.out, HasSubstr("[ERROR] UpdateManager: ignoring mandatory latch state '" + latch));
  EXPECT_THAT(outcome.err, testing::EndsWith("(mandatory_update_required)\n"));
  EXPECT_EQ(test::read_all(dir.file("precious")), "");

  std::filesystem::remove(own + "logs/update_trace.log");
  ASSERT_EQ(::mkfifo((own + "logs/update_trace.log").c_str(), 0600), 0);
  EXPECT_EQ(blocked().code, 4);
}

}  // namespace
}  // namespace nvo
