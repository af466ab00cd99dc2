// Screens a TIFF with libvips: vips_screen INPUT OUTPUT_PREFIX WIDTH HEIGHT KERNEL
// Each band is resized to WIDTH x HEIGHT (KERNEL 0: nearest pixel, 1: linear), compared with a tiled mask of
// 256 x 256 thresholds for four levels, and saved as a TIFF of two bits a dot.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <vips/vips.h>

namespace {

constexpr int kMaskSide = 256;

[[noreturn]] void give_up() {
  vips_error_exit("vips_screen");
}

VipsImage* checked(VipsImage* image) {
  if (image == nullptr) give_up();
  return image;
}

void check(int status) {
  if (status != 0) give_up();
}

/// Every threshold equally often, at random places.
VipsImage* mask(int width, int height) {
  std::vector<VipsPel> thresholds(kMaskSide * kMaskSide);
  for (std::size_t i = 0; i < thresholds.size(); ++i)
    thresholds[i] = VipsPel(i * 255 / (thresholds.size() - 1));
  std::shuffle(thresholds.begin(), thresholds.end(), std::mt19937(1));
  VipsImage* tile = checked(vips_image_new_from_memory_copy(thresholds.data(), thresholds.size(), kMaskSide,
                                                            kMaskSide, 1, VIPS_FORMAT_UCHAR));
  VipsImage *tiled, *cut;
  check(vips_replicate(tile, &tiled, (width + kMaskSide - 1) / kMaskSide,
                       (height + kMaskSide - 1) / kMaskSide, nullptr));
  check(vips_extract_area(tiled, &cut, 0, 0, width, height, nullptr));
  return cut;
}

/// What each value is compared with, and the levels below and above; the saver of two bits takes 0, 85, 170
/// and 255.
struct Tables {
  VipsImage *threshold, *lower, *upper;
};

Tables tables() {
  std::array<std::array<VipsPel, 256>, 3> values;
  for (std::size_t v = 0; v < 256; ++v) {
    const std::size_t level = v / 85;
    values[0][v] = VipsPel((v - level * 85) * 3);
    values[1][v] = VipsPel(level * 85);
    values[2][v] = VipsPel(std::min<std::size_t>(level + 1, 3) * 85);
  }
  const auto image = [](const std::array<VipsPel, 256>& table) {
    return checked(vips_image_new_from_memory_copy(table.data(), table.size(), 256, 1, 1, VIPS_FORMAT_UCHAR));
  };
  return {image(values[0]), image(values[1]), image(values[2])};
}

void screen(VipsImage* plane, VipsImage* mask, const Tables& tables, const std::string& path) {
  VipsImage *threshold, *lower, *upper, *dot, *level;
  check(vips_maplut(plane, &threshold, tables.threshold, nullptr));
  check(vips_maplut(plane, &lower, tables.lower, nullptr));
  check(vips_maplut(plane, &upper, tables.upper, nullptr));
  check(vips_less(mask, threshold, &dot, nullptr));
  check(vips_ifthenelse(dot, upper, lower, &level, nullptr));
  check(vips_tiffsave(level, path.c_str(), "bitdepth", 2, "compression", VIPS_FOREIGN_TIFF_COMPRESSION_NONE,
                      nullptr));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6 || VIPS_INIT(argv[0]) != 0) return 2;
  const int width = std::atoi(argv[3]), height = std::atoi(argv[4]), kernel = std::atoi(argv[5]);
  VipsImage* art = checked(vips_image_copy_memory(checked(vips_image_new_from_file(argv[1], nullptr))));
  VipsImage* thresholds = mask(width, height);
  const Tables levels = tables();
  for (int band = 0; band < vips_image_get_bands(art); ++band) {
    VipsImage *plane, *resized;
    check(vips_extract_band(art, &plane, band, nullptr));
    check(vips_resize(plane, &resized, double(width) / vips_image_get_width(art), "vscale",
                      double(height) / vips_image_get_height(art), "kernel", kernel, nullptr));
    screen(resized, thresholds, levels, std::string(argv[2]) + "_" + std::to_string(band) + ".tif");
  }
  return 0;
}
