// `qel node --json` run as separate processes talking over loopback, and
// under hostile loads from raw TCP peers.
#include "node_process.h"

#include <time.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <thread>
#include <tuple>

#include <qel/settings.h>

#include "../support/peers.h"

namespace {

// A and C talk through B; D hangs off A. Once C's message came in through B,
// A knows C's route, so what A sends C is not flooded to D: a marker sent to D
// right after arrives behind any such copy, so D's count is complete then.
TEST(QelNodeTest, MessagesCrossAMiddleProcessFollowRoutesLinksCloseAndBadCommandsFail) {
  // Every hop compresses and encrypts, so the middle relays packed bodies.
  auto packed = [](std::vector<std::string> args) {
    args.insert(args.end(), {"--set", "useComp=True", "--set", "useEnc=True"});
    return args;
  };
  NodeProcess a(packed({"--name", "a", "--set", "Timeout=5000"})), c(packed({"--name", "c"}));
  Ready ra = WaitReady(a), rc = WaitReady(c);
  ASSERT_FALSE(ra.id.empty() || rc.id.empty());
  NodeProcess b(
      packed({"--name", "b", "--connect", ra.address, "--connect", rc.address, "--log", "info"}));
  NodeProcess d(packed({"--name", "d", "--connect", ra.address}));
  Ready rd = WaitReady(d), rb = WaitReady(b);
  ASSERT_EQ(d.WaitFor([](const json& l) { return l.value("command", "") == "connect"; })["ok"],
            true);
  a.WaitEvent("ConnectionEstab");
  a.WaitEvent("ConnectionEstab");
  c.WaitEvent("ConnectionEstab");
  EXPECT_EQ(d.Command("ping " + ra.id + " 10000")["ok"], true);  // the dialler knows at once

  // Spaces inside the text are kept; a byte that is not UTF-8 comes out as
  // the code point of its value.
  EXPECT_EQ(c.Command("send " + ra.id + " hello  from c\xe9")["ok"], true);
  json got = a.WaitEvent("MessageReceived", MessageIs("hello  from c\u00e9"));
  EXPECT_EQ(json::array({got["nodeID"], got["strType"]}), json::array({rc.id, ""}));

  auto packetsAtMarker = [&](const std::string& marker) {
    a.Command("send " + rd.id + " " + marker);
    d.WaitEvent("MessageReceived", MessageIs(marker));
    return d.Command("stats")["value"]["InPacketCount"].get<int>();
  };
  int before = packetsAtMarker("mark1");
  EXPECT_EQ(a.Command("send-type note " + rc.id + " reply from a")["ok"], true);
  got = c.WaitEvent("MessageReceived", MessageIs("reply from a"));
  EXPECT_EQ(json::array({got["nodeID"], got["strType"]}), json::array({ra.id, "note"}));
  EXPECT_EQ(packetsAtMarker("mark2") - before, 1) << "D received more than the marker";
  EXPECT_EQ(a.Command("send-type ERROR " + rc.id + " it failed")["ok"], true);
  EXPECT_EQ(c.WaitEvent("Error", MessageIs("it failed"))["nodeID"], ra.id);

  // A lists and describes what a far node shares.
  const auto shared = std::filesystem::path(testing::TempDir()) / ("qel-share-" + rc.id);
  std::filesystem::create_directories(shared / "sub");
  std::ofstream(shared / "abc.txt") << "abc";
  EXPECT_EQ(c.Command("share " + shared.string())["ok"], true);
  EXPECT_EQ(a.Command("ls " + rc.id + " / recursive")["value"], json({"\\sub\\", "\\abc.txt"}));
  // An empty listing says what it is: an empty folder, none, a file or silence.
  EXPECT_EQ(a.Command("ls " + rc.id + " \\sub recursive"),
            json({{"command", "ls"}, {"ok", true}, {"value", json::array()}}));
  EXPECT_EQ(a.Command("ls " + rc.id + " \\nosuch")["error"],
            "no folder \\nosuch shared by " + rc.id);
  EXPECT_EQ(a.Command("ls " + rc.id + " /abc.txt")["error"],
            "/abc.txt is a file shared by " + rc.id + ", not a folder");
  EXPECT_TRUE(c.Command("ls {NOBODY} \\")["error"].get<std::string>().starts_with(
      "no answer from {NOBODY} within "));
  EXPECT_EQ(a.Command("fileinfo " + rc.id + " \\abc.txt hash")["value"],
            json({{"lngSize", 3}, {"strHash", "900150983cd24fb0d6963f7d28e17f72"}}));
  EXPECT_EQ(a.Command("fileinfo " + rc.id + " \\sub")["error"], "no file \\sub shared by " + rc.id);
  // No answer is a failure of its own, not a size 0 (C waits its 500 ms).
  const json silent = c.Command("fileinfo {NOBODY} \\abc.txt hash");
  EXPECT_EQ(json::array({silent["ok"], silent["value"]}), json::array({false, nullptr}));
  EXPECT_TRUE(silent["error"].get<std::string>().starts_with("no answer from {NOBODY} within ") &&
              silent["error"].get<std::string>().ends_with("--set Timeout=MS)"))
      << silent;
  std::filesystem::remove_all(shared);

  // A far node's new role reaches A when A asks afresh.
  EXPECT_EQ(c.Command("role router")["ok"], true);
  json nodes = a.Command("nodes " + rc.id + " fresh");
  ASSERT_EQ(nodes["ok"], true) << nodes;
  ASSERT_EQ(nodes["value"].size(), 1u);
  const json& node = nodes["value"][0];
  EXPECT_EQ(
      json::array({node["ID"], node["Name"], node["directConn"], node["Address"], node["Role"]}),
      json::array({rc.id, "c", false, rc.address, 2}));
  json ping = a.Command("ping " + rc.id + " 10000");
  EXPECT_EQ(ping["ok"], true) << ping;
  EXPECT_GE(ping["value"].get<int>(), 0);
  // Long repetitive bodies show that the settings took: they arrive packed,
  // enough of them to outweigh in the mean saving the short bodies before,
  // which packing makes longer (a 5-byte marker takes 16 bytes).
  const std::string longText(4000, 'x');
  for (int i = 0; i < 8; ++i) a.Command("send " + rd.id + " " + longText);
  for (int i = 0; i < 8; ++i) d.WaitEvent("MessageReceived", MessageIs(longText));
  EXPECT_GT(d.Command("stats")["value"]["AvgCompression"].get<int>(), 0);

  // The accepting end closes a link by node, once; disconnect-all closes the
  // links a node accepted and its listener, which listen opens again.
  EXPECT_EQ(c.Command("disconnect-node " + rb.id)["value"], true);
  b.WaitEvent("ConnectionClosed");
  // --log writes each close on stderr, with the node's name and the reason.
  EXPECT_NE(b.Errors().find(" info  b: Connection to " + rc.address +
                            " closed by the peer [NodeID: " + rc.id + "]\n"),
            std::string::npos)
      << b.Errors();
  EXPECT_EQ(c.Command("disconnect-node " + rb.id)["ok"], false);
  EXPECT_EQ(a.Command("disconnect-all")["ok"], true);
  d.WaitEvent("ConnectionClosed");
  EXPECT_EQ(a.Command("listen")["value"], std::stoi(ra.address.substr(ra.address.find(':') + 1)));
  EXPECT_EQ(d.Command("connect " + ra.address)["ok"], true);

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

std::string Slurp(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// C fetches what A shares through B: whole files around the piece size and a
// large one, ranges, a cancel and a resume that checks the MD5.
TEST(QelNodeTest, FilesCrossAMiddleProcessWholeInRangesCancelledAndResumed) {
  namespace fs = std::filesystem;
  const fs::path dir = fs::path(testing::TempDir()) / ("qel-get-" + std::to_string(getpid()));
  fs::create_directories(dir / "share");
  fs::create_directories(dir / "got");
#if defined(__SANITIZE_ADDRESS__)
  std::string big(8 << 20, '\0');  // what matters there is memory safety, not size
#else
  std::string big(100 << 20, '\0');
#endif
  uint32_t x = 1;
  for (char& c : big) c = static_cast<char>((x = x * 1664525 + 1013904223) >> 24);
  constexpr size_t kPiece = 256 << 10;
  const std::vector<size_t> sizes = {0, 1, kPiece - 1, kPiece, kPiece + 1, big.size()};
  for (size_t size : sizes) {
    std::ofstream(dir / "share" / std::to_string(size), std::ios::binary)
        .write(big.data(), static_cast<std::streamsize>(size));
  }
  NodeProcess a({"--name", "a", "--share", (dir / "share").string()});
  const Ready ra = WaitReady(a);
  NodeProcess b({"--name", "b", "--connect", ra.address, "--set", "Timeout=2000"}),
      c({"--set", "Timeout=10000", "--set", "transferWindow=64"});
  const Ready rb = WaitReady(b);
  WaitReady(c);
  ASSERT_EQ(c.Command("connect " + rb.address)["ok"], true);
  const auto got = [&](const std::string& name) { return (dir / "got" / name).string(); };
  std::set<std::string> ended;  // gets whose result came, so their progress lines are old
  const auto get = [&](const std::string& args) {
    json result = c.Command("get " + ra.id + " " + args, std::chrono::seconds(60));
    if (result["value"].is_object()) ended.insert(result["value"].value("ReqID", ""));
    return result;
  };

  for (size_t size : sizes) {
    const std::string name = std::to_string(size);
    const json result = get("\\" + name + " " + got(name));
    EXPECT_EQ(result["value"], json({{"ReqID", result["value"]["ReqID"]},
                                     {"FileStatus", 1},
                                     {"bytes", size},
                                     {"seconds", result["value"]["seconds"]},
                                     {"path", got(name)}}));
    EXPECT_GT(result["value"]["seconds"].get<double>(), 0) << result;
    EXPECT_TRUE(Slurp(got(name)) == big.substr(0, size)) << size;
  }
  // Each piece preceded its result: none of them was printed.
  EXPECT_EQ(c.Output().find("FileReceived"), std::string::npos) << c.Output();

  // A range is the local file's whole content.
  const std::string edge = std::to_string(kPiece + 1);
  const std::vector<std::tuple<std::string, size_t, size_t>> ranges = {
      {"5-14", 5, 10}, {std::to_string(kPiece - 4) + "-", kPiece - 4, 5}, {"-3", kPiece - 2, 3}};
  for (const auto& [range, from, count] : ranges) {
    fs::remove(got("range"));
    const json result = get("\\" + edge + " " + got("range") + " " + range);
    EXPECT_EQ(result["value"]["bytes"], count) << range;
    const std::string local = Slurp(got("range"));
    EXPECT_TRUE(local == big.substr(from, count)) << range;
  }
  for (const std::string& refused : {edge + " " + got("past") + " " + edge + "-",
                                     std::string("\\..\\share\\1 ") + got("past")}) {
    const json result = get("\\" + refused);
    EXPECT_EQ(json::array({result["ok"], result["value"]["FileStatus"]}), json::array({false, 2}));
    EXPECT_FALSE(fs::exists(got("past"))) << "a failed get leaves no empty file behind";
  }

  // A cancel ends the get at once; resume fetches only what is missing, here
  // from another node sharing the same file. D's small pieces and C's small
  // window leave time to cancel.
  fs::create_directories(dir / "more");
  NodeProcess d({"--share", (dir / "share").string(), "--share", (dir / "more").string(), "--set",
                 "filePacket=1", "--connect", rb.address});
  const Ready rd = WaitReady(d);
  ASSERT_EQ(d.WaitFor([](const json& l) { return l.value("command", "") == "connect"; })["ok"],
            true);
  // A node of several shares lists them in the order shared; a search is
  // answered by A and D.
  EXPECT_EQ(c.Command("ls " + rd.id + " \\")["value"], json({"\\share\\", "\\more\\"}));
  // "\more\" is the empty share; "\more" a folder of the first share, which has none.
  EXPECT_EQ(c.Command("ls " + rd.id + " \\more\\")["ok"], true);
  EXPECT_EQ(c.Command("ls " + rd.id + " \\more")["error"], "no folder \\more shared by " + rd.id);
  const json found = b.Command("search file 26214");
  EXPECT_EQ(found["value"].size(), 6u) << found;
  const std::string large = std::to_string(big.size());
  c.Send("get " + rd.id + " \\share\\" + large + " " + got("large"));
  // D's, not the earlier gets', once bytes came: the first report, made
  // when the size is known, may come before any, and a get cancelled with
  // nothing written leaves no file to resume.
  const std::string reqID = c.WaitEvent("Progress", [&](const json& l) {
    return !ended.contains(l["ReqID"]) && l["bytes"] > 0;
  })["ReqID"];
  // Any unique start of the identifier, as the progress bar shows it.
  EXPECT_EQ(c.Command("cancel NOSUCH")["ok"], false);
  EXPECT_EQ(c.Command("cancel " + reqID.substr(0, 8))["ok"], true);
  const json cancelled = c.WaitFor([](const json& l) { return l.value("command", "") == "get"; });
  EXPECT_EQ(json::array({cancelled["ok"], cancelled["value"]["FileStatus"]}),
            json::array({false, 2}));
  const size_t part = fs::file_size(got("large"));
  ASSERT_LT(part, big.size());
  const json resumed = get("\\" + large + " " + got("large") + " resume verify");
  EXPECT_EQ(resumed["ok"], true) << resumed;
  EXPECT_EQ(resumed["value"]["bytes"], big.size() - part);
  EXPECT_TRUE(Slurp(got("large")) == big);
  fs::remove_all(dir);
}

// A and C talk through B, and have asked for the others' information: a node
// takes user updates only from nodes it knows.
struct ThreeInALine {
  NodeProcess a{{"--name", "a"}}, c{{"--name", "c"}};
  Ready ra = WaitReady(a), rc = WaitReady(c);
  NodeProcess b{{"--name", "b", "--connect", ra.address, "--connect", rc.address}};
  Ready rb = WaitReady(b);

  ThreeInALine() {
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(b.WaitFor([](const json& l) { return l.value("command", "") == "connect"; })["ok"],
                true);
    }
    for (NodeProcess* p : {&a, &c}) EXPECT_EQ(p->Command("nodes")["value"].size(), 2u);
  }
};

// The password node p lists for user, or "(none)". A round trip to the node
// that made a change first: it answers after what it sent before.
std::string Password(NodeProcess& p, const std::string& user, const std::string& changedAt = "") {
  if (!changedAt.empty()) {
    EXPECT_EQ(p.Command("ping " + changedAt + " 10000")["ok"], true);
  }
  qel::cSettings list;
  list.LoadXML(p.Command("users show-passwords")["value"].get<std::string>());
  return list.GetSetting("Password", "(none)", user).toString();
}

TEST(QelNodeTest, UsersSpreadLogInAreRemovedMergeByStampAndShowPasswordsOnlyWhenAsked) {
  ThreeInALine n;
  EXPECT_EQ(n.a.Command("user-set alice secret")["ok"], true);
  EXPECT_EQ(Password(n.c, "alice", n.ra.id), "secret");
  // Unless asked, the console shows that a user has a password, not which.
  qel::cSettings masked;
  masked.LoadXML(n.c.Command("users")["value"].get<std::string>());
  EXPECT_EQ(masked.GetSetting("Password", "(none)", "alice").toString(), "********");
  EXPECT_EQ(n.c.Command("users passwords")["ok"], false);

  // A wrong password fails, and an unknown user whatever the password.
  for (const char* refused : {"alice wrong", "alice", "nobody x", "nobody <unknown>"}) {
    const json login = n.a.Command(std::string("login ") + refused);
    EXPECT_EQ(json::array({login["ok"], login["value"]}), json::array({false, false})) << refused;
  }
  EXPECT_EQ(n.a.Command("login alice secret")["value"], true);
  const json nodes = n.c.Command("nodes BROADCAST fresh")["value"];
  const auto a = std::find_if(nodes.begin(), nodes.end(),
                              [&](const json& node) { return node["ID"] == n.ra.id; });
  ASSERT_NE(a, nodes.end()) << nodes;
  EXPECT_EQ((*a)["activeUser"], "alice");

  // A keeps a removed user without password; the others drop its record.
  EXPECT_EQ(n.a.Command("user-remove alice")["ok"], true);
  EXPECT_EQ(Password(n.a, "alice"), "");
  EXPECT_EQ(Password(n.c, "alice", n.ra.id), "(none)");
  EXPECT_EQ(n.a.Command("login alice secret")["value"], false);

  // Apart, each side changes users; synced, the later change of each wins.
  ASSERT_EQ(n.c.Command("disconnect-all")["ok"], true);
  n.b.WaitEvent("ConnectionClosed");
  // Stamps count whole seconds: alice's return must come after her removal.
  for (const time_t removed = time(nullptr); time(nullptr) == removed;) poll(nullptr, 0, 20);
  EXPECT_EQ(n.c.Command("user-set alice back")["ok"], true);
  EXPECT_EQ(n.c.Command("user-set dave d")["ok"], true);
  EXPECT_EQ(n.a.Command("user-set erin e")["ok"], true);
  EXPECT_EQ(n.c.Command("listen")["ok"], true);
  ASSERT_EQ(n.c.Command("connect " + n.rb.address)["ok"], true);
  EXPECT_EQ(n.c.Command("sync-users")["ok"], true);
  for (auto [node, other] : {std::pair{&n.a, n.rc.id}, {&n.c, n.ra.id}}) {
    EXPECT_EQ(json::array({Password(*node, "alice", other), Password(*node, "dave", other),
                           Password(*node, "erin", other)}),
              json::array({"back", "d", "e"}));
  }
}

// Each end lists its link, named as its close would name it, and says it is
// not secure, as the event that announced it did.
TEST(QelNodeTest, PeersListEachLinkWithItsNodeAndDirection) {
  NodeProcess a({"--name", "a"});
  const Ready ra = WaitReady(a);
  NodeProcess b({"--name", "b", "--connect", ra.address});
  const Ready rb = WaitReady(b);
  for (NodeProcess* p : {&a, &b}) {
    const json up = p->WaitEvent("ConnectionEstab");
    EXPECT_EQ(json::array({up["Secure"], up["PeerKey"]}), json::array({false, ""})) << up;
  }
  // B's INFO came before the answer to the ping, so A knows the link's node.
  ASSERT_EQ(a.Command("ping " + rb.id + " 10000")["ok"], true);
  const auto peers = [](NodeProcess& p) {
    json list = p.Command("peers")["value"];
    for (json& link : list) {
      EXPECT_GE(link["Age"].get<int64_t>(), 0) << link;
      link.erase("Age");
    }
    return list;
  };
  const auto link = [](const Ready& to, const char* direction) {
    return json({{"Address", to.address},
                 {"nodeID", to.id},
                 {"Direction", direction},
                 {"Secure", false},
                 {"PeerKey", ""}});
  };
  EXPECT_EQ(peers(a), json::array({link(rb, "accepted")}));
  EXPECT_EQ(peers(b), json::array({link(ra, "dialled")}));
  EXPECT_EQ(b.Command("disconnect-all")["ok"], true);
  a.WaitEvent("ConnectionClosed");
  EXPECT_EQ(peers(a), json::array());
}

// A calls procedures of C (through B) and of every node.
TEST(QelNodeTest, RemoteProcedureCallsAreAnsweredOnceOkOrUnbound) {
  ThreeInALine n;
  const auto returned = [&](const std::string& reqID) {
    return n.a.WaitEvent("RemoteProcReturn",
                         [&](const json& l) { return l.value("ReqID", "") == reqID; });
  };
  const json unbound = n.a.Command("rpc-call " + n.rc.id + " sum 1 2");
  EXPECT_EQ(json::array({unbound["ok"], unbound["value"]}), json::array({false, "-1"}));
  EXPECT_NE(unbound.value("error", "").find("rpc-bind sum return"), std::string::npos) << unbound;
  EXPECT_EQ(n.a.Command("rpc-bind sum return")["ok"], true);
  EXPECT_EQ(n.c.Command("rpc-bind sum in")["ok"], true);

  const std::string reqID = n.a.Command("rpc-call " + n.rc.id + " sum 1 2")["value"];
  EXPECT_EQ(n.c.WaitEvent("RemoteProcCall"), json({{"event", "RemoteProcCall"},
                                                   {"ProcName", "sum"},
                                                   {"Params", "1 2"},
                                                   {"ReqID", reqID},
                                                   {"nodeID", n.ra.id},
                                                   {"SendOK", false}}));
  EXPECT_EQ(n.c.Command("rpc-return " + reqID + " 3")["ok"], true);
  EXPECT_EQ(returned(reqID), json({{"event", "RemoteProcReturn"},
                                   {"ProcName", "sum"},
                                   {"Params", "3"},
                                   {"ReqID", reqID},
                                   {"nodeID", n.rc.id}}));
  // A second answer is refused and not sent: A hears the next call's answer
  // and nothing more of the first.
  EXPECT_EQ(n.c.Command("rpc-return " + reqID + " 4")["ok"], false);
  EXPECT_EQ(n.c.Command("rpc-bind sum in ok")["ok"], true);
  const std::string okID = n.a.Command("rpc-call " + n.rc.id + " sum 5")["value"];
  EXPECT_EQ(returned(okID)["Params"], "OK");
  EXPECT_EQ(n.c.WaitEvent("RemoteProcCall")["SendOK"], true);
  EXPECT_TRUE(n.a.WaitFor([](const json& l) { return l.contains("ReqID"); }, {}).is_null());

  // B has no binding, C answers OK: the call to every node hears both, each
  // naming its node.
  const std::string allID = n.a.Command("rpc-call BROADCAST sum 6")["value"];
  std::multiset<std::string> answers;
  for (int i = 0; i < 2; ++i) {
    const json answer = returned(allID);
    answers.insert(answer.value("Params", "") + " " + answer.value("nodeID", ""));
  }
  EXPECT_EQ(answers, (std::multiset<std::string>{"OK " + n.rc.id, "RPC_UNBOUND " + n.rb.id}));
  EXPECT_EQ(n.c.Command("rpc-unbind sum in")["ok"], true);
  const std::string goneID = n.a.Command("rpc-call " + n.rc.id + " sum 7")["value"];
  EXPECT_EQ(returned(goneID)["Params"], "RPC_UNBOUND");
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
  for (const auto& [args, error] : std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"--settings", path}, "TTL=many: must be an integer"},
           {{"--set", "useEnc=maybe"}, "useEnc=maybe: must be True or False"},
           {{"--set", "Timeout=-1"}, "from 0 to"},
           {{"--settings", corrupt}, corrupt.string() + ": Error 4"},
           {{"--port", "65536"}, "65535"},
           {{"--listen-address", "localhost"}, "numeric IPv4 or IPv6"},
           {{"--role", "king"}, "king"},
           {{"--log", "loud"}, "expected error, warn, info, debug, trace or off"},
           {{"--set", "noequals"}, "KEY=VALUE"},
           {{"--set", "bad key=1"}, "space"}}) {
    NodeProcess p(args);
    EXPECT_NE(p.WaitExit(), 0) << args[0] << " " << args[1];
    EXPECT_EQ(p.LineCount(), 0u) << p.Output();
    EXPECT_NE(p.Errors().find(error), std::string::npos) << p.Errors();
  }
  // A file in another format would load as nothing: it is refused, saying why.
  auto foreign = path;
  foreign += "-ini";
  std::ofstream(foreign) << "[Common]\nTTL=5\n";
  NodeProcess refused({"--settings", foreign});
  EXPECT_EQ(refused.WaitExit(), 2);
  EXPECT_NE(refused.Errors().find(foreign.string() +
                                  ": not a settings text: text outside any entry: \"[Common]"),
            std::string::npos)
      << refused.Errors();
  std::filesystem::remove(path);
  std::filesystem::remove(corrupt);
  std::filesystem::remove(foreign);
}

