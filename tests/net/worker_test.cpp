#include "net/worker.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "net/event_loop.h"

namespace qel {
namespace {

constexpr int64_t kDeadlineMs = 10000;

// Notes the thread it is destroyed on.
struct Witness {
  std::thread::id* diedOn;
  ~Witness() { *diedOn = std::this_thread::get_id(); }
};

// Work runs beside the loop, and everything that touches the caller's state
// (the result and what the work captured) runs on the loop's thread, in the
// order the jobs were given; a job that throws yields nothing and stops no
// other.
TEST(WorkerTest, WorkRunsBesideTheLoopAndItsResultsOnTheLoopInOrder) {
  const std::thread::id loop = std::this_thread::get_id();
  std::vector<std::thread::id> workedOn;  // written by the jobs, in turn
  std::vector<int> results;
  std::thread::id resultOn, capturesDiedOn;
  RunOffLoop([&workedOn, &results]() -> std::function<void()> {
    workedOn.push_back(std::this_thread::get_id());
    return [&results] { results.push_back(1); };
  });
  RunOffLoop([]() -> std::function<void()> { throw std::runtime_error("lost"); });
  RunOffLoop([]() -> std::function<void()> { return nullptr; });
  RunOffLoop([witness = std::make_shared<Witness>(&capturesDiedOn), &workedOn, &results,
              &resultOn]() -> std::function<void()> {
    workedOn.push_back(std::this_thread::get_id());
    return [&results, &resultOn] {
      results.push_back(2);
      resultOn = std::this_thread::get_id();
    };
  });
  EXPECT_EQ(capturesDiedOn, std::thread::id());
  ASSERT_TRUE(RunUntil([&] { return results.size() == 2; }, kDeadlineMs));
  EXPECT_EQ(results, (std::vector<int>{1, 2}));
  ASSERT_EQ(workedOn.size(), 2u);
  EXPECT_NE(workedOn[0], loop);
  EXPECT_EQ(workedOn[1], workedOn[0]) << "one worker thread, jobs in turn";
  EXPECT_EQ(resultOn, loop);
  ASSERT_TRUE(RunUntil([&] { return capturesDiedOn != std::thread::id(); }, kDeadlineMs));
  EXPECT_EQ(capturesDiedOn, loop) << "what work captured is released on the loop";
}

}  // namespace
}  // namespace qel
