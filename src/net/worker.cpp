#include "net/worker.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "net/asio_context.h"
#include "net/event_loop.h"

namespace qel {
namespace {

// The loop holds work of its own for the life of the process, so a job
// waiting here never lets it run dry.
using Work = std::function<std::function<void()>()>;

class Worker {
 public:
  // Joined at exit, before the statics made earlier (OpenSSL's cleanup
  // among them: a node draws random identifiers before it can hash) go.
  ~Worker() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
  }

  void Add(Work job) {
    std::lock_guard lock(mutex_);
    if (!thread_.joinable()) thread_ = std::thread([this] { Run(); });
    jobs_.push_back(std::move(job));
    wake_.notify_one();
  }

  void Finish() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return jobs_.empty() && !busy_; });
  }

 private:
  void Run() {
    for (;;) {
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
      if (stopping_) return;
      Work work = std::move(jobs_.front());
      jobs_.pop_front();
      busy_ = true;
      lock.unlock();

      std::function<void()> then;
      try {
        then = work();
      } catch (...) {
        then = nullptr;
      }
      // The work goes back with its result, so whatever it captured is
      // released on the loop thread too.
      asio::post(IoContext(), [work = std::move(work), then = std::move(then)]() mutable {
        if (then) then();
        work = nullptr;
      });
      WakeWatchedLoop();
      lock.lock();
      busy_ = false;
      if (jobs_.empty()) idle_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;  // the queue ran dry: for Finish
  std::deque<Work> jobs_;
  bool busy_ = false;  // a job taken from jobs_ has not posted its result yet
  bool stopping_ = false;
  std::thread thread_;  // last: started once the members above exist
};

Worker& TheWorker() {
  static Worker worker;
  return worker;
}

}  // namespace

void FinishOffLoopWork() {
  TheWorker().Finish();
}

void RunOffLoop(std::function<std::function<void()>()> work) {
  TheWorker().Add(std::move(work));
}

}  // namespace qel
