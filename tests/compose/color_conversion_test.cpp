#include "compose/color_conversion.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;

TEST(RgbToCmykSimple, EqualsThePlainFormulaForEveryColour) {
#ifdef NDEBUG
  constexpr std::uint32_t kStep = 1;
#else
  constexpr std::uint32_t kStep = 7;  // checked builds take a sample
#endif
  const auto byte = [](float v) { return static_cast<std::uint8_t>(v * 255.0f + 0.5f); };
  std::uint32_t faults = 0;
  for (std::uint32_t colour = 0; colour < 1u << 24; colour += kStep) {
    const std::uint8_t rgb[3] = {std::uint8_t(colour), std::uint8_t(colour >> 8), std::uint8_t(colour >> 16)};
    std::uint8_t cmyk[4];
    rgb_to_cmyk_simple(rgb, cmyk, 1);
    const float k = 1.0f - std::max({rgb[0], rgb[1], rgb[2]}) / 255.0f, d = 1.0f / (1.0f - k);
    faults += cmyk[3] != byte(k);
    for (int i = 0; i < 3; ++i) faults += cmyk[i] != (k >= 1.0f ? 0 : byte((1.0f - rgb[i] / 255.0f - k) * d));
  }
  EXPECT_EQ(faults, 0u);
}

/// Noise, flat runs and gradients in turn.
Bytes artwork(std::size_t pixels, std::size_t channels) {
  std::minstd_rand random(7);
  Bytes bytes(pixels * channels);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const std::size_t pixel = i / channels;
    const std::size_t values[] = {random(), pixel / 97 * 31, pixel * (i % channels + 1) / 3};
    bytes[i] = static_cast<std::uint8_t>(values[pixel / 700 % 3]);
  }
  return bytes;
}

Bytes convert(IccConverter& converter, const Bytes& src, std::size_t channels, std::size_t pixels_a_call) {
  const std::size_t pixels = src.size() / channels;
  Bytes dst(pixels * 4);
  for (std::size_t at = 0; at < pixels; at += pixels_a_call)
    EXPECT_TRUE(converter.transform(&src[at * channels], &dst[at * 4], std::min(pixels_a_call, pixels - at)));
  return dst;
}

/// With profiles of the packages libgs-common and colord-data.
class IccTest : public testing::Test {
 protected:
  void SetUp() override {
    for (const auto& profile : {kCmyk, kRgb})
      if (!std::filesystem::exists(profile)) GTEST_SKIP() << profile << " is not installed";
  }
  std::string file(const std::string& name, std::uintmax_t size) const {
    test::write_all(folder.file(name), "no profile");
    std::filesystem::resize_file(folder.file(name), size);
    return folder.file(name);
  }

  const std::string kCmyk = "/usr/share/color/icc/ghostscript/default_cmyk.icc";
  const std::string kRgb = "/usr/share/color/icc/colord/AdobeRGB1998.icc";
  const IccSettings usual{true, "", kCmyk, kCmyk};
  const std::string fallback_warning =
      "[WARN ] StripCompositor: RGB->CMYK ICC unavailable; using simple RGB->CMYK fallback; color accuracy "
      "may be reduced; missing profile or conversion error: ";
  test::TempDir folder;
  test::LogCapture log;
};

