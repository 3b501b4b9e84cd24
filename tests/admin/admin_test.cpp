// The admin server against live nodes on loopback: what it serves, who it
// serves, and the page in a real browser.
#include <fcntl.h>
#include <openssl/evp.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <httplib.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <thread>

#include <nlohmann/json.hpp>
#include <qel/admin.h>

#include "admin/event_ring.h"
#include "admin/metrics.h"
#include "../support/peers.h"

namespace qel::test {
namespace {

namespace fs = std::filesystem;

// Runs fn on a thread of its own while the loop runs here: the server hands
// its work to the loop and would wait for it forever otherwise.
template <typename F>
auto OffLoop(F fn) {
  std::atomic<bool> finished = false;
  decltype(fn()) result{};
  std::thread worker([&] {
    result = fn();
    finished = true;
    Post([] {});  // wakes the loop to see it
  });
  EXPECT_TRUE(Eventually([&] { return finished.load(); }));
  worker.join();
  return result;
}

int PortOf(const std::string& url) {
  return std::stoi(url.substr(url.rfind(':') + 1));
}

struct Reply {
  int status = 0;
  std::string body;
};

Reply Get(int port, const std::string& path, httplib::Headers headers = {}) {
  return OffLoop([&] {
    httplib::Client client("127.0.0.1", port);
    auto res = client.Get(path.c_str(), headers);
    return res ? Reply{res->status, res->body} : Reply{-1, ""};
  });
}

// The text format's grammar, strictly: every line a HELP, a TYPE or a sample
// of a family typed before it. Samples by their series ("name{labels}"), with
// label values unescaped; a fault fails the test with the line.
std::map<std::string, double> ParseMetrics(const std::string& text) {
  static const std::regex help(R"(# HELP ([a-zA-Z_:][a-zA-Z0-9_:]*) ([^\\\n]|\\\\|\\n)*)");
  static const std::regex type(R"(# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) (counter|gauge|untyped))");
  static const std::regex sample(R"(([a-zA-Z_:][a-zA-Z0-9_:]*)(\{(.*)\})? (-?[0-9]+(\.[0-9]+)?))");
  static const std::regex label(R"(^([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\\n]|\\\\|\\"|\\n)*)\"(,|$))");
  std::map<std::string, double> series;
  std::map<std::string, std::string> types;
  std::istringstream in(text);
  EXPECT_TRUE(!text.empty() && text.back() == '\n');
  for (std::string line; std::getline(in, line);) {
    std::smatch m;
    if (std::regex_match(line, m, help)) continue;
    if (std::regex_match(line, m, type)) {
      EXPECT_FALSE(types.contains(m[1])) << "typed twice: " << line;
      types[m[1]] = m[2];
      continue;
    }
    if (!std::regex_match(line, m, sample)) {
      ADD_FAILURE() << "not a metrics line: " << line;
      continue;
    }
    EXPECT_TRUE(types.contains(m[1])) << "no TYPE before " << line;
    std::string key = m[1].str() + "{";
    std::string labels = m[3];
    for (std::smatch l; !labels.empty(); labels = l.suffix()) {
      if (!std::regex_search(labels, l, label)) {
        ADD_FAILURE() << "bad labels: " << line;
        break;
      }
      std::string value;
      const std::string raw = l[2];
      for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == '\\') value += raw[++i] == 'n' ? '\n' : raw[i];
        else value += raw[i];
      }
      key += l[1].str() + "=" + value + ";";
    }
    EXPECT_FALSE(series.contains(key + "}")) << "series twice: " << line;
    series[key + "}"] = std::stod(m[4]);
  }
  return series;
}

