// What a check comes to with servers, proxies and names of every kind. This program's own resolver stands
// before the C library's.

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "update/test_service.h"
#include "update/update_client.h"

namespace {

std::mutex mutex;
std::condition_variable changed;
bool silent_servers_answer = false;
std::map<std::string, int> look_ups;

}  // namespace

/// Knows a host of one address and a host of two; "silent..." waits for a name server that does not answer.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
  static const auto real = reinterpret_cast<decltype(&::getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  const std::string name = node ? node : "";
  std::unique_lock lock(mutex);
  ++look_ups[name];
  if (name.starts_with("silent")) changed.wait(lock, [] { return silent_servers_answer; });
  if (name == "service.test") return real("127.0.0.1", service, hints, result);
  if (name != "two.test") return EAI_NONAME;
  const int first = real("127.0.0.2", service, hints, result);
  return first != 0 ? first : real("127.0.0.1", service, hints, &(*result)->ai_next);
}

namespace nvo {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using test::Answer;
using test::http_answer;
using test::Listener;
using test::LoopbackServer;
using test::manifest_with;
using Origins = std::vector<std::string>;

const std::string kFailed = "WinHTTP send/receive failed (code=", kOk = "HTTP/1.1 200 OK\r\n";

test::Script always(const Answer& answer) {
  return [answer](const json&) { return answer; };
}

class UpdateCheck : public testing::Test {
 protected:
  UpdateCheck() {
    ::setenv("XDG_CONFIG_HOME", dir.path().c_str(), 1);
    use_proxy("", "*");
    const std::lock_guard lock(mutex);
    silent_servers_answer = false;
    look_ups.clear();
  }
  ~UpdateCheck() override {
    use_proxy("", "");
    const std::lock_guard lock(mutex);
    silent_servers_answer = true;
    changed.notify_all();
  }
  static void use_proxy(const std::string& url, const char* exceptions) {
    ::setenv("https_proxy", url.c_str(), 1);
    ::setenv("no_proxy", exceptions, 1);
  }
  /// Why a check of these origins failed.
  std::string failure(const Origins& origins, int limit_ms = 10'000,
                      const std::string& origin_override = "") {
    const milliseconds limit(limit_ms);
    const UpdateService service{origins,
                                {"downloads.example.test"},
                                test::public_key(),
                                ca_file,
                                {milliseconds(1000), limit, limit, limit}};
    UpdateTrace trace;
    const auto begun = std::chrono::steady_clock::now();
    result = UpdateClient(service, trace).check_for_update(origin_override, {"1", "c", "p", "a", ""});
    took = std::chrono::steady_clock::now() - begun;
    EXPECT_EQ(result.ok, result.error.empty());
    EXPECT_LT(took, std::chrono::seconds(8)) << result.error;
    return result.error;
  }
  std::string failure_at(const test::Script& script, const test::ServerTerms& terms = {},
                         int limit_ms = 10'000) {
    const LoopbackServer server(script, ca_file, terms);
    return failure({server.url()}, limit_ms);
  }
  std::string trace() const { return test::read_all(dir.file("NVO_RIP/logs/update_trace.log")); }

