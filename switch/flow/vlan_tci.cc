// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/vlan_tci.h"

#include <string>

#include "switch/flow/refused.h"

namespace ofswitch {

Masked<uint16_t> vlanKeyConstraint(Masked<uint16_t> openflow,
                                   std::string_view word) {
  const auto withoutPresence = [](uint16_t bits) {
    return static_cast<uint16_t>(bits & ~kVlanPresent);
  };
  const Masked<uint16_t> key{withoutPresence(openflow.value),
                             withoutPresence(openflow.mask)};
  if ((openflow.mask & kVlanPresent) == 0) return key;
  if ((openflow.value & kVlanPresent) == 0) {
    if (key.value != 0) {
      refuse(
          "{}: matches no frame, an untagged frame has no VID and no "
          "priority; write dl_vlan=VID for a tagged one",
          word);
    }
    refuse(
        "{}: the module cannot tell an untagged frame from one tagged with "
        "VID 0 and priority 0; write vlan_tci=0x0000/0xefff to match both",
        word);
  }
  if (key.value == 0) {
    const std::string either =
        key.mask == 0 ? ""
                      : fmt::format(
                            ", or write vlan_tci=0x0000/0x{:04x} to match "
                            "untagged frames too",
                            key.mask);
    refuse(
        "{}: the module cannot tell a tag with VID 0 and priority 0 from no "
        "tag; match a VID or a priority above 0{}",
        word, either);
  }
  return key;
}

}  // namespace ofswitch
