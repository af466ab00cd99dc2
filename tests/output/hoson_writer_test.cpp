#include "output/hoson_writer.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/file_io.h"
#include "output/print_temporary.h"
#include "output/prt_format.h"
#include "output/test_drops.h"
#include "screen/kernels/instruction_set.h"
#include "support/failure.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace nvo {
namespace {

using test::cut_rows;
using test::failure_of;
using test::make_channels;

using Bytes = std::vector<std::uint8_t>;
using Maps = std::vector<DropMap>;
using Names = std::vector<std::string>;
constexpr std::uint32_t kI3200 = 0, kI1600 = 1, kXp600 = 2;
constexpr std::uint8_t kGuard = 0xA5;

Bytes pack_dot_by_dot(const std::uint8_t* dots, std::uint32_t width) {
  Bytes packed(packed_dots_bytes(width));
  for (std::uint32_t x = 0; x < width; ++x)
    packed[x / 4] = static_cast<std::uint8_t>(packed[x / 4] | (dots[x] & 3) << (6 - 2 * (x % 4)));
  return packed;
}

TEST(PackRow, EveryVariantGivesTheBytesOfTheDotLoopAndNothingBeside) {
  std::vector<std::uint32_t> widths(131);
  std::iota(widths.begin(), widths.end(), 1);
  widths.insert(widths.end(), {255, 256, 257, 1023});
  for (const InstructionSet* set : runnable_instruction_sets()) {
    for (const std::uint32_t width : widths) {
      for (std::uint32_t misalignment = 0; misalignment < 4; ++misalignment) {
        SCOPED_TRACE(testing::Message() << set->name << ", width " << width);
        const DropMap source = test::make_drops(width + misalignment, 1, width);
        const std::uint8_t* dots = source.data.data() + misalignment;
        Bytes expected = pack_dot_by_dot(dots, width), levels(dots, dots + width);
        expected.insert(expected.begin(), misalignment + 1, kGuard);
        expected.push_back(kGuard);
        for (std::uint8_t& level : levels) level &= 3;
        levels.push_back(kGuard);

        Bytes out(expected.size(), kGuard), unpacked(width + 1, kGuard);
        set->packing.pack_row(dots, width, out.data() + misalignment + 1);
        ASSERT_EQ(out, expected);
        unpack_row(out.data() + misalignment + 1, width, unpacked.data());
        ASSERT_EQ(unpacked, levels);
      }
    }
  }
}

TEST(PrtRowLayout, TakesACycleUpTo4GiB) {
  const PrtRowLayout widest = prt_row_layout({0, 0}, 2863311520);
  EXPECT_EQ(std::pair(widest.stride, widest.cycle_len), std::pair(715827880u, 4294967280u));
}

HosonWriterOptions options_for(std::uint32_t head, std::vector<std::uint32_t> map = {}) {
  PrintMode mode = default_print_mode({0, head});
  mode.x_dpi = mode.passes = 1;  // a stale record: its id counts
  return {{0, head}, mode, std::move(map)};
}

/// The file that the maps must give, dot by dot; `slots` are indices into the maps, -1 for a blank slot.
std::string expected_file(std::uint32_t head, const Maps& maps,
                          const std::vector<int>& slots = {3, 0, 1, 2, 4, 4}) {
  const std::uint32_t width = maps[0].width, height = maps[0].height, alignment = head == kXp600 ? 8 : 4;
  const std::uint32_t stride = ((width + 3) / 4 + alignment - 1) / alignment * alignment;
  const PrintMode& mode = default_print_mode({0, head});
  const std::uint32_t passes = head == kI1600 ? 4u : head == kXp600 ? 0u : mode.passes;
  std::string file;
  for (const std::uint32_t field : {0x5555u, mode.x_dpi, mode.y_dpi, stride, height, width, 0u,
                                    static_cast<std::uint32_t>(slots.size()), 2u, passes, 0u, 0u})
    for (int shift = 0; shift < 32; shift += 8) file += static_cast<char>(field >> shift);
  for (std::size_t row = height; row-- > 0;)
    for (const int slot : slots) {
      Bytes bytes;
      if (slot >= 0) bytes = pack_dot_by_dot(&maps[static_cast<std::size_t>(slot)].data[row * width], width);
      bytes.resize(stride);
      file.append(bytes.begin(), bytes.end());
    }
  return file;
}

void write_in_strips(HosonWriter& writer, const std::string& path, const Maps& maps, std::uint32_t rows,
                     StripOrder order = StripOrder::bottom_up) {
  const std::uint32_t height = maps[0].height;
  writer.begin_stream_write(path, maps[0].width, height, order);
  for (std::uint32_t done = 0; done < height;) {
    const std::uint32_t count = std::min(rows, height - done);
    const std::uint32_t begin = order == StripOrder::top_down ? done : height - done - count;
    writer.write_dropmaps_strip(cut_rows(maps, begin, begin + count), begin);
    done += count;
  }
  writer.end_stream_write();
}

TEST(HosonWriter, PutsEachChannelIntoItsSlots) {
  const struct {
    std::uint32_t head;
    std::vector<std::uint32_t> map;
    std::uint32_t width, channels;
    std::vector<int> slots;
  } cases[] = {
      {kI3200, {}, 1, 5, {3, 0, 1, 2, 4, 4}},
      {77, {}, 9, 5, {3, 0, 1, 2, 4, 4}},
      {kI1600, {}, 33, 5, {3, 0, 1, 2, 4, -1}},
      {kXp600, {3, 0, 1, 2, 5, 5, 5}, 33, 5, {3, 0, 1, 2, -1, -1, 4}},  // an old map without white
      {kXp600, {0, 1, 2, 3, 4, 4}, 16, 5, {0, 1, 2, 3, 4, 4, 4}},
      {kI3200, {0, 6, 0xFFFFFFFF, 2, 2, 0, 1, 1}, 40, 5, {0, -1, -1, 2, 2, 0}},
      {kI3200, {}, 12, 4, {3, 0, 1, 2, -1, -1}},
      {kI3200, {}, 12, 6, {3, 0, 1, 2, 5, 5}},  // white in the sixth map
  };
  const test::TempDir dir;
  const std::string path = dir.file("a.prt");
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    Maps maps = make_channels(c.width, 5, c.channels);
    if (c.channels == 6) maps[4] = {};
    const std::string expected = expected_file(c.head, maps, c.slots);
    HosonWriter writer(options_for(c.head, c.map));
    for (const std::uint32_t rows : {5u, 2u, 1u}) {
      for (const StripOrder order : {StripOrder::bottom_up, StripOrder::top_down}) {
        write_in_strips(writer, path, maps, rows, order);
        EXPECT_EQ(test::read_all(path), expected) << rows << " rows a strip";
      }
    }
  }

