#include <fcntl.h>
#include "harness.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>

namespace qelbench {

int64_t NowNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t{ts.tv_sec} * 1'000'000'000 + ts.tv_nsec;
}

const std::string& Payload() {
  static const std::string text = [] {
    std::string t =
        "Payload of a benchmark message: the quick brown fox jumps over the lazy dog, "
        "0123456789 abcdefghijkl";
    t.resize(100, '.');
    return t;
  }();
  return text;
}

const std::string& ReferenceKey() {
  static const std::string key = "{6F9619FF-8B86-D011-B42D-00C04FC964FF}";
  return key;
}

Channel::~Channel() {
  if (in_ >= 0) close(in_);
  if (out_ >= 0) close(out_);
}

void Channel::Send(std::string_view line) {
  std::string text(line);
  text += '\n';
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = write(out_, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

bool Channel::Pending(int timeoutMs) {
  if (closed_ || buffer_.find('\n') != std::string::npos) return true;
  pollfd p{in_, POLLIN, 0};
  return poll(&p, 1, timeoutMs) > 0;
}

std::optional<std::string> Channel::Receive(int timeoutMs) {
  const int64_t deadline = timeoutMs < 0 ? -1 : NowNs() + int64_t{timeoutMs} * 1'000'000;
  for (;;) {
    size_t end = buffer_.find('\n');
    if (end != std::string::npos) {
      std::string line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      return line;
    }
    if (closed_) return std::nullopt;
    int wait = -1;
    if (deadline >= 0) {
      int64_t left = deadline - NowNs();
      if (left <= 0) return std::nullopt;
      wait = static_cast<int>((left + 999'999) / 1'000'000);
    }
    pollfd p{in_, POLLIN, 0};
    int ready = poll(&p, 1, wait);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) continue;  // the deadline check above ends the wait
    char chunk[4096];
    ssize_t n = read(in_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      closed_ = true;
      continue;
    }
    buffer_.append(chunk, static_cast<size_t>(n));
  }
}

namespace {

// Closes every descriptor but the two kept, so a child holds no end of its
// siblings' pipes (which would hide a parent's exit from them).
void CloseAllBut(int a, int b) {
  int low = std::min(a, b);
  int high = std::max(a, b);
  close_range(3, low - 1, 0);
  close_range(low + 1, high - 1, 0);
  close_range(high + 1, ~0U, 0);
}

}  // namespace

Child::Child(std::string name, std::function<void(Channel&)> body, unsigned lifetimeSeconds)
    : name_(std::move(name)) {
  int down[2];  // parent -> child
  int up[2];    // child -> parent
  if (pipe(down) != 0) return;
  if (pipe(up) != 0) {
    close(down[0]);
    close(down[1]);
    return;
  }
  std::fflush(nullptr);  // nothing buffered is written twice
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);  // the parent died before the line above
    close(down[1]);
    close(up[0]);
    CloseAllBut(down[0], up[1]);
    alarm(lifetimeSeconds);
    signal(SIGPIPE, SIG_IGN);
    int code = 0;
    {
      Channel channel(down[0], up[1]);
      try {
        body(channel);
      } catch (const std::exception& e) {
        channel.Send(std::string("fail ") + e.what());
        code = 1;
      } catch (...) {
        channel.Send("fail unknown exception");
        code = 1;
      }
    }
    std::fflush(nullptr);
    _exit(code);
  }
  close(down[0]);
  close(up[1]);
  // A node serving a fetch writes a line per ranged request while the
  // figure reads another process: room for a whole run's worth of them.
  fcntl(up[0], F_SETPIPE_SZ, 1 << 20);
  if (pid_ < 0) {
    close(down[1]);
    close(up[0]);
    return;
  }
  channel_ = std::make_unique<Channel>(up[0], down[1]);
}

Child::~Child() {
  channel_.reset();
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

std::optional<std::string> Child::Expect(std::string_view word, int timeoutMs, std::string* why) {
  if (!channel_) {
    if (why) *why = name_ + ": could not start";
    return std::nullopt;
  }
  std::optional<std::string> line = channel_->Receive(timeoutMs);
  if (line && line->starts_with(word)) return line;
  if (why) {
    if (line) {
      *why = name_ + ": " + *line;
    } else if (channel_->Pending(0)) {
      *why = name_ + ": exited";
    } else {
      *why = name_ + ": no answer in " + std::to_string(timeoutMs / 1000) + " s";
    }
  }
  return std::nullopt;
}

std::unique_ptr<Child> RunProgram(std::string name, std::vector<std::string> argv,
                                  unsigned lifetimeSeconds) {
  // Built before fork: the child only execs.
  std::vector<char*> args;
  for (std::string& arg : argv) args.push_back(arg.data());
  args.push_back(nullptr);
  return std::make_unique<Child>(
      std::move(name),
      [args](Channel& channel) {
        dup2(channel.readFd(), 0);
        dup2(channel.writeFd(), 1);
        execv(args[0], args.data());
        throw std::runtime_error(std::string("cannot run ") + args[0]);
      },
      lifetimeSeconds);
}

double CpuSeconds(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), {});
  // Fields after the command name, which may hold blanks: utime and stime
  // are the 12th and 13th after its closing parenthesis.
  const size_t close = text.rfind(')');
  if (close == std::string::npos) return -1;
  std::istringstream fields(text.substr(close + 2));
  std::string field;
  double ticks = 0;
  for (int i = 1; i <= 13 && fields >> field; ++i) {
    if (i >= 12) ticks += std::atof(field.c_str());
  }
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

int64_t PeakRssKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::atoll(line.c_str() + 6);
  }
  return -1;
}

