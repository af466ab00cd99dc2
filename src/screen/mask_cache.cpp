#include "screen/mask_cache.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "core/atomic_file.h"
#include "core/checked.h"
#include "core/fnv1a.h"
#include "core/large_vector.h"
#include "core/log.h"
#include "core/machine_failure.h"
#include "core/platform/input_file.h"
#include "core/platform/paths.h"
#include "screen/mask_generator.h"

namespace nvo {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kMaxDimension = 0x7FFFFFFF;
constexpr std::uint64_t kMaxSetBytes = 0x20000000;
constexpr std::uint64_t kMinTilePixels = 2;
constexpr const char* kFolderName = "bn_cache";

// The cache file: a little-endian header and the masks.
constexpr std::size_t kHeaderSize = 56;
constexpr std::array<char, 4> kMagic = {'B', 'M', 'S', 'K'};
constexpr std::uint32_t kFormatVersion = 5;
constexpr std::size_t kParamsEnd =
    28;  // behind magic, format version, tile size, count, sigma and set version
constexpr std::size_t kHashOffset = 48;
using Header = std::array<std::uint8_t, kHeaderSize>;

/// The hash of the masks that the generator makes from the parameters of every print, after each eighth of
/// them; the last is that of the whole set.
constexpr std::array<std::uint64_t, 8> kHashesOfDefaultSet = {
    0xF418D953F6BB7DA5, 0xAFF3F33A4C0C11B8, 0x44FBD2AD96B12AB0, 0xDD179660B65442C7,
    0x25657515BEA28D4B, 0xFF619D126D5E9971, 0xCD3C64FBF7B20568, 0xBC20D3E320440649};

void check(const MaskParams& p) {
  if (p.tile_w == 0 || p.tile_h == 0 || p.n_masks == 0)
    throw std::invalid_argument("MaskCache: tile_w/tile_h/n_masks must be > 0");
  if (p.tile_w > kMaxDimension || p.tile_h > kMaxDimension || p.n_masks > kMaxDimension)
    throw std::invalid_argument("MaskCache: dimensions exceed supported range");
  if (!mask_set_bytes(p)) throw std::invalid_argument("MaskCache: requested cache is too large");
  if (std::uint64_t{p.tile_w} * p.tile_h < kMinTilePixels)
    throw std::invalid_argument("MaskCache: tile must contain at least two pixels");
  if (!std::isfinite(p.sigma) || !(p.sigma > 0.0f) || p.sigma > kMaxMaskSigma)
    throw std::invalid_argument("MaskCache: sigma must be finite and within supported range");
}

std::string file_name(const MaskParams& p) {
  const auto sigma_tenths = static_cast<int>(p.sigma * 10.0f);
  return "bnmask_v" + std::to_string(p.version) + "_" + std::to_string(p.tile_w) + "x" +
         std::to_string(p.tile_h) + "_m" + std::to_string(p.n_masks) + "_sg" + std::to_string(sigma_tenths) +
         ".bin";
}

fs::path made_absolute(const fs::path& path) {
  std::error_code error;
  fs::path absolute = fs::absolute(path, error);
  return error ? path : absolute;
}

template <class T>
void put_little_endian(std::uint8_t* out, T value) {
  for (std::size_t i = 0; i < sizeof value; ++i) out[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

template <class T>
T get_little_endian(const std::uint8_t* in) {
  T value = 0;
  for (std::size_t i = 0; i < sizeof value; ++i) value |= static_cast<T>(T{in[i]} << (8 * i));
  return value;
}

Header make_header(const MaskParams& params, std::uint64_t hash) {
  Header header{};
  std::memcpy(header.data(), kMagic.data(), kMagic.size());
  std::size_t offset = kMagic.size();
  for (const std::uint32_t field : {kFormatVersion, params.tile_w, params.tile_h, params.n_masks,
                                    std::bit_cast<std::uint32_t>(params.sigma), params.version}) {
    put_little_endian(header.data() + offset, field);
    offset += sizeof field;
  }
  put_little_endian(header.data() + kHashOffset, hash);
  return header;
}

/// False where the file ends before. A failure to read is none of the file's: other masks would print other
/// dots than the next run.
bool read_exactly(const platform::InputFile& file, const std::string& path, std::uint64_t offset,
                  std::uint8_t* out, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    std::size_t read = 0;
    if (const int error = file.read_at(offset + done, out + done, size - done, read))
      fail_on_file("read", path, error);
    if (read == 0) return false;
    done += read;
  }
  return true;
}

/// True where the hash of masks is the one that their parameters have always had.
bool is_known_set(const MaskParams& params, std::uint64_t hash) {
  return !(params == MaskParams{}) || hash == kHashesOfDefaultSet.back();
}

/// The same as hashing the whole and comparing: an eighth that takes the known hash before it to the known
/// hash behind it is what hashing the whole would find there. Each byte of a hash waits for the byte before,
/// so eight hashes at a time take hardly longer than one eighth.
bool is_default_set(const std::uint8_t* masks, std::size_t size) {
  constexpr std::size_t parts = kHashesOfDefaultSet.size();
  const std::size_t part = size / parts;
  std::array<std::uint64_t, parts> states{kFnvOffsetBasis};
  std::copy_n(kHashesOfDefaultSet.begin(), parts - 1, states.begin() + 1);
  for (std::size_t i = 0; i < part; ++i)
    for (std::size_t k = 0; k < parts; ++k) states[k] = (states[k] ^ masks[k * part + i]) * kFnvPrime;
  return size % parts == 0 && states == kHashesOfDefaultSet;
}

std::uint64_t hash_of(const MaskParams& params, const std::uint8_t* masks, std::size_t size) {
  if (params == MaskParams{} && is_default_set(masks, size)) return kHashesOfDefaultSet.back();
  return fnv1a(masks, size);
}

/// The masks of a cache file that was made from exactly these parameters, or nothing.
std::optional<LargeVector<std::uint8_t>> load_masks(const std::string& path, const MaskParams& params) {
  platform::InputFile file;
  if (const int error = file.open(path)) {
    if (platform::tells_of_path(error)) return std::nullopt;
    fail_on_file("open", path, error);
  }
  Header header{};
  if (!read_exactly(file, path, 0, header.data(), header.size())) return std::nullopt;

  // Sigma is neither zero nor NaN, so equal bytes are equal values.
  const Header expected = make_header(params, 0);
  if (!std::equal(expected.begin(), expected.begin() + kParamsEnd, header.begin())) {
    log_info("MaskCache: params mismatch, regenerating.");
    return std::nullopt;
  }
  const auto size = mask_set_bytes(params);
  if (!size) {
    log_warn("MaskCache: params exceed supported cache size, regenerating.");
    return std::nullopt;
  }
  LargeVector<std::uint8_t> masks;
  resize_large(masks, *size);
  if (!read_exactly(file, path, kHeaderSize, masks.data(), masks.size())) return std::nullopt;
  const std::uint64_t hash = hash_of(params, masks.data(), masks.size());
  if (hash != get_little_endian<std::uint64_t>(header.data() + kHashOffset)) {
    log_warn("MaskCache: CRC mismatch, regenerating.");
    return std::nullopt;
  }
  if (!is_known_set(params, hash)) {
    log_warn("MaskCache: '", path,
             "' is whole, but its masks aren't those of this program and would print other dots; "
             "regenerating.");
    return std::nullopt;
  }
  log_info("MaskCache: loaded from ", path);
  return masks;
}

std::optional<WriteFailure> write_cache_file(const std::string& path, const Header& header,
                                             const LargeVector<std::uint8_t>& masks) {
  AtomicFile file;
  if (auto failure = file.begin(path, header.size() + masks.size())) return failure;
  if (auto failure = file.append(header.data(), header.size())) return failure;
  if (auto failure = file.append(masks.data(), masks.size())) return failure;
  return file.commit();
}

bool save_masks(const fs::path& folder, const MaskParams& params, const LargeVector<std::uint8_t>& masks) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) {
    log_warn("MaskCache: cannot create cache dir ", platform::to_utf8(folder), " (", error.message(), ")");
  }
  const auto size = mask_set_bytes(params);
  if (!size || *size > masks.size()) return false;

