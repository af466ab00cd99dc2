// The whole program against a service on this machine.

#include <chrono>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"
#include "update/test_service.h"

namespace nvo {
namespace {

using nlohmann::json;
using test::Answer;
using test::LoopbackServer;
using testing::HasSubstr;
using Variables = std::map<std::string, std::string>;

const std::string kFailed = "WinHTTP send/receive failed (code=";

struct Outcome : test::Outcome {
  std::chrono::nanoseconds took{};

  /// Why the check failed, as the log has it.
  std::string failure() const {
    const std::string start = "[WARN ] Update check unavailable: ";
    const auto at = out.find(start);
    if (at == std::string::npos) return {};
    return out.substr(at + start.size(), out.find('\n', at) - at - start.size());
  }
};

const test::SigningKey& key() {
  static const test::SigningKey made;
  return made;
}

std::string signed_answer(const json& request, const json& changes = json::object()) {
  json payload = test::good_payload(request.at("client_nonce"));
  payload.update(changes);
  return key().sign(payload);
}

/// Answers with a good manifest and these members in it.
LoopbackServer::Script manifest_with(const json& changes = json::object()) {
  return [changes](const json& request) { return test::http_answer(signed_answer(request, changes)); };
}
LoopbackServer::Script always(const Answer& answer) {
  return [answer](const json&) { return answer; };
}

class UpdateRun : public testing::Test {
 protected:
  void use(const std::vector<std::string>& origins, int limit_ms = 10'000) {
    const json record = {{"origins", origins},
                         {"download_hosts", {"downloads.example.test"}},
                         {"public_key", key().public_key()},
                         {"ca_file", ca_file},
                         {"limit_ms", limit_ms}};
    test::write_all(dir.file("service.json"), record.dump());
  }
  Outcome rip(const std::string& input, Variables environment = {},
              const char* program = NVO_UPDATE_TEST_PROGRAM) const {
    environment.insert({{"XDG_CONFIG_HOME", dir.file("config")},
                        {"NVO_UPDATE_TEST_SERVICE", dir.file("service.json")},
                        {"LC_ALL", "C"},
                        {"no_proxy", "*"}});
    const auto begun = std::chrono::steady_clock::now();
    const test::Outcome outcome = test::run_to_end({program, input}, environment);
    return {outcome, std::chrono::steady_clock::now() - begun};
  }
  /// A run without an image, which ends behind the check.
  Outcome check(const std::vector<std::string>& origins, int limit_ms = 10'000,
                const Variables& environment = {}) {
    use(origins, limit_ms);
    Outcome outcome = rip(dir.file("none.tif"), environment);
    EXPECT_EQ(outcome.code, 2) << outcome.out << outcome.err;
    return outcome;
  }
  std::string art() const {
    test::write_tiff(dir.file("art.tif"), test::cmykw_tiff(16, 16, {}));
    return dir.file("art.tif");
  }
  std::string trace() const { return test::read_all(dir.file("config/NVO_RIP/logs/update_trace.log")); }
  /// Nothing listens there any more.
  static std::string dead_port() { return test::Listener().port(); }