  // Slots without drops are zero though the strip before filled them.
  Maps maps = make_channels(21, 6, 5);
  HosonWriter writer(options_for(kI3200));
  writer.begin_stream_write(path, 21, 6);
  writer.write_dropmaps_strip(cut_rows(maps, 3, 6), 3);
  Maps top = cut_rows(maps, 0, 3);
  top[2] = {21, 0, {}}, top[4] = {};
  writer.write_dropmaps_strip(top, 0);
  writer.end_stream_write();
  for (const std::size_t blank : {2u, 4u}) std::fill_n(maps[blank].data.begin(), 3 * 21, std::uint8_t{0});
  EXPECT_EQ(test::read_all(path), expected_file(kI3200, maps));
}

TEST(HosonWriter, AFailureCostsTheStreamAndNeverTheOldFile) {
  const test::TempDir dir;
  const std::string path = dir.file("a.prt");
  const Maps good = make_channels(8, 4, 5);
  Maps short_white = good, no_cyan = good, odd_magenta = good;
  short_white[4].height = 3;
  no_cyan[0].data.clear();
  odd_magenta[1].data.pop_back();
  using Act = std::function<void(HosonWriter&)>;
  const auto strip = [&](const Maps& maps, std::uint32_t y) -> Act {
    return [=](HosonWriter& w) {
      w.begin_stream_write(path, 8, 10);
      w.write_dropmaps_strip({{8, 0, {}}, {}, {}, {}}, 99);  // no rows: nothing else is looked at
      w.write_dropmaps_strip(maps, y);
    };
  };
  const auto packed_strip = [&](std::uint32_t y) -> Act {
    return [=](HosonWriter& w) {
      w.begin_stream_write(path, 8, 5);
      w.write_cycles_strip(w.make_strip_cycles(2, 2), y);
    };
  };
  const auto begin = [&](const std::string& name, std::uint32_t width, std::uint32_t height) -> Act {
    return [=, target = dir.file(name)](HosonWriter& w) { w.begin_stream_write(target, width, height); };
  };
  std::filesystem::create_directory(dir.file("folder"));
  const std::string in_strip = "HosonWriter::write_dropmaps_strip: ";
  const std::string in_begin = "HosonWriter::begin_stream_write: ";
  const std::string bounds = in_strip + "strip is out of device bounds";
  const std::string order = in_strip + "strips must be written in descending image-row order";
  const std::string sizes = in_strip + "inconsistent strip dropmap sizes";
  const std::string too_few = "need at least 4 non-empty dropmaps (CMYK)";
  const std::string cannot_open = in_begin + "cannot open output file: ";
  const std::vector<std::pair<std::string, Act>> cases = {
      {in_strip + too_few, strip({}, 6)},
      {in_strip + too_few, strip(no_cyan, 6)},
      {in_strip + "width mismatch", strip(make_channels(9, 4, 5), 6)},
      {sizes, strip(short_white, 6)},
      {sizes, strip(odd_magenta, 6)},
      {bounds, strip(good, 7)},
      {bounds, strip(good, 0xFFFFFFFF)},
      {bounds, packed_strip(4)},
      {order, strip(good, 5)},
      {order, packed_strip(2)},
      {in_strip + "stream is not open", [&](auto& w) { w.write_dropmaps_strip(good, 6); }},
      {"HosonWriter::make_strip_cycles: stream is not open", [](auto& w) { w.make_strip_cycles(1, 0); }},
      {"HosonWriter::write_cycles_strip: stream is not open", [](auto& w) { w.write_cycles_strip({}, 0); }},
      {in_begin + "invalid device size", begin("a.prt", 0, 1)},
      {in_begin + "invalid device size", begin("a.prt", 1, 0)},
      {"HosonWriter stride cycle_len overflow", begin("a.prt", 2863311521, 1)},
      {"HosonWriter stride cycle_len overflow", begin("a.prt", 0xFFFFFFFF, 1)},
      {cannot_open + dir.file("missing/a.prt"), begin("missing/a.prt", 1, 1)},
      {cannot_open + dir.file("\xC0\xAF.prt"), begin("\xC0\xAF.prt", 1, 1)},
      {cannot_open + dir.file("a"), begin(std::string("a\0b", 3), 1, 1)},
      {"write_dropmaps: " + too_few, [&](auto& w) { w.write_dropmaps(no_cyan, path); }},
      {"HosonWriter::end_stream_write: atomic replace failed: " + dir.file("folder"),
       [&](auto& w) { w.write_dropmaps(good, dir.file("folder")); }},
      {"HosonWriter::end_stream_write: stream finished before all rows were written",
       [&](auto& w) {
         w.begin_stream_write(path, 8, 8);
         EXPECT_EQ(failure_of([&] { w.begin_stream_write(dir.file("b.prt"), 8, 8); }),
                   in_begin + "stream is already open");
         w.write_dropmaps_strip(good, 4);
         EXPECT_THAT(dir.names(), testing::Contains(testing::StartsWith("a.prt.nvo_tmp_")));
         w.end_stream_write();
       }},
      {"", [](auto& w) { w.end_stream_write(); }},  // without a stream
      {"", [&](auto&) { HosonWriter(options_for(kI3200)).begin_stream_write(path, 8, 4); }},
  };
  const test::LogCapture quiet;
  test::write_all(path, "old");
  HosonWriter writer(options_for(kI3200));
  for (const auto& [message, act] : cases) {
    EXPECT_EQ(failure_of([&, &act = act] { act(writer); }), message);
    EXPECT_EQ(dir.names(), (Names{"a.prt", "folder"})) << message;
    EXPECT_EQ(test::read_all(path), "old") << message;
  }
  write_in_strips(writer, path, good, 4);
  EXPECT_EQ(test::read_all(path), expected_file(kI3200, good)) << "the writer serves on";
}

