// SPDX-License-Identifier: BSD-3-Clause
#pragma once

// ThreadSanitizer's own; its header does not declare them.
extern "C" {
void AnnotateIgnoreReadsBegin(const char* file, int line);
void AnnotateIgnoreReadsEnd(const char* file, int line);
void AnnotateIgnoreWritesBegin(const char* file, int line);
void AnnotateIgnoreWritesEnd(const char* file, int line);
}

namespace tsan_models {

// While a library works on memory of its own, in an order that nobody sees:
// what the calling thread reads and writes is not looked at.
class Ignore {
 public:
  Ignore() {
    AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
  }
  ~Ignore() {
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
  }
  Ignore(const Ignore&) = delete;
  Ignore& operator=(const Ignore&) = delete;
};

}  // namespace tsan_models
