// The whole program against a service on this machine.

#include <chrono>
#include <filesystem>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"
#include "update/test_service.h"

namespace nvo {
namespace {

using nlohmann::json;
using test::Answer;

struct Outcome {
  int code = 0;
  std::string out, err;
};

class UpdateRun : public testing::Test {
 protected:
  static const test::SigningKey& key() {
    static const test::SigningKey made;
    return made;
  }
  static std::string nonce_of(const json& request) { return request.at("client_nonce"); }
  /// Answers with a good manifest and these members in it.
  static test::LoopbackServer::Script manifest_with(const json& changes = json::object()) {
    return [changes](const json& request) {
      json payload = test::good_payload(nonce_of(request));
      payload.update(changes);
      return test::http_answer(key().sign(payload));
    };
  }
  void use(const std::vector<std::string>& origins, int limit_ms = 10'000) {
    const json record = {{"origins", origins},
                         {"download_hosts", {"downloads.example.test"}},
                         {"public_key", key().public_key()},
                         {"ca_file", ca_file},
                         {"limit_ms", limit_ms}};
    test::write_all(dir.file("service.json"), record.dump());
  }
  Outcome rip(const std::string& input, const char* program = NVO_UPDATE_TEST_PROGRAM,
              const std::string& language = "C") const {
    test::ChildProcess child({program, input}, {{"XDG_CONFIG_HOME", dir.file("config")},
                                                {"NVO_UPDATE_TEST_SERVICE", dir.file("service.json")},
                                                {"LC_ALL", language},
                                                {"no_proxy", "*"}});
    const int code = child.wait();
    return {code, child.out(), child.err()};
  }
  std::string art() const {
    const auto pixel = [](std::uint32_t x, std::uint32_t y, std::uint8_t* ink) {
      for (std::uint32_t c = 0; c < 5; ++c) ink[c] = static_cast<std::uint8_t>(x * y * c);
    };
    test::write_tiff(dir.file("art.tif"), test::cmykw_tiff(16, 16, pixel));
    return dir.file("art.tif");
  }
  std::string trace() const { return test::read_all(dir.file("config/NVO_RIP/logs/update_trace.log")); }
  /// Nothing listens there any more.
  std::string dead_origin() const {
    return test::LoopbackServer([](const json&) { return Answer(); }, dir.file("dead.pem")).origin();
  }

