#include "ring.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "child.h"

namespace soak {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr auto kStartDeadline = seconds(120);
constexpr auto kQuitDeadline = seconds(60);
constexpr auto kRssSampleEvery = milliseconds(500);
constexpr auto kProgressEvery = seconds(10);
constexpr auto kRelistenAfter = milliseconds(200);
constexpr int kRelistenTries = 50;
const std::string kBodyPrefix = "soak-";

// A loopback port free now, below the kernel's ephemeral range so that no
// outgoing connection takes it while its node is down.
int ProbePort(std::mt19937& rng, std::set<int>& used) {
  int ephemeralLow = 32768;
  std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> ephemeralLow;
  std::uniform_int_distribution<int> pick(std::max(1024, ephemeralLow - 12000), ephemeralLow - 1);
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const int port = pick(rng);
    if (used.contains(port)) continue;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool free = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    if (free) {
      used.insert(port);
      return port;
    }
  }
  throw std::runtime_error("no free loopback port found");
}

double Seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

struct Slot {
  std::string name;
  int port = 0;
  std::unique_ptr<Child> child;
  std::string id;
  bool ready = false;
  long peakKiB = 0;   // over every process this slot ran
  bool down = false;  // killed or crashed, to be started again at restartAt
  Clock::time_point restartAt;
  int relistens = 0;
};

struct Crash {
  std::string name, what, stderrTail;
};

class Ring {
 public:
  explicit Ring(const RingOptions& options)
      : o_(options), rng_(options.seed), slots_(static_cast<size_t>(options.nodes)) {
    sender_ = 0;
    receiver_ = options.nodes / 2;
  }

  int Run() {
    std::printf(
        "soak: %d nodes, %.0f s at %d messages/s, a kill every %d ms (down %d ms), "
        "confirmTimeout=%d confirmRetry=%d, seed %u\n",
        o_.nodes, o_.seconds, o_.rate, o_.killEveryMs, o_.downMs, o_.confirmTimeoutMs,
        o_.confirmRetry, o_.seed);
    std::fflush(stdout);
    if (!StartRing()) return Report(false);
    Send();
    const bool drained = Drain();
    QuitAll();
    return Report(drained);
  }

 private:
  Slot& S() { return slots_[static_cast<size_t>(sender_)]; }
  Slot& R() { return slots_[static_cast<size_t>(receiver_)]; }

  void Start(size_t k) {
    Slot& s = slots_[k];
    const std::vector<std::string> argv = {o_.qel,
                                           "node",
                                           "--json",
                                           "--name",
                                           s.name,
                                           "--port",
                                           std::to_string(s.port),
                                           "--listen-address",
                                           "127.0.0.1",
                                           "--set",
                                           "confirmMode=True",
                                           "--set",
                                           "confirmTimeout=" + std::to_string(o_.confirmTimeoutMs),
                                           "--set",
                                           "confirmRetry=" + std::to_string(o_.confirmRetry)};
    s.child = std::make_unique<Child>(s.name, argv,
                                      std::vector<std::string>{"QEL_LOCAL_ADDRESS=127.0.0.1"});
    s.ready = false;
    s.down = false;
    s.child->onLine = [this, k](const json& line) { OnLine(k, line); };
  }

  void OnLine(size_t k, const json& line) {
    Slot& s = slots_[k];
    const std::string event = line.value("event", "");
    const std::string command = line.value("command", "");
    if (event == "Ready") {
      s.id = line.value("ID", "");
      s.ready = true;
      s.relistens = 0;
      // Its successor and the node three further round, both kept up.
      for (size_t step : {size_t{1}, size_t{3}}) {
        const Slot& peer = slots_[(k + step) % slots_.size()];
        s.child->Send("connect 127.0.0.1:" + std::to_string(peer.port) + " maintain");
      }
    } else if (command == "connect") {
      ++connectResults_;
    }
    if (&s == &S()) {
      if (command == "send") {
        ++sendResults_;
        if (!line.value("ok", false)) ++refused_;
      } else if (command == "ping") {
        pingOk_ = line.value("ok", false);
        pingAnswered_ = true;
      } else if (event == "Error") {
        const std::string text = line.value("strMessage", "");
        if (text.find("could not be delivered") != std::string::npos) {
          ++undeliverable_;
        } else if (text.find("confirmation queue is full") != std::string::npos) {
          ++queueFull_;
        }
      }
    }
    if (&s == &R() && event == "MessageReceived") {
      const std::string body = line.value("strMessage", "");
      size_t n = SIZE_MAX;
      if (body.starts_with(kBodyPrefix))
        std::from_chars(body.data() + kBodyPrefix.size(), body.data() + body.size(), n);
      if (n >= copies_.size()) {
        ++foreign_;
        return;
      }
      if (copies_[n]++ == 0) ++delivered_;
      lastDelivery_ = Clock::now();
    }
  }

