#include "image/tiff_reader.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include <tiffio.h>

#include "core/checked.h"
#include "core/large_vector.h"
#include "core/log.h"
#include "core/out_of_memory.h"
#include "core/threads/parallel.h"
#include "image/tiff_claim.h"
#include "image/tiff_errors.h"
#include "image/tiff_file.h"
#include "image/tiff_predictor.h"
#include "image/tiff_remarks.h"
#include "image/tiff_tags.h"

namespace nvo {
namespace {

/// A tile row that a neighbouring band may need too stays decoded if it is no larger than this.
constexpr std::uint64_t kMaxKeptTileRowBytes = 64 << 20;

/// Strips that stay decoded for the next band take no more than this together.
constexpr std::uint64_t kMaxKeptStripBytes = kMaxTiffPieceBytes;

/// A strip or tile above this size goes straight to its place in the image when the whole image is read.
constexpr std::uint64_t kMaxCopiedPieceBytes = 64 << 20;

/// A reader's first band gets so much room if the image has as many bytes.
constexpr std::uint64_t kBandRoom = 64 << 20;

/// Pieces up to this size are decoded side by side, in rounds of so many bytes or pieces.
constexpr std::uint64_t kMaxParallelPieceBytes = 4 << 20;
constexpr std::uint64_t kRoundBytes = 64 << 20;
constexpr std::uint64_t kMinPiecesOfRound = 16;
constexpr std::size_t kMaxPiecesOfRound = 4096;

/// Into how many pieces at a time a read of `count` pieces is divided; a short last round would keep threads
/// waiting.
std::size_t pieces_of_round(std::uint64_t count, std::uint64_t piece_bytes) {
  if (piece_bytes > kMaxParallelPieceBytes) return 1;
  const auto most =
      std::clamp<std::uint64_t>(kRoundBytes / piece_bytes, kMinPiecesOfRound, kMaxPiecesOfRound);
  const auto rounds = (count + most - 1) / most;
  return (count + rounds - 1) / rounds;
}

/// The rows that a read asks for, and where they go. `out` grows only as rows arrive, so a header that
/// promises more than the file holds costs no memory before the read fails.
class Band {
 public:
  Band(std::uint32_t first, std::uint32_t count, const TiffMeta& meta, std::vector<std::uint8_t>& out)
      : first_(first),
        end_(std::uint64_t{first} + count),
        row_bytes_(tiff_product(meta.width, meta.samples_per_pixel, "TIFF row bytes")),
        out_(out) {
    const auto bytes = tiff_product(count, row_bytes_, "TIFF row buffer size");
    // The content is not worth copying. Room that no row fills costs nothing, and the next band may be
    // larger.
    const auto room = std::min(kBandRoom, checked_product(meta.height, row_bytes_).value_or(kBandRoom));
    if (out.capacity() < bytes) reserve_large(out, std::max(bytes, room));
    if (out.size() > bytes) out.resize(bytes);
  }

  std::uint64_t first() const { return first_; }
  std::uint64_t end() const { return end_; }
  std::uint64_t row_bytes() const { return row_bytes_; }

  /// Makes room for all rows above row `to` of the image.
  void require(std::uint64_t to) {
    const auto end = (to - first_) * row_bytes_;
    if (out_.size() < end) out_.resize(end);
  }

  /// Where row `from` of the image belongs, with room for so many zeros there. Room beyond the band is for
  /// when nothing has come yet, and is given back by `cut`.
  std::uint8_t* zeroed_room(std::uint64_t from, std::uint64_t bytes) {
    const auto begin = (from - first_) * row_bytes_, end = begin + bytes;
    const auto old = std::min<std::uint64_t>(out_.size(), end);
    if (out_.capacity() < end && begin == 0) std::vector<std::uint8_t>().swap(out_);
    if (out_.capacity() < end) reserve_large(out_, end);
    if (out_.size() < end) out_.resize(end);
    if (begin < old) std::memset(out_.data() + begin, 0, old - begin);
    return out_.data() + begin;
  }
  void cut(std::uint64_t to) { out_.resize((to - first_) * row_bytes_); }

