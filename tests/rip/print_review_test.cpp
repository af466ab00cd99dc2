// What a job says, and does under NVO_RIP_STRICT, when art is missing from its print.

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rip/rip_job.h"
#include "support/failure.h"
#include "support/scoped_variable.h"

namespace nvo {
namespace {

using test::Job;
using test::TiffFile;
using testing::HasSubstr;
using Pixel = std::function<void(bool in_disc, std::uint8_t* samples)>;

constexpr std::uint32_t kSize = 120;

bool is_in_disc(std::uint32_t x, std::uint32_t y) {
  return (x - 60.0) * (x - 60.0) + (y - 60.0) * (y - 60.0) < 1500;
}

TiffFile cmyk_and_white(const Pixel& pixel) {
  return test::cmykw_tiff(kSize, kSize, [pixel](std::uint32_t x, std::uint32_t y, std::uint8_t* samples) {
    pixel(is_in_disc(x, y), samples);
  });
}

TiffFile rgb_and(std::uint16_t extra, const Pixel& pixel) {
  TiffFile file = cmyk_and_white(pixel);
  file.samples = 4, file.photometric = PHOTOMETRIC_RGB, file.extra_samples = {extra};
  return file;
}

/// Cyan in the disc; white, stored as its complement, as given there and around it.
TiffFile cyan_disc(std::uint8_t cyan, std::uint8_t white_in, std::uint8_t white_around) {
  return cmyk_and_white([=](bool in_disc, std::uint8_t* samples) {
    samples[0] = in_disc ? cyan : 0;
    samples[4] = static_cast<std::uint8_t>(255 - (in_disc ? white_in : white_around));
  });
}

TiffFile red_disc(std::uint16_t extra, std::uint8_t sample_in, std::uint8_t sample_around) {
  return rgb_and(extra, [=](bool in_disc, std::uint8_t* samples) {
    samples[0] = 255, samples[1] = samples[2] = in_disc ? 0 : 255;
    samples[3] = in_disc ? sample_in : sample_around;
  });
}

class PrintReview : public testing::Test {
 protected:
  /// The warnings that speak of missing art or white, of a job on the art; "none" where there are none. The
  /// two paths and both ways to a pixel have to agree.
  std::string warnings(const std::function<void()>& run) {
    job.log.take();
    run();
    std::string found;
    for (const std::string& line : job.log.take())
      for (const char* begin : {"[WARN ] Nothing of ", "[WARN ] A part of ", "[WARN ] The white channel of "})
        if (line.starts_with(begin)) found += line + "\n";
    return found.empty() ? "none" : found;
  }
  void use_mode(bool streaming) {
    job.rip.options.print_head = 2;
    job.rip.options.src_dpi = 600;
    job.rip.options.print_mode =
        *find_print_mode(job.rip.options.head(), streaming ? "xp600_360x720" : "xp600_360x540");
  }