  std::vector<Child*> Running() {
    std::vector<Child*> running;
    for (Slot& s : slots_)
      if (s.child) running.push_back(s.child.get());
    return running;
  }

  // Waits for output until the deadline, then deals with the processes that
  // exited and restarts those whose time has come. False when the run
  // cannot go on.
  bool Step(Clock::time_point deadline, bool startingUp = false) {
    Pump(Running(), deadline);
    for (size_t k = 0; k < slots_.size(); ++k) {
      Slot& s = slots_[k];
      if (s.child && !s.child->Running()) {
        s.peakKiB = std::max(s.peakKiB, s.child->PeakKiB());
        const std::string fault = s.child->Fault();
        const bool cannotListen =
            !s.ready && s.child->ErrorTail().find("cannot listen") != std::string::npos;
        std::string tail = s.child->ErrorTail();
        s.child.reset();
        s.ready = false;
        if (fault.empty()) {
          if (quitting_) continue;
          s.down = true;  // our kill; restartAt was set then
        } else if (cannotListen && !quitting_) {
          // Someone took the port while the node was down (or before it
          // started): at startup take another, later wait for it to free.
          if (startingUp) s.port = ProbePort(rng_, ports_);
          if (++s.relistens > kRelistenTries) {
            std::fprintf(stderr, "soak: %s cannot listen on port %d:\n%s\n", s.name.c_str(), s.port,
                         tail.c_str());
            return false;
          }
          ++relistens_;
          s.down = true;
          s.restartAt = Clock::now() + kRelistenAfter;
        } else {
          crashes_.push_back({s.name, fault, tail});
          std::fprintf(stderr, "soak: %s crashed: %s\n%s\n", s.name.c_str(), fault.c_str(),
                       tail.c_str());
          if (quitting_) continue;
          if (k == static_cast<size_t>(sender_) || k == static_cast<size_t>(receiver_))
            return false;
          s.down = true;
          s.restartAt = Clock::now() + milliseconds(o_.downMs);
        }
      }
      if (s.down && !quitting_ && Clock::now() >= s.restartAt) {
        if (!startingUp) ++restarts_;
        Start(k);
      }
    }
    return true;
  }

  Clock::time_point NextRestart() const {
    Clock::time_point next = Clock::time_point::max();
    for (const Slot& s : slots_)
      if (s.down) next = std::min(next, s.restartAt);
    return next;
  }

  bool AllReady() const {
    return std::all_of(slots_.begin(), slots_.end(), [](const Slot& s) { return s.ready; });
  }

  // Waits, stepping, until done() or the deadline; false when it did not
  // come or the run broke. A done() that turns true by the clock alone names
  // that time in wake.
  template <typename Done>
  bool StepUntil(Done done, Clock::time_point deadline, bool startingUp = false,
                 const Clock::time_point* wake = nullptr) {
    while (!done()) {
      if (Clock::now() >= deadline) return false;
      auto until = std::min(deadline, NextRestart());
      if (wake) until = std::min(until, *wake);
      if (!Step(until, startingUp)) return false;
    }
    return true;
  }

