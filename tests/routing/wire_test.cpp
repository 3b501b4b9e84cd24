// The exact bytes this node puts on the wire for each message it originates.
#include <gtest/gtest.h>

#include "files/ranges.h"
#include "files/sharing.h"
#include "files/transfer.h"
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
template <typename M>
std::string Stamped(NodeState& node, M&& message) {
  StampMessage(node, message);
  SetField(message.Fields, "ID", Variant(kMsgID));
  return SerialiseMessage(message);
}

std::string Header(const std::string& startLine, const std::string& destination,
                   const std::string& afterDestination = "", const std::string& beforeRoute = "",
                   const std::string& beforeDestination = "") {
  return startLine + " QEL/2.1\r\n" + beforeDestination + "Destination: " + destination + "\r\n" +
         afterDestination + "Source: " + kSelf + "\r\nTTL: 20\r\nHops: 0\r\nID: " + kMsgID +
         "\r\n" + beforeRoute + "Route: " + kSelf + ",\r\n\r\n";
}

// A message as the host's SendMessage makes it.
typMessage Chat(const std::string& body, const std::string& type = "") {
  typMessage m = NewMessage();
  m.MsgType = "MSG";
  if (!type.empty()) SetField(m.Fields, "Type", Variant(type));
  SetField(m.Fields, "Destination", Variant(kPeer));
  m.Body = body;
  return m;
}

TEST(WireTest, DiscoveryConfirmationAndInfoMessages) {
  auto node = MakeNode();
  EXPECT_EQ(Stamped(*node, MakeMessage("WHOIS", "BROADCAST")), Header("WHOIS ", "BROADCAST"));
  for (const char* type : {"PING", "PONG"}) {
    EXPECT_EQ(Stamped(*node, MakeRequest(type, kPeer, "7")),
              Header(type + std::string(" "), kPeer, "ReqID: 7\r\n"));
  }
  // Confirmations are never confirmed themselves.
  node->confirmMode = true;
  EXPECT_EQ(Stamped(*node, MakeConfirm(kPeer, "ABC")),
            Header("CONFIRM ", kPeer, "Source-ID: ABC\r\n"));

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
  EXPECT_EQ(
      Stamped(*node, MakeInfo(*node, "BROADCAST")),
      Header("INFO ", "BROADCAST", "", "Content-Length: " + std::to_string(body.size()) + "\r\n") +
          body);
}

TEST(WireTest, BodiesAreEncryptedThenCompressedAndResourcesEscaped) {
  auto node = MakeNode();
  // The host's plain messages are written straight out, as stamping would.
  for (int routes : {10, 0}) {
    node->Routes = RouteTable(routes);
    for (const char* body : {"hello", ""}) {
      std::string direct;
      AppendPlainMsg(*node, "chat", kPeer, body, kMsgID, direct);
      EXPECT_EQ(direct, Stamped(*node, Chat(body, "chat"))) << routes << body;
    }
    std::string ping;
    const LeadingField leading[] = {{"Destination", kPeer}, {"ReqID", "7"}};
    AppendPlain(*node, "PING", leading, {}, kMsgID, ping);
    EXPECT_EQ(ping, Stamped(*node, MakeRequest("PING", kPeer, "7"))) << routes;
  }
  node->Routes = RouteTable(10);
  EXPECT_EQ(Stamped(*node, Chat("hello", "chat")),
            Header("MSG ", kPeer, "", "Content-Length: 5\r\n", "Type: chat\r\n") + "hello");

  // Encrypted with the pass phrase, then compressed; a directed message in
  // confirm mode asks for a confirmation after the body flags.
  node->useEnc = node->useComp = node->confirmMode = true;
  typMessage packed = Chat(std::string(200, 'x'), "chat");
  std::string text = Stamped(*node, packed);
  EXPECT_EQ(text.substr(0, text.size() - packed.Body.size()),
            Header("MSG ", kPeer, "",
                   "Flags: NE,Z,C,\r\nOriginal-Length: 200\r\nContent-Length: " +
                       std::to_string(packed.Body.size()) + "\r\n",
                   "Type: chat\r\n"));
  EXPECT_LT(packed.Body.size(), 200u);
  ASSERT_EQ(DecodeBody(packed, "blankey", "", 1 << 20).result, DecodeResult::Ok);
  EXPECT_EQ(packed.Body, std::string(200, 'x'));

  // A GET without a body carries only the confirm flag.
  typMessage get = MakeMessage("GET", kPeer);
  get.Resource = "\\my docs\\a b.txt";
  EXPECT_EQ(Stamped(*node, get), Header("GET \\my%20docs\\a%20b.txt", kPeer, "", "Flags: C,\r\n"));

  // A destination whose key is known gets the body encrypted with that key.
  node->useComp = node->confirmMode = false;
  node->NodeCache[node->NodeCache.FindOrAdd(kPeer)].SetStrings(
      {.ID = kPeer, .EncryptionKey = "PEERKEY"});
  typMessage keyed = Chat("hello");
  text = Stamped(*node, keyed);
  EXPECT_EQ(text, Header("MSG ", kPeer, "", "Flags: KE,\r\nContent-Length: 5\r\n") + keyed.Body);
  EXPECT_NE(keyed.Body, "hello");
  ASSERT_EQ(DecodeBody(keyed, "blankey", "PEERKEY", 1 << 20).result, DecodeResult::Ok);
  EXPECT_EQ(keyed.Body, "hello");
}