TEST(AdminServerTest, MetricsAreValidTextAndCountersOnlyGrow) {
  Peer a("a", "", true), b("b", "", true);
  a.ConnectTo(b);
  AdminServer server(b.node, {});
  const int port = PortOf(server.Start());

  const Reply first = Get(port, "/metrics");
  ASSERT_EQ(first.status, 200) << first.body;
  const auto before = ParseMetrics(first.body);
  for (const char* name :
       {"qel_messages_received_total{}", "qel_messages_sent_total{}", "qel_bytes_received_total{}",
        "qel_bytes_sent_total{}", "qel_relayed_total{}", "qel_duplicates_dropped_total{}",
        "qel_refusals_total{reason=memory;}", "qel_links{}", "qel_known_nodes{}",
        "qel_memory_held_bytes{}", "qel_transfers_active{}"}) {
    EXPECT_TRUE(before.contains(name)) << name;
  }
  EXPECT_EQ(before.at("qel_links{}"), 1);
  EXPECT_TRUE(before.contains("qel_link_bytes_received_total{peer=" + a.ID() + ";}"));

  for (int i = 0; i < 5; ++i) a.node.SendMessage("m" + std::to_string(i), b.ID());
  ASSERT_TRUE(Eventually([&] { return b.messages.size() == 5; }));
  const auto after = ParseMetrics(Get(port, "/metrics").body);
  for (const auto& [key, value] : before) {
    if (key.find("_total{") != std::string::npos) {
      ASSERT_TRUE(after.contains(key)) << key;
      EXPECT_GE(after.at(key), value) << key;
    }
  }
  EXPECT_GE(after.at("qel_messages_received_total{}") - before.at("qel_messages_received_total{}"),
            5);

  // A label value holding the format's special characters comes back whole.
  NodeSnapshot odd;
  odd.refusals.push_back({.reason = "a\"b\\c\nd", .node = 3});
  odd.links.push_back({.nodeID = "x\"y", .bytesIn = 7});
  const auto parsed = ParseMetrics(admin::Metrics(odd));
  EXPECT_EQ(parsed.at("qel_refusals_total{reason=a\"b\\c\nd;}"), 3);
  EXPECT_EQ(parsed.at("qel_link_bytes_received_total{peer=x\"y;}"), 7);
}

TEST(AdminServerTest, TokenIsRequiredOffLoopbackAndCheckedOnEveryRequest) {
  Peer node("n");
  // Off loopback without a token it refuses before it binds anything.
  AdminServer open(node.node, {.address = "0.0.0.0"});
  EXPECT_THROW(open.Start(), QelError);

  AdminServer server(node.node, {.token = "s3cret"});
  const int port = PortOf(server.Start());
  EXPECT_EQ(Get(port, "/api/status").status, 401);
  EXPECT_EQ(Get(port, "/", {{"Authorization", "Bearer s3creT"}}).status, 401);
  EXPECT_EQ(Get(port, "/metrics", {{"Authorization", "s3cret"}}).status, 401);
  const Reply status = Get(port, "/api/status", {{"Authorization", "Bearer s3cret"}});
  EXPECT_EQ(status.status, 200);
  EXPECT_NE(status.body.find("\"nodeID\":\"" + node.ID() + "\""), std::string::npos) << status.body;
  // A page of another site that rebinds its name to loopback is refused.
  EXPECT_EQ(Get(port, "/", {{"Authorization", "Bearer s3cret"}, {"Host", "evil.example:" + std::to_string(port)}}).status,
            403);
  EXPECT_EQ(Get(port, "/", {{"Authorization", "Bearer s3cret"}, {"Host", "localhost:" + std::to_string(port)}}).status,
            200);
}

// A reader behind a gap (events dropped, or raised while nothing watched) is
// told of it once, and then waits for what comes next.
TEST(EventRingTest, GapIsToldOnceThenTheReaderWaits) {
  admin::EventRing ring(2, 1 << 20);
  for (const char* line : {"a", "b", "c"}) ring.Push(line);
  uint64_t cursor = 0;
  const auto soon = [] { return std::chrono::steady_clock::now() + std::chrono::milliseconds(20); };
  admin::EventRing::Batch batch = ring.After(cursor, soon());
  EXPECT_EQ(batch.missed, 1u);
  ASSERT_EQ(batch.events.size(), 2u);
  EXPECT_EQ(batch.events[0], (std::pair<uint64_t, std::string>{2, "b"}));
  EXPECT_EQ(cursor, 3u);

  ring.Skip(4);
  batch = ring.After(cursor, soon());
  EXPECT_EQ(batch.missed, 4u);
  EXPECT_TRUE(batch.events.empty());
  batch = ring.After(cursor, soon());
  EXPECT_EQ(batch.missed, 0u);
  ring.Push("d");
  batch = ring.After(cursor, soon());
  ASSERT_EQ(batch.events.size(), 1u);
  EXPECT_EQ(batch.events[0].first, 8u);
}

