// SPDX-License-Identifier: BSD-3-Clause
#pragma once

namespace bess {

// While it lives, the calling thread is a registered reader of liburcu's QSBR
// flavour. A thread that is one already stays as it is, before and after.
class QsbrReader {
 public:
  QsbrReader();
  ~QsbrReader();
  QsbrReader(const QsbrReader&) = delete;
  QsbrReader& operator=(const QsbrReader&) = delete;

 private:
  bool registered_here_;
};

// While it lives, the calling thread is offline: grace periods do not wait for
// it. For waiting and sleeping. Does nothing on a thread that is not an online
// reader.
class QsbrOffline {
 public:
  QsbrOffline();
  ~QsbrOffline();
  QsbrOffline(const QsbrOffline&) = delete;
  QsbrOffline& operator=(const QsbrOffline&) = delete;

 private:
  bool was_online_;
};

}  // namespace bess
