#include "child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

extern char** environ;

namespace soak {
namespace {

volatile sig_atomic_t interruptedBy = 0;

void OnStop(int signal) {
  interruptedBy = signal;
}
void OnChild(int) {}

// The driver's signals are blocked except inside ppoll, so none is missed
// between a check and the wait.
sigset_t Watched() {
  sigset_t set;
  sigemptyset(&set);
  for (int s : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&set, s);
  return set;
}

std::string DescribeStatus(int status) {
  if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) {
    const char* name = sigabbrev_np(WTERMSIG(status));
    return std::string("killed by SIG") + (name ? name : std::to_string(WTERMSIG(status)).c_str()) +
           (WCOREDUMP(status) ? " (core dumped)" : "");
  }
  return "status " + std::to_string(status);
}

// Forks and execs argv with stdin, stdout and stderr on the given
// descriptors; the child gets its own process group, the default signal
// state, and SIGKILL when the driver dies.
pid_t Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env, int in,
            int out, int err) {
  std::vector<std::string> environment;
  for (char** e = environ; *e; ++e) environment.emplace_back(*e);
  for (const std::string& change : env) {
    const std::string key = change.substr(0, change.find('='));
    std::erase_if(environment, [&](const std::string& e) { return e.starts_with(key + "="); });
    if (change.find('=') != std::string::npos) environment.push_back(change);
  }
  // Everything the child needs is built before the fork.
  std::vector<char*> args, envp;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  for (const auto& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
  args.push_back(nullptr);
  envp.push_back(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (pid == 0) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    execvpe(args[0], args.data(), envp.data());
    dprintf(2, "cannot run %s: %s\n", args[0], std::strerror(errno));
    _exit(127);
  }
  setpgid(pid, pid);  // also here, so a Kill() right away reaches the group
  return pid;
}

}  // namespace

void InstallSignalHandlers() {
  struct sigaction action {};
  action.sa_handler = OnStop;
  for (int s : {SIGINT, SIGTERM, SIGHUP}) sigaction(s, &action, nullptr);
  action.sa_handler = OnChild;
  sigaction(SIGCHLD, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);
  const sigset_t watched = Watched();
  sigprocmask(SIG_BLOCK, &watched, nullptr);
}

