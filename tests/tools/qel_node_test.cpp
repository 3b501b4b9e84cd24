// `qel node --json` run as separate processes talking over loopback.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <qel/settings.h>
#include <nlohmann/json.hpp>

extern char** environ;

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr auto kDeadline = std::chrono::seconds(20);

// One `qel node --json --port 0` process with pipes on its stdin and stdout.
class NodeProcess {
 public:
  explicit NodeProcess(const std::vector<std::string>& extraArgs, bool json = true) {
    signal(SIGPIPE, SIG_IGN);  // a child that died must fail the test, not kill it
    std::vector<std::string> args = {QEL_CLI_PATH, "node", "--port", "0"};
    if (json) args.push_back("--json");
    args.insert(args.end(), extraArgs.begin(), extraArgs.end());
    // Built before fork: the child of a threaded process may only exec.
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
      if (std::strncmp(*e, "QEL_LOCAL_ADDRESS=", 18) != 0) env.emplace_back(*e);
    }
    env.emplace_back("QEL_LOCAL_ADDRESS=127.0.0.1");
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(a.data());
    for (auto& e : env) envp.push_back(e.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);

    // Close-on-exec everywhere, so no child holds another child's stdin open.
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      execve(argv[0], argv.data(), envp.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    stdin_ = in[1];
    stdout_ = out[0];
  }

  ~NodeProcess() {
    CloseStdin();
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(stdout_);
  }

  void Send(const std::string& line) {
    std::string data = line + "\n";
    ASSERT_EQ(write(stdin_, data.data(), data.size()), static_cast<ssize_t>(data.size()));
  }

  void CloseStdin() {
    if (stdin_ >= 0) close(stdin_);
    stdin_ = -1;
  }

  // The first line not taken yet that matches, waiting for more output until
  // the deadline; null when none came.
  json WaitFor(const std::function<bool(const json&)>& match) {
    auto deadline = Clock::now() + kDeadline;
    for (size_t seen = 0;;) {
      for (; seen < lines_.size(); ++seen) {
        if (!taken_[seen] && match(lines_[seen])) {
          taken_[seen] = true;
          return lines_[seen];
        }
      }
      if (!ReadMore(deadline)) return nullptr;
    }
  }

  json WaitEvent(const std::string& name, const std::function<bool(const json&)>& match = {}) {
    json line = WaitFor(
        [&](const json& l) { return l.value("event", "") == name && (!match || match(l)); });
    EXPECT_FALSE(line.is_null()) << "no " << name << " event; output:\n" << Output();
    return line;
  }

  // Sends a command line and returns its result line.
  json Command(const std::string& line) {
    Send(line);
    std::string word = line.substr(0, line.find(' '));
    json result = WaitFor([&](const json& l) { return l.value("command", "") == word; });
    EXPECT_FALSE(result.is_null()) << "no result for " << line << "; output:\n" << Output();
    return result;
  }

  // Reads to end of output and returns the exit code, or -1 when the process
  // did not exit in time or was killed.
  int WaitExit() {
    auto deadline = Clock::now() + kDeadline;
    while (ReadMore(deadline)) {
    }
    while (Clock::now() < deadline) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      poll(nullptr, 0, 10);  // the process closed its output and is exiting
    }
    return -1;
  }

  size_t LineCount() const { return lines_.size(); }
  std::string Output() const {
    std::string text;
    for (const auto& l : lines_) text += l.dump() + "\n";
    return text + partial_;
  }

 private:
  // Waits for output; false at end of output or past the deadline. Every line
  // must be one JSON object.
  bool ReadMore(Clock::time_point deadline) {
    if (eof_) return false;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    pollfd fd{stdout_, POLLIN, 0};
    if (poll(&fd, 1, static_cast<int>(left.count())) <= 0) return false;
    char buffer[4096];
    ssize_t n = read(stdout_, buffer, sizeof buffer);
    if (n <= 0) {
      eof_ = true;
      return false;
    }
    partial_.append(buffer, static_cast<size_t>(n));
    for (size_t eol; (eol = partial_.find('\n')) != std::string::npos;) {
      std::string line = partial_.substr(0, eol);
      partial_.erase(0, eol + 1);
      json parsed = json::parse(line, nullptr, false);
      EXPECT_TRUE(parsed.is_object()) << "not a JSON object: " << line;
      lines_.push_back(parsed.is_object() ? parsed : json::object());
      taken_.push_back(false);
    }
    return true;
  }

  pid_t pid_ = -1;
  int stdin_ = -1;
  int stdout_ = -1;
  bool eof_ = false;
  std::string partial_;
  std::vector<json> lines_;
  std::vector<bool> taken_;
};