TEST_F(IccTest, AConverterSaysWhyItDoesNotOpen) {
  const auto refused = [](const IccSettings& settings, const std::string& rgb_error,
                          const std::string& cmyk_error) {
    IccConverter converter;
    std::string error;
    EXPECT_FALSE(converter.open_rgb_to_cmyk(settings, &error));
    EXPECT_EQ(error, rgb_error);
    EXPECT_FALSE(converter.open_cmyk_to_cmyk(settings, &error));
    EXPECT_EQ(error, cmyk_error);
  };
  const std::string cut = folder.file("cut"), failed = "cmsCreateTransform failed";
  test::write_all(cut, test::read_all(kCmyk).substr(0, 2000));
  const std::string no_file = ": file does not exist or is not a regular file";
  for (const auto& [path, reason] :
       {std::pair(folder.file("absent"), no_file),
        {folder.path(), no_file},
        {file("empty", 0), ": profile file is empty"},
        {file("large", 33554433), ": profile file exceeds size cap (33554433 bytes > 33554432)"},
        {file("largest", 33554432), ""}}) {  // read, but not a profile
    const std::string output_error = "Cannot open output CMYK profile: " + path + reason;
    refused({true, "", kCmyk, path}, output_error, output_error);
    refused({true, path, path, kCmyk}, "Cannot open input RGB profile: " + path + reason,
            "Cannot open input CMYK profile: " + path + reason);
  }
  const std::string no_path = "Cannot open output CMYK profile: : path is empty";
  refused({true, "", kCmyk, ""}, no_path, no_path);
  refused({true, "", "", kRgb}, "Output profile is not CMYK", "Input CMYK profile not specified");
  refused({true, "", kCmyk, kRgb}, "Output profile is not CMYK", "Output profile is not CMYK");
  refused({true, kCmyk, kRgb, kCmyk}, failed, "Input profile is not CMYK: " + kRgb);
  refused({true, "", kCmyk, kCmyk, 4}, failed, failed);
  refused({true, "", cut, cut}, failed, failed);
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(IccTest, ColourDependsOnThePixelAndTheSettingsAlone) {
  const Bytes rgb = artwork(7001, 3), cmyk = artwork(7001, 4);
  std::vector<Bytes> rows;
  // All intents with and without compensation, then another input profile.
  for (int variant = 0; variant < 9; ++variant) {
    const IccSettings settings{true,  variant < 8 ? "" : kRgb, kCmyk,
                               kCmyk, variant / 2 % 4,         variant % 2 != 0};
    IccConverter from_rgb, from_cmyk;
    ASSERT_TRUE(from_rgb.open_rgb_to_cmyk(settings, nullptr) &&
                from_cmyk.open_cmyk_to_cmyk(settings, nullptr));
    rows.push_back(convert(from_rgb, rgb, 3, 7001));
    const Bytes cmyk_row = convert(from_cmyk, cmyk, 4, 7001);
    for (const std::size_t pixels_a_call : {1, 61}) {
      IccConverter other_rgb, other_cmyk;  // these remember no colour yet
      other_rgb.open_as(from_rgb, /*quiet=*/true);
      other_cmyk.open_as(from_cmyk, /*quiet=*/true);
      EXPECT_EQ(convert(other_rgb, rgb, 3, pixels_a_call), rows.back());
      EXPECT_EQ(convert(other_cmyk, cmyk, 4, pixels_a_call), cmyk_row);
    }
    EXPECT_THAT(convert(from_rgb, {255, 255, 255}, 3, 1), Each(0)) << "white is no ink";
    EXPECT_GT(convert(from_rgb, {0, 0, 0}, 3, 1)[3], 200) << "black prints with black";
  }
  EXPECT_TRUE(rows[2] != rows[3] && rows[2] != rows[6] && rows[0] != rows[8]);
}

TEST_F(IccTest, AFailedProfileIsTriedOnceAndWarnedOfOnce) {
  const std::string late = folder.file("late.icc");
  ColorConversion conversion;
  WorkerIcc worker;
  std::string error;
  const auto init = [&](WorkerIcc* slot) {
    const bool ready = conversion.init_rgb_icc(slot, error);
    if (!ready) conversion.warn_rgb_fallback(error);
    EXPECT_EQ(conversion.init_cmyk_icc(slot, error), ready);
    return ready;
  };
  conversion.reset({true, "", kCmyk, late});
  EXPECT_FALSE(init(&worker) || init(nullptr));
  std::filesystem::copy_file(kCmyk, late);
  EXPECT_FALSE(init(&worker) || init(nullptr));
  EXPECT_EQ(error,
            "Cannot open output CMYK profile: " + late + ": file does not exist or is not a regular file");
  EXPECT_THAT(log.take(), ElementsAre(fallback_warning + error));

  conversion.reset({true, "", kCmyk, late});
  EXPECT_TRUE(init(nullptr));
  EXPECT_THAT(log.take(), ElementsAre("[INFO ] IccConverter: RGB->CMYK [sRGB -> " + late + "]",
                                      "[INFO ] IccConverter: CMYK->CMYK [" + kCmyk + " -> " + late + "]"));
  conversion.reset({false, "", "", late});
  EXPECT_FALSE(init(nullptr));
  EXPECT_EQ(error, "ICC disabled or CMYK/output profile is empty");
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(IccTest, ARefusedRowFallsBackAndIsWarnedOfOnce) {
  ColorConversion conversion;
  conversion.reset(usual);
  const Bytes rgb = artwork(9, 3), cmyk = artwork(9, 4);
  Bytes out(9 * 4), plain(9 * 4);
  rgb_to_cmyk_simple(rgb.data(), plain.data(), 9);
  conversion.convert_rgb_row(nullptr, nullptr, nullptr, 0);  // an empty row is refused too
  conversion.convert_rgb_row(nullptr, rgb.data(), out.data(), 9);
  EXPECT_EQ(out, plain);
  for (int row = 0; row < 2; ++row) conversion.convert_cmyk_row(nullptr, cmyk.data(), out.data(), 9);
  EXPECT_EQ(out, cmyk);
  EXPECT_THAT(log.take(),
              ElementsAre(fallback_warning + "RGB->CMYK ICC conversion failed at runtime",
                          "[WARN ] StripCompositor: CMYK->CMYK ICC conversion failed at runtime; using "
                          "CMYK passthrough"));
}

TEST_F(IccTest, ThreadsGetTheSameBytesFromOwnAndSharedConverters) {
  constexpr std::size_t kPixels = 3000;
  ColorConversion conversion;
  conversion.reset(usual);
  const Bytes rgb = artwork(kPixels, 3), cmyk = artwork(kPixels, 4);
  WorkerIcc workers[2];
  std::array<Bytes, 4> results;
  std::vector<std::jthread> threads;
  for (std::size_t t = 0; t < results.size(); ++t)
    threads.emplace_back([&, t] {
      WorkerIcc* slot = t < 2 ? &workers[t] : nullptr;
      std::string error;
      results[t].resize(kPixels * 8);
      EXPECT_TRUE(conversion.init_rgb_icc(slot, error) && conversion.init_cmyk_icc(slot, error));
      conversion.convert_rgb_row(slot, rgb.data(), results[t].data(), kPixels);
      conversion.convert_cmyk_row(slot, cmyk.data(), results[t].data() + kPixels * 4, kPixels);
    });
  threads.clear();
  EXPECT_THAT(results, Each(results[0]));
}

}  // namespace
}  // namespace nvo