TEST(AdminServerTest, EventStreamCarriesEventsRaisedAfterItOpened) {
  Peer a("a", "", true), b("b", "", true);
  a.ConnectTo(b);
  a.node.SendMessage("before", b.ID());  // raised before the stream: not carried
  ASSERT_TRUE(Eventually([&] { return !b.messages.empty(); }));
  auto server = std::make_unique<AdminServer>(b.node, AdminOptions{});
  const int port = PortOf(server->Start());

  std::mutex mutex;
  std::string received;
  std::atomic<bool> opened = false, ended = false;
  std::thread reader([&] {
    httplib::Client client("127.0.0.1", port);
    client.set_read_timeout(30, 0);
    client.Get("/api/events", [&](const char* data, size_t size) {
      std::lock_guard lock(mutex);
      received.append(data, size);
      opened = true;
      return true;
    });
    ended = true;
    Post([] {});
  });
  ASSERT_TRUE(Eventually([&] { return opened.load(); }));
  a.node.SendMessage("hello \xff", b.ID(), "T");
  const std::string expected =
      "data: {\"event\":\"MessageReceived\",\"strMessage\":\"hello \xc3\xbf\",\"strType\":\"T\","
      "\"nodeID\":\"" + a.ID() + "\",\"latin1\":[\"strMessage\"]}\n\n";
  ASSERT_TRUE(Eventually([&] {
    std::lock_guard lock(mutex);
    return received.find(expected) != std::string::npos;
  })) << received;
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(received.find("before"), std::string::npos) << received;
    EXPECT_TRUE(received.starts_with("retry: ")) << received;
    EXPECT_NE(received.find("id: "), std::string::npos) << received;
  }

  // The node shut down under an open stream: the server answers that it is
  // gone, and stopping ends the stream.
  b.node.ShutDown();
  EXPECT_EQ(Get(port, "/api/status").status, 503);
  server.reset();
  EXPECT_TRUE(Eventually([&] { return ended.load(); }));
  reader.join();
}

