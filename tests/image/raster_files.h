#pragma once

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>

#include <jpeglib.h>
#include <png.h>
#include <webp/encode.h>

#include "image/image_test.h"

namespace nvo::test {

using Rgba = std::array<std::uint8_t, 4>;

/// `pixel` at each place, as decoders deliver an image.
inline Bytes rgba_image(std::uint32_t width, std::uint32_t height,
                        const std::function<Rgba(std::uint32_t x, std::uint32_t y)>& pixel) {
  Bytes image;
  image.reserve(std::size_t{width} * height * 4);
  for (std::uint32_t y = 0; y < height; ++y)
    for (std::uint32_t x = 0; x < width; ++x)
      for (const std::uint8_t sample : pixel(x, y)) image.push_back(sample);
  return image;
}

/// Different everywhere, never transparent.
inline Rgba busy_pixel(std::uint32_t x, std::uint32_t y) {
  const std::uint32_t mix = (x * 2654435761u + y * 40503u) ^ (x * y);
  return {static_cast<std::uint8_t>(mix >> 8), static_cast<std::uint8_t>(mix >> 16),
          static_cast<std::uint8_t>(x + y), static_cast<std::uint8_t>(1 + mix % 255)};
}

/// Appends a number, lowest byte first.
inline void put_little(std::string& bytes, std::uint64_t value, int count) {
  for (int i = 0; i < count; ++i) bytes += static_cast<char>(value >> (8 * i));
}

/// A PNG of 8-bit RGBA whose pixels are `pixel(x, y)`.
struct PngFile {
  bool interlaced = false;
  std::uint32_t width = 13, height = 11;
  std::uint32_t per_metre_x = 0, per_metre_y = 0;
  int unit = PNG_RESOLUTION_METER;
  std::function<Rgba(std::uint32_t x, std::uint32_t y)> pixel = busy_pixel;
  bool header_only = false;  ///< cut off behind the first bytes of the pixels

  Bytes pixels() const { return rgba_image(width, height, pixel); }

  std::string bytes() const {
    std::string file;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    const auto write = [](png_structp writer, png_bytep data, std::size_t size) {
      static_cast<std::string*>(png_get_io_ptr(writer))->append(reinterpret_cast<char*>(data), size);
    };
    png_set_write_fn(png, &file, write, nullptr);
    png_infop info = png_create_info_struct(png);
    png_set_compression_level(png, 1);
    png_set_user_limits(png, 0x7FFFFFFF, 0x7FFFFFFF);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB_ALPHA, interlaced, 0, 0);
    if (per_metre_x != 0) png_set_pHYs(png, info, per_metre_x, per_metre_y, unit);
    png_write_info(png, info);
    if (header_only) {
      png_write_chunk(png, reinterpret_cast<png_const_bytep>("IDAT"),
                      reinterpret_cast<png_const_bytep>("\x78\x9C"), 2);
    } else {
      Bytes samples = pixels();
      std::vector<png_bytep> rows;
      for (std::uint32_t y = 0; y < height; ++y) rows.push_back(samples.data() + std::size_t{y} * width * 4);
      png_write_image(png, rows.data());
      png_write_end(png, info);
    }
    png_destroy_write_struct(&png, &info);
    return file;
  }
};

inline std::string png_header_only(std::uint32_t width, std::uint32_t height) {
  return PngFile{.width = width, .height = height, .header_only = true}.bytes();
}

/// An Exif block without its mark. Resolutions are fractions; 0 leaves a tag out.
struct ExifFile {
  bool big_endian = false;
  std::uint32_t orientation = 0, unit = 0, x = 0, x_below = 1, y = 0;

