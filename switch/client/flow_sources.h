// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "switch.pb.h"
#include "switch/flow/diagnostic.h"

namespace ofswitch {

// The flows or filters of one request, from the command line and from files,
// which remembers where each line came from.
class FlowSources {
 public:
  // `what` is "flow" or "filter", which names those of the command line.
  explicit FlowSources(std::string what) : what_(std::move(what)) {}

  // "-" is standard input.
  void addArgument(const std::string& text);
  // Throws FileError for a file that cannot be read.
  void addFile(const std::string& path);

  // Whether no line says anything.
  bool empty() const;
  // Whether the lines, taken as filters, select every flow because they, or
  // one of them, say nothing.
  bool selectsAll() const;

  // Fills in the text of a request.
  void fill(pb::FlowChange* change) const;

  // What the switch says about a line of the request, as if said about where
  // the line came from.
  Diagnostic place(const pb::Diagnostic& diagnostic) const;

 private:
  struct Source {
    std::string name;
    size_t lines;
    bool isArgument;
  };

  void add(Source source, std::string_view text);

  std::string what_;
  std::string text_;
  std::vector<Source> sources_;
  size_t arguments_ = 0;
};

}  // namespace ofswitch