// What `qel id --key FILE` prints on its standard output.
std::string KeyIDOf(const std::string& path) {
  FILE* out = popen((std::string(QEL_CLI_PATH) + " id --key '" + path + "'").c_str(), "r");
  std::string text;
  char buffer[256];
  for (size_t n; out && (n = fread(buffer, 1, sizeof buffer, out)) > 0;) text.append(buffer, n);
  EXPECT_EQ(out ? pclose(out) : -1, 0) << text;
  return text;
}

// `qel id` makes the key file once and reads it as the node does, so both
// give one ID; a file that holds no key stops the node before it starts.
TEST(QelNodeTest, IdPrintsTheKeyIDTheNodeStartsWith) {
  const std::string path = (std::filesystem::temp_directory_path() /
                            ("qel-key-test-" + std::to_string(getpid()) + ".pem"))
                               .string();
  std::filesystem::remove(path);
  const std::string id = KeyIDOf(path);
  EXPECT_EQ(id.size(), 65u) << id;  // and a newline
  EXPECT_EQ(KeyIDOf(path), id);
  {
    NodeProcess node({"--key", path});
    EXPECT_EQ(node.WaitEvent("Ready").value("KeyID", "") + "\n", id);
  }

  std::ofstream(path, std::ios::trunc) << "garbage\n";
  NodeProcess refused({"--key", path});
  EXPECT_EQ(refused.WaitExit(), 2);
  EXPECT_EQ(refused.LineCount(), 0u) << refused.Output();
  EXPECT_NE(refused.Errors().find(path + " holds no PEM private key"), std::string::npos)
      << refused.Errors();
  std::filesystem::remove(path);
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

using qel::test::Dial;

// Sends what the node takes; stops when it closes the connection.
void SendAll(int fd, std::string_view data) {
  for (ssize_t n; !data.empty() && (n = send(fd, data.data(), data.size(), MSG_NOSIGNAL)) > 0;) {
    data.remove_prefix(static_cast<size_t>(n));
  }
}

// A message for everybody, or, to be relayed only, for a node nobody knows.
std::string Broadcast(const std::string& body, const std::string& id,
                      const std::string& destination = "BROADCAST") {
  return qel::test::RawMsg(id, "TTL: 2\r\n", body, destination);
}

// A /proc/PID/status figure in bytes ("VmRSS", "VmHWM").
int64_t StatusBytes(pid_t pid, const std::string& key) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line) && !line.starts_with(key + ":")) {
  }
  return in ? std::stoll(line.substr(key.size() + 1)) * 1024 : -1;
}

