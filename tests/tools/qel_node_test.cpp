// `qel node --json` run as separate processes talking over loopback.
#include "node_process.h"

#include <filesystem>

#include <qel/settings.h>

namespace {

std::function<bool(const json&)> MessageIs(const std::string& text) {
  return [text](const json& l) { return l.value("strMessage", "") == text; };
}

// A and C talk through B; D hangs off A. Once C's message came in through
// B, A knows C's route: what A then sends to C must not also be flooded to
// D. D counts what it receives; a marker sent to D after the message to C
// arrives behind any copy of it on the same link, so the count is complete
// when the marker is seen.
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
                             {"ping X notanumber", "usage: "},
                             {"connect 127.0.0.1:1 forever", "usage: "},
                             {"nodes BROADCAST stale", "usage: "},
                             {"id extra", "usage: "},
                             {"ping NOSUCHNODE", "Cannot ping unresolved node"}}) {
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

// A value of the wrong type in the settings file is reported; --set replaces
// it before the node reads it. Bad options stop the process before it starts.
TEST(QelNodeTest, SetOverridesTheSettingsFileAndBadOptionsExitNonZero) {
  auto path =
      std::filesystem::temp_directory_path() / ("qel-node-test-" + std::to_string(getpid()));
  qel::cSettings file;
  file.SaveSetting("TTL", "many");
  file.SaveSettings(path);
  NodeProcess fromFile({"--settings", path});
  EXPECT_NE(fromFile.WaitEvent("Error")["strMessage"].get<std::string>().find("Type mismatch"),
            std::string::npos);
  NodeProcess overridden({"--settings", path, "--set", "TTL=5"});
  WaitReady(overridden);
  overridden.CloseStdin();
  EXPECT_EQ(overridden.WaitExit(), 0);
  EXPECT_EQ(overridden.LineCount(), 1u) << overridden.Output();
  std::filesystem::remove(path);

  for (const std::vector<std::string>& args : {std::vector<std::string>{"--role", "king"},
                                               {"--set", "noequals"},
                                               {"--set", "bad key=1"},
                                               {"--settings", "/nonexistent/settings.xml"}}) {
    NodeProcess p(args);
    EXPECT_NE(p.WaitExit(), 0) << args[0] << " " << args[1];
    EXPECT_EQ(p.LineCount(), 0u) << p.Output();
  }
}

}  // namespace
