#include "output/hoson_writer.h"

#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "output/test_drops.h"
#include "output/writer_threads.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

using Maps = std::vector<DropMap>;
constexpr std::uint32_t kI3200 = 0, kI1600 = 1, kXp600 = 2;

HosonWriterOptions options_for(std::uint32_t head, std::vector<std::uint32_t> map = {}) {
  PrintMode mode = default_print_mode({0, head});
  mode.x_dpi = mode.passes = 1;  // a stale record: its id counts
  return {{0, head}, mode, std::move(map)};
}

/// The file that the maps must give, dot by dot; `slots` are indices into the maps, -1 for a blank slot.
std::string expected_file(std::uint32_t head, const Maps& maps, const std::vector<int>& slots) {
  const std::uint32_t width = maps[0].width, height = maps[0].height, alignment = head == kXp600 ? 8 : 4;
  const std::uint32_t stride = ((width + 3) / 4 + alignment - 1) / alignment * alignment;
  const PrintMode& mode = default_print_mode({0, head});
  std::string file;
  for (const std::uint32_t field : {0x5555u, mode.x_dpi, mode.y_dpi, stride, height, width, 0u,
                                    static_cast<std::uint32_t>(slots.size()), 2u,
                                    head == kI1600   ? 4u
                                    : head == kXp600 ? 0u
                                                     : mode.passes,
                                    0u, 0u})
    for (int shift = 0; shift < 32; shift += 8) file += static_cast<char>(field >> shift);
  for (std::uint32_t row = height; row-- > 0;) {
    for (const int slot : slots) {
      std::vector<unsigned> bytes(stride);
      for (std::uint32_t x = 0; slot >= 0 && x < width; ++x)
        bytes[x / 4] |= (maps[static_cast<std::size_t>(slot)].data[row * width + x] & 3u)
                        << (6 - 2 * (x % 4));
      for (const unsigned byte : bytes) file += static_cast<char>(byte);
    }
  }
  return file;
}

std::string failure_of(const std::function<void()>& act) {
  try {
    act();
  } catch (const std::invalid_argument& e) {
    return std::string("invalid argument: ") + e.what();
  } catch (const std::overflow_error& e) {
    return std::string("overflow: ") + e.what();
  } catch (const std::runtime_error& e) {
    return std::string("runtime: ") + e.what();
  }
  return "";
}

/// Writes five rows that the caller packs, in strips of two, two and one that share their memory.
void write_packed(HosonWriter& writer, const std::string& path, const Maps& maps) {
  const std::uint32_t width = maps[0].width;
  writer.begin_stream_write(path, width, 5);
  StripCycles strip;
  for (const std::uint32_t begin : {3u, 1u, 0u}) {
    strip = writer.make_strip_cycles(begin == 0 ? 1 : 2, begin, std::move(strip));
    for (std::size_t channel = 0; channel < maps.size(); ++channel) {
      const PackedRows& rows = strip.channels[channel];
      for (std::uint32_t row = 0; rows.top && row < strip.rows; ++row) {
        std::uint8_t* const target = rows.top + static_cast<std::ptrdiff_t>(row) * rows.step;
        pack_row(maps[channel].data.data() + std::size_t{begin + row} * width, width, target);
        std::fill_n(target + packed_dots_bytes(width), rows.padding, std::uint8_t{0});
        for (const std::ptrdiff_t copy : rows.copies)
          std::copy_n(target, packed_dots_bytes(width) + rows.padding, target + copy);
      }
    }
    writer.write_cycles_strip(strip, begin);
  }
  writer.end_stream_write();
}

TEST(HosonWriter, PackedStripsKeepTheOrderToo) {
  const test::TempDir dir;
  HosonWriter writer(options_for(kI3200));
  EXPECT_EQ(failure_of([&] { writer.make_strip_cycles(1, 0); }),
            "runtime: HosonWriter::make_strip_cycles: stream is not open");
  EXPECT_EQ(failure_of([&] { writer.write_cycles_strip({}, 0); }),
            "runtime: HosonWriter::write_cycles_strip: stream is not open");
  writer.begin_stream_write(dir.file("a.prt"), 8, 5);
  writer.write_cycles_strip(writer.make_strip_cycles(0, 3), 3);
  const StripCycles two = writer.make_strip_cycles(2, 2);
  EXPECT_EQ(
      failure_of([&] { writer.write_cycles_strip(two, 2); }),
      "runtime: HosonWriter::write_dropmaps_strip: strips must be written in descending image-row order");
  EXPECT_TRUE(dir.names().empty()) << "a bad strip costs the file";
  writer.begin_stream_write(dir.file("a.prt"), 8, 5);
  EXPECT_EQ(failure_of([&] { writer.write_cycles_strip(two, 4); }),
            "runtime: HosonWriter::write_dropmaps_strip: strip is out of device bounds");
}