// The n-th system call fails, or writes a part first, for n = 1, 2, 3 ... until the run meets no fault.
TEST(HosonWriter, AFaultOfTheSystemLeavesTheOldFileOrTheNewOne) {
  const test::TempDir dir;
  const std::string path = dir.file("a.prt");
  const Maps maps = make_channels(100, 200, 5);
  for (const bool short_writes : {false, true}) {
    int failures = 0;
    bool met_fault = true;
    for (long n = 1; met_fault; ++n) {
      ASSERT_LT(n, 100);
      test::write_all(path, "old");
      test::fault_plan = {n, 0, short_writes};
      const bool done = failure_of([&] {
                          HosonWriter writer(options_for(kI3200));
                          write_in_strips(writer, path, maps, 100);
                        }).empty();
      met_fault = test::fault_plan.calls >= test::fault_plan.fail_at;
      test::fault_plan = {};
      if (!done) ++failures;
      EXPECT_TRUE(done || met_fault);
      EXPECT_EQ(test::read_all(path), done ? expected_file(kI3200, maps) : "old") << "call " << n;
      EXPECT_EQ(dir.names(), Names{"a.prt"}) << "call " << n;
    }
    EXPECT_GE(failures, 6);  // three writes, flush, close and the replacement at least
  }
}

TEST(HosonWriter, TakesItsNameAsTheTargetDemands) {
  const test::TempDir dir;
  const Maps maps = make_channels(8, 4, 5);
  const std::string expected = expected_file(kI3200, maps);
  std::string deep = dir.path().string();
  while (deep.size() + 201 < 4089) std::filesystem::create_directory(deep += "/" + std::string(200, 'd'));
  deep += "/" + std::string(4095 - 1 - deep.size(), 'x');  // as long as a path may be
  std::string cyrillic;
  for (int i = 0; i < 112; ++i) cyrillic += "\xD0\x96";
  const struct {
    std::string path;
    bool keep_existing, appears;
  } cases[] = {
      {dir.file("a.prt"), false, true},
      {dir.file("b.prt"), true, false},
      {dir.file("c.prt"), true, true},
      {dir.file(std::string(255, 'x')), true, false},
      {dir.file(cyrillic + ".prt"), true, false},
      {deep, false, false},
  };
  test::LogCapture log;
  for (const auto& [path, keep_existing, appears] : cases) {
    HosonWriterOptions options = options_for(kI3200);
    options.keep_existing = keep_existing;
    HosonWriter writer(options);
    writer.begin_stream_write(path, 8, 4);
    writer.write_dropmaps_strip(maps, 0);
    if (appears) {
      test::write_all(path, "other");
      ::chmod(path.c_str(), 0640);
    }
    const std::string failure = failure_of([&] { writer.end_stream_write(); });
    EXPECT_EQ(failure, keep_existing && appears
                           ? "HosonWriter::end_stream_write: atomic replace failed: " + path
                           : "");
    EXPECT_EQ(test::read_all(path), failure.empty() ? expected : "other") << path;
    const auto rights = std::filesystem::status(path).permissions();
    EXPECT_EQ(rights == std::filesystem::perms(0640), appears);
    EXPECT_EQ(std::filesystem::remove(path), true);
  }
  EXPECT_EQ(log.take(), Names{"[ERROR] Print file: cannot put in place '" + dir.file("c.prt") +
                              "' (144 bytes wanted): File exists"});
  EXPECT_THAT(dir.names(), testing::ElementsAre(std::string(200, 'd'))) << "nothing is left";
}

