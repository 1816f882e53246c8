// SPDX-License-Identifier: BSD-3-Clause
//
// Drives one fuzzer without libFuzzer: every sample of its corpus as it is,
// then mutations of them for some seconds. The same seed makes the same inputs,
// and an input that ends the process is in FILE for the libFuzzer build to
// shrink.
#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "fuzz/target.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr size_t kMaxInput = 8192;
constexpr const char* kLastInput = "last-input.bin";

Bytes readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

std::vector<Bytes> readCorpus(const std::filesystem::path& dir) {
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  std::vector<Bytes> corpus;
  for (const auto& path : paths) corpus.push_back(readFile(path));
  return corpus;
}

class Mutator {
 public:
  Mutator(const std::vector<Bytes>* corpus, uint64_t seed)
      : corpus_(*corpus), engine_(seed) {}

  Bytes next() {
    Bytes input = sample();
    for (size_t n = 1 + below(4); n > 0; n--) mutate(&input);
    if (input.size() > kMaxInput) input.resize(kMaxInput);
    return input;
  }

 private:
  size_t below(size_t bound) { return bound == 0 ? 0 : engine_() % bound; }
  const Bytes& sample() { return corpus_[below(corpus_.size())]; }

  void mutate(Bytes* input) {
    const size_t at = below(input->size() + 1);
    const auto place = input->begin() + static_cast<ptrdiff_t>(at);
    const size_t behind = input->size() - at;
    switch (below(6)) {
      case 0:  // one bit
        if (behind > 0) (*input)[at] ^= static_cast<uint8_t>(1u << below(8));
        break;
      case 1:  // one byte, often an extreme one
        if (behind > 0) {
          constexpr uint8_t kExtremes[] = {0, 1, 0x7f, 0x80, 0xff};
          (*input)[at] = below(2) == 0 ? kExtremes[below(5)]
                                       : static_cast<uint8_t>(engine_());
        }
        break;
      case 2:
        input->insert(place, 1 + below(8), static_cast<uint8_t>(engine_()));
        break;
      case 3:
        input->erase(place, place + static_cast<ptrdiff_t>(
                                        std::min(behind, 1 + below(16))));
        break;
      case 4: {  // some of another sample
        const Bytes& other = sample();
        const size_t from = below(other.size() + 1);
        const size_t size = below(std::min<size_t>(other.size() - from, 64));
        const auto begin = other.begin() + static_cast<ptrdiff_t>(from);
        input->insert(place, begin, begin + static_cast<ptrdiff_t>(size));
        break;
      }
      default:
        input->resize(at);
        break;
    }
  }

  const std::vector<Bytes>& corpus_;
  std::mt19937_64 engine_;
};

// Kept on disk first: an input that ends the process must not be lost with it.
void run(const Bytes& input) {
  std::ofstream(kLastInput, std::ios::binary)
      .write(reinterpret_cast<const char*>(input.data()),
             static_cast<std::streamsize>(input.size()));
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    fmt::print(stderr, "usage: {} CORPUS-DIR SECONDS [FILE...]\n", argv[0]);
    return 2;
  }
  for (int i = 3; i < argc; i++) run(readFile(argv[i]));
  if (argc > 3) return 0;

  const std::vector<Bytes> corpus = readCorpus(argv[1]);
  if (corpus.empty()) {
    fmt::print(stderr, "{}: no samples\n", argv[1]);
    return 1;
  }
  for (const Bytes& sample : corpus) run(sample);
  Mutator mutator(&corpus, 1);
  const auto end = Clock::now() + std::chrono::seconds(std::atoi(argv[2]));
  size_t mutations = 0;
  for (; Clock::now() < end; mutations++) run(mutator.next());
  fmt::print("{} samples and {} mutations passed\n", corpus.size(), mutations);
  std::filesystem::remove(kLastInput);
  return 0;
}
