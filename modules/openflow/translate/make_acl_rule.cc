// SPDX-License-Identifier: BSD-3-Clause
#include <glog/logging.h>
#include <rte_byteorder.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include "modules/openflow/openflow.h"
#include "modules/openflow/trace.h"

namespace {

void setField(rte_acl_field* field, uint8_t value, uint8_t mask) {
  field->value.u8 = value;
  field->mask_range.u8 = mask;
}

void setField(rte_acl_field* field, uint16_t value, uint16_t mask) {
  field->value.u16 = value;
  field->mask_range.u16 = mask;
}

void setField(rte_acl_field* field, uint32_t value, uint32_t mask) {
  field->value.u32 = value;
  field->mask_range.u32 = mask;
}

void setExact8(rte_acl_field* field, uint32_t value) {
  setField(field, static_cast<uint8_t>(value), uint8_t{0xff});
}

void setExact16(rte_acl_field* field, uint32_t value) {
  setField(field, static_cast<uint16_t>(value), uint16_t{0xffff});
}

void setMasked8(rte_acl_field* field, uint32_t value, uint32_t mask) {
  setField(field, static_cast<uint8_t>(value), static_cast<uint8_t>(mask));
}

// The big-endian number in bytes[at] to bytes[at + 3]; bytes beyond the end
// read as zero.
uint32_t wordAt(const std::string& bytes, size_t at) {
  uint32_t word = 0;
  if (at < bytes.size()) {
    std::memcpy(&word, bytes.data() + at,
                std::min(sizeof(word), bytes.size() - at));
  }
  return rte_be_to_cpu_32(word);
}

// The high field holds bytes 0 to 3, the low one bytes 4 and 5 in its upper
// half: the key has two zero bytes behind a MAC.
void setMac(rte_acl_field* field, const std::string& addrArg,
            const std::string& maskArg) {
  CHECK(addrArg.size() == 6);
  CHECK(maskArg.size() == 6);
  setField(&field[0], wordAt(addrArg, 0), wordAt(maskArg, 0));
  setField(&field[1], wordAt(addrArg, 4), wordAt(maskArg, 4));
}

void setIpv6Address(rte_acl_field* field, const std::string& address,
                    const std::string& mask) {
  for (int word = 0; word < 4; word++) {
    setField(&field[word], wordAt(address, 4 * word), wordAt(mask, 4 * word));
  }
}

void setL2Fields(rte_acl_field* field, const quil::pb::OfMatchFields& present,
                 const quil::pb::OfMatchValues& values) {
  if (present.ipproto()) {
    setExact8(&field[kFieldIpProto], values.ipproto());
  }
  if (present.ethsrc()) {
    setMac(&field[kFieldEthSrc], values.ethsrc(), values.ethsrcmask());
  }
  if (present.ethdst()) {
    setMac(&field[kFieldEthDst], values.ethdst(), values.ethdstmask());
  }
  if (present.vlanvid()) {
    setField(&field[kFieldVlanTci], static_cast<uint16_t>(values.vlanvid()),
             static_cast<uint16_t>(values.vlanvidmask()));
  }
  if (present.vlanpcp()) {
    // Joins whatever vlanVid has put there: both are parts of one tag.
    rte_acl_field& tci = field[kFieldVlanTci];
    tci.value.u16 |= static_cast<uint16_t>(values.vlanpcp() << 13);
    tci.mask_range.u16 |= 0xe000;
  }
  if (present.ethtype()) {
    setExact16(&field[kFieldEthType], values.ethtype());
  }
}

void setIpv4Fields(rte_acl_field* field, const quil::pb::OfMatchFields& present,
                   const quil::pb::OfMatchValues& values) {
  if (present.arptpa()) {
    setField(&field[kFieldArpTpa], values.arptpa(), values.arptpamask());
  }
  if (present.ipv4src()) {
    setField(&field[kFieldIpv4Src], values.ipv4src(), values.ipv4srcmask());
  }
  if (present.ipv4dst()) {
    setField(&field[kFieldIpv4Dst], values.ipv4dst(), values.ipv4dstmask());
  }
}

void setIpv6Fields(rte_acl_field* field, const quil::pb::OfMatchFields& present,
                   const quil::pb::OfMatchValues& values) {
  if (present.ipv6src()) {
    setIpv6Address(&field[kFieldIpv6Src], values.ipv6src(),
                   values.ipv6srcmask());
  }
  if (present.ipv6dst()) {
    setIpv6Address(&field[kFieldIpv6Dst], values.ipv6dst(),
                   values.ipv6dstmask());
  }
}

// `field` is the family's L4 base.
void setL4Fields(rte_acl_field* field, const quil::pb::OfMatchFields& present,
                 const quil::pb::OfMatchValues& values) {
  if (present.l4srcport()) {
    setExact16(&field[kFieldL4SrcPort], values.l4srcport());
  }
  if (present.l4dstport()) {
    setExact16(&field[kFieldL4DstPort], values.l4dstport());
  }
  if (present.iptos()) {
    setMasked8(&field[kFieldIpTos], values.iptos(), values.iptosmask());
  }
  if (present.ipttl()) {
    setMasked8(&field[kFieldIpTtl], values.ipttl(), values.ipttlmask());
  }
  if (present.icmptype()) {
    setExact8(&field[kFieldIcmpType], values.icmptype());
  }
  if (present.icmpcode()) {
    setExact8(&field[kFieldIcmpCode], values.icmpcode());
  }
  if (present.tcpflags()) {
    setMasked8(&field[kFieldTcpFlags], values.tcpflags(),
               values.tcpflagsmask());
  }
  setField(&field[kFieldPadding], uint8_t{0}, uint8_t{0});
  setField(&field[kFieldPadding2], uint16_t{0}, uint16_t{0});
  if (present.metadata()) {
    // Keys carry the metadata as it lies in host memory; the classifier reads
    // key bytes big-endian, so each half is swapped here.
    const uint64_t value = values.metadata();
    setField(&field[kFieldMetadata], rte_bswap32(static_cast<uint32_t>(value)),
             0xffffffffu);
    setField(&field[kFieldMetadata + 1],
             rte_bswap32(static_cast<uint32_t>(value >> 32)), 0xffffffffu);
  }
}

void dumpRule(const rte_acl_rule_data& data, const rte_acl_field* field,
              int numFields) {
  OF_TRACE(kTraceDump, "AclFields: ");
  for (int i = 0; i < numFields; i++) {
    char text[80];  // longer than any
    snprintf(text, sizeof(text),
             " Field%d: val: 0x%016" PRIx64 ", mask: 0x%016" PRIx64, i,
             field[i].value.u64, field[i].mask_range.u64);
    OF_TRACE(kTraceDump, "%s", text);
  }
  OF_TRACE(kTraceDump, "AclData:  userdata: %s, priority: %s", data.userdata,
           data.priority);
}

// Writes the rule's header and returns its fields.
template <typename FLOW_TYPE>
rte_acl_field* startRule(void* memory, uint32_t priority) {
  auto* rule = static_cast<FLOW_TYPE*>(memory);
  rule->data.category_mask = 1;
  rule->data.priority = static_cast<int32_t>(priority);
  return rule->field;
}

}  // namespace