  Job job;
};

TEST_F(PrintReview, NamesTheImageAndTheReason) {
  constexpr const char* kInverted = "of its art has no white behind it";
  const std::tuple<const char*, TiffFile, const char*> cases[] = {
      {"good art", cyan_disc(255, 255, 0), "none"},
      {"no ink", cyan_disc(0, 0, 0), "' was printed: it has no ink anywhere; "},
      {"transparent", red_disc(EXTRASAMPLE_UNASSALPHA, 0, 0), "' was printed: it is fully transparent; "},
      {"without white", red_disc(EXTRASAMPLE_UNSPECIFIED, 255, 255), "its white channel is empty"},
      {"inverted", cyan_disc(255, 0, 255), kInverted},
      {"inverted RGB", red_disc(EXTRASAMPLE_UNSPECIFIED, 255, 0), kInverted},
      {"white alone", cyan_disc(0, 255, 0), "none"},
      {"white all over", cyan_disc(255, 255, 255), "none"},
      {"no white at all", cyan_disc(255, 0, 0), "none"},
      {"a few pixels without white", cmyk_and_white([](bool in_disc, std::uint8_t* samples) {
         samples[0] = in_disc ? 255 : 0;
         samples[4] = in_disc ? 220 : 0;  // a tint of white
       }),
       "none"},
  };
  for (const auto& [name, art, text] : cases) {
    SCOPED_TRACE(name);
    test::write_tiff(job.input, art);
    const bool is_missing = std::string(text).find("was printed") != std::string::npos ||
                            std::string(text).find("empty") != std::string::npos;
    for (const bool streaming : {true, false}) {
      use_mode(streaming);
      const std::string found = warnings([&] { job.run(); });
      EXPECT_THAT(found, HasSubstr(text));
      EXPECT_THAT(found, testing::AnyOf("none", HasSubstr("'" + job.input + "'")));

      std::filesystem::remove(job.output);
      const test::ScopedVariable strict("NVO_RIP_STRICT", "1");
      const std::string failure = test::failure_of([&] { job.run(); });
      EXPECT_EQ(failure.empty(), !is_missing) << failure;
      EXPECT_EQ(job.dir.names().size(), is_missing ? 1u : 2u) << "a refused print leaves nothing";
    }
  }
}

TEST_F(PrintReview, LooksAtTheSheetAndTheDotsToo) {
  test::write_tiff(job.input, cyan_disc(255, 255, 0));
  LayoutItem item{"", "", job.input, 0, 0, 0.4f, 0.4f};
  const auto print = [&](const LayoutItem& placed) {
    return warnings([&] { job.rip.run({{placed}, 0.5f}, job.output, job.settings); });
  };
  for (const bool streaming : {true, false}) {
    use_mode(streaming);
    EXPECT_EQ(print(item), "none");
    LayoutItem far = item;
    far.x_in = -0.5f;
    far.width_in = 0.4f;
    EXPECT_THAT(warnings([&] {
                  job.rip.run({{item, far}, 0.5f}, job.output, job.settings);
                }),
                HasSubstr("no part of it lies on the sheet"));
    LayoutItem lost = item;
    lost.path = job.dir.file("lost.tif");
    EXPECT_THAT(print(lost), HasSubstr("lost.tif' was printed: it could not be read ("));
    const auto settings = job.settings;
    for (ChannelSettings& channel : job.settings.channels) channel.limit = 0;
    EXPECT_THAT(print(item), HasSubstr("left no dot of its ink"));
    job.settings = settings;
    LayoutItem flat = item;
    flat.height_in = 0;
    EXPECT_THAT(warnings([&] {
                  job.rip.run({{flat}, 0}, job.output, job.settings);
                }),
                HasSubstr("its sheet has no height; no print file is written"));
  }
}

// Large enough to be read by rows. The damage lies in the upper of two strips of the sheet.
TEST_F(PrintReview, TellsWhichPartIsMissing) {
  TiffFile file = test::cmykw_tiff(2100, 2000, [](std::uint32_t, std::uint32_t, std::uint8_t* samples) {
    samples[0] = 200, samples[4] = 0;
  });
  file.rows_per_strip = 500;
  test::write_tiff(job.input, file);
  std::string bytes = test::read_all(job.input);
  bytes.replace(10, 40, std::string(40, '\0'));  // the strips stand in the file first
  test::write_all(job.input, bytes);
  const std::string found = warnings([&] { job.run(); });
  EXPECT_THAT(found, HasSubstr("A part of '" + job.input +
                               "' was not printed: 51 % of its height, between 0 and "
                               "3.4 inches below its top, could not be read ("));
  const test::ScopedVariable strict("NVO_RIP_STRICT", "yes");
  EXPECT_THAT(test::failure_of([&] { job.run(); }), HasSubstr("NVO_RIP_STRICT"));
}

}  // namespace
}  // namespace nvo
