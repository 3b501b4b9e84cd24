#include "routing/discovery.h"

#include <gtest/gtest.h>

#include <qel/settings.h>

#include "node/node_state.h"

namespace qel {
namespace {

TEST(DiscoveryTest, InfoValuesAreCutToWhatTheCacheKeeps) {
  constexpr size_t kCap = 4096;
  const std::string source(kCap + 1, 'S');
  cSettings body;
  body.SaveSetting("Name", Variant("short"));
  for (const char* key : {"Descriptor", "Address", "Encryption-Key", "Active-User"}) {
    body.SaveSetting(key, Variant(std::string(1 << 20, key[0])));
  }
  typMessage info = MakeMessage("INFO", "BROADCAST");
  SetField(info.Fields, "Source", Variant(source));
  info.Body = body.getXML();

  auto node = std::make_shared<NodeState>();
  OnInfo(*node, info, 0);
  ASSERT_EQ(node->NodeCache.size(), 2u);
  const NodeEntry& entry = node->NodeCache[1];
  EXPECT_EQ(entry.ID, source.substr(0, kCap));
  EXPECT_EQ(node->NodeCache.Find(entry.ID), 1);
  EXPECT_EQ(entry.Name, "short");
  for (const std::string* value :
       {&entry.Descriptor, &entry.Address, &entry.EncryptionKey, &entry.activeUser}) {
    EXPECT_EQ(value->size(), kCap);
    EXPECT_LT(value->capacity(), 2 * kCap);  // the cut gives the memory back
  }
}

}  // namespace
}  // namespace qel
