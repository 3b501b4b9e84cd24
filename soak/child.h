// The soak's child processes: `qel node --json` runs (and the short `ip`
// commands of the namespace run), each in its own process group, fed commands
// without blocking and read one JSON line at a time from a single poll loop.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace soak {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

// Thrown out of the loop when the driver got SIGINT, SIGTERM or SIGHUP; the
// destructors on the way out kill every child.
struct Interrupted : std::runtime_error {
  explicit Interrupted(int signal)
      : std::runtime_error("interrupted by signal " + std::to_string(signal)) {}
};

// Makes SIGINT, SIGTERM and SIGHUP interrupt Pump() and ignores SIGPIPE, so a
// child that died fails the run instead of killing the driver.
void InstallSignalHandlers();

class Child {
 public:
  // Starts argv (argv[0] a path, or a name looked up in PATH) with the
  // driver's environment changed by env: "KEY=VALUE" sets, "KEY" removes.
  // The child dies with the driver, even when the driver is SIGKILLed.
  // Throws std::runtime_error when it cannot be started.
  Child(std::string name, const std::vector<std::string>& argv,
        const std::vector<std::string>& env = {});
  // Kills the process group and reaps it.
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Queues a command line; Pump() writes it as the child reads.
  void Send(const std::string& line);
  // Sends `quit`; a clean exit after this is expected.
  void Quit();
  // SIGKILL to the process group; this death is expected.
  void Kill();

  // The peak resident set (VmHWM) of the running process in KiB, also kept
  // as the largest seen (with the current one, VmRSS); 0 once it is gone.
  long SamplePeakKiB();
  long PeakKiB() const { return peakKiB_; }
  // The resident set (VmRSS) at the last sample.
  long RssKiB() const { return rssKiB_; }

  bool Running() const { return pid_ > 0; }
  // Once exited: empty when the exit was one the driver asked for (SIGKILL
  // after Kill(), status 0 after Quit()), otherwise what happened.
  const std::string& Fault() const { return fault_; }
  // The last bytes the child wrote to stderr.
  std::string ErrorTail(size_t bytes = 2000) const;
  const std::string& Name() const { return name_; }
  pid_t Pid() const { return pid_; }

  // Called for each JSON object line; other lines are counted as faults.
  std::function<void(const json&)> onLine;
  // Called once the process has been reaped.
  std::function<void()> onExit;

 private:
  friend void Pump(const std::vector<Child*>&, Clock::time_point);
  void ReadOutput();
  void WriteInput();
  bool Reap();
  void Finish(int status);

  std::string name_;
  pid_t pid_ = -1;
  int stdin_ = -1, stdout_ = -1, stderr_ = -1;
  std::string pendingInput_, partialLine_;
  bool outputClosed_ = false, expectKill_ = false, expectQuit_ = false;
  long peakKiB_ = 0, rssKiB_ = 0;
  std::string fault_;
};

// Waits for output of the children until the deadline or until one event
// (lines read, an exit) was handled; writes queued input and reaps.
// Throws Interrupted on a signal.
void Pump(const std::vector<Child*>& children, Clock::time_point deadline);

// Runs a short command to its end, quietly; its exit status and output.
struct RunResult {
  int status = -1;
  std::string output;
};
RunResult Run(const std::vector<std::string>& argv);

}  // namespace soak