  const std::string path = platform::to_utf8(folder / file_name(params));
  const Header header = make_header(params, hash_of(params, masks.data(), masks.size()));
  const std::optional<WriteFailure> failure = write_cache_file(path, header, masks);
  if (failure) {
    log_warn("MaskCache: ", failure->text());
    log_warn("MaskCache: could not save to ", path);
  } else {
    log_info("MaskCache: saved to ", path);
  }
  return !failure;
}

/// `value` modulo `size`, in 0 to size - 1 for negative values too.
std::size_t wrapped(std::int64_t value, std::uint32_t size) {
  if (std::has_single_bit(size)) return static_cast<std::size_t>(value) & (size - 1);
  const std::int64_t rest = value % static_cast<std::int64_t>(size);
  return static_cast<std::size_t>(rest < 0 ? rest + size : rest);
}

}  // namespace

std::optional<std::uint64_t> mask_set_bytes(const MaskParams& params) {
  const auto bytes = checked_product(std::uint64_t{params.tile_w} * params.tile_h, params.n_masks);
  return bytes && *bytes <= kMaxSetBytes ? bytes : std::nullopt;
}

std::vector<fs::path> mask_cache_folders(const std::string& cache_dir) {
  if (!cache_dir.empty()) return {made_absolute(platform::to_path(cache_dir))};

  // A relative name stands in for a folder that the system cannot tell, and so means the current folder.
  std::vector<fs::path> folders = {made_absolute(platform::executable_directory() / kFolderName)};
  fs::path user = platform::user_config_directory().folder;
  if (!user.empty()) user /= "NVO_RIP";
  user = made_absolute(user / kFolderName);
  if (user != folders.front()) folders.push_back(std::move(user));
  return folders;
}