  /// Where row `from` of the image belongs, with room up to row `to`. Several threads may ask once there is
  /// room for all.
  std::uint8_t* rows(std::uint64_t from, std::uint64_t to) {
    require(to);
    return out_.data() + (from - first_) * row_bytes_;
  }

 private:
  std::uint64_t first_, end_, row_bytes_;
  std::vector<std::uint8_t>& out_;
};

/// Image rows `from` .. `to - 1`.
struct RowRange {
  std::uint64_t from, to;
};

struct Free {
  void operator()(void* memory) const { std::free(memory); }
};

/// A buffer that libtiff decodes into. Every decode finds zeros in it: for a damaged piece libtiff may report
/// success without having written all of it, and the pixels must be the same in every run. The zeros of a new
/// buffer are the system's own: pages that no decoder writes cost no memory, however large the file says that
/// its pieces are.
class DecodeBuffer {
 public:
  /// Room for `bytes` zeros.
  std::uint8_t* require(std::uint64_t bytes, std::string_view name) {
    if (bytes > size_) {
      release();
      bytes_.reset(static_cast<std::uint8_t*>(std::calloc(bytes, 1)));
      if (!bytes_) {
        std::ostringstream text;
        text << "TiffReader: out of memory for a " << name << " buffer of " << bytes << " bytes";
        throw OutOfMemory(text.str());
      }
      size_ = bytes;
      log_debug("TiffReader: ", name, " buffer of ", bytes, " bytes");
    } else if (used_ != 0) {
      std::memset(bytes_.get(), 0, used_);
    }
    used_ = 0;
    return bytes_.get();
  }

  /// Says how much of the buffer the decoder has filled.
  void set_used(std::uint64_t bytes) { used_ = bytes; }

  /// After a decode that failed nobody knows what was written.
  void release() {
    bytes_.reset();
    size_ = used_ = 0;
  }

  std::uint8_t* data() const { return bytes_.get(); }

 private:
  std::unique_ptr<std::uint8_t, Free> bytes_;
  std::uint64_t size_ = 0;
  std::uint64_t used_ = 0;  ///< bytes that may differ from 0
};

/// A strip, or a whole row of tiles, that stays decoded for the next read.
struct DecodedRows {
  DecodeBuffer buffer;
  std::optional<std::uint64_t> first_row;
  std::uint64_t rows = 0;  ///< whole rows that `buffer` holds

  bool hold(const RowRange& range) const {
    return first_row && *first_row <= range.from && range.to <= *first_row + rows;
  }

  void copy(const RowRange& range, Band& band) const {
    const auto row_bytes = band.row_bytes();
    std::memcpy(band.rows(range.from, range.to), buffer.data() + (range.from - *first_row) * row_bytes,
                (range.to - range.from) * row_bytes);
  }
};

/// The pieces of an image, of `height` rows each, that stay decoded. The sheet is walked upwards in bands
/// that overlap by a few rows, so the next band needs the first piece of this one once more, and the second
/// where the overlap reaches into it; a walk downwards needs the last.
class KeptPieces {
 public:
  /// Delivers to `band` what the kept pieces hold of it. This goes before any decoding, because the buffers
  /// of kept pieces are reused for new ones.
  void deliver(Band& band, std::uint64_t height, std::uint64_t image_height) {
    delivered_ = {};
    for (std::size_t i = 0; i < pieces_.size(); ++i) {
      DecodedRows& piece = pieces_[i];
      if (!piece.first_row || *piece.first_row >= band.end() || *piece.first_row + height <= band.first())
        continue;
      const RowRange wanted = wanted_rows(*piece.first_row, height, image_height, band);
      if (!piece.hold(wanted)) continue;
      piece.copy(wanted, band);
      delivered_[i] = piece.first_row;
    }
  }

  bool delivered(std::uint64_t first_row) const {
    return std::ranges::find(delivered_, std::optional(first_row)) != delivered_.end();
  }

  /// The buffer for the band's piece number `number`, marked as holding nothing. Large pieces share one.
  DecodedRows& place_for(std::uint64_t number, std::uint64_t piece_bytes) {
    const auto places = std::clamp<std::uint64_t>(kMaxKeptStripBytes / piece_bytes, 1, pieces_.size());
    DecodedRows& piece = pieces_[std::min<std::uint64_t>(number, places - 1)];
    piece.first_row.reset();
    return piece;
  }