TEST(HosonWriter, PutsEachChannelIntoItsSlots) {
  struct Case {
    const char* name;
    std::uint32_t head;
    std::vector<std::uint32_t> map;
    std::uint32_t width, channels;
    std::vector<int> slots;
  };
  const std::vector<Case> cases = {
      {"i3200 default", kI3200, {}, 9, 5, {3, 0, 1, 2, 4, 4}},
      {"one dot", kI3200, {}, 1, 5, {3, 0, 1, 2, 4, 4}},
      {"unknown head", 77, {}, 8, 5, {3, 0, 1, 2, 4, 4}},
      {"i1600 default", kI1600, {}, 33, 5, {3, 0, 1, 2, 4, -1}},
      {"xp600 default", kXp600, {}, 33, 5, {3, 0, 1, 2, -1, -1, 4}},
      {"xp600, old map without white", kXp600, {3, 0, 1, 2, 5, 5, 5}, 16, 5, {3, 0, 1, 2, -1, -1, 4}},
      {"xp600, map of six", kXp600, {0, 1, 2, 3, 4, 4}, 16, 5, {0, 1, 2, 3, 4, 4, 4}},
      {"long map with unknown codes", kI3200, {0, 6, 0xFFFFFFFF, 2, 2, 0, 1, 1}, 40, 5, {0, -1, -1, 2, 2, 0}},
      {"no white map", kI3200, {}, 12, 4, {3, 0, 1, 2, -1, -1}},
      {"white in the sixth map", kI3200, {}, 12, 6, {3, 0, 1, 2, 5, 5}},
      {"empty yellow", kI3200, {}, 12, 5, {3, 0, 1, -1, 4, 4}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const test::TempDir dir;
    Maps maps = test::make_channels(c.width, 5, c.channels);
    if (c.channels == 6) maps[4] = {};
    const std::string expected = expected_file(c.head, maps, c.slots);
    if (std::string(c.name) == "empty yellow") maps[2] = {c.width, 0, {}};

    HosonWriter writer(options_for(c.head, c.map));
    for (const std::uint32_t strip_rows : {5u, 2u, 1u}) {
      const std::string path = dir.file("strips.prt");
      writer.begin_stream_write(path, c.width, 5);
      for (std::uint32_t end = 5; end > 0;) {
        const std::uint32_t begin = end > strip_rows ? end - strip_rows : 0;
        writer.write_dropmaps_strip(test::cut_rows(maps, begin, end), begin);
        end = begin;
      }
      writer.end_stream_write();
      EXPECT_EQ(test::read_all(path), expected) << strip_rows << " rows a strip";
    }
    if (c.channels == 5 && !maps[2].empty()) {
      write_packed(writer, dir.file("packed.prt"), maps);
      EXPECT_EQ(test::read_all(dir.file("packed.prt")), expected) << "rows that come packed";
    }
  }
}

TEST(HosonWriter, BlankSlotsAreZeroAfterAStripThatFilledThem) {
  const test::TempDir dir;
  Maps maps = test::make_channels(21, 6, 5);
  HosonWriter writer(options_for(kI3200));
  writer.begin_stream_write(dir.file("a.prt"), 21, 6);
  writer.write_dropmaps_strip(test::cut_rows(maps, 3, 6), 3);
  Maps top = test::cut_rows(maps, 0, 3);
  top[4] = {};
  writer.write_dropmaps_strip(top, 0);
  writer.end_stream_write();

  std::fill_n(maps[4].data.begin(), 3 * 21, std::uint8_t{0});
  EXPECT_EQ(test::read_all(dir.file("a.prt")), expected_file(kI3200, maps, {3, 0, 1, 2, 4, 4}));
}

TEST(HosonWriter, RejectsABadStripAndEndsTheStream) {
  const Maps good = test::make_channels(8, 4, 5);
  const auto with = [&](const std::function<void(Maps&)>& change) {
    Maps maps = good;
    change(maps);
    return maps;
  };
  const std::string strip = "HosonWriter::write_dropmaps_strip: ";
  const std::string too_few = "invalid argument: " + strip + "need at least 4 non-empty dropmaps (CMYK)";
  const std::string sizes = "runtime: " + strip + "inconsistent strip dropmap sizes";
  const std::string bounds = "runtime: " + strip + "strip is out of device bounds";
  struct Case {
    Maps maps;
    std::uint32_t y;
    std::string message;
  };
  const std::vector<Case> cases = {
      {{}, 6, too_few},
      {with([](Maps& m) { m.resize(3); }), 6, too_few},
      {with([](Maps& m) { m[0] = {}; }), 6, too_few},
      {with([](Maps& m) { m[0].data.clear(); }), 6, too_few},
      {test::make_channels(9, 4, 5), 6, "runtime: " + strip + "width mismatch"},
      {{{9, 0, {}}, {}, {}, {}}, 6, "runtime: " + strip + "width mismatch"},
      {good, 10, bounds},
      {good, 7, bounds},
      {good, 0xFFFFFFFF, bounds},
      {with([](Maps& m) { m[4] = test::make_drops(8, 3, 1); }), 6, sizes},
      {with([](Maps& m) { m[1].data.pop_back(); }), 6, sizes},
      {with([](Maps& m) { m[0].data.pop_back(); }), 6, sizes},
      {good, 5, "runtime: " + strip + "strips must be written in descending image-row order"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    const test::TempDir dir;
    test::write_all(dir.file("a.prt"), "old");
    HosonWriter writer(options_for(kI3200));
    writer.begin_stream_write(dir.file("a.prt"), 8, 10);
    writer.write_dropmaps_strip({{8, 0, {}}, {}, {}, {}}, 99);  // no rows: nothing else is looked at
    EXPECT_EQ(dir.names().size(), 2u);
    EXPECT_EQ(failure_of([&] { writer.write_dropmaps_strip(c.maps, c.y); }), c.message);
    EXPECT_EQ(dir.names(), std::vector<std::string>{"a.prt"});
    EXPECT_EQ(test::read_all(dir.file("a.prt")), "old");
    EXPECT_EQ(failure_of([&] { writer.write_dropmaps_strip(good, 6); }),
              "runtime: " + strip + "stream is not open");

    writer.begin_stream_write(dir.file("a.prt"), 8, 4);
    writer.write_dropmaps_strip(good, 0);
    writer.end_stream_write();
    EXPECT_EQ(test::read_all(dir.file("a.prt")), expected_file(kI3200, good, {3, 0, 1, 2, 4, 4}));
  }
}

TEST(HosonWriter, AnUnfinishedStreamLeavesTheOldFile) {
  const test::TempDir dir;
  const Maps maps = test::make_channels(8, 4, 5);
  test::write_all(dir.file("a.prt"), "old");
  {
    HosonWriter writer(options_for(kI3200));
    writer.end_stream_write();  // without a stream
    writer.begin_stream_write(dir.file("a.prt"), 8, 8);
    EXPECT_EQ(failure_of([&] { writer.begin_stream_write(dir.file("b.prt"), 8, 8); }),
              "runtime: HosonWriter::begin_stream_write: stream is already open");
    writer.write_dropmaps_strip(maps, 4);
    EXPECT_EQ(failure_of([&] { writer.end_stream_write(); }),
              "runtime: HosonWriter::end_stream_write: stream finished before all rows were written");
    EXPECT_EQ(dir.names(), std::vector<std::string>{"a.prt"});

    writer.begin_stream_write(dir.file("a.prt"), 8, 8);
    writer.write_dropmaps_strip(maps, 4);
    EXPECT_THAT(dir.names(), testing::Contains(testing::StartsWith("a.prt.nvo_tmp_")));
  }
  EXPECT_EQ(dir.names(), std::vector<std::string>{"a.prt"});
  EXPECT_EQ(test::read_all(dir.file("a.prt")), "old");
}

TEST(HosonWriter, RejectsABadStart) {
  const test::TempDir dir;
  const std::string nowhere = dir.file("missing/a.prt");
  const std::string cannot_open = "runtime: HosonWriter::begin_stream_write: cannot open output file: ";
  struct Case {
    std::string path;
    std::uint32_t width, height;
    std::string message;
  };
  const std::vector<Case> cases = {
      {dir.file("a.prt"), 0, 1, "invalid argument: HosonWriter::begin_stream_write: invalid device size"},
      {dir.file("a.prt"), 1, 0, "invalid argument: HosonWriter::begin_stream_write: invalid device size"},
      {dir.file("a.prt"), 0xFFFFFFF0, 1, "overflow: HosonWriter stride cycle_len overflow"},
      {nowhere, 1, 1, cannot_open + nowhere},
      {dir.file("\xC0\xAF.prt"), 1, 1, cannot_open + dir.file("\xC0\xAF.prt")},
      {dir.file(std::string("a\0b", 3)), 1, 1, cannot_open + dir.file("a")},
  };
  const test::LogCapture log;
  HosonWriter writer(options_for(kI3200));
  for (const Case& c : cases)
    EXPECT_EQ(failure_of([&] { writer.begin_stream_write(c.path, c.width, c.height); }), c.message);
  EXPECT_TRUE(dir.names().empty());

  std::filesystem::create_directory(dir.file("folder.prt"));
  EXPECT_EQ(failure_of([&] { writer.write_dropmaps(test::make_channels(8, 1, 5), dir.file("folder.prt")); }),
            "runtime: HosonWriter::end_stream_write: atomic replace failed: " + dir.file("folder.prt"));
  EXPECT_EQ(dir.names(), std::vector<std::string>{"folder.prt"});
}

TEST(HosonWriter, OneCallWritesTheWholeFileAndLogs) {
  const test::TempDir dir;
  const Maps maps = test::make_channels(33, 40'000, 5);
  HosonWriter writer(options_for(kXp600));
  writer.set_timing(true);
  const test::LogCapture log;
  writer.write_dropmaps(maps, dir.file("a.prt"));
  EXPECT_EQ(test::read_all(dir.file("a.prt")), expected_file(kXp600, maps, {3, 0, 1, 2, -1, -1, 4}));
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{
                "[INFO ] write_dropmaps: 33x40000 stride=16 cycle=112 size=~4MB -> " + dir.file("a.prt"),
                "[INFO ] write_dropmaps: done -> " + dir.file("a.prt")}));
  EXPECT_EQ(writer.counters().rows, 40'000u);
  EXPECT_EQ(writer.counters().bytes, 40'000u * 112u);
  EXPECT_GT(writer.counters().pack_ns, 0u);
  EXPECT_GT(writer.counters().file_ns, 0u);
  writer.reset_counters();
  EXPECT_EQ(writer.counters().rows, 0u);

  EXPECT_EQ(failure_of([&] {
              writer.write_dropmaps({DropMap{}, maps[1], maps[2], maps[3]}, dir.file("b.prt"));
            }),
            "invalid argument: write_dropmaps: need at least 4 non-empty dropmaps (CMYK)");
  EXPECT_EQ(dir.names(), std::vector<std::string>{"a.prt"});
}

TEST(HosonWriter, ThreadsDoNotChangeTheBytes) {
  const test::LogCapture log;
  const test::TempDir dir;
  const Maps maps = test::make_channels(203, 37, 5);
  const std::string expected = expected_file(kI3200, maps, {3, 0, 1, 2, 4, 4});
  ::setenv("NVO_RIP_PARALLEL_WRITER_ROWS", "Force", 1);
  for (const char* threads : {"1", "2", "5", "32"}) {
    ::setenv("NVO_RIP_WRITER_THREADS", threads, 1);
    HosonWriter(options_for(kI3200)).write_dropmaps(maps, dir.file("a.prt"));
    EXPECT_EQ(test::read_all(dir.file("a.prt")), expected) << threads << " threads";
  }
  ::unsetenv("NVO_RIP_PARALLEL_WRITER_ROWS");
  ::unsetenv("NVO_RIP_WRITER_THREADS");
}

TEST(WriterThreads, FollowTheStripTheMachineAndTheEnvironment) {
  struct Case {
    std::uint32_t rows, cycle_len, hardware;
    std::optional<std::string> parallel_rows, threads;
    std::uint32_t expected;
  };
  const auto unset = std::nullopt;
  const std::vector<Case> cases = {
      {6144, 23760, 64, "auto", "0", 12},    {6144, 23760, 1, "", "four", 2},
      {6144, 23760, 8, "perhaps", "99", 32}, {511, 0x100000, 8, unset, unset, 1},
      {512, 0x8000, 8, unset, unset, 4},  // 16 MiB exactly, 128 rows a thread
      {512, 0x7FFF, 8, unset, unset, 1},     {6144, 23760, 8, "OFF", "8", 1},
      {10, 24, 8, "Yes", unset, 8},          {3, 24, 8, "1", "20", 3},
      {1, 24, 8, "force", "8", 1},
  };
  for (const Case& c : cases)
    EXPECT_EQ(writer_threads(c.rows, c.cycle_len, c.hardware, {c.parallel_rows, c.threads}), c.expected)
        << c.rows << " rows, " << c.parallel_rows.value_or("unset") << ", " << c.threads.value_or("unset");
}

}  // namespace
}  // namespace nvo