fs::path mask_share_folder() {
  const fs::path programs = platform::executable_directory();
  return programs.empty() ? fs::path() : programs.parent_path() / "share" / "nvo_rip" / kFolderName;
}

MaskCache::MaskCache(const MaskParams& params, const std::string& cache_dir)
    : MaskCache(params, mask_cache_folders(cache_dir), cache_dir.empty() ? mask_share_folder() : fs::path()) {
}

MaskCache::MaskCache(const MaskParams& params, const std::vector<fs::path>& folders,
                     const fs::path& share_folder)
    : params_(params) {
  check(params);
  std::vector<fs::path> readable = folders;
  if (!share_folder.empty()) readable.push_back(share_folder);
  for (const fs::path& folder : readable) {
    if (auto masks = load_masks(platform::to_utf8(folder / file_name(params)), params)) {
      bytes_ = std::move(*masks);
      valid_ = true;
      return;
    }
  }
  const std::vector<std::uint8_t> generated = generate_all_masks(params);
  bytes_.assign(generated.begin(), generated.end());
  valid_ = true;
  for (const fs::path& folder : folders)
    if (save_masks(folder, params, bytes_)) return;
  log_warn("MaskCache: could not save (not critical)");
}

std::uint8_t MaskCache::at(std::int32_t channel, std::int64_t x, std::int64_t y) const {
  if (!valid_) return 0;
  const std::size_t mask = wrapped(channel, params_.n_masks);
  return bytes_[(mask * params_.tile_h + wrapped(y, params_.tile_h)) * params_.tile_w +
                wrapped(x, params_.tile_w)];
}

const std::uint8_t* MaskCache::row(std::uint32_t channel, std::uint64_t y) const {
  if (!valid_) return nullptr;
  const std::size_t mask = channel % params_.n_masks;
  return bytes_.data() + (mask * params_.tile_h + y % params_.tile_h) * params_.tile_w;
}

}  // namespace nvo
