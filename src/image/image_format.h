#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "image/image_claim.h"
#include "image/image_types.h"
#include "image/raster_source.h"
#include "image/row_stream.h"

namespace nvo {

/// What a file says of its size. A resolution that it does not state is 0.
struct ImageExtent : ImageRemarks {
  std::uint32_t width = 0, height = 0;  ///< pixels
  float dpi_x = 0.0f, dpi_y = 0.0f;     ///< dots per inch
};

/// How the program treats the files of one format. No other place asks which format a file has.
struct FormatTraits {
  const char* name = "Unknown";    ///< in log lines
  bool is_page = false;            ///< drawn at a fixed resolution; says itself what is white
  bool keeps_rows = false;         ///< its source holds all pixels from the start, so reading rows is free
  bool decodes_in_order = false;   ///< rows can't be had without decoding those above
  bool allows_bare_names = false;  ///< a path without a dot may itself be one of the extensions
};

/// One family of files that this program reads. The functions throw when a file cannot be read.
struct ImageFormat {
  ImageSourceKind kind;
  FormatTraits traits;
  std::span<const std::string_view> extensions;  ///< lower case, without the dot
  float default_dpi;                             ///< for files that state no resolution
  ImageExtent (*probe)(const std::string& path);
  LoadedImage (*load)(const std::string& path, const ThreadPlan& threads);
  std::shared_ptr<RasterSource> (*open_source)(const std::string& path, SharedFailures failures,
                                               const ThreadPlan& threads);
  /// The image's rows from the top, without the whole of it in memory; null, or a function that gives null or
  /// throws, where they can't be had so.
  std::unique_ptr<RowStream> (*open_stream)(const std::string& path);
  ImageClaim (*weigh)(const std::string& path);  ///< by the header; null where a format has no such bound
};

/// The format that reads files of this extension (lower case, without the dot), or null.
const ImageFormat* find_image_format(std::string_view extension);

/// Those of the format of this kind; of an unknown kind none is true.
const FormatTraits& format_traits(ImageSourceKind kind);

/// The format of a file to be loaded whole or probed, or null: by the text behind the last dot of its path. A
/// path without a dot may itself be an extension of four letters ("jpeg") where the format allows it.
const ImageFormat* find_file_format(std::string_view path);

}  // namespace nvo
