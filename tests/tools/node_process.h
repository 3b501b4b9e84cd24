// A `qel node --json` process driven from a test: commands on its stdin, one
// JSON object a line read from its stdout, its stderr kept. It listens on a
// free port unless args name one with --port.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;
using Match = std::function<bool(const json&)>;

constexpr auto kDeadline = std::chrono::seconds(20);

class NodeProcess {
 public:
  // fileLimit, when given, is the child's descriptor limit. The environment,
  // with its loopback local address, is the test runner's.
  explicit NodeProcess(std::vector<std::string> args, rlim_t fileLimit = 0) {
    signal(SIGPIPE, SIG_IGN);  // a child that died must fail the test, not kill it
    if (std::find(args.begin(), args.end(), "--port") == args.end()) {
      args.insert(args.begin(), {"--port", "0"});
    }
    args.insert(args.begin(), {QEL_CLI_PATH, "node", "--json"});
    // Built before fork: the child of a threaded process may only exec.
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    // Close-on-exec everywhere, so no child holds another child's stdin open;
    // stderr is a file, so nothing written there can block the child.
    int in[2], out[2];
    stderr_ = memfd_create("qel-stderr", MFD_CLOEXEC);
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || stderr_ < 0) std::abort();
    if ((pid_ = fork()) == 0) {
      const rlimit limit{fileLimit, fileLimit};
      if (fileLimit > 0) setrlimit(RLIMIT_NOFILE, &limit);
      dup2(in[0], 0);
      dup2(out[1], 1);
      dup2(stderr_, 2);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    // Room for a few thousand lines: a node serving a fetch prints one per
    // request while the test may be reading another process.
    fcntl(out[0], F_SETPIPE_SZ, 1 << 20);
    stdin_ = in[1];
    stdout_ = out[0];
  }

  ~NodeProcess() {
    CloseStdin();
    if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
    close(stdout_);
    close(stderr_);
  }

  void CloseStdin() {
    if (stdin_ >= 0) close(std::exchange(stdin_, -1));
  }

  // The first line not taken yet that matches, waiting for more output until
  // the deadline; null when none came.
  json WaitFor(const Match& match, Clock::duration within = kDeadline) {
    const auto deadline = Clock::now() + within;
    for (size_t seen = 0;; ++seen) {
      while (seen == lines_.size()) {
        if (!ReadMore(deadline)) return nullptr;
      }
      if (!taken_[seen] && match(lines_[seen])) {
        taken_[seen] = true;
        return lines_[seen];
      }
    }
  }

  json WaitEvent(const std::string& name, const Match& match = {}) {
    return Expect(WaitFor([&](const json& l) {
                    return l.value("event", "") == name && (!match || match(l));
                  }),
                  "no " + name + " event");
  }

  void Send(const std::string& line) {
    const std::string data = line + "\n";
    EXPECT_EQ(write(stdin_, data.data(), data.size()), static_cast<ssize_t>(data.size()));
  }

  // Sends a command line and returns its result line.
  json Command(const std::string& line, Clock::duration within = kDeadline) {
    Send(line);
    const std::string word = line.substr(0, line.find(' '));
    return Expect(WaitFor([&](const json& l) { return l.value("command", "") == word; }, within),
                  "no result for " + line);
  }

  // Reads to end of output; the exit code, or -1 when the process did not
  // exit in time or was killed.
  int WaitExit() {
    const auto deadline = Clock::now() + kDeadline;
    while (ReadMore(deadline)) {
    }
    for (int status = 0; Clock::now() < deadline; poll(nullptr, 0, 10)) {
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
    }
    return -1;
  }

  pid_t Pid() const { return pid_; }
  size_t LineCount() const { return lines_.size(); }
  std::string Errors() const {
    std::string text(static_cast<size_t>(lseek(stderr_, 0, SEEK_END)), '\0');
    text.resize(
        static_cast<size_t>(std::max<ssize_t>(pread(stderr_, text.data(), text.size(), 0), 0)));
    return text;
  }
  std::string Output() const {
    std::string text;
    for (const auto& l : lines_) text += l.dump() + "\n";
    return text + partial_;
  }

 private:
  json Expect(json line, const std::string& missing) const {
    EXPECT_FALSE(line.is_null()) << missing << "; output:\n" << Output();
    return line;
  }

  // Waits for output; false at its end or past the deadline.
  bool ReadMore(Clock::time_point deadline) {
    using std::chrono::milliseconds;
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
    pollfd fd{stdout_, POLLIN, 0};
    if (eof_ || left <= 0 || poll(&fd, 1, static_cast<int>(left)) <= 0) return false;
    char buffer[4096];
    const ssize_t n = read(stdout_, buffer, sizeof buffer);
    if (n <= 0) return !(eof_ = true);
    partial_.append(buffer, static_cast<size_t>(n));
    for (size_t eol; (eol = partial_.find('\n')) != std::string::npos; partial_.erase(0, eol + 1)) {
      json line = json::parse(partial_.substr(0, eol), nullptr, false);
      EXPECT_TRUE(line.is_object()) << "not a JSON object: " << partial_.substr(0, eol);
      lines_.push_back(line.is_object() ? line : json::object());
      taken_.push_back(false);
    }
    return true;
  }

  pid_t pid_ = -1;
  int stdin_ = -1, stdout_ = -1, stderr_ = -1;
  bool eof_ = false;
  std::string partial_;
  std::vector<json> lines_;
  std::vector<bool> taken_;
};

inline Match MessageIs(const std::string& text) {
  return [text](const json& l) { return l.value("strMessage", "") == text; };
}

struct Ready {
  std::string id, address;
};

inline Ready WaitReady(NodeProcess& p) {
  json ready = p.WaitEvent("Ready");
  if (ready.is_null()) return {};
  EXPECT_NE(ready["Port"], 0);
  EXPECT_EQ(ready["Address"], "127.0.0.1:" + std::to_string(ready["Port"].get<int>()));
  return {ready["ID"].get<std::string>(), ready["Address"].get<std::string>()};
}

}  // namespace