  bool StartRing() {
    for (size_t k = 0; k < slots_.size(); ++k) {
      slots_[k].name = "n" + std::to_string(k);
      slots_[k].port = ProbePort(rng_, ports_);
      Start(k);
    }
    const auto deadline = Clock::now() + kStartDeadline;
    if (!StepUntil([&] { return AllReady(); }, deadline, true)) {
      std::fprintf(stderr, "soak: the nodes did not all start\n");
      return false;
    }
    const int links = 2 * o_.nodes;
    if (!StepUntil([&] { return connectResults_ >= links; }, deadline)) {
      std::fprintf(stderr, "soak: the links were not all dialled\n");
      return false;
    }
    // The sender finds the receiver through the ring before the clock starts.
    while (!pingOk_) {
      pingAnswered_ = false;
      S().child->Send("ping " + R().id + " 5000");
      if (!StepUntil([&] { return pingAnswered_; }, deadline)) {
        std::fprintf(stderr, "soak: %s never reached %s\n", S().name.c_str(), R().name.c_str());
        return false;
      }
    }
    return true;
  }

  void SampleRss() {
    for (Slot& s : slots_) {
      if (s.child) s.child->SamplePeakKiB();
    }
  }

  void KillOne() {
    std::vector<size_t> candidates;
    for (size_t k = 0; k < slots_.size(); ++k) {
      const Slot& s = slots_[k];
      if (k != static_cast<size_t>(sender_) && k != static_cast<size_t>(receiver_) && s.ready)
        candidates.push_back(k);
    }
    if (candidates.empty()) return;
    Slot& victim =
        slots_[candidates[std::uniform_int_distribution<size_t>(0, candidates.size() - 1)(rng_)]];
    victim.child->SamplePeakKiB();
    victim.child->Kill();
    victim.restartAt = Clock::now() + milliseconds(o_.downMs);
    ++kills_;
  }

