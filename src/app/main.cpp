#include <cerrno>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "app/app_version.h"
#include "app/built_in_update_service.h"
#include "app/run.h"
#include "core/machine_failure.h"
#include "core/platform/file.h"
#include "core/platform/last_resort.h"
#include "core/platform/terminal.h"
#include "core/text.h"

namespace {

constexpr const char* kUsage =
    "NVO RIP CLI   Hoson i3200\n"
    "\n"
    "Usage: nvo_rip <input_image> [output.prt|output.prn]\n"
    "\n"
    "For nesting: use nvo_rip_gui.exe\n";
constexpr const char* kVersionQuery = "--print-app-version-json";

constexpr const char* kHelp =
    "nvo_rip turns one image into one print file for the Hoson board.\n"
    "\n"
    "Usage: nvo_rip <input_image> [output.prt|output.prn]\n"
    "       nvo_rip --help | -h | --version | --print-app-version-json\n"
    "\n"
    "Reads TIFF, PNG, JPEG, BMP, WebP and the first page of a PDF. Without an output the\n"
    "print file is written beside the input, under its name, and replaces an older one.\n"
    "An output that is named must not exist yet.\n"
    "\n"
    "Exit codes:\n"
    "  0  the print file was written, or a question such as this one was answered\n"
    "  1  no usable arguments\n"
    "  2  the job failed; the log and standard error say why\n"
    "  4  an update has to be installed first\n"
    "\n"
    "Settings are read from the folder NVO_RIP in $XDG_CONFIG_HOME, or else in ~/.config.\n"
    "README.md and the folder docs explain them: docs/settings.md has every setting and\n"
    "environment variable.\n";

/// The argument's text, or an empty one when its bytes are not UTF-8.
std::string utf8_argument(const char* argument) {
  const std::string text = argument;
  return nvo::is_valid_utf8(text) ? text : std::string();
}

/// Answers on standard output; an answer that can't be read is none.
int answer(const std::string& text) {
  if (std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0) return nvo::kExitDone;
  nvo::platform::write_error_line("nvo_rip: cannot write to standard output: ",
                                  nvo::platform::error_text(errno).c_str());
  return nvo::kExitFailed;
}

/// Answers to questions that are the only argument.
std::optional<std::string> answer_to(std::string_view question) {
  if (question == "--help" || question == "-h") return kHelp;
  if (question != "--version") return std::nullopt;
  const nvo::AppVersion version = nvo::app_version();
  return "nvo_rip " + version.version + " (build " + version.build_id + ", " + version.channel + ")\n";
}

int start(int argc, char** argv) {
  if (argc < 2) {
    answer(kUsage);
    return nvo::kExitUsage;
  }
  if (argc == 2)
    if (const auto text = answer_to(argv[1])) return answer(*text);
  const std::string input = utf8_argument(argv[1]);
  if (input == kVersionQuery) return answer(nvo::version_json(nvo::app_version()) + "\n");
  const std::string output = argc > 2 ? utf8_argument(argv[2]) : std::string();
  if (input.empty()) {
    std::fputs("Invalid input path encoding.\n", stderr);
    return nvo::kExitUsage;
  }
  if (argc > 2 && output.empty()) {
    std::fputs("Invalid output path encoding.\n", stderr);
    return nvo::kExitUsage;
  }
  return nvo::run(input, output, nvo::built_in_update_service());
}

}  // namespace

int main(int argc, char** argv) {
  nvo::platform::open_standard_streams();
  nvo::platform::install_last_resort();
  nvo::platform::install_termination_cleanup();
  try {
    return start(argc, argv);
  } catch (const std::exception& failure) {
    nvo::platform::write_error_line("Fatal: ", nvo::failure_text(failure));
    return nvo::kExitFailed;
  }
}
