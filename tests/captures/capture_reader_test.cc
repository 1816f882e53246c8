// SPDX-License-Identifier: BSD-3-Clause
#include "modules/capture_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <stdexcept>

#include "tests/captures/capture_files.h"

namespace openflow_test {
namespace {

using bess::CapturedFrame;
using bess::CaptureMerger;
using bess::CaptureReader;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint64_t kSecond = 1'000'000'000;

struct FormatCase {
  const char* name;
  CaptureFormat format;
  uint64_t resolution;  // nanoseconds
};

class Formats : public testing::TestWithParam<FormatCase> {};

TEST_P(Formats, BytesAndTimesAreRead) {
  const ScratchDir dir;
  const std::vector<CaptureRow> rows = {
      {1'700'000'000 * kSecond + 123'456'789, "first frame", 0},
      {1'700'000'001 * kSecond, std::string(1500, 'x'), 9000}};
  writeFile(dir / "c", captureBytes(rows, GetParam().format));
  CaptureReader reader(dir / "c");
  CapturedFrame frame;
  for (const CaptureRow& row : rows) {
    ASSERT_TRUE(reader.Next(&frame));
    EXPECT_EQ(frame.ns, row.ns / GetParam().resolution * GetParam().resolution);
    EXPECT_EQ(std::string(frame.bytes, frame.bytes + frame.len), row.bytes);
    EXPECT_EQ(frame.wire_len, row.wireLen != 0 ? row.wireLen : frame.len);
  }
  EXPECT_FALSE(reader.Next(&frame));
  EXPECT_EQ(reader.error(), "");
  EXPECT_EQ(reader.frames(), 2u);
  EXPECT_EQ(reader.position(), reader.size());
}

INSTANTIATE_TEST_SUITE_P(
    Captures, Formats,
    testing::Values(FormatCase{"PcapMicro", CaptureFormat::kPcapMicro, 1000},
                    FormatCase{"PcapNano", CaptureFormat::kPcapNano, 1},
                    FormatCase{"PcapNg", CaptureFormat::kPcapNg, 1000},
                    FormatCase{"PcapNgNano", CaptureFormat::kPcapNgNano, 1}),
    [](const auto& row) { return row.param.name; });

std::string reasonOf(const std::string& path) {
  try {
    CaptureReader reader(path);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

TEST(CaptureReader, RefusesWhatIsNoEthernetCapture) {
  const ScratchDir dir;
  EXPECT_EQ(reasonOf(dir / "none"),
            (dir / "none").string() + ": No such file or directory");
  EXPECT_EQ(reasonOf(dir.path()), dir.path().string() + ": Is a directory");
  writeFile(dir / "text", "this is no capture, but it is long enough");
  EXPECT_THAT(reasonOf(dir / "text"), HasSubstr("text: unknown file format"));
  writeFile(dir / "raw", captureBytes({}, CaptureFormat::kPcapMicro, kLinkRaw));
  EXPECT_EQ(reasonOf(dir / "raw"),
            (dir / "raw").string() +
                ": link type RAW: only Ethernet captures can be read");
  writeFile(dir / "empty", "");
  EXPECT_THAT(reasonOf(dir / "empty"), HasSubstr("empty: truncated"));
}

TEST(CaptureReader, TellsTheNumberOfALinkWithoutAName) {
  const ScratchDir dir;
  writeFile(dir / "c", captureBytes({}, CaptureFormat::kPcapMicro, 60000));
  EXPECT_EQ(reasonOf(dir / "c"),
            (dir / "c").string() +
                ": link type 60000: only Ethernet captures can be read");
}

TEST(CaptureReader, LeavesNoFileOpenThatItRefuses) {
  const ScratchDir dir;
  writeFile(dir / "text", "this is no capture, but it is long enough");
  writeFile(dir / "raw", captureBytes({}, CaptureFormat::kPcapMicro, kLinkRaw));
  const auto open_files = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  const auto before = open_files();
  for (const std::string path :
       {dir.path(), dir / "none", dir / "text", dir / "raw"}) {
    EXPECT_NE(reasonOf(path), "");
    EXPECT_EQ(open_files(), before) << path;
  }
}

TEST(CaptureReader, SaysAfterWhichPacketAFileIsCut) {
  const ScratchDir dir;
  const std::string whole = captureBytes({{1, "one", 0}, {2, "two", 0}});
  writeFile(dir / "cut", whole.substr(0, whole.size() - 1));
  CaptureReader reader(dir / "cut");
  CapturedFrame frame;
  EXPECT_TRUE(reader.Next(&frame));
  EXPECT_FALSE(reader.Next(&frame));
  EXPECT_THAT(reader.error(), HasSubstr("cut: after packet 1: truncated"));
}

TEST(CaptureReader, ReadsAPipeThatHasNoLength) {
  const std::string bytes = captureBytes({{1, "one", 0}, {2, "two", 0}});
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(write(ends[1], bytes.data(), bytes.size()),
            static_cast<ssize_t>(bytes.size()));
  close(ends[1]);
  CaptureReader reader("/proc/self/fd/" + std::to_string(ends[0]));
  close(ends[0]);
  CapturedFrame frame;
  EXPECT_TRUE(reader.Next(&frame));
  EXPECT_TRUE(reader.Next(&frame));
  EXPECT_FALSE(reader.Next(&frame));
  EXPECT_EQ(reader.error(), "");
  EXPECT_EQ(reader.size(), 0u);
  EXPECT_EQ(reader.position(), 0u);
}

// Otherwise frames would count as cut that are not.
TEST(CaptureReader, AFrameWasAtLeastAsLongOnTheWireAsInTheFile) {
  const ScratchDir dir;
  writeFile(dir / "c", captureBytes({{1, "whole frame", 3}}));
  CaptureReader reader(dir / "c");
  CapturedFrame frame;
  ASSERT_TRUE(reader.Next(&frame));
  EXPECT_EQ(frame.len, 11u);
  EXPECT_EQ(frame.wire_len, 11u);
}

TEST(CaptureMerger, MergesByTimeAndThenByInput) {
  const ScratchDir dir;
  writeFile(dir / "a", captureBytes({{10, "a1", 0}, {30, "a2", 0}}));
  writeFile(dir / "b", captureBytes({{10, "b1", 0}, {20, "b2", 0}}));
  // Goes back in time: its order holds all the same.
  writeFile(dir / "c", captureBytes({{25, "c1", 0}, {5, "c2", 0}}));
  CaptureMerger merger;
  merger.Add(dir / "a", 1);
  merger.Add(dir / "b", 2);
  merger.Add(dir / "c", 3);
  std::vector<std::string> seen;
  while (const CaptureMerger::Input* input = merger.Next()) {
    seen.push_back(
        std::to_string(input->port) + " " +
        std::string(input->next.bytes, input->next.bytes + input->next.len));
  }
  EXPECT_THAT(seen,
              ElementsAre("1 a1", "2 b1", "2 b2", "3 c1", "3 c2", "1 a2"));
  EXPECT_EQ(merger.Next(), nullptr);
}

TEST(CaptureMerger, ReadsOnWhenOneInputBreaks) {
  const ScratchDir dir;
  const std::string whole = captureBytes({{1, "a1", 0}, {3, "a2", 0}});
  writeFile(dir / "a", whole.substr(0, whole.size() - 1));
  writeFile(dir / "b", captureBytes({{2, "b1", 0}, {4, "b2", 0}}));
  CaptureMerger merger;
  merger.Add(dir / "a", 1);
  merger.Add(dir / "b", 2);
  int frames = 0;
  while (merger.Next() != nullptr) frames++;
  EXPECT_EQ(frames, 3);
  EXPECT_NE(merger.inputs()[0].reader->error(), "");
  EXPECT_EQ(merger.inputs()[1].reader->error(), "");
}

}  // namespace
}  // namespace openflow_test
