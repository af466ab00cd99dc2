// Makes printer data with libgutenprint: gutenprint_print INPUT WIDTH HEIGHT DPI DRIVER RESOLUTION DITHER
// OUTPUT [KEY=VALUE...] INPUT holds WIDTH x HEIGHT pixels of CMYK, a byte each, without a header.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include <gutenprint/gutenprint.h>

namespace {

struct Art {
  std::vector<char> pixels;
  int width, height;
};

const Art& art_of(stp_image_t* image) {
  return *static_cast<const Art*>(image->rep);
}

stp_image_status_t copy_row(stp_image_t* image, unsigned char* row, std::size_t size, int y) {
  const std::size_t bytes = std::size_t(art_of(image).width) * 4;
  std::memcpy(row, art_of(image).pixels.data() + std::size_t(y) * bytes, std::min(size, bytes));
  return STP_IMAGE_STATUS_OK;
}

stp_image_t image_of(Art& art) {
  stp_image_t image{};
  image.init = image.reset = image.conclude = [](stp_image_t*) {};
  image.width = [](stp_image_t* self) { return art_of(self).width; };
  image.height = [](stp_image_t* self) { return art_of(self).height; };
  image.get_row = copy_row;
  image.get_appname = [](stp_image_t*) { return "gutenprint_print"; };
  image.rep = &art;
  return image;
}

void write_output(void* file, const char* data, std::size_t size) {
  static_cast<std::ofstream*>(file)->write(data, std::streamsize(size));
}

void write_message(void*, const char* text, std::size_t size) {
  std::cerr.write(text, std::streamsize(size));
}

/// A page somewhat larger than the art, which starts at its upper left.
void lay_out(stp_vars_t* job, double width, double height) {
  constexpr double kMargins = 72;
  stp_set_string_parameter(job, "PageSize", "Custom");
  stp_set_page_width(job, width + kMargins);
  stp_set_page_height(job, height + kMargins);
}

void place(stp_vars_t* job, double width, double height) {
  stp_dimension_t left, right, bottom, top;
  stp_get_imageable_area(job, &left, &right, &bottom, &top);
  stp_set_left(job, left);
  stp_set_top(job, top);
  stp_set_width(job, std::min(width, right - left));
  stp_set_height(job, std::min(height, bottom - top));
}

int fail(const std::string& message) {
  std::cerr << message << '\n';
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 9) return 2;
  Art art{{}, std::atoi(argv[2]), std::atoi(argv[3])};
  std::ifstream input(argv[1], std::ios::binary);
  art.pixels.assign(std::istreambuf_iterator<char>(input), {});
  if (art.pixels.size() != std::size_t(art.width) * art.height * 4)
    return fail(std::string(argv[1]) + " has another size");

  stp_init();
  const stp_printer_t* printer = stp_get_printer_by_driver(argv[5]);
  if (printer == nullptr) return fail(std::string("there is no driver ") + argv[5]);
  stp_vars_t* job = stp_vars_create_copy(stp_printer_get_defaults(printer));
  std::ofstream output(argv[8], std::ios::binary);
  stp_set_driver(job, argv[5]);
  stp_set_outfunc(job, write_output);
  stp_set_outdata(job, &output);
  stp_set_errfunc(job, write_message);

  const double points = 72 / std::atof(argv[4]), width = art.width * points, height = art.height * points;
  lay_out(job, width, height);
  const char* const parameters[][2] = {{"PrintingMode", "Color"},   {"InputImageType", "CMYK"},
                                       {"ChannelBitDepth", "8"},    {"ColorCorrection", "Uncorrected"},
                                       {"JobMode", "Page"},         {"Resolution", argv[6]},
                                       {"DitherAlgorithm", argv[7]}};
  for (const auto& [key, value] : parameters) stp_set_string_parameter(job, key, value);
  for (int i = 9; i < argc; ++i) {
    const std::string pair = argv[i];
    const std::size_t sign = pair.find('=');
    if (sign == std::string::npos) return 2;
    stp_set_string_parameter(job, pair.substr(0, sign).c_str(), pair.substr(sign + 1).c_str());
  }
  stp_set_printer_defaults_soft(job, printer);
  place(job, width, height);
  if (stp_verify(job) == 0) return fail("the driver refuses these settings");
  stp_image_t image = image_of(art);
  if (stp_print(job, &image) == 0 || !output.flush()) return fail("printing failed");
  return 0;
}
