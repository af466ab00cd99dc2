#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "image/decode/byte_reader.h"

struct inflate_state;  // of ISA-L

namespace nvo {

/// What the IDAT chunks of a sound PNG unpack to, at the speed of ISA-L. A chunk's checksum is compared
/// before any of its bytes is used, so that damage of the file shows before it reaches a pixel. Whatever is
/// not as it should be ends the stream, without a text: libpng then says what it is.
class PngStream {
 public:
  /// `chunk` is the position of the first IDAT chunk. `size` says how many bytes the pixels take.
  PngStream(ByteReader& reader, std::uint64_t chunk, std::uint64_t size);
  ~PngStream();
  PngStream(const PngStream&) = delete;
  PngStream& operator=(const PngStream&) = delete;

  /// Fills `out`, or as much of it as there is where the stream has ended; returns how many bytes that is.
  std::size_t read(std::span<std::uint8_t> out);

  /// The last byte has been read and the checksum of all of them is right.
  bool has_ended() const { return state_ == State::ended; }
  /// Something is not as in a sound file, or a read has failed.
  bool is_broken() const { return state_ == State::broken; }

 private:
  enum class State { sound, ended, broken };

  bool load();
  std::size_t load_chunks();
  std::size_t load_piece();
  std::optional<std::uint32_t> next_chunk();
  bool check_chunk(std::uint32_t length);
  bool has_usual_window(std::uint8_t first) const;

  ByteReader& reader_;
  std::uint64_t size_;
  State state_ = State::sound;
  bool is_begun_ = false;
  std::uint32_t piece_left_ = 0;  // of a chunk that is longer than the buffer
  std::unique_ptr<std::uint8_t[]> input_;
  std::unique_ptr<inflate_state> inflate_;
};

}  // namespace nvo