TEST(AbandonedPrints, OnlyThoseOfTheDeadAndForTheTargetGo) {
  const test::TempDir dir;
  const std::string long_name(255, 'x'), dead = ".nvo_tmp_2000000000_5_0";
  HosonWriter alive(options_for(kI3200));
  alive.begin_stream_write(dir.file("a.prt"), 8, 4);
  const Names stay = {dir.names().at(0),       "a.prt",
                      "b.prt" + dead,          "a.prt" + dead + "x",
                      "a.prt.nvo_tmp_1_5_0",   "a.prt.nvo_tmp_2000000000_5",
                      "a.prt.nvo_tmp_0_5_0",   "a.prt.nvo_tmp_99999999999_5_0",
                      "a.prt.nvo_tmp_007_5_0", "a.prt.nvo_tmp_-2_5_0",
                      "xa.prt" + dead};
  const std::string own = "a.prt.nvo_tmp_" + std::to_string(::getpid()) + "_7_0";  // of an earlier process
  const pid_t killed = ::fork();
  if (killed == 0) ::_exit(0);
  siginfo_t ended;
  ::waitid(P_PID, static_cast<id_t>(killed), &ended, WEXITED | WNOWAIT);
  const std::string unasked = "a.prt.nvo_tmp_" + std::to_string(killed) + "_7_0";
  const Names go = {"a.prt" + dead, own, path_beside(long_name, dead), unasked};
  for (std::size_t i = 1; i < stay.size(); ++i) test::write_all(dir.file(stay[i]), "");
  for (const std::string& name : go) test::write_all(dir.file(name), "");
  std::filesystem::create_symlink("a.prt", dir.file("a.prt.nvo_tmp_2000000001_5_0"));
  std::filesystem::create_directory(dir.file("a.prt.nvo_tmp_2000000002_5_0"));

  EXPECT_THAT(remove_abandoned_prints(dir.file("a.prt")),
              testing::UnorderedElementsAre(dir.file(go[0]), dir.file(own), dir.file(unasked)));
  ::waitpid(killed, nullptr, 0);
  EXPECT_EQ(remove_abandoned_prints(dir.file(long_name)), Names{dir.file(go[2])});
  EXPECT_EQ(remove_abandoned_prints(dir.file("missing/a.prt")), Names());
  Names left = stay;
  left.insert(left.end(), {"a.prt.nvo_tmp_2000000001_5_0", "a.prt.nvo_tmp_2000000002_5_0"});
  EXPECT_THAT(dir.names(), testing::UnorderedElementsAreArray(left));
}