double CpuSeconds(pid_t pid) {
  clockid_t clock{};
  timespec used{};
  EXPECT_TRUE(clock_getcpuclockid(pid, &clock) == 0 && clock_gettime(clock, &used) == 0);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

// Sends text to everybody over fd and waits for the node to deliver it.
void Served(NodeProcess& node, int fd, const std::string& text) {
  static int sent = 0;
  SendAll(fd, Broadcast(text, "SERVED" + std::to_string(++sent)));
  node.WaitEvent("MessageReceived", MessageIs(text));
}

TEST(QelLimitsTest, OutOfDescriptorsTheNodeIdlesAndKeepsServing) {
  rlimit own{};
  getrlimit(RLIMIT_NOFILE, &own);
  if (own.rlim_max < 1024) GTEST_SKIP() << "needs 1024 descriptors";
  rlimit raised{own.rlim_max, own.rlim_max};
  setrlimit(RLIMIT_NOFILE, &raised);

  NodeProcess node({}, 256);
  const auto port = node.WaitEvent("Ready")["Port"].get<uint16_t>();
  const int calm = Dial(port);
  node.WaitEvent("ConnectionEstab");
  std::vector<int> flood;
  for (int i = 0; i < 600; ++i) flood.push_back(Dial(port));
  node.WaitEvent("Error", [](const json& l) {
    return l.value("strMessage", "").find("paused") != std::string::npos;
  });
  // While 350 connections wait for descriptors the node is served at once
  // and burns no CPU; a spinning accept takes a whole core.
  const double cpuBefore = CpuSeconds(node.Pid());
  const auto start = Clock::now();
  Served(node, calm, "still served");
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
  node.WaitFor([](const json&) { return false; }, std::chrono::seconds(1));
  EXPECT_LT(CpuSeconds(node.Pid()) - cpuBefore, 0.3);
  for (int fd : flood) close(fd);
  close(calm);
  setrlimit(RLIMIT_NOFILE, &own);
}

// One binding the host never answers, called without end with 60 KB
// request identifiers: each call would be held until the host answers.
TEST(QelLimitsTest, AnRpcFloodKeepsTheNodeWithinItsBudget) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's quarantine holds freed memory";
#endif
  constexpr int64_t kBudget = 64 << 20;
  NodeProcess node({"--set", "memoryBudget=" + std::to_string(kBudget)});
  const json ready = node.WaitEvent("Ready");
  const std::string id = ready["ID"];
  EXPECT_EQ(node.Command("rpc-bind flood in")["ok"], true);
  const int fd = Dial(ready["Port"].get<uint16_t>());
  auto call = [&](const std::string& reqID, int n) {
    SendAll(fd, "RPC  QEL/2.1\r\nDestination: " + id + "\r\nSource: RAW\r\nName: flood\r\nReqID: " +
                    reqID + "\r\nID: FLOOD" + std::to_string(n) + "\r\nContent-Length: 0\r\n\r\n");
  };
  // Sent from a thread: what the node writes about the calls must be read
  // meanwhile, or it stops reading them.
  std::thread flood([&] {
    const std::string big(60000, 'q');
    for (int i = 0; i < 2000; ++i) call(big + std::to_string(i), i);
    call("last", 2000);
  });
  node.WaitEvent("RemoteProcCall", [](const json& l) { return l.value("ReqID", "") == "last"; });
  flood.join();
  const int64_t peak = StatusBytes(node.Pid(), "VmHWM");
  EXPECT_LT(peak, 2 * kBudget + (32 << 20)) << "peak " << (peak >> 20) << " MiB";
  node.WaitEvent("Error", [](const json& l) {
    return l.value("strMessage", "").find("RPC call refused") != std::string::npos;
  });
  close(fd);
}

