// The exact bytes this node puts on the wire for each message it originates.
#include <gtest/gtest.h>

#include "node/module.h"
#include "protocol/body.h"
#include "routing/discovery.h"
#include "routing/incoming.h"
#include "routing/outgoing.h"

namespace qel {
namespace {

constexpr char kSelf[] = "0123456789ABCDEF0123456789ABCDEF";
constexpr char kPeer[] = "FEDCBA98765432104C5F";
constexpr char kMsgID[] = "11112222333344445555666677778888";

std::shared_ptr<NodeState> MakeNode() {
  auto node = std::make_shared<NodeState>();
  node->NodeID = kSelf;
  node->TTL = 20;
  node->Routes = RouteTable(10);
  node->netPass = "blankey";
  return node;
}

// Stamps as the node does, then swaps the fresh random ID for a fixed one in
// place, so the field order is the real one.
std::string Stamped(NodeState& node, typMessage& message) {
  StampMessage(node, message);
  SetField(message.Fields, "ID", Variant(kMsgID));
  return SerialiseMessage(message);
}

std::string Stamped(NodeState& node, typMessage&& message) {
  return Stamped(node, message);
}

std::string Header(const std::string& startLine, const std::string& ownFields,
                   const std::string& destination, const std::string& tail = "") {
  return startLine + "\r\n" + ownFields + "Destination: " + destination + "\r\nSource: " + kSelf +
         "\r\nTTL: 20\r\nHops: 0\r\nID: " + kMsgID + "\r\n" + tail + "Route: " + kSelf +
         ",\r\n\r\n";
}

TEST(WireTest, DiscoveryAndConfirmationMessages) {
  auto node = MakeNode();
  EXPECT_EQ(Stamped(*node, MakeMessage("WHOIS", "BROADCAST")),
            Header("WHOIS  QEL/2.1", "", "BROADCAST"));
  EXPECT_EQ(Stamped(*node, MakeRequest("PING", kPeer, "7")),
            "PING  QEL/2.1\r\nDestination: " + std::string(kPeer) +
                "\r\nReqID: 7\r\nSource: " + kSelf + "\r\nTTL: 20\r\nHops: 0\r\nID: " + kMsgID +
                "\r\nRoute: " + kSelf + ",\r\n\r\n");
  EXPECT_EQ(Stamped(*node, MakeRequest("PONG", kPeer, "7")),
            "PONG  QEL/2.1\r\nDestination: " + std::string(kPeer) +
                "\r\nReqID: 7\r\nSource: " + kSelf + "\r\nTTL: 20\r\nHops: 0\r\nID: " + kMsgID +
                "\r\nRoute: " + kSelf + ",\r\n\r\n");
  // Confirmations are never confirmed themselves.
  node->confirmMode = true;
  EXPECT_EQ(Stamped(*node, MakeConfirm(kPeer, "ABC")),
            "CONFIRM  QEL/2.1\r\nDestination: " + std::string(kPeer) + "\r\nSource-ID: ABC\r\n" +
                "Source: " + kSelf + "\r\nTTL: 20\r\nHops: 0\r\nID: " + kMsgID +
                "\r\nRoute: " + kSelf + ",\r\n\r\n");
}

TEST(WireTest, InfoDescribesTheNodeInASettingsBody) {
  auto node = MakeNode();
  node->Name = "kitchen";
  node->Role = role_Server;
  node->Descriptor = "a small node";
  node->EncryptionKey = "KEY";
  node->ListenPort = 4000;
  node->ActiveUser = "ann";
  const std::string body =
      "<Settings>\r\n  <Common>\r\n    <Name>kitchen</Name>\r\n    <Role>1</Role>\r\n"
      "    <Descriptor>a small node</Descriptor>\r\n    <Encryption-Key>KEY</Encryption-Key>\r\n"
      "    <Address>127.0.0.1:4000</Address>\r\n    <Sharing-Files>False</Sharing-Files>\r\n"
      "    <Active-User>ann</Active-User>\r\n  </Common>\r\n</Settings>";
  EXPECT_EQ(Stamped(*node, MakeInfo(*node, "BROADCAST")),
            Header("INFO  QEL/2.1", "", "BROADCAST",
                   "Content-Length: " + std::to_string(body.size()) + "\r\n") +
                body);
}

TEST(WireTest, MessagesWithBodies) {
  auto node = MakeNode();
  typMessage msg = NewMessage();
  msg.MsgType = "MSG";
  SetField(msg.Fields, "Type", Variant("chat"));
  SetField(msg.Fields, "Destination", Variant(kPeer));
  msg.Body = "hello";
  EXPECT_EQ(Stamped(*node, msg),
            Header("MSG  QEL/2.1", "Type: chat\r\n", kPeer, "Content-Length: 5\r\n") + "hello");

  // Encrypted with the pass phrase, then compressed; a directed message in
  // confirm mode asks for a confirmation after the body flags.
  node->useEnc = node->useComp = node->confirmMode = true;
  typMessage packed = NewMessage();
  packed.MsgType = "MSG";
  SetField(packed.Fields, "Type", Variant("chat"));
  SetField(packed.Fields, "Destination", Variant(kPeer));
  packed.Body = std::string(200, 'x');
  std::string text = Stamped(*node, packed);
  const std::string compressedLength = GetSingleField(packed.Fields, "Content-Length");
  EXPECT_EQ(text.substr(0, text.size() - packed.Body.size()),
            Header("MSG  QEL/2.1", "Type: chat\r\n", kPeer,
                   "Flags: NE,Z,C,\r\nOriginal-Length: 200\r\nContent-Length: " + compressedLength +
                       "\r\n"));
  EXPECT_LT(packed.Body.size(), 200u);
  ASSERT_EQ(DecodeBody(packed, "blankey", "", 1 << 20).result, DecodeResult::Ok);
  EXPECT_EQ(packed.Body, std::string(200, 'x'));

  // A destination whose key is known gets the body encrypted with that key.
  node->useComp = node->confirmMode = false;
  node->NodeCache[node->NodeCache.FindOrAdd(kPeer)].EncryptionKey = "PEERKEY";
  typMessage keyed = NewMessage();
  keyed.MsgType = "MSG";
  SetField(keyed.Fields, "Destination", Variant(kPeer));
  keyed.Body = "hello";
  text = Stamped(*node, keyed);
  EXPECT_EQ(text,
            Header("MSG  QEL/2.1", "", kPeer, "Flags: KE,\r\nContent-Length: 5\r\n") + keyed.Body);
  EXPECT_NE(keyed.Body, "hello");
  ASSERT_EQ(DecodeBody(keyed, "blankey", "PEERKEY", 1 << 20).result, DecodeResult::Ok);
  EXPECT_EQ(keyed.Body, "hello");
}

TEST(WireTest, ResourcesAreEscapedAndBodilessMessagesCarryOnlyTheConfirmFlag) {
  auto node = MakeNode();
  node->useEnc = node->useComp = node->confirmMode = true;
  typMessage get = MakeMessage("GET", kPeer);
  get.Resource = "\\my docs\\a b.txt";
  EXPECT_EQ(Stamped(*node, get),
            Header("GET \\my%20docs\\a%20b.txt QEL/2.1", "", kPeer, "Flags: C,\r\n"));

  node->useEnc = node->confirmMode = false;
  typMessage msg = MakeMessage("MSG", "BROADCAST");
  msg.Body = "zz";
  std::string text = Stamped(*node, msg);
  EXPECT_EQ(text.substr(0, text.size() - msg.Body.size()),
            Header("MSG  QEL/2.1", "", "BROADCAST",
                   "Flags: Z,\r\nOriginal-Length: 2\r\nContent-Length: " +
                       std::to_string(msg.Body.size()) + "\r\n"));
}

}  // namespace
}  // namespace qel
