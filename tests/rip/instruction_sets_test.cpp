// Every kernel of every instruction set at work on whole sheets: the print does not depend on the set.

#include <string>

#include <gtest/gtest.h>

#include "rip/rip_job.h"
#include "screen/kernels/instruction_set.h"

namespace nvo {
namespace {

struct SheetCase {
  const char* takes;  ///< of the kernels, beside those that all jobs take
  std::uint32_t src_dpi, x_dpi, y_dpi;
  ResamplingMode sampling;
  bool adaptive, own_white;
};

const auto kSmooth = ResamplingMode::smooth, kHard = ResamplingMode::hard;
const SheetCase kCases[] = {
    {"codes of pixels and pairs", 300, 720, 1800, kSmooth, true, false},
    {"mixed rows", 300, 720, 540, kSmooth, true, true},
    {"the general filter", 600, 360, 720, kSmooth, true, false},
    {"nearest pixels", 300, 360, 1200, kHard, false, false},
    {"rows of single drops, packed later", 600, 720, 540, kSmooth, true, false},
};

TEST(InstructionSets, AllPrintTheSameSheet) {
  for (const SheetCase& c : kCases) {
    std::string expected;
    for (const InstructionSet* set : runnable_instruction_sets()) {
      SCOPED_TRACE(std::string(c.takes) + ", " + set->name);
      const ForcedInstructionSet forced(*set);
      test::Job job;
      RipJobOptions& options = job.rip.options;
      options.src_dpi = c.src_dpi;
      options.print_mode = {};
      options.x_dpi = c.x_dpi;
      options.y_dpi = c.y_dpi;
      options.color_resampling_mode = options.white_resampling_mode = c.sampling;
      options.white_choke_enabled = true;
      options.white_choke_adaptive_min_width_dots = 9;  // steps across several columns at a time
      if (!c.adaptive) options.white_choke_algorithm = WhiteChokeSetting::production;
      job.settings = RipSettings();
      test::write_tiff(job.input,
                       test::picture(160 * c.src_dpi / 300, 40 * c.src_dpi / 300, c.src_dpi, c.own_white));
      job.run();
      const std::string print = test::read_all(job.output);
      if (expected.empty()) expected = print;
      EXPECT_TRUE(print == expected);
    }
  }
}

}  // namespace
}  // namespace nvo