  void release() { pieces_ = {}; }

  static RowRange wanted_rows(std::uint64_t first_row, std::uint64_t height, std::uint64_t image_height,
                              const Band& band) {
    return {std::max(first_row, band.first()), std::min({band.end(), image_height, first_row + height})};
  }

 private:
  std::array<DecodedRows, 3> pieces_;
  std::array<std::optional<std::uint64_t>, 3> delivered_;
};

std::uint32_t tile_position(std::uint64_t position, std::string_view axis) {
  if (position > kMaxU32) fail_tiff("tile ", axis, " offset overflow");
  return static_cast<std::uint32_t>(position);
}

/// Rows without a gap; see `add_up_row`.
void add_up_rows(const std::uint8_t* from, std::uint8_t* to, std::uint64_t rows, std::size_t pixels,
                 std::size_t samples) {
  for (; rows > 0; --rows, from += pixels * samples, to += pixels * samples)
    add_up_row(from, to, pixels, samples);
}

struct TileGrid {
  TileGrid(TIFF* tiff, const TiffMeta& meta) : image_width(meta.width), pixel_bytes(meta.samples_per_pixel) {
    tile_width = tiff_tag_or<std::uint32_t>(tiff, TIFFTAG_TILEWIDTH, 0);
    tile_length = tiff_tag_or<std::uint32_t>(tiff, TIFFTAG_TILELENGTH, 0);
    if (tile_width == 0 || tile_length == 0) fail_tiff("invalid tile dimensions in TIFF");
    const auto size = TIFFTileSize(tiff);
    if (size <= 0) fail_tiff("invalid tile size reported by libtiff");
    tile_bytes = static_cast<std::uint64_t>(size);
    tile_row_bytes = tiff_product(tile_width, pixel_bytes, "TIFF row bytes");
  }