TEST(WireTest, FileSharingRequestsAndAnswers) {
  auto node = MakeNode();
  // A body document with one section, or none.
  const auto document = [](const std::string& section, const std::string& entries) {
    const std::string open = "\r\n  <" + section + ">", close = "\r\n  </" + section + ">";
    return "<Settings>" + (section.empty() ? "" : open + entries + close) + "\r\n</Settings>";
  };
  const std::vector<std::string> listing = {"", "\\sub\\", "\\a.txt"};
  const std::string array =
      "\r\n    <Count>2</Count>\r\n    <0></0>\r\n    <1>\\sub\\</1>\r\n    <2>\\a.txt</2>";
  // Each message, its start line, the fields before and after Destination, its body.
  const std::vector<std::tuple<typMessage, std::string, std::string, std::string, std::string>>
      rows = {
          {MakeGetContents("\\my docs", kPeer, "7", true), "GETCONTENTS \\my%20docs", "",
           "ReqID: 7\r\n", document("Common", "\r\n    <SearchSubDirs>True</SearchSubDirs>")},
          {MakeContents(kPeer, "7", listing), "CONTENTS ", "", "ReqID: 7\r\n",
           document("Contents", array)},
          {MakeSearch(Find_File, "*.txt", "7"), "SEARCH *.txt", "Type: File\r\nReqID: 7\r\n", "",
           ""},
          {MakeSearch(Find_Node, "kit", "7"), "SEARCH kit", "Type: Node\r\nReqID: 7\r\n", "", ""},
          {MakeSearch(static_cast<enmSearchType>(3), "", "7"), "SEARCH ", "ReqID: 7\r\n", "", ""},
          {MakeSearchMatch(kPeer, "7", &listing), "SEARCHMATCH ", "ReqID: 7\r\n", "",
           document("Results", array)},
          {MakeSearchMatch(kPeer, "7", nullptr), "SEARCHMATCH ", "ReqID: 7\r\n", "",
           document("", "")},
          {MakeGetFileInfo("\\a.txt", kPeer, "7", false), "GETFILEINFO \\a.txt", "", "ReqID: 7\r\n",
           document("Common", "\r\n    <skipHash>False</skipHash>")},
          {MakeGet("\\a.txt", kPeer, "7", MakeRange(0, 99), "m"), "GET \\a.txt", "ReqID: 7\r\n",
           "Metadata: m\r\nRange: 0-99\r\n", ""},
          {MakeGet("\\a.txt", kPeer, "7", MakeRange(-1, 500), ""), "GET \\a.txt", "ReqID: 7\r\n",
           "Metadata: \r\nRange: -500\r\n", ""},
          {MakeFilePiece(kPeer, "0-2/3", "abc", "7", FS_Complete, ""), "FILE ", "ReqID: 7\r\n",
           "FileStatus: 1\r\nMetadata: \r\nContent-Range: 0-2/3\r\n", "abc"},
          {MakeFilePiece(kPeer, "", "", "7", FS_Canceled, "m"), "FILE ", "ReqID: 7\r\n",
           "FileStatus: 2\r\nMetadata: m\r\n", ""},
          {MakeFileInfo(kPeer, "7", 3, "900150983cd24fb0d6963f7d28e17f72"), "FILEINFO ", "",
           "ReqID: 7\r\n",
           document("Common",
                    "\r\n    <Hash>900150983cd24fb0d6963f7d28e17f72</Hash>\r\n    "
                    "<FileSize>3</FileSize>")},
      };
  for (auto [message, startLine, before, after, body] : rows) {
    const bool broadcast = message.MsgType == "SEARCH";
    const std::string length =
        body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n";
    EXPECT_EQ(Stamped(*node, message),
              Header(startLine, broadcast ? "BROADCAST" : kPeer, after, length, before) + body)
        << startLine;
  }
}

}  // namespace
}  // namespace qel