struct Ready {
  std::string id;
  std::string address;
};

Ready WaitReady(NodeProcess& p) {
  json ready = p.WaitEvent("Ready");
  if (ready.is_null()) return {};
  EXPECT_EQ(ready["Address"], "127.0.0.1:" + std::to_string(ready["Port"].get<int>()));
  EXPECT_NE(ready["Port"], 0);
  return {ready["ID"].get<std::string>(), ready["Address"].get<std::string>()};
}

std::function<bool(const json&)> MessageIs(const std::string& text) {
  return [text](const json& l) { return l["strMessage"] == text; };
}

const std::vector<std::string> kPacked = {"--set",       "useComp=True", "--set",
                                          "useEnc=True", "--set",        "Timeout=5000"};

std::vector<std::string> With(std::vector<std::string> args, const std::vector<std::string>& more) {
  args.insert(args.end(), more.begin(), more.end());
  return args;
}

TEST(QelNodeTest, MessagesCrossAMiddleProcessBothWays) {
  NodeProcess a(With(kPacked, {"--name", "a"})), c(With(kPacked, {"--name", "c"}));
  Ready ra = WaitReady(a), rc = WaitReady(c);
  ASSERT_FALSE(ra.id.empty() || rc.id.empty());
  NodeProcess b(With(kPacked, {"--name", "b", "--connect", ra.address, "--connect", rc.address}));
  WaitReady(b);
  EXPECT_EQ(b.WaitFor([](const json& l) { return l["command"] == "connect"; })["ok"], true);
  EXPECT_EQ(b.WaitFor([](const json& l) { return l["command"] == "connect"; })["ok"], true);
  a.WaitEvent("ConnectionEstab");
  c.WaitEvent("ConnectionEstab");

  // Spaces inside the text are kept; a byte that is not UTF-8 comes out as
  // the code point of its value.
  EXPECT_EQ(c.Command("send " + ra.id + " hello  from c\xe9")["ok"], true);
  json got = a.WaitEvent("MessageReceived", MessageIs("hello  from c\u00e9"));
  EXPECT_EQ(got["nodeID"], rc.id);
  EXPECT_EQ(got["strType"], "");

  EXPECT_EQ(a.Command("send-type note " + rc.id + " reply from a")["ok"], true);
  got = c.WaitEvent("MessageReceived", MessageIs("reply from a"));
  EXPECT_EQ(got["nodeID"], ra.id);
  EXPECT_EQ(got["strType"], "note");
  EXPECT_EQ(a.Command("send-type ERROR " + rc.id + " it failed")["ok"], true);
  EXPECT_EQ(c.WaitEvent("Error", MessageIs("it failed"))["nodeID"], ra.id);

  json nodes = a.Command("nodes " + rc.id + " fresh");
  ASSERT_EQ(nodes["ok"], true) << nodes;
  ASSERT_EQ(nodes["value"].size(), 1u);
  EXPECT_EQ(nodes["value"][0]["ID"], rc.id);
  EXPECT_EQ(nodes["value"][0]["Name"], "c");
  EXPECT_EQ(nodes["value"][0]["directConn"], false);
  EXPECT_EQ(nodes["value"][0]["Address"], rc.address);

  json ping = a.Command("ping " + rc.id + " 10000");
  EXPECT_EQ(ping["ok"], true) << ping;
  EXPECT_GE(ping["value"].get<int>(), 0);

  json stats = a.Command("stats");
  EXPECT_GE(stats["value"]["InPacketCount"].get<int>(), 3);
  EXPECT_GE(stats["value"]["OutPacketCount"].get<int>(), 3);
  EXPECT_FALSE(stats["value"]["QELVersion"].get<std::string>().empty());

  // quit writes its result and then nothing more; end of input writes nothing.
  EXPECT_EQ(a.Command("quit")["ok"], true);
  size_t linesAtQuit = a.LineCount();
  EXPECT_EQ(a.WaitExit(), 0);
  EXPECT_EQ(a.LineCount(), linesAtQuit) << a.Output();
  for (NodeProcess* p : {&b, &c}) {
    p->CloseStdin();
    EXPECT_EQ(p->WaitExit(), 0);
  }
}