void OpenFlow::makeAclRule(quil::pb::OpenFlowType flowType,
                           const quil::pb::OpenFlowAddFlow& flow, void* rule) {
  OF_TRACE(kTraceStep, "makeAclRule flowType: %s, flowId: %s, priority: %s",
           flowType, flow.flowid(), flow.priority());
  const bool ipv6 = flowType == quil::pb::OPENFLOW_TYPE_IPV6;
  rte_acl_field* field =
      ipv6 ? startRule<of_flow_acl_rule_ipv6>(rule, flow.priority())
           : startRule<of_flow_acl_rule>(rule, flow.priority());

  const quil::pb::OfMatchFields& present = flow.match().fields();
  const quil::pb::OfMatchValues& values = flow.match().values();
  setL2Fields(field, present, values);
  if (ipv6) {
    setIpv6Fields(field, present, values);
    setL4Fields(&field[kIpv6L4Base], present, values);
  } else {
    setIpv4Fields(field, present, values);
    setL4Fields(&field[kIpv4L4Base], present, values);
  }

  if (_defaultTraceHandle().enabled(kTraceDump)) {
    dumpRule(*static_cast<rte_acl_rule_data*>(rule), field,
             ipv6 ? kNumIpv6Fields : kNumIpv4Fields);
  }
}