  test::TempDir dir;
  std::string ca_file = dir.file("ca.pem");
};

TEST_F(UpdateRun, AnOptionalUpdateIsLoggedAndTheJobGoesOn) {
  json request;
  const auto good = manifest_with();
  std::string origin;
  Outcome outcome;
  {
    const test::LoopbackServer server([&](const json& asked) { return request = asked, good(asked); },
                                      ca_file);
    use({origin = server.origin()});
    outcome = rip(art());
  }
  EXPECT_EQ(outcome.code, 0) << outcome.out;
  EXPECT_NE(outcome.out.find("[INFO ] Pre-RIP guard allowed RIP [allowed]: Pre-RIP policy guard passed. (An "
                             "update is available.)\n"),
            std::string::npos);
  EXPECT_NE(outcome.out.find("[INFO ] Update available: 0.2.0\n"), std::string::npos);
  EXPECT_TRUE(std::filesystem::exists(dir.file("art.prt")));

  EXPECT_EQ(nonce_of(request).size(), 32u);
  EXPECT_EQ(nonce_of(request).find_first_not_of("0123456789abcdef"), std::string::npos);
  request.erase("client_nonce");
  EXPECT_EQ(request, json::parse(R"({"current_version":"0.1.7","channel":"stable","platform":"windows",
                                     "arch":"x64","build_id":"1071"})"));
  const std::string lines = trace();
  EXPECT_NE(lines.find("\",\"stage\":\"update_check_primary_ok\",\"origin\":\"" + origin +
                       "\",\"latest_version\":\"0.2.0\",\"latest_build_id\":\"2000\",\"effective_url\":\"" +
                       origin + "/v1/update/check\"}\n"),
            std::string::npos)
      << lines;
  EXPECT_EQ(lines.rfind("{\"ts\":\"", 0), 0u);
}

TEST_F(UpdateRun, AMandatoryUpdateBlocksAlsoWithoutTheServerUntilTheNewBuildRuns) {
  const std::string input = art();
  const auto is_blocked = [&](const std::string& reason) {
    const Outcome outcome = rip(input);
    const std::string line = "Pre-RIP guard blocked RIP [mandatory_update_required]: " + reason + "\n";
    EXPECT_EQ(outcome.code, 4);
    EXPECT_EQ(outcome.err, "Pre-RIP guard blocked RIP: " + reason + " (mandatory_update_required)\n");
    EXPECT_NE(outcome.out.find("[ERROR] " + line), std::string::npos) << outcome.out;
    EXPECT_FALSE(std::filesystem::exists(dir.file("art.prt")));
  };
  {
    const test::LoopbackServer server(manifest_with({{"mandatory", true}}), ca_file);
    use({server.origin()});
    is_blocked("A mandatory update is required.");
    EXPECT_EQ(rip(input, NVO_UPDATE_TEST_PROGRAM, "ru_RU.UTF-8").err,
              "Pre-RIP guard blocked RIP: A mandatory update is required. (mandatory_update_required)\n"
              "Перед обработкой (RIP) необходимо установить обязательное обновление.\n");
  }
  is_blocked("Update check unavailable, but a mandatory update was previously confirmed.");
  EXPECT_EQ(rip(input, NVO_NEXT_BUILD_TEST_PROGRAM).code, 0);
  EXPECT_TRUE(std::filesystem::remove(dir.file("art.prt")));
  is_blocked("Update check unavailable, but a mandatory update was previously confirmed.");
  const test::LoopbackServer server(manifest_with({{"update_available", false}}), ca_file);
  use({server.origin()});
  EXPECT_EQ(rip(input).code, 0) << "the service took it back";
}

TEST_F(UpdateRun, EveryBadAnswerEndsTheCheckWithItsTextAndNothingElse) {
  const auto good_body = [](const json& request) {
    return key().sign(test::good_payload(nonce_of(request)));
  };
  const auto plain = [](Answer answer) { return [answer](const json&) { return answer; }; };
  const std::string send_failed = "WinHTTP send/receive failed (code=";
  struct Case {
    std::string name;
    test::LoopbackServer::Script script;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"stale", manifest_with({{"issued_at", test::good_payload("", 605)["issued_at"]}}),
       "Signed update manifest is stale"},
      {"future", manifest_with({{"issued_at", test::good_payload("", -330)["issued_at"]}}),
       "Signed update manifest is outside future clock-skew window"},
      {"nonce of another request", manifest_with({{"client_nonce", std::string(32, '0')}}),
       "Signed update manifest nonce mismatch"},
      {"host", manifest_with({{"download_url", "https://127.0.0.1/x"}}),
       "Update download host is not allowed: 127.0.0.1"},
      {"another key",
       [](const json& request) {
         return test::http_answer(test::SigningKey().sign(test::good_payload(nonce_of(request))));
       },
       "Signature verification failed"},
      {"flipped byte",
       [&](const json& request) {
         std::string body = good_body(request);
         body[body.find("0.2.0") + 4] ^= 1;
         return test::http_answer(body);
       },
       "Signature verification failed"},
      {"status", [&](const json& request) { return test::http_answer(good_body(request), "503 Busy"); },
       "HTTP 503"},
      {"no JSON", plain(test::http_answer("<html>Sign in to this network</html>")),
       "JSON root must be an object"},
      {"empty", plain(test::http_answer("")), "JSON root must be an object"},
      {"redirect",
       plain({"HTTP/1.1 302 Found\r\nLocation: https://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n"}),
       "JSON root must be an object"},
      {"too large", plain(test::http_answer(std::string(0x40001, ' '))),
       "Update response exceeds maximum allowed size"},
      {"without end", plain({"HTTP/1.1 200 OK\r\n\r\n" + std::string(0x80000, ' '), true}),
       "Update response exceeds maximum allowed size"},
      {"headers without end",
       plain({"HTTP/1.1 200 OK\r\n" +
                  [] {
                    std::string lines;
                    while (lines.size() < 0x50000) lines += "X: " + std::string(500, 'x') + "\r\n";
                    return lines;
                  }(),
              true}),
       "Update response exceeds maximum allowed size"},
      {"half closed", plain({"HTTP/1.1 200 OK\r\nContent-Length: 900\r\n\r\n{\"payload\":{"}),
       send_failed + "18)"},
      {"closed", plain({}), send_failed + "52)"},
      {"no HTTP", plain({"220 mail.test ESMTP\r\n"}), send_failed + "1)"},
  };
  for (const Case& c : cases) {
    const test::LoopbackServer server(c.script, ca_file);
    use({server.origin()});
    const Outcome outcome = rip(dir.file("none.tif"));
    EXPECT_EQ(outcome.code, 2) << c.name << ": ended by the missing image, not by the check";
    EXPECT_NE(outcome.out.find("[WARN ] Update check unavailable: " + c.error + "\n"), std::string::npos)
        << c.name << ": " << outcome.out;
    EXPECT_EQ(outcome.err, "") << c.name;
  }
}

TEST_F(UpdateRun, SilenceAndAnUnfinishedAnswerEndAtTheLimit) {
  const Answer answers[] = {{"", true}, {"HTTP/1.1 200 OK\r\nContent-Length: 900\r\n\r\n{", true}};
  for (const Answer& answer : answers) {
    const test::LoopbackServer server([&](const json&) { return answer; }, ca_file);
    use({server.origin()}, 500);
    const auto begun = std::chrono::steady_clock::now();
    const Outcome outcome = rip(dir.file("none.tif"));
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(8));
    EXPECT_NE(outcome.out.find("Update check unavailable: WinHTTP send/receive failed (code=28)\n"),
              std::string::npos)
        << outcome.out;
  }
}

