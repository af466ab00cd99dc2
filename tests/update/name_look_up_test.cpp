// What the check does when names can't be found, or lead to a dead address. This program's own resolver
// stands before the C library's.

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <map>
#include <mutex>

#include <dlfcn.h>
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

/// The addresses of a name, each the next one's predecessor.
addrinfo* addresses_of(const std::string& name, const char* service, const addrinfo* hints) {
  static const std::multimap<std::string, const char*> kHosts = {{"service.test", "127.0.0.1"},
                                                                 {"two.test", "127.0.0.2"},
                                                                 {"two.test", "127.0.0.1"},
                                                                 {"dual.test", "::1"},
                                                                 {"dual.test", "127.0.0.1"}};
  static const auto real = reinterpret_cast<decltype(&::getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  addrinfo* first = nullptr;
  addrinfo** last = &first;
  for (auto [host, end] = kHosts.equal_range(name); host != end; ++host)
    if (real(host->second, service, hints, last) == 0)
      while (*last) last = &(*last)->ai_next;
  return first;
}

}  // namespace

/// "silent..." waits for a name server that does not answer.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
  const std::string name = node ? node : "";
  std::unique_lock lock(mutex);
  ++look_ups[name];
  if (name.starts_with("silent")) changed.wait(lock, [] { return silent_servers_answer; });
  return (*result = addresses_of(name, service, hints)) ? 0 : EAI_NONAME;
}

namespace nvo {
namespace {

using std::chrono::milliseconds;

class NameLookUp : public testing::Test {
 protected:
  NameLookUp() {
    std::signal(SIGPIPE, SIG_IGN);
    ::setenv("XDG_CONFIG_HOME", dir.path().c_str(), 1);
    ::setenv("no_proxy", "*", 1);
    const std::lock_guard lock(mutex);
    silent_servers_answer = false;
    look_ups.clear();
  }
  ~NameLookUp() override {
    const std::lock_guard lock(mutex);
    silent_servers_answer = true;
    changed.notify_all();
  }
  UpdateCheckResult check(const std::vector<std::string>& origins, const std::string& origin_override = "") {
    UpdateService service{origins, {}, "", dir.file("ca.pem"), {}};
    service.limits.resolve = milliseconds(1000);
    service.limits.connect = milliseconds(3000);
    UpdateTrace trace;
    const auto begun = std::chrono::steady_clock::now();
    const auto result =
        UpdateClient(service, trace).check_for_update(origin_override, {"1", "c", "p", "a", ""});
    took = std::chrono::steady_clock::now() - begun;
    return result;
  }

  test::TempDir dir;
  test::LogCapture log;
  std::chrono::nanoseconds took{};
};

const std::string kFailed = "WinHTTP send/receive failed (code=";

TEST_F(NameLookUp, AReservedNameIsNotAskedForAndAnUnknownOneOnce) {
  EXPECT_EQ(check({"https://update.Invalid", "https://x.invalid.:444"}).error, kFailed + "6)");
  EXPECT_TRUE(look_ups.empty());
  EXPECT_EQ(check({"https://unknown.test", "https://unknown2.test"}).error, kFailed + "6)");
  EXPECT_EQ(look_ups, (std::map<std::string, int>{{"unknown.test", 1}, {"unknown2.test", 1}}));
}

TEST_F(NameLookUp, SilentNameServersAreWaitedForOnceInAll) {
  EXPECT_EQ(check({"https://silent1.test", "https://silent2.test"}).error, kFailed + "28)");
  EXPECT_GE(took, milliseconds(1000));
  EXPECT_LT(took, milliseconds(1900)) << "both names were asked for at the same time";
}

TEST_F(NameLookUp, ADeadNameOrAddressIsPassedOver) {
  const test::LoopbackServer server([](const nlohmann::json&) { return test::http_answer("[]"); },
                                    dir.file("ca.pem"));
  const auto reached = [&](const std::vector<std::string>& origins) {
    const UpdateCheckResult result = check(origins);
    return result.error == "JSON root must be an object" && result.http_status == 200 &&
           result.origin == origins.back();
  };
  EXPECT_TRUE(reached({"https://silent.test", server.origin("service.test")}));
  EXPECT_EQ(look_ups["service.test"], 1) << "the address found early serves";
  EXPECT_TRUE(reached({server.origin("two.test")})) << "the first address refuses";
  EXPECT_TRUE(reached({server.origin("dual.test")}));
  test::Listener two("127.0.0.2", server.port());
  two.fall_silent();
  EXPECT_TRUE(reached({server.origin("two.test")})) << "the first address does not answer";
}

TEST_F(NameLookUp, AnOverridingUrlMustBeOneOfAnHttpsServer) {
  const std::pair<std::string, std::string> cases[] = {
      {"\xff", "Invalid API URL encoding"},
      {"not a url", "Cannot parse API URL"},
      {"http://service.test", "Update API URL must use HTTPS"},
      {"https://unknown.test/base/path", kFailed + "6)"},
  };
  for (const auto& [url, error] : cases) EXPECT_EQ(check({"https://unknown2.test"}, url).error, error) << url;
  EXPECT_EQ(look_ups.count("unknown2.test"), 0u);
}

}  // namespace
}  // namespace nvo
