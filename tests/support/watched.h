// SPDX-License-Identifier: BSD-3-Clause
//
// For tests that must see whether an object is deleted. A program that uses it
// has watched.cc among its sources, and with it operator new and delete of its
// own.
#pragma once

namespace openflow_test {

// Looks out for the deletion of one object, on whatever thread.
class Watched {
 public:
  explicit Watched(const void* object);
  ~Watched();
  Watched(const Watched&) = delete;
  Watched& operator=(const Watched&) = delete;

  bool deleted() const;

 private:
  int place_;
};

}  // namespace openflow_test
