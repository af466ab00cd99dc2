// What the examples print: nvo_golden_prints FOLDER writes a line for every image of the folder in every mode
// below, with the SHA-256 of the print file. Every instruction set of the machine prints it; where they do
// not agree, the line has the hash of each. golden_test compares the lines with golden_prints.txt.

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include <openssl/evp.h>

#include "app/job_driver.h"
#include "config/job_settings.h"
#include "screen/kernels/instruction_set.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

struct Mode {
  const char *head, *id;
};
constexpr Mode kModes[] = {
    {"i3200", "720x1800_6pass"},          // six device rows to a source row, as most jobs print
    {"i1600", "i1600_720x900_observed"},  // three, and another layout of the file
    {"xp600", "xp600_360x540"},           // columns and rows that lie on two source pixels
};

std::string sha256(const std::string& bytes) {
  unsigned char digest[32];
  EVP_Digest(bytes.data(), bytes.size(), digest, nullptr, EVP_sha256(), nullptr);
  std::string text;
  char digits[3];
  for (const unsigned char byte : digest) {
    std::snprintf(digits, sizeof digits, "%02x", byte);
    text += digits;
  }
  return text;
}

std::string print(const std::string& image, const Mode& mode) {
  const test::LogCapture quiet;
  const test::TempDir dir;
  const std::string settings = dir.file("job_settings.json"), output = dir.file("print");
  test::write_all(
      settings, std::string("{\"print_head\":\"") + mode.head + "\",\"print_mode_id\":\"" + mode.id + "\"}");
  const JobSettings job = load_job_settings({}, settings);
  run_job(image, output, {}, {}, 0, 0, {}, &job, 0);
  return test::read_all(output);
}

/// The hash that all instruction sets agree on, else each one's own.
std::string hashes(const std::string& image, const Mode& mode) {
  std::vector<std::string> found;
  std::string each;
  for (const InstructionSet* set : runnable_instruction_sets()) {
    const ForcedInstructionSet forced(*set);
    found.push_back(sha256(print(image, mode)));
    each += std::string(set->name) + " " + found.back() + " ";
  }
  return std::ranges::count(found, found[0]) == std::ssize(found) ? found[0] : each;
}

void write_lines(const std::string& folder) {
  std::vector<std::filesystem::path> images;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    if (entry.path().extension() == ".tif") images.push_back(entry.path());
  std::ranges::sort(images);
  for (const auto& image : images)
    for (const Mode& mode : kModes)
      std::printf("%s %s %s\n", image.filename().c_str(), mode.id, hashes(image, mode).c_str());
}

}  // namespace
}  // namespace nvo

int main(int argc, char** argv) try {
  if (argc != 2) return 2;
  nvo::write_lines(argv[1]);
  return 0;
} catch (const std::exception& failure) {
  std::fprintf(stderr, "%s\n", failure.what());
  return 2;
}