Child::Child(std::string name, const std::vector<std::string>& argv,
             const std::vector<std::string>& env)
    : name_(std::move(name)) {
  int in[2], out[2];
  stderr_ = memfd_create("soak-stderr", MFD_CLOEXEC);
  if (stderr_ < 0 || pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
    throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
  try {
    pid_ = Spawn(argv, env, in[0], out[1], stderr_);
  } catch (...) {
    for (int fd : {in[0], in[1], out[0], out[1]}) close(fd);
    close(stderr_);
    throw;
  }
  close(in[0]);
  close(out[1]);
  stdin_ = in[1];
  stdout_ = out[0];
  fcntl(stdin_, F_SETFL, O_NONBLOCK);
  fcntl(stdout_, F_SETFL, O_NONBLOCK);
}

Child::~Child() {
  if (pid_ > 0) {
    kill(-pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  for (int fd : {stdin_, stdout_, stderr_})
    if (fd >= 0) close(fd);
}

void Child::Send(const std::string& line) {
  if (pid_ <= 0) return;
  pendingInput_ += line + "\n";
  WriteInput();
}

void Child::Quit() {
  expectQuit_ = true;
  Send("quit");
}

void Child::Kill() {
  if (pid_ <= 0) return;
  expectKill_ = true;
  kill(-pid_, SIGKILL);
}

long Child::SamplePeakKiB() {
  if (pid_ <= 0) return 0;
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  long kib = 0;
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) kib = std::atol(line.c_str() + 6);
    if (line.starts_with("VmRSS:")) rssKiB_ = std::atol(line.c_str() + 6);
  }
  peakKiB_ = std::max(peakKiB_, kib);
  return kib;
}

std::string Child::ErrorTail(size_t bytes) const {
  const off_t size = lseek(stderr_, 0, SEEK_END);
  const off_t from = std::max<off_t>(0, size - static_cast<off_t>(bytes));
  std::string text(static_cast<size_t>(size - from), '\0');
  const ssize_t n = pread(stderr_, text.data(), text.size(), from);
  text.resize(static_cast<size_t>(std::max<ssize_t>(n, 0)));
  return text;
}

void Child::WriteInput() {
  while (!pendingInput_.empty() && stdin_ >= 0) {
    const ssize_t n = write(stdin_, pendingInput_.data(), pendingInput_.size());
    if (n > 0) {
      pendingInput_.erase(0, static_cast<size_t>(n));
    } else if (n < 0 && errno == EAGAIN) {
      return;
    } else if (n < 0 && errno != EINTR) {
      pendingInput_.clear();  // the child is gone; its exit says why
    }
  }
}

void Child::ReadOutput() {
  char buffer[65536];
  for (;;) {
    const ssize_t n = read(stdout_, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n == 0) outputClosed_ = true;
    if (n <= 0) break;
    partialLine_.append(buffer, static_cast<size_t>(n));
  }
  size_t start = 0;
  for (size_t eol; (eol = partialLine_.find('\n', start)) != std::string::npos; start = eol + 1) {
    json line =
        json::parse(partialLine_.begin() + static_cast<std::ptrdiff_t>(start),
                    partialLine_.begin() + static_cast<std::ptrdiff_t>(eol), nullptr, false);
    if (!line.is_object()) {
      fault_ += "not a JSON line: " + partialLine_.substr(start, eol - start) + "\n";
      continue;
    }
    if (onLine) onLine(line);
  }
  partialLine_.erase(0, start);
}

bool Child::Reap() {
  int status = 0;
  if (pid_ <= 0 || waitpid(pid_, &status, WNOHANG) != pid_) return false;
  ReadOutput();  // what it wrote before it died
  Finish(status);
  return true;
}

void Child::Finish(int status) {
  pid_ = -1;
  const bool asked = (expectKill_ && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) ||
                     (expectQuit_ && WIFEXITED(status) && WEXITSTATUS(status) == 0);
  if (!asked) fault_ += DescribeStatus(status);
  if (onExit) onExit();
}

void Pump(const std::vector<Child*>& children, Clock::time_point deadline) {
  std::vector<pollfd> fds;
  std::vector<Child*> owners;
  for (Child* c : children) {
    if (!c->outputClosed_ && c->pid_ > 0) {
      fds.push_back({c->stdout_, POLLIN, 0});
      owners.push_back(c);
    }
    if (!c->pendingInput_.empty() && c->pid_ > 0) {
      fds.push_back({c->stdin_, POLLOUT, 0});
      owners.push_back(c);
    }
  }
  const auto left = std::max(deadline - Clock::now(), Clock::duration::zero());
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
  const timespec timeout{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
  sigset_t none;
  sigemptyset(&none);
  const int ready = ppoll(fds.data(), fds.size(), &timeout, &none);
  if (interruptedBy != 0) throw Interrupted(interruptedBy);
  if (ready > 0) {
    for (size_t i = 0; i < fds.size(); ++i) {
      if (fds[i].revents == 0) continue;
      if (fds[i].events == POLLIN) {
        owners[i]->ReadOutput();
      } else {
        owners[i]->WriteInput();
      }
    }
  }
  // A process whose stdout closed is reaped as soon as it exits; the others
  // are looked at on every round, which SIGCHLD wakes.
  for (Child* c : children) c->Reap();
}

RunResult Run(const std::vector<std::string>& argv) {
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
  RunResult result;
  pid_t pid = -1;
  try {
    pid = Spawn(argv, {}, null, out[1], out[1]);
  } catch (...) {
    close(out[0]);
    close(out[1]);
    close(null);
    throw;
  }
  close(out[1]);
  close(null);
  char buffer[4096];
  for (ssize_t n; (n = read(out[0], buffer, sizeof buffer)) != 0;) {
    if (n > 0) result.output.append(buffer, static_cast<size_t>(n));
    if (n < 0 && errno != EINTR) break;
  }
  close(out[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace soak
