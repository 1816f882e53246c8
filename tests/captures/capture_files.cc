// SPDX-License-Identifier: BSD-3-Clause
#include "tests/captures/capture_files.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace openflow_test {
namespace {

constexpr uint32_t kMicroMagic = 0xa1b2c3d4;
constexpr uint32_t kNanoMagic = 0xa1b23c4d;
constexpr uint32_t kSnapLen = 262144;
constexpr uint64_t kNsPerSecond = 1'000'000'000;

template <class T>
void put(std::string* to, T value) {
  to->append(reinterpret_cast<const char*>(&value), sizeof(value));
}

uint32_t wireLenOf(const CaptureRow& row) {
  return row.wireLen != 0 ? row.wireLen
                          : static_cast<uint32_t>(row.bytes.size());
}

std::string pcap(const std::vector<CaptureRow>& rows, bool nano,
                 uint32_t linkType) {
  std::string file;
  put<uint32_t>(&file, nano ? kNanoMagic : kMicroMagic);
  put<uint16_t>(&file, 2);
  put<uint16_t>(&file, 4);
  put<uint32_t>(&file, 0);
  put<uint32_t>(&file, 0);
  put<uint32_t>(&file, kSnapLen);
  put<uint32_t>(&file, linkType);
  for (const CaptureRow& row : rows) {
    put(&file, static_cast<uint32_t>(row.ns / kNsPerSecond));
    put(&file,
        static_cast<uint32_t>(row.ns % kNsPerSecond / (nano ? 1 : 1000)));
    put(&file, static_cast<uint32_t>(row.bytes.size()));
    put(&file, wireLenOf(row));
    file += row.bytes;
  }
  return file;
}

// A pcapng block: type, length, body, length.
std::string block(uint32_t type, std::string body) {
  body.resize((body.size() + 3) / 4 * 4);
  const uint32_t length = static_cast<uint32_t>(body.size() + 12);
  std::string block;
  put(&block, type);
  put(&block, length);
  block += body;
  put(&block, length);
  return block;
}

std::string pcapNg(const std::vector<CaptureRow>& rows, bool nano,
                   uint32_t linkType) {
  std::string section;
  put<uint32_t>(&section, 0x1a2b3c4d);
  put<uint16_t>(&section, 1);
  put<uint16_t>(&section, 0);
  put<int64_t>(&section, -1);
  std::string interface;
  put(&interface, static_cast<uint16_t>(linkType));
  put<uint16_t>(&interface, 0);
  put<uint32_t>(&interface, kSnapLen);
  if (nano) {
    put<uint16_t>(&interface, 9);  // if_tsresol: units of 10^-9 s
    put<uint16_t>(&interface, 1);
    put<uint32_t>(&interface, 9);
    put<uint32_t>(&interface, 0);  // end of options
  }
  std::string file = block(0x0a0d0d0a, section) + block(1, interface);
  for (const CaptureRow& row : rows) {
    const uint64_t time = nano ? row.ns : row.ns / 1000;
    std::string packet;
    put<uint32_t>(&packet, 0);
    put(&packet, static_cast<uint32_t>(time >> 32));
    put(&packet, static_cast<uint32_t>(time));
    put(&packet, static_cast<uint32_t>(row.bytes.size()));
    put(&packet, wireLenOf(row));
    file += block(6, packet + row.bytes);
  }
  return file;
}

}  // namespace

std::string captureBytes(const std::vector<CaptureRow>& rows,
                         CaptureFormat format, uint32_t linkType) {
  switch (format) {
    case CaptureFormat::kPcapMicro:
      return pcap(rows, false, linkType);
    case CaptureFormat::kPcapNano:
      return pcap(rows, true, linkType);
    case CaptureFormat::kPcapNg:
      return pcapNg(rows, false, linkType);
    case CaptureFormat::kPcapNgNano:
      return pcapNg(rows, true, linkType);
  }
  throw std::invalid_argument("no such capture format");
}

std::vector<CaptureRow> readCapture(const std::filesystem::path& path) {
  const std::string file = readFile(path);
  size_t at = 0;
  const auto take = [&](void* to, size_t size) {
    if (file.size() - at < size) {
      throw std::runtime_error(path.string() + ": cut at its end");
    }
    memcpy(to, file.data() + at, size);
    at += size;
  };
  uint32_t header[6];
  take(header, sizeof(header));
  if (header[0] != kNanoMagic || header[5] != kLinkEthernet) {
    throw std::runtime_error(path.string() +
                             ": not a nanosecond Ethernet capture");
  }
  std::vector<CaptureRow> rows;
  while (at < file.size()) {
    uint32_t record[4];
    take(record, sizeof(record));
    CaptureRow row;
    row.ns = record[0] * kNsPerSecond + record[1];
    row.bytes.resize(record[2]);
    take(row.bytes.data(), row.bytes.size());
    row.wireLen = record[3] == record[2] ? 0 : record[3];
    rows.push_back(std::move(row));
  }
  return rows;
}

void writeFile(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream file(path, std::ios::binary);
  file << bytes;
  if (!file.flush()) {
    throw std::runtime_error(path.string() + ": cannot be written");
  }
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw std::runtime_error(path.string() + ": cannot be read");
  }
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

ScratchDir::ScratchDir() {
  std::string name =
      (std::filesystem::temp_directory_path() / "ofswitch-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("no scratch directory");
  }
  path_ = name;
}

ScratchDir::~ScratchDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace openflow_test