  std::string bytes() const {
    constexpr std::uint32_t kEntryBytes = 12, kDirectoryAt = 8;
    std::vector<std::array<std::uint32_t, 3>> tags;  // number, type, value
    if (orientation != 0) tags.push_back({274, 3, orientation});
    const auto fractions_at = [&](std::uint32_t count) { return kDirectoryAt + 2 + count * kEntryBytes + 4; };
    const std::uint32_t count = (orientation != 0) + (x != 0) + (y != 0) + (unit != 0);
    if (x != 0) tags.push_back({282, 5, fractions_at(count)});
    if (y != 0) tags.push_back({283, 5, fractions_at(count) + 8});
    if (unit != 0) tags.push_back({296, 3, unit});
    std::string block = big_endian ? "MM" : "II";
    put(block, 42, 2);
    put(block, kDirectoryAt, 4);
    put(block, count, 2);
    for (const auto& [tag, type, value] : tags) {
      put(block, tag, 2);
      put(block, type, 2);
      put(block, 1, 4);
      put(block, value, type == 3 ? 2 : 4);
      if (type == 3) put(block, 0, 2);
    }
    for (const std::uint32_t number : {0u, x, x_below, y, 1u}) put(block, number, 4);
    return block;
  }

 private:
  void put(std::string& block, std::uint32_t value, int count) const {
    std::string number;
    put_little(number, value, count);
    if (big_endian) std::reverse(number.begin(), number.end());
    block += number;
  }
};

/// A JPEG with a segment in front of all others.
inline std::string with_segment(std::string jpeg, char marker, const std::string& data) {
  const std::size_t size = data.size() + 2;
  const std::string length = {static_cast<char>(size >> 8), static_cast<char>(size)};
  return jpeg.insert(2, std::string("\xFF") + marker + length + data);
}
inline std::string with_exif(const std::string& jpeg, const ExifFile& exif) {
  return with_segment(jpeg, '\xE1', std::string("Exif\0\0", 6) + exif.bytes());
}

/// A PNG with a chunk behind its header. The checksum is wrong, as nobody should look at it.
inline std::string with_chunk(std::string png, const std::string& type, const std::string& data) {
  std::string length;
  put_little(length, data.size(), 4);
  std::reverse(length.begin(), length.end());
  return png.insert(33, length + type + data + "crc?");
}

/// A JPEG of `components` samples a pixel, best quality, without subsampling.
struct JpegFile {
  int components = 3;
  J_COLOR_SPACE stored = JCS_YCbCr;
  bool progressive = false, adobe = false;
  std::uint32_t width = 40, height = 33;
  UINT8 density_unit = 0;
  UINT16 density_x = 1, density_y = 1;
  std::function<std::uint8_t(std::uint32_t x, std::uint32_t y, int component)> sample =
      [](std::uint32_t x, std::uint32_t y, int component) {
        return static_cast<std::uint8_t>(20 + x * 4 + y * (component + 1));
      };

  std::string bytes() const {
    jpeg_compress_struct jpeg{};
    jpeg_error_mgr errors{};
    jpeg.err = jpeg_std_error(&errors);
    jpeg_create_compress(&jpeg);
    unsigned char* data = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&jpeg, &data, &size);
    jpeg.image_width = width;
    jpeg.image_height = height;
    jpeg.input_components = components;
    jpeg.in_color_space = components == 1 ? JCS_GRAYSCALE : components == 3 ? JCS_RGB : JCS_CMYK;
    jpeg_set_defaults(&jpeg);
    jpeg_set_colorspace(&jpeg, stored);
    jpeg_set_quality(&jpeg, 100, TRUE);
    for (int c = 0; c < components; ++c)
      jpeg.comp_info[c].h_samp_factor = jpeg.comp_info[c].v_samp_factor = 1;
    jpeg.write_Adobe_marker = adobe;
    jpeg.density_unit = density_unit;
    jpeg.X_density = density_x;
    jpeg.Y_density = density_y;
    if (progressive) jpeg_simple_progression(&jpeg);
    jpeg_start_compress(&jpeg, TRUE);
    Bytes row(std::size_t{width} * static_cast<unsigned>(components));
    for (std::uint32_t y = 0; y < height; ++y) {
      const auto count = static_cast<std::uint32_t>(components);
      for (std::uint32_t i = 0; i < row.size(); ++i)
        row[i] = sample(i / count, y, static_cast<int>(i % count));
      JSAMPROW pointer = row.data();
      jpeg_write_scanlines(&jpeg, &pointer, 1);
    }
    jpeg_finish_compress(&jpeg);
    jpeg_destroy_compress(&jpeg);
    std::string file(reinterpret_cast<char*>(data), size);
    std::free(data);
    return file;
  }
};