  std::uint64_t image_width, pixel_bytes;
  std::uint64_t tile_width = 0, tile_length = 0;  ///< pixels
  std::uint64_t tile_bytes = 0, tile_row_bytes = 0;
};

/// Returns how many bytes of the tile at this place the decoder has filled, or none where it has failed.
std::optional<std::uint64_t> decode_tile(const TiffFile& file, std::uint8_t* samples, std::uint32_t x,
                                         std::uint32_t y) {
  const auto decoded = file.ask([&](TIFF* tiff) { return TIFFReadTile(tiff, samples, x, y, 0, 0); });
  return decoded < 0 ? std::nullopt : std::optional(static_cast<std::uint64_t>(decoded));
}

void refuse_large_pieces(TIFF* tiff) {
  const bool tiled = TIFFIsTiled(tiff) != 0;
  const auto size = tiled ? TIFFTileSize(tiff) : TIFFStripSize(tiff);
  if (size > 0 && static_cast<std::uint64_t>(size) > kMaxTiffPieceBytes)
    fail_tiff("unsupported TIFF ", tiled ? "tile" : "strip", " of ", size, " bytes. At most ",
              kMaxTiffPieceBytes, " bytes are decoded at a time.");
}

void invert_gray(const TiffMeta& meta, std::uint32_t rows, std::vector<std::uint8_t>& samples) {
  const auto pixels = tiff_product(meta.width, rows, "TIFF grayscale row pixel count");
  const auto bytes = tiff_product(pixels, meta.samples_per_pixel, "TIFF grayscale row byte count");
  if (samples.size() < bytes) fail_tiff("grayscale row buffer is shorter than expected");
  const std::size_t step = meta.samples_per_pixel;
  for (std::size_t i = 0; i < bytes; i += step) samples[i] = static_cast<std::uint8_t>(~samples[i]);
}

/// A handle on the file and what one thread decodes with it.
struct Decoder {
  TiffFile file;
  DecodeBuffer buffer;
};

/// What decoding a piece left behind, until its turn comes.
struct PieceOutcome {
  std::vector<LogEntry> log;
  std::exception_ptr error;
};

/// Whether a strip or tile of this compression says by itself what its samples are. Others may lean on those
/// that the handle has decoded before: a JPEG stream without tables takes the last ones that it saw.
bool pieces_stand_alone(TIFF* tiff) {
  constexpr std::uint16_t kStandAlone[] = {COMPRESSION_NONE,    COMPRESSION_PACKBITS,      COMPRESSION_LZW,
                                           COMPRESSION_DEFLATE, COMPRESSION_ADOBE_DEFLATE, COMPRESSION_LZMA,
                                           COMPRESSION_ZSTD};
  const auto compression = tiff_tag_or<std::uint16_t>(tiff, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
  return std::ranges::find(kStandAlone, compression) != std::end(kStandAlone);
}

/// The handles of one file. Pieces of the image are decoded side by side, each thread through a handle of its
/// own; messages and failures come out as if the pieces had been decoded in order.
class Decoders {
 public:
  using DecodePiece = std::function<void(Decoder&, std::size_t)>;

  explicit Decoders(const ThreadPlan& threads) : threads_(threads) {}

  TiffFile& first() { return decoders_.front().file; }
  TIFF* tiff() { return first().get(); }

  /// Calls `decode(decoder, i)` for pieces 0 .. `count` - 1 of `piece_bytes` bytes each, the first `in_turn`
  /// of them before the others begin. Of pieces that failed the first one's exception is thrown, as if none
  /// behind it had been tried.
  void decode(std::size_t count, std::uint64_t piece_bytes, std::uint64_t pixels, std::size_t in_turn,
              const DecodePiece& decode) {
    const bool small = piece_bytes <= kMaxParallelPieceBytes;
    const bool share = small && pieces_stand_alone(tiff()) && (first_piece_ || !begun_);
    const std::size_t threads = share ? threads_.compose_threads(count, pixels) : 1;
    if (threads < 2)
      in_turn = count;
    else if (!begun_)
      in_turn = std::max<std::size_t>(in_turn, 1);
    for (std::size_t i = 0; i < in_turn; ++i) {
      const bool first = !std::exchange(begun_, true);
      decode(decoders_.front(), i);
      if (first) first_piece_ = TIFFIsTiled(tiff()) ? TIFFCurrentTile(tiff()) : TIFFCurrentStrip(tiff());
    }
    if (in_turn == count) return;
    const std::size_t opened = open(threads);
    for (std::size_t begin = in_turn; begin < count; begin += kMaxPiecesOfRound)
      decode_round(begin, std::min(begin + kMaxPiecesOfRound, count), opened, decode);
  }

 private:
  void decode_round(std::size_t begin, std::size_t end, std::size_t threads, const DecodePiece& decode) {
    std::vector<PieceOutcome> outcomes(end - begin);
    parallel_tasks(end - begin, threads, [&](std::size_t piece, std::size_t thread) {
      Decoder& decoder = decoders_[thread];
      PieceOutcome& outcome = outcomes[piece];
      HeldLog held;
      try {
        decode(decoder, begin + piece);
      } catch (...) {
        outcome.error = std::current_exception();
      }
      outcome.log = held.take();
    });
    for (const PieceOutcome& outcome : outcomes) {
      Logger::instance().log_entries(outcome.log);
      if (outcome.error) std::rethrow_exception(outcome.error);
    }
  }

  /// Opens handles up to `wanted` and returns how many of those there are.
  std::size_t open(std::size_t wanted) {
    while (decoders_.size() < wanted) {
      TiffFile another = first().second();
      if (!another) break;
      begin_with_first_piece(another);
      decoders_.push_back({std::move(another), {}});
    }
    return std::min(wanted, decoders_.size());
  }

  /// A handle takes the first piece that it decodes for a sign of which of two LZW dialects the file is in,
  /// so all have to see the same piece first. A byte of it will do.
  void begin_with_first_piece(const TiffFile& file) const {
    const HeldLog unheard;
    std::uint8_t byte = 0;
    file.ask([&](TIFF* tiff) {
      return TIFFIsTiled(tiff) ? TIFFReadEncodedTile(tiff, *first_piece_, &byte, 1)
                               : TIFFReadEncodedStrip(tiff, *first_piece_, &byte, 1);
    });
  }

  ThreadPlan threads_;
  std::vector<Decoder> decoders_ = std::vector<Decoder>(1);
  bool begun_ = false;                        ///< a piece was tried
  std::optional<std::uint32_t> first_piece_;  ///< libtiff's number of it; none where it failed
};

}  // namespace

struct TiffReader::Impl {
  ThreadPlan threads;
  Decoders decoders{threads};
  KeptPieces kept{};

