// Makes the inputs of run_table: nvo_bench_inputs FOLDER NAME..., or nvo_bench_inputs --list.
#include <algorithm>
#include <exception>
#include <filesystem>
#include <functional>
#include <future>
#include <iostream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <tiffio.h>

#include "row_sink.h"

namespace {

using namespace nvo::bench;
using Samples = TiffForm::Samples;

struct Input {
  const char* name;
  const char* what;
  Art (*art)();
  std::function<std::unique_ptr<RowSink>(const std::string& path, const Art& art)> sink;
};

Input tiff(const char* name, const char* what, Art (*art)(), const TiffForm& form) {
  return {name, what, art,
          [form](const std::string& path, const Art& drawn) { return tiff_sink(path, drawn, form); }};
}

/// What is drawn, and as what it is written. Inputs of one art are drawn together.
std::vector<Input> all_inputs() {
  const TiffForm none{.compression = COMPRESSION_NONE};
  const TiffForm lzw{.compression = COMPRESSION_LZW, .predictor = true};
  const TiffForm zip{.compression = COMPRESSION_ADOBE_DEFLATE, .predictor = true};
  TiffForm tiled = lzw, fine = lzw, coarse = none;
  tiled.tiled = true;
  fine.dpi = 600;
  coarse.dpi = 30;
  // As an image library saves it: strips of about 64 KiB.
  const TiffForm rgba{.samples = Samples::rgba, .compression = COMPRESSION_LZW, .rows_per_strip = 2};
  std::vector<Input> inputs{
      tiff("photo.tif", "10 x 10 inch at 300 dpi, CMYK and white, LZW", photo, lzw),
      tiff("photo_none.tif", "the same, uncompressed", photo, none),
      tiff("photo_600.tif", "the same, LZW, as 5 x 5 inch at 600 dpi", photo, fine),
      tiff("art_30dpi.tif", "every tenth pixel of it at 30 dpi, uncompressed", tenth_of_photo, coarse),
      {"photo.png", "the photo as RGBA", photo, png_sink},
      {"photo_cmyk.raw", "its four inks without a header", photo, raw_cmyk_sink},
      tiff("sheet_lzw.tif", "gang sheet, 22 x 60 inch at 300 dpi, CMYK and white, LZW", gang_sheet, lzw),
      tiff("sheet_zip.tif", "the same, ZIP", gang_sheet, zip),
      tiff("sheet_tiled.tif", "the same, LZW in tiles", gang_sheet, tiled),
      {"sheet.png", "the same as RGBA", gang_sheet, png_sink},
      {"sheet.jpg", "the same as RGB on white, quality 92", gang_sheet, jpeg_sink},
      {"sheet.pdf", "the same as a page of 65 images with soft masks", gang_sheet, sheet_pdf_sink},
      tiff("noise.tif", "22 x 60 inch, RGBA, a random quarter of the pixels", distressed_noise, rgba),
      tiff("dots.tif", "the same size, dots of 1 to 4 pixels", distressed_dots, rgba),
      tiff("checker.tif", "the same size, every other pixel", distressed_checker, rgba),
  };
  for (const bool white : {false, true}) {
    inputs.push_back(
        {white ? "photo_cmykw.pdf" : "photo_cmyk.pdf", "the photo as a page", photo,
         [white](const std::string& path, const Art& art) { return image_pdf_sink(path, art, white); }});
  }
  static constexpr const char* kPlanes[] = {"photo_c.pgm", "photo_m.pgm", "photo_y.pgm", "photo_k.pgm",
                                            "photo_w.pgm"};
  for (int ink = 0; ink < 5; ++ink) {
    inputs.push_back(
        {kPlanes[ink], "an ink of the photo", photo,
         [ink](const std::string& path, const Art& art) { return graymap_sink(path, art, ink); }});
  }
  static constexpr const char* kFewInks[] = {"photo_inks_1.tif", "photo_inks_2.tif", "photo_inks_3.tif",
                                             "photo_inks_4.tif"};
  for (int inks = 1; inks <= 4; ++inks) {
    TiffForm few = none;
    few.inks = inks;
    inputs.push_back(
        tiff(kFewInks[inks - 1], "the photo, uncompressed, the other channels empty", photo, few));
  }
  return inputs;
}

using Band = std::vector<Pixel>;

void draw_band(const Art& art, int top, int rows, Band& band) {
  band.resize(std::size_t(art.width) * rows);
  const int workers = std::max(1, int(std::thread::hardware_concurrency()));
  std::vector<std::jthread> threads;
  for (int worker = 0; worker < workers; ++worker) {
    threads.emplace_back([&, worker] {
      for (int row = worker; row < rows; row += workers) {
        for (int x = 0; x < art.width; ++x) band[std::size_t(row) * art.width + x] = art.at(x, top + row);
      }
    });
  }
}

/// While one band is written, each file by a thread of its own, the next is drawn.
void draw(const Art& art, const std::vector<std::unique_ptr<RowSink>>& sinks) {
  Band bands[2];
  std::vector<std::future<void>> writing;
  const auto wait = [&writing] {
    for (auto& task : writing) task.get();
    writing.clear();
  };
  for (int top = 0, number = 0; top < art.height; top += kBandRows, ++number) {
    const int rows = std::min(kBandRows, art.height - top);
    Band& band = bands[number % 2];
    draw_band(art, top, rows, band);
    wait();
    for (const auto& sink : sinks) {
      writing.push_back(
          std::async(std::launch::async, [&sink, &band, rows] { sink->take(band.data(), rows); }));
    }
  }
  wait();
  for (const auto& sink : sinks) sink->finish();
}

std::filesystem::path unfinished(const std::filesystem::path& folder, const Input& input) {
  return folder / (std::string(input.name) + ".part");
}

/// Files get their names when they are whole, so that those with a name can be relied on.
void make(const std::filesystem::path& folder, std::vector<Input> wanted) {
  while (!wanted.empty()) {
    const auto art_of = wanted.front().art;
    const auto others =
        std::stable_partition(wanted.begin(), wanted.end(), [&](const Input& i) { return i.art == art_of; });
    const Art art = art_of();
    std::vector<std::unique_ptr<RowSink>> sinks;
    for (auto input = wanted.begin(); input != others; ++input) {
      sinks.push_back(input->sink(unfinished(folder, *input).string(), art));
    }
    draw(art, sinks);
    for (auto input = wanted.begin(); input != others; ++input) {
      std::filesystem::rename(unfinished(folder, *input), folder / input->name);
    }
    wanted.erase(wanted.begin(), others);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const auto inputs = all_inputs();
  if (argc == 2 && std::string(argv[1]) == "--list") {
    for (const Input& input : inputs) std::cout << input.name << "\t" << input.what << '\n';
    return 0;
  }
  if (argc < 3) {
    std::cerr << "Usage: nvo_bench_inputs FOLDER NAME..., or nvo_bench_inputs --list\n";
    return 2;
  }
  std::vector<Input> wanted;
  for (int i = 2; i < argc; ++i) {
    const auto found = std::find_if(inputs.begin(), inputs.end(),
                                    [&](const Input& input) { return argv[i] == std::string(input.name); });
    if (found == inputs.end()) {
      std::cerr << "No input is called " << argv[i] << "; nvo_bench_inputs --list names all.\n";
      return 2;
    }
    wanted.push_back(*found);
  }
  try {
    std::filesystem::create_directories(argv[1]);
    make(argv[1], wanted);
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    std::error_code ignored;
    for (const Input& input : wanted) std::filesystem::remove(unfinished(argv[1], input), ignored);
    return 1;
  }
  return 0;
}