TEST(HosonWriter, OneCallWritesTheWholeFileOnAnyNumberOfThreads) {
  const test::TempDir dir;
  const std::string path = dir.file("a.prt");
  const Maps maps = make_channels(33, 40'000, 5);
  const std::string expected = expected_file(kXp600, maps, {3, 0, 1, 2, -1, -1, 4});
  test::LogCapture log;
  for (const std::uint32_t threads : {1u, 2u, 5u, 32u}) {
    HosonWriterOptions options = options_for(kXp600);
    options.threads.writer = {WorkDivision::always, threads};
    HosonWriter writer(options);
    writer.set_timing(true);
    writer.write_dropmaps(maps, path);
    EXPECT_TRUE(test::read_all(path) == expected) << threads << " threads";
    EXPECT_EQ(log.take(), (Names{"[INFO ] write_dropmaps: 33x40000 stride=16 cycle=112 size=~4MB -> " + path,
                                 "[INFO ] write_dropmaps: done -> " + path}));
    EXPECT_EQ(writer.counters().rows, 40'000u);
    EXPECT_EQ(writer.counters().bytes, 40'000u * 112u);
    EXPECT_GT(std::min(writer.counters().pack_ns, writer.counters().file_ns), 0u);
  }
}

}  // namespace
}  // namespace nvo