  test::TempDir dir;
  test::LogCapture log;
  std::string ca_file = dir.file("ca.pem");
  UpdateCheckResult result;
  std::chrono::nanoseconds took{};
};

TEST_F(UpdateCheck, EveryBadAnswerEndsInItsTextAndNoneHoldsTheCheckUp) {
  const std::string too_large = "Update response exceeds maximum allowed size", silence = kFailed + "28)";
  const auto busy = [](const json& request) {
    return Answer{"HTTP/1.1 503 Busy" + manifest_with()(request).bytes.substr(kOk.size() - 2)};
  };
  std::string endless_headers = kOk;
  while (endless_headers.size() < 0x50000) endless_headers += "X: " + std::string(500, 'x') + "\r\n";
  const std::vector<std::pair<test::Script, std::string>> cases = {
      {manifest_with(), ""},
      {busy, "HTTP 503"},
      {always({"HTTP/1.1 302 Found\r\nLocation: https://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n"}),
       "JSON root must be an object"},
      {always({kOk + "\r\n" + std::string(0x40001, ' '), Answer::hold}), too_large},
      {always({endless_headers, Answer::hold}), too_large},
      {always({kOk + "Content-Length: 900\r\n\r\n{\"payload\":{"}), kFailed + "18)"},
      {always({"", Answer::hold}), silence},
      {always({kOk + "Content-Length: 900\r\n\r\n{", Answer::hold}), silence},
      {always({kOk + "\r\n", Answer::trickle}), silence},
      {always({kOk + "X: ", Answer::trickle}), silence},
  };
  for (const auto& [script, text] : cases)
    EXPECT_EQ(failure_at(script, {}, text == silence ? 400 : 10'000), text);
  Listener listener;
  EXPECT_EQ(failure({listener.url()}, 400), silence) << "without TLS";
  listener.fall_silent();
  EXPECT_EQ(failure({listener.url()}, 400), silence) << "without a connection";
}

TEST_F(UpdateCheck, OnlyAnUnreachableOriginLeadsToTheFallback) {
  const LoopbackServer good(manifest_with(), ca_file);
  const std::string dead = Listener().url();
  EXPECT_EQ(failure({dead, good.url()}), "");
  EXPECT_EQ(log.take(), (std::vector<std::string>{
                            "[WARN ] Update check transport failed on origin " + dead + ": " + kFailed + "7)",
                            "[INFO ] Update check fallback origin succeeded: " + good.url()}));
  EXPECT_THAT(trace(), testing::HasSubstr(
                           "\"update_check_primary_fail\",\"origin\":\"" + dead + "\",\"error\":\"" +
                           kFailed + "7)\",\"winhttp_error_code\":\"7\",\"reason\":\"transport failed\"}\n"));
  EXPECT_THAT(trace(), testing::HasSubstr("\"update_check_fallback_ok\""));

  for (const std::string& headers : {std::string("\r\n"), "X: " + std::string(90'000, 'x') + "\r\n"}) {
    const LoopbackServer large(always({kOk + headers + std::string(0x50000, ' '), Answer::hold}), ca_file);
    EXPECT_EQ(failure({large.url(), good.url()}), "Update response exceeds maximum allowed size");
    EXPECT_EQ(std::tuple(result.transport_ok, result.http_status, result.origin),
              std::tuple(true, 200u, large.url()));
  }

  const LoopbackServer bad(always(http_answer("{}")), ca_file);
  EXPECT_EQ(failure({bad.url(), good.url()}), "Missing payload in signed update manifest");
  EXPECT_THAT(trace(),
              testing::HasSubstr("\"http_status\":\"200\",\"parse_error\":\"Missing payload in signed update "
                                 "manifest\",\"reason\":\"response parse failed\"}\n"));
}

TEST_F(UpdateCheck, AServerIsKnownByItsCertificate) {
  EXPECT_EQ(failure_at(manifest_with(), {"DNS:service.test,IP:127.0.0.2"}), kFailed + "60)");
  const LoopbackServer unknown(manifest_with(), dir.file("unknown.pem"));
  EXPECT_EQ(failure({unknown.url()}), kFailed + "60)");
}

TEST_F(UpdateCheck, AProxyOfTheSystemIsUsedButNotTrusted) {
  const auto failure_behind = [&](const std::string& as_proxy, const char* names) {
    const LoopbackServer server(manifest_with(), ca_file, {names, as_proxy});
    use_proxy(server.url("http"), "nobody.test");
    return failure({"https://service.test"});
  };
  EXPECT_EQ(failure_behind(kOk + "\r\n", "DNS:service.test"), "");
  EXPECT_EQ(failure_behind(kOk + "\r\n", "DNS:proxy.test"), kFailed + "60)") << "in the service's place";
  EXPECT_EQ(failure_behind("HTTP/1.1 407 No\r\n\r\n", "DNS:service.test"), kFailed + "56)");

  const Listener silent;
  use_proxy(silent.url("http"), "nobody.test");
  EXPECT_EQ(failure({"https://service.test"}, 400), kFailed + "28)");
}

TEST_F(UpdateCheck, ReservedNamesAreNotAskedForUnknownOnesOnceAndSilentServersWaitedForOnceInAll) {
  EXPECT_EQ(failure({"https://update.Invalid", "https://x.invalid.:444"}), kFailed + "6)");
  EXPECT_TRUE(look_ups.empty());
  EXPECT_EQ(failure({"https://unknown.test", "https://unknown2.test"}), kFailed + "6)");
  EXPECT_EQ(look_ups, (std::map<std::string, int>{{"unknown.test", 1}, {"unknown2.test", 1}}));

  EXPECT_EQ(failure({"https://silent1.test", "https://silent2.test"}), kFailed + "28)");
  EXPECT_GE(took, milliseconds(1000));
  EXPECT_LT(took, milliseconds(1900)) << "both names were asked for at the same time";
}

TEST_F(UpdateCheck, ADeadNameOrAddressIsPassedOver) {
  const LoopbackServer server(manifest_with(), ca_file);
  const auto named = [&](const char* host) { return server.url("https", host); };
  EXPECT_EQ(failure({"https://silent.test", named("service.test")}), "");
  EXPECT_EQ(result.origin, named("service.test"));
  EXPECT_EQ(look_ups["service.test"], 1) << "the address found early serves";
  EXPECT_EQ(failure({named("two.test")}), "") << "the first address refuses";
  Listener two("127.0.0.2", server.port());
  two.fall_silent();
  EXPECT_EQ(failure({named("two.test")}, 3000), "") << "the first address does not answer";
}

TEST_F(UpdateCheck, AnOverridingUrlMustBeOneOfAnHttpsServer) {
  const std::pair<std::string, std::string> cases[] = {
      {"\xff", "Invalid API URL encoding"},
      {"not a url", "Cannot parse API URL"},
      {"http://service.test", "Update API URL must use HTTPS"},
      {"https://unknown.test/base/path", kFailed + "6)"},
      {"https://[::1]:1", kFailed + "7)"},
  };
  for (const auto& [url, error] : cases)
    EXPECT_EQ(failure({"https://unknown2.test"}, 10'000, url), error) << url;
  EXPECT_EQ(look_ups.count("unknown2.test"), 0u);
}

}  // namespace
}  // namespace nvo