TEST(QelLimitsTest, StalledPeersKeepTheNodeNearItsMemoryBudget) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's quarantine holds freed memory";
#endif
  constexpr int64_t kBudget = 64 << 20;
  // Beyond the budget: the message being relayed and its copies, and what
  // the allocator has not handed back yet.
  constexpr int64_t kSlack = 64 << 20;
  NodeProcess node({"--set", "memoryBudget=" + std::to_string(kBudget), "--set",
                    "maxMessage=" + std::to_string(16 << 20)});
  const auto port = node.WaitEvent("Ready")["Port"].get<uint16_t>();
  const int64_t baseline = StatusBytes(node.Pid(), "VmRSS");

  // Ten bodies announced at 16 MiB that stop at 12 MiB: 120 MiB held
  // without a budget.
  std::vector<int> stalled;
  const std::string body = Broadcast(std::string(16 << 20, 'b'), "BIG");
  for (int i = 0; i < 10; ++i) {
    stalled.push_back(Dial(port));
    SendAll(stalled.back(), std::string_view(body).substr(0, 12 << 20));
  }
  // Eight peers that never read while another floods: each would be let
  // queue 32 MiB.
  std::vector<int> stuck;
  for (int i = 0; i < 8; ++i) stuck.push_back(Dial(port, 4096));
  const int flooder = Dial(port);
  const std::string chunk(4 << 20, 'f');
  for (int i = 0; i < 24; ++i) {
    SendAll(flooder, Broadcast(chunk, "FLOOD" + std::to_string(i), "ELSEWHERE"));
  }
  // Whoever held the most was closed on the way, the flooder too perhaps; a
  // fresh peer is served.
  const int marker = Dial(port);
  Served(node, marker, "marker");
  close(marker);
  const int64_t peak = StatusBytes(node.Pid(), "VmHWM");
  EXPECT_LT(peak, baseline + kBudget + kSlack);

  for (int fd : stalled) close(fd);
  for (int fd : stuck) close(fd);
  close(flooder);
  // Once they are gone the node gives the memory back.
  for (int i = 0; i < 20; ++i) node.WaitEvent("ConnectionClosed");
  const int probe = Dial(port);
  Served(node, probe, "after");
  // The allocator may keep some; most must go.
  EXPECT_LT(StatusBytes(node.Pid(), "VmRSS") - baseline, (peak - baseline) / 2)
      << "peak " << (peak >> 20) << " MiB, at start " << (baseline >> 20);
  close(probe);
}

}  // namespace
