// A print file on its way to the disk of the temporary folder, the closing flush included.
#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "core/platform/bulk_file.h"
#include "support/temp_dir.h"

namespace nvo::platform {
namespace {

constexpr std::size_t kFileBytes = std::size_t{64} << 20;

void begin(File& file, File created) {
  file = std::move(created);
}
void begin(BulkFile& file, File created) {
  file.prepare();
  file.take_over(std::move(created));
}
int flush(File& file) {
  return file.flush();
}
int append(File& file, const std::uint8_t* data, std::size_t size) {
  return file.write_all(data, size);
}
int flush(BulkFile& file) {
  return file.flush();
}
int append(BulkFile& file, const std::uint8_t* data, std::size_t size) {
  return file.append(data, size);
}

/// The file in pieces that begin `shift` bytes behind a block's start.
template <class Writer>
void write_file(benchmark::State& state) {
  const auto piece = static_cast<std::size_t>(state.range(0)),
             shift = static_cast<std::size_t>(state.range(1));
  const BulkMemory memory = allocate_bulk(piece + shift);
  std::fill_n(memory.get(), piece + shift, std::uint8_t{0x1B});
  const test::TempDir dir;
  for (auto _ : state) {
    Writer file;
    File created;
    int error = created.create_exclusive(dir.file("out"));
    begin(file, std::move(created));
    for (std::size_t done = 0; done < kFileBytes && error == 0; done += piece)
      error = append(file, memory.get() + shift, piece);
    if (error != 0 || flush(file) != 0) return state.SkipWithError("the file can't be written");
    remove_file(dir.file("out"));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFileBytes));
}

#define NVO_SIZES ArgNames({"piece", "shift"})->Args({1 << 20, 0})->Args({16 << 20, 0})->Args({16 << 20, 48})
BENCHMARK_TEMPLATE(write_file, File)->NVO_SIZES->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(write_file, BulkFile)->NVO_SIZES->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace nvo::platform
