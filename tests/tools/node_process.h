// A `qel node --json` process driven from a test: its stdin for commands,
// its stdout read as one JSON object per line, its stderr kept in memory.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr auto kDeadline = std::chrono::seconds(20);

// One `qel node --json --port 0` process with pipes on its stdin and stdout.
class NodeProcess {
 public:
  // fileLimit, when given, is the child's descriptor limit.
  explicit NodeProcess(const std::vector<std::string>& extraArgs, rlim_t fileLimit = 0) {
    signal(SIGPIPE, SIG_IGN);  // a child that died must fail the test, not kill it
    std::vector<std::string> args = {QEL_CLI_PATH, "node", "--port", "0", "--json"};
    args.insert(args.end(), extraArgs.begin(), extraArgs.end());
    // Built before fork: the child of a threaded process may only exec. The
    // environment, with its loopback local address, is the test runner's.
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    // Close-on-exec everywhere, so no child holds another child's stdin open.
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) std::abort();
    // A file, not a pipe: nothing the child writes there can block it.
    stderr_ = memfd_create("qel-stderr", MFD_CLOEXEC);
    if (stderr_ < 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      if (fileLimit > 0) {
        rlimit limit{fileLimit, fileLimit};
        setrlimit(RLIMIT_NOFILE, &limit);
      }
      dup2(in[0], 0);
      dup2(out[1], 1);
      dup2(stderr_, 2);
      execv(argv[0], argv.data());
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
    close(stderr_);
  }

  void CloseStdin() {
    if (stdin_ >= 0) close(stdin_);
    stdin_ = -1;
  }

  // The first line not taken yet that matches, waiting for more output until
  // the deadline; null when none came.
  json WaitFor(const std::function<bool(const json&)>& match,
               Clock::duration within = kDeadline) {
    auto deadline = Clock::now() + within;
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
    const std::string data = line + "\n";
    EXPECT_EQ(write(stdin_, data.data(), data.size()), static_cast<ssize_t>(data.size()));
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

  pid_t Pid() const { return pid_; }
  // What the process wrote to stderr so far.
  std::string Errors() const {
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = pread(stderr_, buffer, sizeof buffer, text.size())) > 0;) {
      text.append(buffer, static_cast<size_t>(n));
    }
    return text;
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
  int stderr_ = -1;
  bool eof_ = false;
  std::string partial_;
  std::vector<json> lines_;
  std::vector<bool> taken_;
};

struct Ready {
  std::string id;
  std::string address;
};

inline Ready WaitReady(NodeProcess& p) {
  json ready = p.WaitEvent("Ready");
  if (ready.is_null()) return {};
  EXPECT_EQ(ready["Address"], "127.0.0.1:" + std::to_string(ready["Port"].get<int>()));
  EXPECT_NE(ready["Port"], 0);
  return {ready["ID"].get<std::string>(), ready["Address"].get<std::string>()};
}

}  // namespace