void WriteRandomFile(const std::string& path, int64_t bytes) {
  std::vector<char> block(1 << 20);
  std::mt19937_64 random(7);
  for (char& c : block) c = static_cast<char>(random());
  std::ofstream out(path, std::ios::binary);
  for (int64_t written = 0; written < bytes; written += static_cast<int64_t>(block.size())) {
    const int64_t size = std::min<int64_t>(static_cast<int64_t>(block.size()), bytes - written);
    out.write(block.data(), static_cast<std::streamsize>(size));
  }
}

std::string Field(std::string_view line, std::string_view key) {
  size_t at = 0;
  while (at < line.size()) {
    size_t end = line.find(' ', at);
    if (end == std::string_view::npos) end = line.size();
    std::string_view token = line.substr(at, end - at);
    if (token.size() > key.size() && token.starts_with(key) && token[key.size()] == '=') {
      return std::string(token.substr(key.size() + 1));
    }
    at = end + 1;
  }
  return {};
}

int64_t FieldInt(std::string_view line, std::string_view key) {
  return std::strtoll(Field(line, key).c_str(), nullptr, 10);
}

double FieldDouble(std::string_view line, std::string_view key) {
  return std::strtod(Field(line, key).c_str(), nullptr);
}

void UseLoopback() {
  setenv("QEL_LOCAL_ADDRESS", kLoopback, 1);
}

Summary Summarise(std::vector<double> samples) {
  Summary s;
  s.count = samples.size();
  if (samples.empty()) return s;
  std::sort(samples.begin(), samples.end());
  size_t n = samples.size();
  s.median = n % 2 ? samples[n / 2] : (samples[n / 2 - 1] + samples[n / 2]) / 2;
  s.min = samples.front();
  s.max = samples.back();
  return s;
}

double Percentile(std::vector<double> samples, double p) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  size_t rank = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(samples.size())));
  rank = std::clamp<size_t>(rank, 1, samples.size());
  return samples[rank - 1];
}

namespace {

std::string ThreeDigits(double value) {
  char text[32];
  if (value >= 100) {
    std::snprintf(text, sizeof text, "%.0f", value);
  } else if (value >= 10) {
    std::snprintf(text, sizeof text, "%.1f", value);
  } else {
    std::snprintf(text, sizeof text, "%.2f", value);
  }
  return text;
}

}  // namespace

std::string FormatRate(double perSecond) {
  if (perSecond >= 1e6) return ThreeDigits(perSecond / 1e6) + "M";
  if (perSecond >= 1e3) return ThreeDigits(perSecond / 1e3) + "k";
  return ThreeDigits(perSecond);
}

std::string FormatNs(double ns) {
  if (ns >= 1e6) return ThreeDigits(ns / 1e6) + " ms";
  if (ns >= 1e3) return ThreeDigits(ns / 1e3) + " µs";
  return ThreeDigits(ns) + " ns";
}

std::string FormatSpread(const Summary& summary) {
  if (summary.median <= 0) return "(±?)";
  double half = (summary.max - summary.min) / 2 / summary.median * 100;
  char text[32];
  std::snprintf(text, sizeof text, half < 10 ? "(±%.1f%%)" : "(±%.0f%%)", half);
  return text;
}

}  // namespace qelbench
