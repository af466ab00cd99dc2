#include <cstdio>
#include <string>

#include "app/app_version.h"
#include "app/built_in_update_service.h"
#include "app/run.h"
#include "core/platform/file.h"
#include "core/text.h"

namespace {

constexpr const char* kUsage =
    "NVO RIP CLI   Hoson i3200\n"
    "\n"
    "Usage: nvo_rip <input_image> [output.prt|output.prn]\n"
    "\n"
    "For nesting: use nvo_rip_gui.exe\n";
constexpr const char* kVersionQuery = "--print-app-version-json";

/// The argument's text, or an empty one when its bytes are not UTF-8.
std::string utf8_argument(const char* argument) {
  const std::string text = argument;
  return nvo::is_valid_utf8(text) ? text : std::string();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs(kUsage, stdout);
    return nvo::kExitUsage;
  }
  const std::string input = utf8_argument(argv[1]);
  if (input == kVersionQuery) {
    std::puts(nvo::version_json(nvo::app_version()).c_str());
    return nvo::kExitDone;
  }
  const std::string output = argc > 2 ? utf8_argument(argv[2]) : std::string();
  if (input.empty()) {
    std::fputs("Invalid input path encoding.\n", stderr);
    return nvo::kExitUsage;
  }
  if (argc > 2 && output.empty()) {
    std::fputs("Invalid output path encoding.\n", stderr);
    return nvo::kExitUsage;
  }
  nvo::platform::install_termination_cleanup();
  return nvo::run(input, output, nvo::built_in_update_service());
}
