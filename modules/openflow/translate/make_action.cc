// SPDX-License-Identifier: BSD-3-Clause
#include <rte_byteorder.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <sstream>
#include <string>

#include "modules/openflow/openflow.h"
#include "modules/openflow/trace.h"

namespace {

// Exactly 6 bytes: a longer value is cut, a shorter one keeps zeros behind it.
void copyMac(const std::string& bytes, uint8_t (&mac)[6]) {
  std::memcpy(mac, bytes.data(), std::min(sizeof(mac), bytes.size()));
}

void setRewrites(const quil::pb::OfActionFields& f,
                 const quil::pb::OfActionValues& v, OfFlowAction* action) {
  OfActionFields& fields = action->fields;
  OfActionValues& values = action->values;
  if (f.setethdst()) {
    fields.setEthDst = 1;
    copyMac(v.ethdst(), values.ethDst);
  }
  if (f.setethsrc()) {
    fields.setEthSrc = 1;
    copyMac(v.ethsrc(), values.ethSrc);
  }
  if (f.setvlanvid()) {
    fields.setVlanVid = 1;
    values.vlanVid = rte_cpu_to_be_16(static_cast<uint16_t>(v.vlanvid()));
  }
  if (f.setvlanpcp()) {
    fields.setVlanPcp = 1;
    values.vlanPcp = static_cast<uint8_t>(v.vlanpcp());
  }
  if (f.setiptos()) {
    fields.setIpTos = 1;
    values.ipTos = static_cast<uint8_t>(v.iptos());
  }
  if (f.setipv4src()) {
    fields.setIpv4Src = 1;
    values.ipv4Src = rte_cpu_to_be_32(v.ipv4src());
  }
  if (f.setipv4dst()) {
    fields.setIpv4Dst = 1;
    values.ipv4Dst = rte_cpu_to_be_32(v.ipv4dst());
  }
  if (f.setl4srcport()) {
    fields.setL4SrcPort = 1;
    values.l4SrcPort = rte_cpu_to_be_16(static_cast<uint16_t>(v.l4srcport()));
  }
  if (f.setl4dstport()) {
    fields.setL4DstPort = 1;
    values.l4DstPort = rte_cpu_to_be_16(static_cast<uint16_t>(v.l4dstport()));
  }
  if (f.seticmptype()) {
    fields.setIcmpType = 1;
    values.icmpType = static_cast<uint8_t>(v.icmptype());
  }
  if (f.seticmpcode()) {
    fields.setIcmpCode = 1;
    values.icmpCode = static_cast<uint8_t>(v.icmpcode());
  }
}

// Of several output lists only the first in this order is taken.
bool setOutputList(const quil::pb::OfActionFields& f, OfActionFields* fields) {
  if (f.setoutputall()) {
    fields->setOutputAll = 1;
  } else if (f.setoutputflood()) {
    fields->setOutputFlood = 1;
  } else if (f.setoutputport()) {
    fields->setOutputPort = 1;
  } else {
    return false;
  }
  return true;
}

void setOutputs(const quil::pb::OfActionFields& f,
                const quil::pb::OfActionValues& v, OfFlowAction* action) {
  OfActionFields& fields = action->fields;
  OfActionValues& values = action->values;
  if (setOutputList(f, &fields)) {
    // processUpdateFlows refuses more gates than fit; a direct caller's are
    // cut.
    const int numGates = std::min(v.ogate_size(), kMaxOutputGates);
    for (int i = 0; i < numGates; i++) {
      values.ogate[i] = static_cast<uint16_t>(v.ogate(i));
    }
    values.numOutputGates = static_cast<uint8_t>(numGates);
  }
  if (f.setoutputinport()) {
    fields.setOutputInPort = 1;
  }
  if (f.setoutputcontroller()) {
    fields.setOutputController = 1;
    values.outputControllerTrap = v.outputcontrollertrap();
    values.outputControllerReason =
        static_cast<uint8_t>(v.outputcontrollerreason());
  }
  if (f.setoutputdrop()) {
    fields.setOutputDrop = 1;
  }
  if (f.popvlan()) {
    fields.popVlan = 1;
  }
  if (f.decttl()) {
    fields.decTtl = 1;
  }
  if (f.gototbl()) {
    fields.gotoTbl = 1;
    values.nextTbl = static_cast<uint8_t>(v.nexttbl());
  }
}

// Empty, or not all of it, where there is no memory for the text.
template <typename Printable>
std::string print(const Printable& printable) {
  try {
    std::ostringstream out;
    out << printable;
    return out.str();
  } catch (const std::bad_alloc&) {
    return {};
  }
}

}  // namespace

void OpenFlow::makeAction(const quil::pb::OpenFlowAddFlow& flow,
                          OfFlowAction* action) {
  OF_TRACE(kTraceStep, "makeAction flowId: %s, priority: %s", flow.flowid(),
           flow.priority());
  action->priority = flow.priority();
  setRewrites(flow.action().fields(), flow.action().values(), action);
  setOutputs(flow.action().fields(), flow.action().values(), action);
  action->packetCounterId = flow.packetcounterid();
  action->byteCounterId = flow.bytecounterid();

  if (_defaultTraceHandle().enabled(kTraceDump)) {
    OF_TRACE(kTraceDump, "Action fields: %s", print(action->fields));
    OF_TRACE(kTraceDump, "Action values: %s", print(action->values));
  }
}
