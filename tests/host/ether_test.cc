// SPDX-License-Identifier: BSD-3-Clause
#include "utils/ether.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Address = bess::utils::Ethernet::Address;

TEST(EthernetAddressTest, PrintsPairsOfLowerCaseDigits) {
  const uint8_t bytes[] = {0x02, 0x00, 0x5e, 0xAB, 0x0f, 0xff};
  EXPECT_EQ(Address(bytes).ToString(), "02:00:5e:ab:0f:ff");
  EXPECT_EQ(Address().ToString(), "00:00:00:00:00:00");
}

TEST(EthernetAddressTest, ReadsWhatItPrints) {
  Address address;
  EXPECT_TRUE(address.FromString("02:00:5E:ab:0f:ff"));
  EXPECT_EQ(address.ToString(), "02:00:5e:ab:0f:ff");
  EXPECT_EQ(Address("01:02:03:04:05:06").bytes[5], 6);
}

TEST(EthernetAddressTest, RefusesWhatIsNoAddress) {
  Address address("01:02:03:04:05:06");
  for (const char* text :
       {"", "01:02:03:04:05", "01:02:03:04:05:06:", "01:02:03:04:05:0g",
        "01-02-03-04-05-06", "1:2:3:4:5:6", "01:02:03:04:05:+6",
        "01:02:03:04:05: 6", "001:02:03:04:05:6"}) {
    EXPECT_FALSE(address.FromString(text)) << text;
    EXPECT_EQ(address.ToString(), "01:02:03:04:05:06") << text;
  }
}

TEST(EthernetAddressTest, WantsEveryColon) {
  for (size_t at = 2; at < 17; at += 3) {
    std::string text = "01:02:03:04:05:06";
    text[at] = '-';
    EXPECT_FALSE(Address().FromString(text)) << text;
  }
}

TEST(EthernetAddressTest, KnowsBroadcastAndZero) {
  EXPECT_TRUE(Address("ff:ff:ff:ff:ff:ff").IsBroadcast());
  EXPECT_FALSE(Address("ff:ff:ff:ff:ff:fe").IsBroadcast());
  EXPECT_TRUE(Address().IsZero());
  EXPECT_FALSE(Address("00:00:00:00:00:01").IsZero());
}

}  // namespace