// Chromium driven over its DevTools pipe: JSON messages ended by NUL, read
// by it from descriptor 3, written to 4.
class Browser {
 public:
  Browser() {
    const std::string profile = "--user-data-dir=" + (fs::temp_directory_path() /
                                                      ("qel_chromium_" + std::to_string(getpid()))).string();
    std::vector<std::string> args = {"/usr/bin/chromium", "--headless", "--no-sandbox", "--disable-gpu",
                                     "--no-first-run", "--disable-dev-shm-usage", "--remote-debugging-pipe",
                                     profile, "about:blank"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    int commands[2], replies[2];
    if (pipe2(commands, O_CLOEXEC) != 0 || pipe2(replies, O_CLOEXEC) != 0) std::abort();
    if ((pid_ = fork()) == 0) {
      dup2(commands[0], 3);  // dup2 clears close-on-exec
      dup2(replies[1], 4);
      const int null = open("/dev/null", O_WRONLY);
      dup2(null, 1);
      dup2(null, 2);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(commands[0]);
    close(replies[1]);
    to_ = commands[1];
    from_ = replies[0];
  }
  ~Browser() {
    Call("Browser.close");
    close(to_);
    close(from_);
    // Closed or not, it must not outlive the test.
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  // Sends a command (to the page of session, when given) and waits for its
  // answer; null when none came in time.
  nlohmann::json Call(const std::string& method, nlohmann::json params = nlohmann::json::object(),
                      const std::string& session = "") {
    nlohmann::json command = nlohmann::json::object();
    command["id"] = ++lastID_;
    command["method"] = method;
    command["params"] = std::move(params);
    if (!session.empty()) command["sessionId"] = session;
    const std::string text = command.dump() + '\0';
    if (write(to_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) return nullptr;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (;;) {
      for (size_t end; (end = buffer_.find('\0')) != std::string::npos;) {
        auto reply = nlohmann::json::parse(buffer_.substr(0, end), nullptr, false);
        buffer_.erase(0, end + 1);
        if (reply.is_object() && reply.value("id", 0) == lastID_) return reply;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd ready{.fd = from_, .events = POLLIN};
      if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) <= 0) return nullptr;
      char chunk[65536];
      const ssize_t n = read(from_, chunk, sizeof chunk);
      if (n <= 0) return nullptr;
      buffer_.append(chunk, static_cast<size_t>(n));
    }
  }

 private:
  pid_t pid_ = -1;
  int to_ = -1, from_ = -1;
  int lastID_ = 0;
  std::string buffer_;
};

std::string Base64Decode(const std::string& text) {
  std::string bytes(text.size() / 4 * 3, '\0');
  const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                reinterpret_cast<const unsigned char*>(text.data()),
                                static_cast<int>(text.size()));
  bytes.resize(n < 0 ? 0 : static_cast<size_t>(n) - std::count(text.end() - 2, text.end(), '='));
  return bytes;
}

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

TEST(AdminPageTest, BrowserShowsTheLineTheLinksAndATransferInFlight) {
  if (!fs::exists("/usr/bin/chromium")) GTEST_SKIP() << "chromium is not installed";
  const fs::path dir = fs::temp_directory_path() / ("qel_page_" + std::to_string(getpid()));
  fs::create_directories(dir);
  std::ofstream(dir / "big", std::ios::binary).close();
  fs::resize_file(dir / "big", 64 << 20);

  // a - b - c, and a reader of b's file that does not read.
  Peer a("a", "", true), b("b", "", true), c("c", "", true);
  b.node.shareFolder(dir.string());
  a.ConnectTo(b);
  c.ConnectTo(b);
  ASSERT_TRUE(Eventually([&] { return b.Knows(a.ID()) && b.Knows(c.ID()); }));
  const int stuck = Dial(b.Port(), 4096);
  ASSERT_TRUE(Eventually([&] { return b.established.size() == 3; }));
  const std::string get = "GET \\big QEL/2.1\r\nDestination: " + b.ID() +
                          "\r\nSource: RAW\r\nReqID: R\r\nID: G1\r\nTTL: 1\r\n\r\n";
  ASSERT_EQ(send(stuck, get.data(), get.size(), 0), static_cast<ssize_t>(get.size()));
  ASSERT_TRUE(Eventually([&] { return !b.node.Snapshot().transfers.empty(); }));

  AdminServer server(b.node, {});
  const std::string url = server.Start();

  // Served whole by the node: nothing on the page comes from elsewhere.
  const Reply page = Get(PortOf(url), "/");
  ASSERT_EQ(page.status, 200);
  const std::regex external(R"((src|href|action)\s*=\s*["']?\s*(https?:)?//|(fetch|EventSource|import)\s*\(\s*["'`](https?:)?//|https?://)");
  EXPECT_FALSE(std::regex_search(page.body, external)) << "the page reaches outside the node";

  // The page as the browser drew it once it shows what the node knows, or
  // after 15 s: the wait runs inside the page.
  const auto [dom, png] = OffLoop([&] {
    Browser browser;
    nlohmann::json params = {{"url", "about:blank"}, {"newWindow", true}, {"width", 1200}, {"height", 800}};
    const auto target = browser.Call("Target.createTarget", params);
    if (!target.contains("result")) return std::pair<std::string, std::string>();
    params = {{"targetId", target["result"]["targetId"]}, {"flatten", true}};
    const auto attached = browser.Call("Target.attachToTarget", params);
    if (!attached.contains("result")) return std::pair<std::string, std::string>();
    const std::string session = attached["result"]["sessionId"];
    params = {{"url", url}};
    browser.Call("Page.navigate", params, session);
    const std::string drawn =
        "new Promise(done => { const end = Date.now() + 15000; const check = () =>"
        " (document.querySelectorAll('[data-node-id]').length >= 3 && document.querySelectorAll('.link').length >= 2"
        " && document.querySelector('progress')) || Date.now() > end"
        " ? done(document.documentElement.outerHTML) : setTimeout(check, 100); check(); })";
    params = {{"expression", drawn}, {"awaitPromise", true}, {"returnByValue", true}};
    std::string dom;
    // The new page's context replaces about:blank's: asked again until it is there.
    for (int attempt = 0; attempt < 20 && dom.empty(); ++attempt) {
      const auto value = browser.Call("Runtime.evaluate", params, session);
      if (value.contains("result") && value["result"].contains("result")) {
        dom = value["result"]["result"].value("value", "");
      }
    }
    params = {{"format", "png"}};
    const auto shot = browser.Call("Page.captureScreenshot", params, session);
    return std::make_pair(dom, shot.contains("result") ? Base64Decode(shot["result"]["data"]) : "");
  });
  EXPECT_EQ(Count(dom, "data-node-id=\""), 3u) << dom;
  EXPECT_EQ(Count(dom, "class=\"link"), 2u) << dom;
  EXPECT_GE(Count(dom, "<progress"), 1u) << dom;
  for (Peer* p : {&a, &b, &c}) EXPECT_NE(dom.find("data-node-id=\"" + p->ID() + "\""), std::string::npos);

  ASSERT_TRUE(png.starts_with("\x89PNG")) << "no screenshot";
  std::ofstream(fs::current_path() / "admin_page.png", std::ios::binary) << png;
  close(stuck);
  fs::remove_all(dir);
}

}  // namespace
}  // namespace qel::test
