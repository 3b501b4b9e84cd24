// `qel node --json` run as separate processes talking over loopback.
#include "node_process.h"

#include <filesystem>
#include <fstream>

#include <qel/settings.h>

namespace {

// A and C talk through B; D hangs off A. Once C's message came in through B,
// A knows C's route, so what A sends C is not flooded to D: a marker sent to D
// right after arrives behind any such copy, so D's count is complete then.
TEST(QelNodeTest, MessagesCrossAMiddleProcessRepliesFollowTheRouteAndBadCommandsFail) {
  // Every hop compresses and encrypts, so the middle relays packed bodies.
  auto packed = [](std::vector<std::string> args) {
    args.insert(args.end(), {"--set", "useComp=True", "--set", "useEnc=True"});
    return args;
  };
  NodeProcess a(packed({"--name", "a", "--set", "Timeout=5000"})), c(packed({"--name", "c"}));
  Ready ra = WaitReady(a), rc = WaitReady(c);
  ASSERT_FALSE(ra.id.empty() || rc.id.empty());
  NodeProcess b(packed({"--name", "b", "--connect", ra.address, "--connect", rc.address}));
  NodeProcess d(packed({"--name", "d", "--connect", ra.address}));
  Ready rd = WaitReady(d);
  WaitReady(b);
  ASSERT_EQ(d.WaitFor([](const json& l) { return l.value("command", "") == "connect"; })["ok"], true);
  a.WaitEvent("ConnectionEstab");
  a.WaitEvent("ConnectionEstab");
  c.WaitEvent("ConnectionEstab");

  // Spaces inside the text are kept; a byte that is not UTF-8 comes out as
  // the code point of its value.
  EXPECT_EQ(c.Command("send " + ra.id + " hello  from c\xe9")["ok"], true);
  json got = a.WaitEvent("MessageReceived", MessageIs("hello  from c\u00e9"));
  EXPECT_EQ(got["nodeID"], rc.id);
  EXPECT_EQ(got["strType"], "");

  auto packetsAtMarker = [&](const std::string& marker) {
    a.Command("send " + rd.id + " " + marker);
    d.WaitEvent("MessageReceived", MessageIs(marker));
    return d.Command("stats")["value"]["InPacketCount"].get<int>();
  };
  int before = packetsAtMarker("mark1");
  EXPECT_EQ(a.Command("send-type note " + rc.id + " reply from a")["ok"], true);
  got = c.WaitEvent("MessageReceived", MessageIs("reply from a"));
  EXPECT_EQ(got["nodeID"], ra.id);
  EXPECT_EQ(got["strType"], "note");
  EXPECT_EQ(packetsAtMarker("mark2") - before, 1) << "D received more than the marker";
  EXPECT_EQ(a.Command("send-type ERROR " + rc.id + " it failed")["ok"], true);
  EXPECT_EQ(c.WaitEvent("Error", MessageIs("it failed"))["nodeID"], ra.id);

  json nodes = a.Command("nodes " + rc.id + " fresh");
  ASSERT_EQ(nodes["ok"], true) << nodes;
  ASSERT_EQ(nodes["value"].size(), 1u);
  const json& node = nodes["value"][0];
  EXPECT_EQ(json::array({node["ID"], node["Name"], node["directConn"], node["Address"]}),
            json::array({rc.id, "c", false, rc.address}));
  json ping = a.Command("ping " + rc.id + " 10000");
  EXPECT_EQ(ping["ok"], true) << ping;
  EXPECT_GE(ping["value"].get<int>(), 0);
  // Long repetitive bodies show that the settings took: they arrive packed.
  const std::string longText(4000, 'x');
  for (int i = 0; i < 4; ++i) a.Command("send " + rd.id + " " + longText);
  for (int i = 0; i < 4; ++i) d.WaitEvent("MessageReceived", MessageIs(longText));
  EXPECT_GT(d.Command("stats")["value"]["AvgCompression"].get<int>(), 0);

  // Bad commands fail with an error, and the console goes on.
  for (auto [line, error] : {std::pair{"frobnicate now", "frobnicate"},
                             {"send", "usage: "},
                             {"send " /* only blanks */, "usage: "},
                             {"send-type ERROR BROADCAST", "usage: "},
                             {"ping X notanumber", "from 0 to 2147483647"},
                             {"ping X -1", "from 0 to 2147483647"},
                             {"connect 127.0.0.1:65536", "from 1 to 65535"},
                             {"listen 70000", "from 0 to 65535"},
                             {"connect 127.0.0.1:1 forever", "usage: "},
                             {"nodes BROADCAST stale", "usage: "},
                             {"role king", "usage: "},
                             {"id extra", "usage: "},
                             {"ping NOSUCHNODE 0", "Cannot ping unresolved node"}}) {
    json result = a.Command(line);
    EXPECT_EQ(result["ok"], false) << line;
    EXPECT_NE(result.value("error", "").find(error), std::string::npos) << line << ": " << result;
  }
  EXPECT_EQ(a.Command("disconnect 127.0.0.1:1")["ok"], false);
  EXPECT_EQ(a.Command("id")["value"], ra.id);

  // quit writes its result and then nothing more; end of input writes nothing.
  EXPECT_EQ(a.Command("quit")["ok"], true);
  size_t linesAtQuit = a.LineCount();
  EXPECT_EQ(a.WaitExit(), 0);
  EXPECT_EQ(a.LineCount(), linesAtQuit) << a.Output();
  for (NodeProcess* p : {&b, &c, &d}) {
    p->CloseStdin();
    EXPECT_EQ(p->WaitExit(), 0);
  }
}

// A line A-B-C: the dialler pings at once, the accepting end closes by node.
TEST(QelNodeTest, BothEndsOfALinkKnowEachOtherAndEitherMayCloseIt) {
  NodeProcess c({"--name", "c"}), b({"--name", "b"}), a({"--name", "a"});
  Ready rc = WaitReady(c), rb = WaitReady(b);
  WaitReady(a);
  ASSERT_EQ(b.Command("connect " + rc.address)["ok"], true);
  c.WaitEvent("ConnectionEstab");
  ASSERT_EQ(a.Command("connect " + rb.address)["ok"], true);
  b.WaitEvent("ConnectionEstab");
  json ping = a.Command("ping " + rb.id + " 10000");
  EXPECT_EQ(ping["ok"], true) << ping;

  // The far node's new role reaches A only when A asks afresh.
  EXPECT_EQ(c.Command("role router")["ok"], true);
  json nodes = a.Command("nodes " + rc.id + " fresh");
  ASSERT_EQ(nodes["value"].size(), 1u) << nodes;
  EXPECT_EQ(nodes["value"][0]["Role"], 2);

  EXPECT_EQ(c.Command("disconnect-node " + rb.id)["value"], true);
  b.WaitEvent("ConnectionClosed");
  EXPECT_EQ(c.Command("disconnect-node " + rb.id)["ok"], false);
  EXPECT_EQ(b.Command("disconnect-all")["ok"], true);
  a.WaitEvent("ConnectionClosed");
  // listen opens again what disconnect-all closed.
  EXPECT_EQ(b.Command("listen")["value"], std::stoi(rb.address.substr(rb.address.find(':') + 1)));
  EXPECT_EQ(a.Command("connect " + rb.address)["ok"], true);
}

TEST(QelNodeTest, SettingsAndOptionsAreCheckedBeforeTheNodeStarts) {
  auto path =
      std::filesystem::temp_directory_path() / ("qel-node-test-" + std::to_string(getpid()));
  qel::cSettings file;
  file.SaveSetting("TTL", "many");
  file.SaveSettings(path);
  NodeProcess overridden({"--settings", path, "--set", "TTL=5", "--set", "Tiemout=9"});
  WaitReady(overridden);
  EXPECT_NE(overridden.Errors().find("warning: Tiemout=9"), std::string::npos)
      << overridden.Errors();

  auto corrupt = path;
  corrupt += "-corrupt";
  std::ofstream(corrupt) << "<Settings><Common><TTL>5";
  for (const auto& [args, error] :
       std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"--settings", path}, "TTL=many: must be an integer"},
           {{"--set", "useEnc=maybe"}, "useEnc=maybe: must be True or False"},
           {{"--set", "Timeout=-1"}, "from 0 to"},
           {{"--settings", corrupt}, corrupt.string() + ": Error 4"},
           {{"--port", "65536"}, "65535"},
           {{"--listen-address", "localhost"}, "numeric IPv4 or IPv6"},
           {{"--role", "king"}, "king"},
           {{"--set", "noequals"}, "KEY=VALUE"},
           {{"--set", "bad key=1"}, "space"}}) {
    NodeProcess p(args);
    EXPECT_NE(p.WaitExit(), 0) << args[0] << " " << args[1];
    EXPECT_EQ(p.LineCount(), 0u) << p.Output();
    EXPECT_NE(p.Errors().find(error), std::string::npos) << p.Errors();
  }
  std::filesystem::remove(path);
  std::filesystem::remove(corrupt);
}

// SIGTERM and SIGINT shut a node down cleanly; with --no-console it reads
// nothing and runs past the end of its input.
TEST(QelNodeTest, SignalsShutTheNodeDownCleanly) {
  NodeProcess service({"--no-console"});
  Ready ready = WaitReady(service);
  service.CloseStdin();
  NodeProcess peer({"--connect", ready.address});
  WaitReady(peer);
  service.WaitEvent("ConnectionEstab");
  kill(service.Pid(), SIGTERM);
  EXPECT_EQ(service.WaitExit(), 0);

  kill(peer.Pid(), SIGINT);
  EXPECT_EQ(peer.WaitExit(), 0);
}

}  // namespace
