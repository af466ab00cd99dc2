// What the check does when names can't be found. This program's own resolver stands before the C library's.

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

}  // namespace

/// "silent..." waits for a name server that does not answer, "service.test" is this machine, others are
/// unknown.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
  using RealFunction = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
  static const auto real = reinterpret_cast<RealFunction>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  const std::string name = node ? node : "";
  std::unique_lock lock(mutex);
  ++look_ups[name];
  if (name.starts_with("silent")) changed.wait(lock, [] { return silent_servers_answer; });
  return name == "service.test" ? real("127.0.0.1", service, hints, result) : EAI_NONAME;
}

namespace nvo {
namespace {

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
    service.limits.resolve = std::chrono::seconds(1);
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

TEST_F(NameLookUp, AReservedNameIsNotAskedFor) {
  EXPECT_EQ(check({"https://update.Invalid", "https://x.invalid.:444"}).error,
            "WinHTTP send/receive failed (code=6)");
  EXPECT_TRUE(look_ups.empty());
}

TEST_F(NameLookUp, AnUnknownNameIsAskedForOnce) {
  const UpdateCheckResult result = check({"https://unknown.test", "https://unknown2.test"});
  EXPECT_EQ(result.error, "WinHTTP send/receive failed (code=6)");
  EXPECT_FALSE(result.transport_ok);
  EXPECT_EQ(look_ups, (std::map<std::string, int>{{"unknown.test", 1}, {"unknown2.test", 1}}));
  EXPECT_EQ(log.lines().size(), 2u);
}

TEST_F(NameLookUp, SilentNameServersAreWaitedForOnceInAll) {
  EXPECT_EQ(check({"https://silent1.test", "https://silent2.test"}).error,
            "WinHTTP send/receive failed (code=28)");
  EXPECT_GE(took, std::chrono::seconds(1));
  EXPECT_LT(took, std::chrono::milliseconds(1900)) << "both names were asked for at the same time";
}

TEST_F(NameLookUp, TheFallbackIsReachedWhileThePrimaryNameIsMissing) {
  const test::LoopbackServer server([](const nlohmann::json&) { return test::http_answer("[]"); },
                                    dir.file("ca.pem"));
  const UpdateCheckResult result = check({"https://silent.test", server.origin("service.test")});
  EXPECT_EQ(result.error, "JSON root must be an object");
  EXPECT_EQ(result.origin, server.origin("service.test"));
  EXPECT_EQ(result.http_status, 200u);
  EXPECT_EQ(look_ups["service.test"], 1) << "the address found early serves";
}

TEST_F(NameLookUp, AnOverridingUrlMustBeOneOfAnHttpsServer) {
  const std::pair<std::string, std::string> cases[] = {
      {"\xff", "Invalid API URL encoding"},
      {"not a url", "Cannot parse API URL"},
      {"http://service.test", "Update API URL must use HTTPS"},
      {"https://unknown.test/base/path", "WinHTTP send/receive failed (code=6)"},
  };
  for (const auto& [url, error] : cases) EXPECT_EQ(check({"https://unknown2.test"}, url).error, error) << url;
  EXPECT_EQ(look_ups.count("unknown2.test"), 0u);
}

}  // namespace
}  // namespace nvo