  TiffMeta read_meta();
  ImageRemarks remarks(const TiffMeta& meta) { return remark_tiff(decoders.first(), meta); }
  ImageClaim weigh(const TiffMeta& meta) { return weigh_tiff_pieces(decoders.first(), meta); }
  void read_rows(const TiffMeta& meta, std::uint32_t y, std::uint32_t rows, std::vector<std::uint8_t>& out);

 private:
  struct Strip;
  void read_strips(const TiffMeta& meta, Band& band);
  void decode_strips(const TiffMeta& meta, const std::vector<Strip>& strips, std::uint64_t strip_bytes,
                     Band& band);
  void read_tiles(const TiffMeta& meta, Band& band);
  std::uint32_t rows_per_strip(std::uint32_t image_height);
  bool is_large_and_sound(std::uint32_t piece, std::uint64_t piece_bytes);
  bool goes_to_its_place(const TileGrid& grid, std::uint64_t first_row, std::uint64_t image_height);
  void decode_tile_in_place(const TileGrid& grid, const RowRange& rows, Band& band);
  template <class RowTarget>
  void decode_tile_row(const TileGrid& grid, std::uint64_t first_row, const RowRange& wanted,
                       std::size_t tiles_in_turn, const RowTarget& target);
};

TiffMeta TiffReader::Impl::read_meta() {
  if (!decoders.first()) throw std::logic_error("TiffReader::read_meta called before open()");
  TiffMeta meta = read_tiff_tags(decoders.tiff());
  refuse_large_pieces(decoders.tiff());
  return meta;
}

void TiffReader::Impl::read_rows(const TiffMeta& meta, std::uint32_t y, std::uint32_t rows,
                                 std::vector<std::uint8_t>& out) {
  if (rows == 0) {
    out.clear();
    return;
  }
  if (y >= meta.height || rows > meta.height - y) fail_tiff("row-range request is out of bounds");

  Band band(y, rows, meta, out);
  if (TIFFIsTiled(decoders.tiff()))
    read_tiles(meta, band);
  else
    read_strips(meta, band);
  if (meta.is_gray && meta.min_is_white) invert_gray(meta, rows, out);
}

std::uint32_t TiffReader::Impl::rows_per_strip(std::uint32_t image_height) {
  const auto rows = tiff_tag_or<std::uint32_t>(decoders.tiff(), TIFFTAG_ROWSPERSTRIP, 0);
  if (rows != 0) return rows;
  return TIFFNumberOfStrips(decoders.tiff()) == 1 ? image_height : 1;
}

/// One strip that a band needs.
struct TiffReader::Impl::Strip {
  std::uint32_t index = 0;
  std::uint64_t first_row = 0;
  RowRange wanted{};
  DecodedRows* kept = nullptr;  ///< where the strip stays decoded, if it does
  bool in_place = false;        ///< all of it is wanted, and is decoded to where it stays

  /// Fills `buffer` with the samples of the strip and returns how many whole rows it has got; all wanted rows
  /// are among them.
  std::uint64_t decode(const TiffFile& file, std::uint64_t bytes, std::uint64_t row_bytes,
                       DecodeBuffer& buffer) const {
    const auto decoded = read(file, buffer.require(bytes, "strip"), bytes);
    if (decoded < 0) {
      buffer.release();
      fail_tiff("error reading strip ", index);
    }
    buffer.set_used(static_cast<std::uint64_t>(decoded));
    return count_rows(decoded, row_bytes);
  }

  /// Fills the strip's rows of the band, which has none of it elsewhere.
  void decode_into(const TiffFile& file, const TiffMeta& meta, Band& band) const {
    std::uint8_t* const rows = band.zeroed_room(wanted.from, (wanted.to - wanted.from) * band.row_bytes());
    const auto decoded = read(file, rows, (wanted.to - wanted.from) * band.row_bytes());
    if (decoded < 0) fail_tiff("error reading strip ", index);
    count_rows(decoded, band.row_bytes());
    if (file.gives_differences())
      add_up_rows(rows, rows, wanted.to - wanted.from, meta.width, meta.samples_per_pixel);
  }