inline std::string webp_bytes(const Bytes& rgba, int width, int height, bool lossless) {
  std::uint8_t* data = nullptr;
  const std::size_t size = lossless ? WebPEncodeLosslessRGBA(rgba.data(), width, height, width * 4, &data)
                                    : WebPEncodeRGBA(rgba.data(), width, height, width * 4, 95.0f, &data);
  std::string file(reinterpret_cast<char*>(data), size);
  WebPFree(data);
  return file;
}

inline std::string riff_chunk(const std::string& name, const std::string& data) {
  std::string chunk = name;
  put_little(chunk, data.size(), 4);
  return chunk + data + std::string(data.size() % 2, '\0');
}

/// A frame of an animation; `still` is a WebP file of one chunk.
struct WebpFrameFile {
  std::uint32_t x = 0, y = 0, width = 0, height = 0;  ///< the offsets are even
  std::string still;
};

/// An extended WebP file: flags of its header (2 animation, 4 metadata, 8 Exif, 16 alpha, 32 profile) and its
/// chunks.
inline std::string extended_webp(int flags, std::uint32_t width, std::uint32_t height,
                                 const std::string& chunks) {
  std::string header;
  put_little(header, static_cast<std::uint64_t>(flags), 4);
  put_little(header, width - 1, 3);
  put_little(header, height - 1, 3);
  return riff_chunk("RIFF", "WEBP" + riff_chunk("VP8X", header) + chunks);
}

inline std::string animated_webp(std::uint32_t width, std::uint32_t height,
                                 const std::vector<WebpFrameFile>& frames) {
  constexpr std::size_t kChunkAt = 12;
  std::string chunks = riff_chunk("ANIM", std::string(6, '\0'));
  for (const WebpFrameFile& frame : frames) {
    std::string data;
    for (const std::uint32_t value : {frame.x / 2, frame.y / 2, frame.width - 1, frame.height - 1, 100u})
      put_little(data, value, 3);
    chunks += riff_chunk("ANMF", data + '\0' + frame.still.substr(kChunkAt));
  }
  return extended_webp(2 | 16, width, height, chunks);
}

/// A BMP: `data` is what stands behind the headers, the rest follows from it.
struct BmpFile {
  std::uint32_t header = 40;
  std::int32_t width = 3, height = 2;
  std::uint16_t bits = 24;
  std::uint32_t compression = 0;
  std::vector<std::uint32_t> masks = {};    ///< red, green, blue and maybe alpha
  std::vector<std::uint32_t> palette = {};  ///< 0xRRGGBB
  std::string data = {};
  std::int32_t per_metre_x = 0, per_metre_y = 0;

  std::string bytes() const {
    std::string info;
    put_little(info, header, 4);
    for (const std::int32_t side : {width, height})
      put_little(info, static_cast<std::uint32_t>(side), header == 12 ? 2 : 4);
    put_little(info, 1, 2);
    put_little(info, bits, 2);
    if (header > 16) {
      put_little(info, compression, 8);
      put_little(info, static_cast<std::uint32_t>(per_metre_x), 4);
      put_little(info, static_cast<std::uint32_t>(per_metre_y), 4);
      put_little(info, palette.size(), 8);
    }
    for (const std::uint32_t mask : masks) put_little(info, mask, 4);
    if (info.size() < header) info.resize(header);
    for (const std::uint32_t color : palette) put_little(info, color, header == 12 ? 3 : 4);
    std::string file = "BM";
    put_little(file, 14 + info.size() + data.size(), 4);
    put_little(file, 0, 4);
    put_little(file, 14 + info.size(), 4);
    return file + info + data;
  }
};

}  // namespace nvo::test