TEST_F(UpdateRun, OnlyAnUnreachableOriginLeadsToTheFallback) {
  const test::LoopbackServer good(manifest_with(), ca_file);
  const std::string dead = dead_origin();
  use({dead, good.origin()});
  Outcome outcome = rip(dir.file("none.tif"));
  EXPECT_NE(outcome.out.find("[WARN ] Update check transport failed on origin " + dead +
                             ": WinHTTP send/receive failed (code=7)\n"),
            std::string::npos);
  EXPECT_NE(outcome.out.find("[INFO ] Update check fallback origin succeeded: " + good.origin() + "\n"),
            std::string::npos)
      << outcome.out;
  EXPECT_NE(trace().find("\"update_check_primary_fail\",\"origin\":\"" + dead +
                         "\",\"error\":\"WinHTTP send/receive failed (code=7)\",\"winhttp_error_code\":\"7\","
                         "\"reason\":\"transport failed\"}\n"),
            std::string::npos);
  EXPECT_NE(trace().find("\"update_check_fallback_ok\""), std::string::npos);

  const test::LoopbackServer bad([](const json&) { return test::http_answer("{}"); }, dir.file("bad.pem"));
  use({bad.origin(), good.origin()});
  outcome = rip(dir.file("none.tif"));
  EXPECT_NE(outcome.out.find("[WARN ] Update check transport failed on origin " + bad.origin() +
                             ": WinHTTP send/receive failed (code=60)\n"),
            std::string::npos)
      << "a certificate of an unknown authority";
  EXPECT_NE(outcome.out.find("fallback origin succeeded"), std::string::npos);

  ca_file = dir.file("bad.pem");
  use({bad.origin(), good.origin()});
  outcome = rip(dir.file("none.tif"));
  EXPECT_NE(outcome.out.find("Update check unavailable: Missing payload in signed update manifest\n"),
            std::string::npos);
  EXPECT_NE(
      trace().find("\"http_status\":\"200\",\"parse_error\":\"Missing payload in signed update manifest\","
                   "\"reason\":\"response parse failed\"}\n"),
      std::string::npos);
}

}  // namespace
}  // namespace nvo
