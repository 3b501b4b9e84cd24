#include "net/local_address.h"

#include <gtest/gtest.h>

namespace qel {
namespace {

TEST(LocalAddressTest, PrefersTheFirstAddressOutsideLoopbackAnd192168) {
  EXPECT_EQ(ChooseLocalAddress({"127.0.0.1", "192.168.0.9", "172.16.0.1", "8.8.8.8"}),
            "172.16.0.1");
  EXPECT_EQ(ChooseLocalAddress({"192.168.2.2", "127.0.0.1"}), "192.168.2.2");
  EXPECT_EQ(ChooseLocalAddress({}), "");
}

}  // namespace
}  // namespace qel