  test::TempDir dir;
  std::string ca_file = dir.file("ca.pem");
};

TEST_F(UpdateRun, AnOptionalUpdateIsLoggedAndTheJobGoesOn) {
  json request;
  std::string origin;
  Outcome outcome;
  {
    const auto keep_request = [&](const json& asked) {
      request = asked;
      return test::http_answer(signed_answer(asked));
    };
    const LoopbackServer server(keep_request, ca_file);
    use({origin = server.origin()});
    outcome = rip(art());
  }
  EXPECT_EQ(outcome.code, 0) << outcome.out;
  EXPECT_THAT(outcome.out,
              HasSubstr("[INFO ] Pre-RIP guard allowed RIP [allowed]: Pre-RIP policy guard passed. "
                        "(An update is available.)\n"));
  EXPECT_THAT(outcome.out, HasSubstr("[INFO ] Update available: 0.2.0\n"));
  EXPECT_TRUE(std::filesystem::exists(dir.file("art.prt")));

  EXPECT_THAT(request.at("client_nonce").get<std::string>(), testing::MatchesRegex("[0-9a-f]{32}"));
  request.erase("client_nonce");
  EXPECT_EQ(request, json::parse(R"({"current_version":"0.1.7","channel":"stable","platform":"windows",
                                     "arch":"x64","build_id":"1071"})"));
  EXPECT_THAT(trace(), testing::StartsWith("{\"ts\":\""));
  EXPECT_THAT(trace(),
              HasSubstr("Z\",\"stage\":\"update_check_start\",\"current_version\":\"0.1.7\",\"build_id\":"
                        "\"1071\",\"channel\":\"stable\",\"platform\":\"windows\",\"arch\":\"x64\"}\n"));
  EXPECT_THAT(trace(),
              HasSubstr("\",\"stage\":\"update_check_primary_ok\",\"origin\":\"" + origin +
                        "\",\"latest_version\":\"0.2.0\",\"latest_build_id\":\"2000\",\"effective_url\":\"" +
                        origin + "/v1/update/check\"}\n"));
}

TEST_F(UpdateRun, AMandatoryUpdateBlocksAlsoWithoutTheServerUntilTheNewBuildRuns) {
  const std::string input = art();
  const auto is_blocked = [&](const std::string& reason) {
    const Outcome outcome = rip(input);
    EXPECT_EQ(outcome.code, 4);
    EXPECT_EQ(outcome.err, "Pre-RIP guard blocked RIP: " + reason + " (mandatory_update_required)\n");
    EXPECT_THAT(outcome.out,
                HasSubstr("[ERROR] Pre-RIP guard blocked RIP [mandatory_update_required]: " + reason + "\n"));
    EXPECT_FALSE(std::filesystem::exists(dir.file("art.prt")));
  };
  const std::string remembered = "Update check unavailable, but a mandatory update was previously confirmed.";
  {
    const LoopbackServer server(manifest_with({{"mandatory", true}}), ca_file);
    use({server.origin()});
    is_blocked("A mandatory update is required.");
    EXPECT_EQ(rip(input, {{"LC_ALL", "ru_RU.UTF-8"}}).err,
              "Pre-RIP guard blocked RIP: A mandatory update is required. (mandatory_update_required)\n"
              "Перед обработкой (RIP) необходимо установить обязательное обновление.\n");
  }
  is_blocked(remembered);
  EXPECT_EQ(rip(input, {}, NVO_NEXT_BUILD_TEST_PROGRAM).code, 0);
  EXPECT_TRUE(std::filesystem::remove(dir.file("art.prt")));
  is_blocked(remembered);
  const LoopbackServer server(manifest_with({{"update_available", false}}), ca_file);
  use({server.origin()});
  EXPECT_EQ(rip(input).code, 0) << "the service took it back";
}

TEST_F(UpdateRun, EveryBadAnswerEndsTheCheckWithItsTextAndNothingElse) {
  const std::string too_large = "Update response exceeds maximum allowed size", ok = "HTTP/1.1 200 OK\r\n";
  const auto by_another_key = [](const json& request) {
    return test::http_answer(test::SigningKey().sign(test::good_payload(request.at("client_nonce"))));
  };
  const auto with_flipped_byte = [](const json& request) {
    std::string body = signed_answer(request);
    body[body.find("0.2.0") + 4] ^= 1;
    return test::http_answer(body);
  };
  const auto busy = [](const json& request) { return test::http_answer(signed_answer(request), "503 Busy"); };
  std::string endless_headers = ok;
  while (endless_headers.size() < 0x50000) endless_headers += "X: " + std::string(500, 'x') + "\r\n";
  const std::vector<std::pair<LoopbackServer::Script, std::string>> cases = {
      {manifest_with({{"issued_at", test::good_payload("", 605)["issued_at"]}}),
       "Signed update manifest is stale"},
      {manifest_with({{"issued_at", test::good_payload("", -330)["issued_at"]}}),
       "Signed update manifest is outside future clock-skew window"},
      {manifest_with({{"client_nonce", std::string(32, '0')}}), "Signed update manifest nonce mismatch"},
      {manifest_with({{"download_url", "https://127.0.0.1/x"}}),
       "Update download host is not allowed: 127.0.0.1"},
      {by_another_key, "Signature verification failed"},
      {with_flipped_byte, "Signature verification failed"},
      {busy, "HTTP 503"},
      {always(test::http_answer("<html>Sign in to this network</html>")), "JSON root must be an object"},
      {always(test::http_answer("")), "JSON root must be an object"},
      {always({"HTTP/1.1 302 Found\r\nLocation: https://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n"}),
       "JSON root must be an object"},
      {always(test::http_answer(std::string(0x40001, ' '))), too_large},
      {always({ok + "\r\n" + std::string(0x80000, ' '), Answer::hold}), too_large},
      {always({endless_headers, Answer::hold}), too_large},
      {always({ok + "Content-Length: 900\r\n\r\n{\"payload\":{"}), kFailed + "18)"},
      {always({}), kFailed + "52)"},
      {always({"220 mail.test ESMTP\r\n"}), kFailed + "1)"},
  };
  for (const auto& [script, text] : cases) {
    const LoopbackServer server(script, ca_file);
    const Outcome outcome = check({server.origin()});
    EXPECT_EQ(outcome.failure(), text) << &text - &cases[0].second;
    EXPECT_EQ(outcome.err, "");
  }
}

TEST_F(UpdateRun, NobodyHoldsTheRunBeyondTheLimits) {
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  for (const Answer& answer :
       {Answer{"", Answer::hold}, Answer{ok + "Content-Length: 900\r\n\r\n{", Answer::hold},
        Answer{ok + "\r\n", Answer::trickle}, Answer{ok + "X: ", Answer::trickle}}) {
    const LoopbackServer server(always(answer), ca_file);
    const Outcome outcome = check({server.origin()}, 400);
    EXPECT_EQ(outcome.failure(), kFailed + "28)") << answer.bytes;
    EXPECT_LT(outcome.took, std::chrono::seconds(8)) << answer.bytes;
  }
  test::Listener listener;
  for (const char* name : {"without TLS", "without a connection"}) {
    const Outcome outcome = check({"https://127.0.0.1:" + listener.port()}, 400);
    EXPECT_EQ(outcome.failure(), kFailed + "28)") << name;
    EXPECT_LT(outcome.took, std::chrono::seconds(8)) << name;
    listener.fall_silent();
  }
}

TEST_F(UpdateRun, OnlyAnUnreachableOriginLeadsToTheFallback) {
  const LoopbackServer good(manifest_with(), ca_file);
  const std::string dead = "https://127.0.0.1:" + dead_port();
  EXPECT_THAT(
      check({dead, good.origin()}).out,
      testing::AllOf(
          HasSubstr("[WARN ] Update check transport failed on origin " + dead + ": " + kFailed + "7)\n"),
          HasSubstr("[INFO ] Update check fallback origin succeeded: " + good.origin() + "\n")));
  EXPECT_THAT(trace(),
              HasSubstr("\"update_check_primary_fail\",\"origin\":\"" + dead + "\",\"error\":\"" + kFailed +
                        "7)\",\"winhttp_error_code\":\"7\",\"reason\":\"transport failed\"}\n"));
  EXPECT_THAT(trace(), HasSubstr("\"update_check_fallback_ok\""));

  const LoopbackServer bad(always(test::http_answer("{}")), dir.file("bad.pem"));
  ca_file = dir.file("bad.pem");
  EXPECT_EQ(check({bad.origin(), good.origin()}).failure(), "Missing payload in signed update manifest");
  EXPECT_THAT(trace(), HasSubstr("\"http_status\":\"200\",\"parse_error\":\"Missing payload in signed update "
                                 "manifest\",\"reason\":\"response parse failed\"}\n"));
}

TEST_F(UpdateRun, AServerIsKnownByItsCertificate) {
  const auto failure_with = [&](const test::ServerTerms& terms, const std::string& file,
                                const std::string& host) {
    const LoopbackServer server(manifest_with(), file, terms);
    return check({server.origin(host)}).failure();
  };
  test::ServerTerms other_name, expired;
  other_name.names = "DNS:service.test,IP:127.0.0.2";
  expired.authority_has_expired = true;
  EXPECT_EQ(failure_with({}, ca_file, "127.0.0.1"), "");
  EXPECT_EQ(failure_with(other_name, ca_file, "127.0.0.1"), kFailed + "60)");
  EXPECT_EQ(failure_with(expired, ca_file, "127.0.0.1"), kFailed + "60)");
  EXPECT_EQ(failure_with({}, dir.file("unknown.pem"), "127.0.0.1"), kFailed + "60)");
  try {
    test::Listener("::1");
  } catch (const std::exception&) {
    GTEST_SKIP() << "no IPv6 on this machine";
  }
  test::ServerTerms v6;
  v6.address = "::1";
  EXPECT_EQ(failure_with(v6, ca_file, "[::1]"), "");
}

TEST_F(UpdateRun, AProxyOfTheSystemIsUsedButNotTrusted) {
  const auto failure_behind = [&](const Answer& as_proxy, const char* names) {
    test::ServerTerms terms;
    terms.as_proxy = as_proxy;
    terms.names = names;
    const LoopbackServer server(manifest_with(), ca_file, terms);
    return check({"https://service.test"}, as_proxy.then == Answer::trickle ? 400 : 10'000,
                 {{"https_proxy", "http://127.0.0.1:" + server.port()}, {"no_proxy", "nobody.test"}})
        .failure();
  };
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  EXPECT_EQ(failure_behind({ok + "\r\n"}, "DNS:service.test"), "");
  EXPECT_EQ(failure_behind({ok + "\r\n"}, "DNS:proxy.test"), kFailed + "60)")
      << "it answers in the service's place";
  EXPECT_EQ(failure_behind({"HTTP/1.1 407 No\r\n\r\n"}, "DNS:service.test"), kFailed + "56)");
  EXPECT_EQ(failure_behind({ok + "X: ", Answer::trickle}, "DNS:service.test"), kFailed + "28)");

  const test::Listener silent;
  const LoopbackServer server(manifest_with(), ca_file);
  const auto failure_past = [&](const std::string& port, const std::string& exception, int limit_ms) {
    return check({server.origin()}, limit_ms,
                 {{"https_proxy", "http://127.0.0.1:" + port}, {"no_proxy", exception}})
        .failure();
  };
  EXPECT_EQ(failure_past(silent.port(), "nobody.test", 400), kFailed + "28)");
  EXPECT_EQ(failure_past(dead_port(), "nobody.test", 10'000), kFailed + "7)");
  EXPECT_EQ(failure_past(silent.port(), "127.0.0.1", 10'000), "");
}

}  // namespace
}  // namespace nvo