  void Send() {
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(o_.seconds));
    const auto interval =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / o_.rate));
    auto nextSend = start, nextKill = start + milliseconds(o_.killEveryMs);
    auto nextSample = start, nextProgress = start + kProgressEvery;
    while (Clock::now() < end) {
      const auto now = Clock::now();
      // A driver held up does not make up for it with a burst.
      if (now - nextSend > seconds(1)) nextSend = now;
      for (; nextSend <= now && nextSend < end; nextSend += interval) {
        S().child->Send("send " + R().id + " " + kBodyPrefix + std::to_string(copies_.size()));
        copies_.push_back(0);
      }
      if (now >= nextKill) {
        KillOne();
        nextKill += milliseconds(o_.killEveryMs);
      }
      if (now >= nextSample) {
        SampleRss();
        nextSample += kRssSampleEvery;
      }
      if (now >= nextProgress) {
        std::printf("  %3.0f s: sent %zu, delivered %zu, kills %d\n", Seconds(now - start),
                    copies_.size(), delivered_, kills_);
        std::fflush(stdout);
        nextProgress += kProgressEvery;
      }
      if (!Step(std::min({nextSend, nextKill, nextSample, nextProgress, end, NextRestart()}))) {
        broken_ = true;
        return;
      }
    }
    sendSeconds_ = Seconds(Clock::now() - start);
  }

  // Every message arrived or was given up by the sender, every node is back;
  // then R stays silent for as long as the sender could still resend the last
  // message, so that a late copy is counted.
  bool Drain() {
    if (broken_) return false;
    const auto start = Clock::now();
    const auto deadline = start + seconds(o_.drainSeconds);
    const bool settled = StepUntil(
        [&] {
          return sendResults_ == copies_.size() &&
                 delivered_ + undeliverable_ + queueFull_ + refused_ >= copies_.size() &&
                 AllReady();
        },
        deadline);
    const auto window = milliseconds(int64_t{o_.confirmRetry + 1} * o_.confirmTimeoutMs);
    lastDelivery_ = std::max(lastDelivery_, Clock::now());
    Clock::time_point quietAt;
    const bool quiet = settled && StepUntil(
                                      [&] {
                                        quietAt = lastDelivery_ + window;
                                        return Clock::now() >= quietAt;
                                      },
                                      deadline, false, &quietAt);
    drainSeconds_ = Seconds(Clock::now() - start);
    return quiet;
  }

  void QuitAll() {
    SampleRss();
    for (Slot& s : slots_) {
      if (s.child) s.child->Quit();
    }
    quitting_ = true;
    const bool exited = StepUntil([&] { return Running().empty(); }, Clock::now() + kQuitDeadline);
    if (exited) return;
    for (Slot& s : slots_) {
      if (!s.child) continue;
      crashes_.push_back(
          {s.name, "still running " + std::to_string(kQuitDeadline.count()) + " s after quit",
           s.child->ErrorTail()});
      s.peakKiB = std::max(s.peakKiB, s.child->PeakKiB());
      s.child.reset();
    }
  }

  int Report(bool drained) {
    size_t duplicated = 0, extra = 0;
    for (uint32_t n : copies_) {
      if (n > 1) {
        ++duplicated;
        extra += n - 1;
      }
    }
    const Slot* biggest = &slots_.front();
    for (const Slot& s : slots_) {
      if (s.peakKiB > biggest->peakKiB) biggest = &s;
    }
    const size_t sent = copies_.size();
    const double percent = sent ? 100.0 * static_cast<double>(delivered_) / sent : 0;
    std::printf("sent            %zu in %.1f s (%.0f/s)\n", sent, sendSeconds_,
                sendSeconds_ > 0 ? sent / sendSeconds_ : 0.0);
    std::printf("delivered       %zu (%.2f %%)\n", delivered_, percent);
    std::printf("duplicates      %zu (%zu extra copies)\n", duplicated, extra);
    std::printf("lost            %zu\n", sent - delivered_);
    std::printf("undeliverable   %zu (sender's \"could not be delivered\" errors)\n",
                undeliverable_);
    if (queueFull_ || refused_ || foreign_ || relistens_) {
      std::printf(
          "other           %zu queue-full drops, %zu sends refused, %zu foreign bodies, "
          "%d port waits\n",
          queueFull_, refused_, foreign_, relistens_);
    }
    std::printf("kills           %d (restarts %d)\n", kills_, restarts_);
    std::printf("crashes         %zu\n", crashes_.size());
    for (const Crash& c : crashes_) std::printf("  %s: %s\n", c.name.c_str(), c.what.c_str());
    std::printf("peak RSS        %.1f MiB (%s)%s\n", biggest->peakKiB / 1024.0,
                biggest->name.c_str(),
                o_.maxRssMiB > 0 ? (", bound " + std::to_string(o_.maxRssMiB) + " MiB").c_str()
                                 : ", not bounded");
    std::printf("drain           %.1f s%s\n", drainSeconds_, drained ? "" : " (deadline passed)");

    std::vector<std::string> failures;
    if (broken_ || sent == 0) failures.push_back("the run broke off");
    if (delivered_ < sent) failures.push_back("messages lost");
    if (duplicated > 0) failures.push_back("duplicates");
    if (!crashes_.empty()) failures.push_back("crashes");
    if (o_.maxRssMiB > 0 && biggest->peakKiB > o_.maxRssMiB * 1024)
      failures.push_back("memory above the bound");
    std::string verdict = "PASS";
    for (size_t i = 0; i < failures.size(); ++i)
      verdict = (i ? verdict + ", " : "FAIL: ") + failures[i];
    std::printf("%s\n", verdict.c_str());
    return failures.empty() ? 0 : 1;
  }

  const RingOptions& o_;
  std::mt19937 rng_;
  std::vector<Slot> slots_;
  std::set<int> ports_;
  int sender_ = 0, receiver_ = 0;

  std::vector<uint32_t> copies_;  // by message number: how often R raised it
  size_t delivered_ = 0, sendResults_ = 0, refused_ = 0, undeliverable_ = 0, queueFull_ = 0,
         foreign_ = 0;
  int connectResults_ = 0;
  bool pingOk_ = false, pingAnswered_ = false;
  Clock::time_point lastDelivery_;
  int kills_ = 0, restarts_ = 0, relistens_ = 0;
  std::vector<Crash> crashes_;
  bool quitting_ = false, broken_ = false;
  double sendSeconds_ = 0, drainSeconds_ = 0;
};

}  // namespace

int RunRing(const RingOptions& options) {
  return Ring(options).Run();
}

}  // namespace soak
