// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "tests/client/client_command.h"

namespace ofswitch {

class FlowsCommand : public ClientCommand {
 protected:
  FlowsCommand() { fake_.changeReply.set_applied(true); }

  void refuse(uint32_t line, const std::string& reason) {
    fake_.changeReply.set_applied(false);
    pb::Diagnostic* refusal = fake_.changeReply.add_refusals();
    refusal->set_name(fake_.change.text_name());
    refusal->set_line(line);
    refusal->set_reason(reason);
  }
};

}  // namespace ofswitch
