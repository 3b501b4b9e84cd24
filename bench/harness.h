// What every loopback benchmark shares: forked peer processes, the pipes that
// coordinate them, the clock, the payload and the summary of samples.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qelbench {

// The loopback address every peer listens on, connects to and advertises.
inline constexpr const char* kLoopback = "127.0.0.1";

// Nanoseconds of CLOCK_MONOTONIC: one clock for every process of the host, so
// a sender's start and a receiver's finish can be subtracted.
int64_t NowNs();

// The 100-byte text every message carries, the same for every contender.
const std::string& Payload();

// The key the reference peers encrypt with: as long as a node's own key, which
// the nodes use once they know each other.
const std::string& ReferenceKey();

// One end of a pair of pipes carrying text lines; the child's end and the
// parent's end behave the same.
class Channel {
 public:
  Channel() = default;
  Channel(int readFd, int writeFd) : in_(readFd), out_(writeFd) {}
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // Writes line and a newline. A broken pipe is ignored: the reader is gone
  // and its absence shows up on the next Receive.
  void Send(std::string_view line);
  // The next line; nullopt after timeoutMs (negative: no limit) or once the
  // other end is closed.
  std::optional<std::string> Receive(int timeoutMs);
  // Whether a line, or the end of the pipe, is waiting; waits up to timeoutMs.
  bool Pending(int timeoutMs);

  // The descriptors, for a child that hands them to a program it runs.
  int readFd() const { return in_; }
  int writeFd() const { return out_; }

 private:
  int in_ = -1;
  int out_ = -1;
  std::string buffer_;
  bool closed_ = false;
};

// A forked process running one role of a benchmark.
class Child {
 public:
  // Forks a process that runs body with its end of the channel, then exits
  // with _exit (no static destructors of the parent's copy run). The child
  // keeps no other descriptor of the parent, dies with the parent and is
  // killed by SIGALRM after lifetimeSeconds whatever it is doing.
  Child(std::string name, std::function<void(Channel&)> body, unsigned lifetimeSeconds = 240);
  // Kills the process (SIGKILL) and reaps it.
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  const std::string& name() const { return name_; }
  Channel& channel() { return *channel_; }
  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

  // The next line, when it starts with word. Otherwise nullopt, with why set
  // to the line that came instead (a child's failure report), or to the
  // timeout, or to the child's exit.
  std::optional<std::string> Expect(std::string_view word, int timeoutMs, std::string* why);

 private:
  std::string name_;
  pid_t pid_ = -1;
  std::unique_ptr<Channel> channel_;
};

// A child running a program with its channel as stdin and stdout; the
// lifetime's alarm and the parent-death signal carry over into it.
std::unique_ptr<Child> RunProgram(std::string name, std::vector<std::string> argv,
                                  unsigned lifetimeSeconds = 240);

// The peak resident memory of a process of this host in KiB, or -1.
int64_t PeakRssKiB(pid_t pid);
// The CPU time (user and system) a process of this host used so far, in
// seconds, or -1.
double CpuSeconds(pid_t pid);

// A file of pseudo-random bytes (a compressing file system must not
// flatter anyone).
void WriteRandomFile(const std::string& path, int64_t bytes);

// "word key=value key=value": the value of key, or empty.
std::string Field(std::string_view line, std::string_view key);
int64_t FieldInt(std::string_view line, std::string_view key);
double FieldDouble(std::string_view line, std::string_view key);

// Sets QEL_LOCAL_ADDRESS so a node advertises and is reached on loopback.
// Called in every process before its first node object.
void UseLoopback();

// Median and range of a set of samples.
struct Summary {
  double median = 0;
  double min = 0;
  double max = 0;
  size_t count = 0;
};
Summary Summarise(std::vector<double> samples);
// The nearest-rank percentile p (0..100) of samples.
double Percentile(std::vector<double> samples, double p);

// 412k, 2.9M: a rate with three significant digits at most.
std::string FormatRate(double perSecond);
// 812 ns, 23.4 µs, 1.20 ms.
std::string FormatNs(double ns);
// "(±3%)": half the min–max range relative to the median.
std::string FormatSpread(const Summary& summary);

}  // namespace qelbench
