// SPDX-License-Identifier: BSD-3-Clause
#include "modules/capture_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <string>

#include "modules/capture_reader.h"
#include "tests/captures/capture_files.h"

namespace openflow_test {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

constexpr uint8_t kFrame[100] = {1, 2, 3};
constexpr char kFull[] = "/dev/full: No space left on device";

TEST(CaptureWriter, KeepsTimesToTheNanosecond) {
  const ScratchDir dir;
  const std::string text(kFrame, kFrame + 60);
  {
    bess::CaptureWriter writer(dir / "a.pcap");
    writer.Write(1'999'999'999, kFrame, 60);
    writer.Write(2'000'000'001, kFrame, 60);
    writer.Flush();
    EXPECT_EQ(writer.error(), "");
    EXPECT_THAT(readCapture(dir / "a.pcap"), SizeIs(2)) << "while it is open";
  }
  EXPECT_THAT(readCapture(dir / "a.pcap"),
              ElementsAre(CaptureRow{1'999'999'999, text, 0},
                          CaptureRow{2'000'000'001, text, 0}));
}

// As a frame of that length is when it goes to the controller, behind a header.
TEST(CaptureWriter, KeepsTheStartOfWhatIsTooLongToBeRead) {
  const ScratchDir dir;
  const std::string bytes(262145, 'x');
  bess::CaptureWriter writer(dir / "a.pcap");
  writer.Write(1, reinterpret_cast<const uint8_t*>(bytes.data()), 262144);
  writer.Write(2, reinterpret_cast<const uint8_t*>(bytes.data()), 262145);
  writer.Flush();
  EXPECT_EQ(writer.error(), "");
  EXPECT_THAT(readCapture(dir / "a.pcap"),
              ElementsAre(CaptureRow{1, bytes.substr(1), 0},
                          CaptureRow{2, bytes.substr(1), 262145}));
  bess::CaptureReader reader(dir / "a.pcap");
  bess::CapturedFrame frame;
  while (reader.Next(&frame)) {
  }
  EXPECT_EQ(reader.error(), "");
  EXPECT_EQ(reader.frames(), 2);
}

TEST(CaptureWriter, TellsOfAFileThatCannotBe) {
  bess::CaptureWriter writer("/nowhere/a.pcap");
  EXPECT_EQ(writer.error(), "/nowhere/a.pcap: No such file or directory");
  writer.Write(1, kFrame, 60);
  writer.Flush();
  EXPECT_EQ(writer.error(), "/nowhere/a.pcap: No such file or directory");
}

TEST(CaptureWriter, TellsOfAFullDiskAtTheLatestWhenItIsFlushed) {
  bess::CaptureWriter writer("/dev/full");
  writer.Write(1, kFrame, 60);
  EXPECT_EQ(writer.error(), "") << "it waits for more";
  writer.Flush();
  EXPECT_EQ(writer.error(), kFull);
}

TEST(CaptureWriter, TellsOfAFullDiskAsSoonAsItIsSeen) {
  bess::CaptureWriter writer("/dev/full", "out/a.pcap");
  for (int i = 0; i < 1000; i++) writer.Write(1, kFrame, sizeof(kFrame));
  EXPECT_EQ(writer.error(), "out/a.pcap: No space left on device");
}

TEST(CaptureWriter, GivesBackAllItsMemory) {
  const ScratchDir dir;
  const auto write = [&] {
    bess::CaptureWriter(dir / "a.pcap").Write(1, kFrame, 60);
  };
  write();
  const size_t before = mallinfo2().uordblks;
  for (int i = 0; i < 100; i++) write();
  // A writer's memory is some kilobytes; what the heap keeps by itself is not.
  EXPECT_LE(mallinfo2().uordblks, before + 100 * 100);
}

}  // namespace
}  // namespace openflow_test