 private:
  tmsize_t read(const TiffFile& file, std::uint8_t* samples, std::uint64_t bytes) const {
    return file.ask(
        [&](TIFF* tiff) { return TIFFReadEncodedStrip(tiff, index, samples, static_cast<tmsize_t>(bytes)); });
  }

  std::uint64_t count_rows(tmsize_t decoded, std::uint64_t row_bytes) const {
    const auto last_offset = tiff_product(wanted.to - 1 - first_row, row_bytes, "TIFF strip row offset");
    const auto needed = tiff_sum(last_offset, row_bytes, "TIFF strip row end");
    if (needed > static_cast<std::uint64_t>(decoded))
      fail_tiff("truncated strip ", index, " (not enough bytes for requested rows)");
    return static_cast<std::uint64_t>(decoded) / row_bytes;
  }
};

void TiffReader::Impl::read_strips(const TiffMeta& meta, Band& band) {
  log_debug("TiffReader: partial stripped read y=", band.first(), " rows=", band.end() - band.first());
  const auto size = TIFFStripSize(decoders.tiff());
  if (size <= 0) fail_tiff("invalid strip size reported by libtiff");
  const auto strip_bytes = static_cast<std::uint64_t>(size);
  const std::uint64_t strip_rows = rows_per_strip(meta.height);

  kept.deliver(band, strip_rows, meta.height);
  const auto first_strip = band.first() / strip_rows, last_strip = (band.end() - 1) / strip_rows;
  const std::size_t round = pieces_of_round(last_strip - first_strip + 1, strip_bytes);
  const bool whole_image = band.first() == 0 && band.end() == meta.height;
  std::vector<Strip> strips;
  for (auto strip = first_strip; strip <= last_strip; ++strip) {
    const auto first_row = strip * strip_rows;
    if (!kept.delivered(first_row)) {
      strips.push_back({.index = static_cast<std::uint32_t>(strip),
                        .first_row = first_row,
                        .wanted = KeptPieces::wanted_rows(first_row, strip_rows, meta.height, band)});
      const bool outer = strip - first_strip < 2 || strip == last_strip;
      strips.back().in_place = whole_image && is_large_and_sound(strips.back().index, strip_bytes);
      if (strips.back().in_place)
        kept.release();
      else if (outer)
        strips.back().kept = &kept.place_for(strip - first_strip, strip_bytes);
    }
    if (strips.empty() || (strips.size() < round && strip != last_strip)) continue;
    decode_strips(meta, strips, strip_bytes, band);
    strips.clear();
  }
}

/// Whether a strip or tile is worth decoding to its place in the image: large, and not just large by the
/// header's claim, for which the image would be filled with zeros in vain.
bool TiffReader::Impl::is_large_and_sound(std::uint32_t piece, std::uint64_t piece_bytes) {
  if (piece_bytes <= kMaxCopiedPieceBytes) return false;
  const TiffFile& file = decoders.first();
  return most_unpacked_bytes(file, stored_piece_bytes(file, piece)) >= piece_bytes;
}

/// Decodes strips, of which there are few enough to make room for all at once, and copies their wanted rows.
void TiffReader::Impl::decode_strips(const TiffMeta& meta, const std::vector<Strip>& strips,
                                     std::uint64_t strip_bytes, Band& band) {
  const std::size_t samples = meta.samples_per_pixel;
  const RowRange rows{strips.front().wanted.from, strips.back().wanted.to};
  if (strips.size() > 1) band.require(rows.to);
  decoders.decode(
      strips.size(), strip_bytes, (rows.to - rows.from) * meta.width, 0,
      [&](Decoder& decoder, std::size_t i) {
        const Strip& strip = strips[i];
        const bool sums = decoder.file.gives_differences();
        if (strip.in_place) {
          strip.decode_into(decoder.file, meta, band);
          return;
        }
        if (strip.kept) {
          DecodedRows& piece = *strip.kept;
          piece.rows = strip.decode(decoder.file, strip_bytes, band.row_bytes(), piece.buffer);
          if (sums) add_up_rows(piece.buffer.data(), piece.buffer.data(), piece.rows, meta.width, samples);
          piece.first_row = strip.first_row;
          piece.copy(strip.wanted, band);
          return;
        }
        strip.decode(decoder.file, strip_bytes, band.row_bytes(), decoder.buffer);
        const auto [from, to] = strip.wanted;
        const std::uint8_t* source = decoder.buffer.data() + (from - strip.first_row) * band.row_bytes();
        if (sums)
          add_up_rows(source, band.rows(from, to), to - from, meta.width, samples);
        else
          std::memcpy(band.rows(from, to), source, (to - from) * band.row_bytes());
      });
}

void TiffReader::Impl::read_tiles(const TiffMeta& meta, Band& band) {
  log_debug("TiffReader: partial tiled read y=", band.first(), " rows=", band.end() - band.first());
  const TileGrid grid(decoders.tiff(), meta);

  const bool whole_image = band.first() == 0 && band.end() == meta.height;
  kept.deliver(band, grid.tile_length, meta.height);
  const auto first_tile_row = band.first() - band.first() % grid.tile_length;
  for (auto first_row = first_tile_row; first_row < band.end(); first_row += grid.tile_length) {
    if (kept.delivered(first_row)) continue;
    const RowRange wanted = KeptPieces::wanted_rows(first_row, grid.tile_length, meta.height, band);
    const RowRange whole{first_row, std::min<std::uint64_t>(first_row + grid.tile_length, meta.height)};
    const auto whole_bytes = checked_product(whole.to - whole.from, band.row_bytes());
    const auto number = (first_row - first_tile_row) / grid.tile_length;
    const bool may_stay = whole_bytes && *whole_bytes <= kMaxKeptTileRowBytes;
    const bool partly_wanted = wanted.from != whole.from || wanted.to != whole.to;

    if (may_stay && (partly_wanted || number == 1)) {
      DecodedRows& piece = kept.place_for(number, *whole_bytes);
      std::uint8_t* rows = piece.buffer.require(*whole_bytes, "tile row");
      piece.buffer.set_used(*whole_bytes);
      decode_tile_row(grid, first_row, whole, 0,
                      [&](std::uint64_t row) { return rows + (row - first_row) * band.row_bytes(); });
      piece.first_row = first_row;
      piece.rows = whole.to - whole.from;
      piece.copy(wanted, band);
    } else if (whole_image && goes_to_its_place(grid, first_row, meta.height)) {
      decode_tile_in_place(grid, whole, band);
    } else {
      // For longer rows there is room when the file has proved to hold the first tile, and then for all.
      if (may_stay) band.require(wanted.to);
      decode_tile_row(grid, first_row, wanted, may_stay ? 0 : 1,
                      [&](std::uint64_t row) { return band.rows(row, row + 1); });
    }
  }
}

/// Whether a tile is to be decoded where the image has it: a large one that lies in the image with all its
/// rows and columns, or the image's only one, most of which the image covers.
bool TiffReader::Impl::goes_to_its_place(const TileGrid& grid, std::uint64_t first_row,
                                         std::uint64_t image_height) {
  const bool fits = grid.tile_width == grid.image_width && first_row + grid.tile_length <= image_height;
  const bool is_only = grid.tile_width >= grid.image_width && grid.tile_length >= image_height &&
                       image_height * grid.image_width * grid.pixel_bytes >= grid.tile_bytes / 2;
  if ((!fits && !is_only) || grid.tile_bytes != grid.tile_length * grid.tile_row_bytes) return false;
  const auto tile = TIFFComputeTile(decoders.tiff(), 0, tile_position(first_row, "row"), 0, 0);
  return is_large_and_sound(tile, grid.tile_bytes);
}

/// Decodes the tile whose rows in the image are `rows`; its columns beyond the image are then squeezed out.
void TiffReader::Impl::decode_tile_in_place(const TileGrid& grid, const RowRange& rows, Band& band) {
  kept.release();
  std::uint8_t* const samples = band.zeroed_room(rows.from, grid.tile_bytes);
  const std::uint64_t pixels = (rows.to - rows.from) * grid.image_width;
  decoders.decode(1, grid.tile_bytes, pixels, 1, [&](Decoder& decoder, std::size_t) {
    const auto decoded = decode_tile(decoder.file, samples, 0, tile_position(rows.from, "row"));
    if (!decoded) fail_tiff("error reading tile at 0,", rows.from);
    for (auto row = rows.from; row < rows.to; ++row) {
      const auto offset = (row - rows.from) * grid.tile_row_bytes;  // inside the tile
      if (offset + band.row_bytes() > *decoded) fail_tiff("truncated tile at 0,", rows.from);
      std::uint8_t* const from = samples + offset;
      if (decoder.file.gives_differences()) add_up_row(from, from, grid.image_width, grid.pixel_bytes);
      std::memmove(samples + (row - rows.from) * band.row_bytes(), from, band.row_bytes());
    }
  });
  band.cut(rows.to);
}

/// Decodes the tiles that begin at `first_row` and copies each one's wanted rows to `target(row)`, which
/// several threads may call when the first `tiles_in_turn` tiles are done.
template <class RowTarget>
void TiffReader::Impl::decode_tile_row(const TileGrid& grid, std::uint64_t first_row, const RowRange& wanted,
                                       std::size_t tiles_in_turn, const RowTarget& target) {
  const auto tile_y = tile_position(first_row, "row");
  const auto tiles = static_cast<std::size_t>((grid.image_width - 1) / grid.tile_width + 1);
  const std::uint64_t pixels = (wanted.to - wanted.from) * grid.image_width;
  decoders.decode(tiles, grid.tile_bytes, pixels, tiles_in_turn, [&](Decoder& decoder, std::size_t tile) {
    const std::uint64_t column = tile * grid.tile_width;
    const auto tile_x = tile_position(column, "column");
    std::uint8_t* const samples = decoder.buffer.require(grid.tile_bytes, "tile");
    const auto decoded = decode_tile(decoder.file, samples, tile_x, tile_y);
    if (!decoded) {
      decoder.buffer.release();
      fail_tiff("error reading tile at ", tile_x, ",", tile_y);
    }
    decoder.buffer.set_used(*decoded);

    const auto columns = std::min(grid.image_width - column, grid.tile_width);
    const auto copy_bytes = tiff_product(columns, grid.pixel_bytes, "TIFF tile copy bytes");
    for (auto row = wanted.from; row < wanted.to; ++row) {
      const auto offset = tiff_product(row - first_row, grid.tile_row_bytes, "TIFF tile row offset");
      if (tiff_sum(offset, copy_bytes, "TIFF tile row end") > *decoded)
        fail_tiff("truncated tile at ", tile_x, ",", tile_y);
      std::uint8_t* const to = target(row) + column * grid.pixel_bytes;
      if (decoder.file.gives_differences())
        add_up_row(samples + offset, to, columns, grid.pixel_bytes);
      else
        std::memcpy(to, samples + offset, copy_bytes);
    }
  });
}

TiffReader::TiffReader(const ThreadPlan& threads) : impl_(std::make_unique<Impl>(Impl{.threads = threads})) {}
TiffReader::~TiffReader() = default;
TiffReader::TiffReader(TiffReader&&) noexcept = default;

void TiffReader::open(const std::string& path) {
  close();
  impl_->decoders.first() = TiffFile::open(path);
  if (!impl_->decoders.first()) fail_tiff("cannot open '", path, "'");
}

TiffMeta TiffReader::read_meta() {
  return impl_->read_meta();
}

ImageRemarks TiffReader::remarks(const TiffMeta& meta) {
  return impl_->remarks(meta);
}

ImageClaim TiffReader::weigh(const TiffMeta& meta) {
  return impl_->weigh(meta);
}

std::vector<std::uint8_t> TiffReader::read_image() {
  const TiffMeta meta = impl_->read_meta();
  std::vector<std::uint8_t> samples;
  impl_->read_rows(meta, 0, meta.height, samples);
  return samples;
}

std::vector<std::uint8_t> TiffReader::read_rows(std::uint32_t y, std::uint32_t rows) {
  std::vector<std::uint8_t> samples;
  read_rows(y, rows, samples);
  return samples;
}

void TiffReader::read_rows(std::uint32_t y, std::uint32_t rows, std::vector<std::uint8_t>& out) {
  impl_->read_rows(impl_->read_meta(), y, rows, out);
}

void TiffReader::close() {
  *impl_ = Impl{.threads = impl_->threads};
}

}  // namespace nvo