// A knows C's route once C's message came in through B: what A then sends
// to C must not also be flooded to D, A's other neighbour. D counts what it
// receives; a marker sent to D after the message to C arrives behind any
// copy of it on the same link, so the count is complete when the marker is
// seen.
TEST(QelNodeTest, RepliesFollowTheRouteInsteadOfFlooding) {
  NodeProcess a({"--name", "a"}), c({"--name", "c"});
  Ready ra = WaitReady(a), rc = WaitReady(c);
  ASSERT_FALSE(ra.id.empty() || rc.id.empty());
  NodeProcess b({"--name", "b", "--connect", ra.address, "--connect", rc.address});
  NodeProcess d({"--name", "d", "--set", "seeSelf=False", "--connect", ra.address});
  Ready rd = WaitReady(d);
  WaitReady(b);
  a.WaitEvent("ConnectionEstab");
  a.WaitEvent("ConnectionEstab");
  c.WaitEvent("ConnectionEstab");
  ASSERT_EQ(d.WaitFor([](const json& l) { return l["command"] == "connect"; })["ok"], true);

  c.Command("send " + ra.id + " one");
  a.WaitEvent("MessageReceived", MessageIs("one"));
  a.Command("send " + rc.id + " two");
  c.WaitEvent("MessageReceived", MessageIs("two"));

  auto packetsAtMarker = [&](const std::string& marker) {
    a.Command("send " + rd.id + " " + marker);
    d.WaitEvent("MessageReceived", MessageIs(marker));
    return d.Command("stats")["value"]["InPacketCount"].get<int>();
  };
  int before = packetsAtMarker("mark1");
  a.Command("send " + rc.id + " three");
  c.WaitEvent("MessageReceived", MessageIs("three"));
  int after = packetsAtMarker("mark2");
  EXPECT_EQ(after - before, 1) << "D received more than the marker";

  for (NodeProcess* p : {&a, &b, &c, &d}) {
    p->CloseStdin();
    EXPECT_EQ(p->WaitExit(), 0);
  }
}

TEST(QelNodeTest, BadCommandsFailWithAnErrorAndTheConsoleGoesOn) {
  NodeProcess a({});
  Ready ra = WaitReady(a);

  json result = a.Command("frobnicate now");
  EXPECT_EQ(result["ok"], false);
  EXPECT_NE(result["error"].get<std::string>().find("frobnicate"), std::string::npos);

  for (const char* line : {"send", "send " /* only blanks */, "send-type ERROR BROADCAST", "ping",
                           "ping X notanumber", "connect", "connect 127.0.0.1:1 forever",
                           "nodes BROADCAST stale", "id extra", "disconnect"}) {
    result = a.Command(line);
    EXPECT_EQ(result["ok"], false) << line;
    EXPECT_NE(result["error"].get<std::string>().find("usage: "), std::string::npos)
        << line << ": " << result;
  }

  // QEL's own refusals and false results are failures too.
  result = a.Command("ping NOSUCHNODE");
  EXPECT_EQ(result["ok"], false);
  EXPECT_NE(result["error"].get<std::string>().find("Cannot ping unresolved node"),
            std::string::npos);
  EXPECT_EQ(a.Command("disconnect 127.0.0.1:1")["ok"], false);

  result = a.Command("help");
  ASSERT_EQ(result["ok"], true);
  std::string help = "\n";
  for (const auto& line : result["value"]) help += line.get<std::string>() + "\n";
  for (const char* word :
       {"id", "connect", "disconnect-node", "send-type", "ping", "nodes", "stats", "quit"}) {
    EXPECT_NE(help.find(std::string("\n") + word + " "), std::string::npos) << word;
  }

  // Still answering after all that.
  EXPECT_EQ(a.Command("id")["value"], ra.id);
  a.CloseStdin();
  EXPECT_EQ(a.WaitExit(), 0);
}

// A value of the wrong type in the settings file is reported; --set replaces
// it before the node reads it.
TEST(QelNodeTest, SetOverridesTheSettingsFile) {
  auto path =
      std::filesystem::temp_directory_path() / ("qel-node-test-" + std::to_string(getpid()));
  qel::cSettings file;
  file.SaveSetting("TTL", "many");
  file.SaveSettings(path);

  NodeProcess fromFile({"--settings", path});
  EXPECT_NE(fromFile.WaitEvent("Error")["strMessage"].get<std::string>().find("Type mismatch"),
            std::string::npos);
  WaitReady(fromFile);

  NodeProcess overridden({"--settings", path, "--set", "TTL=5"});
  WaitReady(overridden);
  overridden.CloseStdin();
  EXPECT_EQ(overridden.WaitExit(), 0);
  EXPECT_EQ(overridden.LineCount(), 1u) << overridden.Output();
  std::filesystem::remove(path);
}

TEST(QelNodeTest, BadOptionsExitNonZeroBeforeStarting) {
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
