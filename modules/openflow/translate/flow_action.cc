// SPDX-License-Identifier: BSD-3-Clause
#include "modules/openflow/translate/flow_action.h"

#include <rte_byteorder.h>

#include <cstring>
#include <iomanip>
#include <string>

#include "utils/ether.h"

namespace {

struct Hex {
  uint32_t value;  // host order
  int digits;
};

std::ostream& operator<<(std::ostream& out, Hex hex) {
  return out << "0x" << std::hex << std::setfill('0') << std::setw(hex.digits)
             << hex.value << std::dec << std::setfill(' ');
}

Hex hex16(uint16_t network) { return {rte_be_to_cpu_16(network), 4}; }
Hex hex32(uint32_t network) { return {rte_be_to_cpu_32(network), 8}; }

std::string macText(const uint8_t (&bytes)[6]) {
  bess::utils::Ethernet::Address address;
  static_assert(sizeof(address) == sizeof(bytes));
  std::memcpy(&address, bytes, sizeof(bytes));
  return address.ToString();
}

char raw(uint8_t byte) { return static_cast<char>(byte); }

}  // namespace

std::ostream& operator<<(std::ostream& out, const OfActionFields& fields) {
  const struct {
    const char* label;
    unsigned bit;
  } rows[] = {
      {" setEthDst: ", fields.setEthDst},
      {", setEthSrc: ", fields.setEthSrc},
      {", setVlanVid: ", fields.setVlanVid},
      {", setVlanPcp: ", fields.setVlanPcp},
      {", setIpTos: ", fields.setIpTos},
      {", setIpv4Src: ", fields.setIpv4Src},
      {", setIpv4Dst: ", fields.setIpv4Dst},
      {", setL4SrcPort: ", fields.setL4SrcPort},
      {", setL4DstPort: ", fields.setL4DstPort},
      {", setIcmpType: ", fields.setIcmpType},
      {", setIcmpCode: ", fields.setIcmpCode},
      {", setOutputPort: ", fields.setOutputPort},
      {", setOutputInPort: ", fields.setOutputInPort},
      {", setOutputController: ", fields.setOutputController},
      {", setOutputDrop: ", fields.setOutputDrop},
      {", popVlan: ", fields.popVlan},
      {", decTtl: ", fields.decTtl},
      {", gotoTbl: ", fields.gotoTbl},
  };
  for (const auto& row : rows) {
    out << row.label << row.bit;
  }
  return out;
}

std::ostream& operator<<(std::ostream& out, const OfActionValues& values) {
  out << "ethDst: " << macText(values.ethDst)
      << ", ethSrc: " << macText(values.ethSrc)
      << ", vlanVid: " << hex16(values.vlanVid)
      << ", vlanPcp: " << raw(values.vlanPcp)
      << ", ipTos: " << raw(values.ipTos)
      << ", ipv4Src: " << hex32(values.ipv4Src)
      << ", ipv4Dst: " << hex32(values.ipv4Dst)
      << ", l4SrcPort: " << hex16(values.l4SrcPort)
      << ", l4DstPort: " << hex16(values.l4DstPort)
      << ", icmpType: " << raw(values.icmpType)
      << ", icmpCode: " << raw(values.icmpCode)
      << ", nextTbl: " << raw(values.nextTbl) << ", outputControllerTrap: "
      << static_cast<unsigned>(values.outputControllerTrap)
      << ", outputControllerReason: " << raw(values.outputControllerReason)
      << ", numOutputGates: " << raw(values.numOutputGates);
  for (int i = 0; i < values.numOutputGates; i++) {
    out << ", ogate: " << values.ogate[i];
  }
  return out;
}
