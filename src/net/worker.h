// Work beside the loop: what would hold the loop for long (hashing a large
// file) runs on a worker thread, and what it yields comes back to the loop.
#pragma once

#include <functional>

namespace qel {

// Runs work on a worker thread beside the loop; the function work returns
// then runs on the loop thread. While work is pending the loop is kept from
// running out of work. Thread-safe to call from the loop thread only.
//
// Jobs run one at a time, in the order given, on one thread started by the
// first call. work must not touch node state or anything else the loop
// owns: it gets its input by value and hands its result over in the
// function it returns, which may be empty (nothing to do) and must not
// throw, as anything run by the loop. An exception work lets out is
// dropped and nothing runs on the loop, so work catches and carries its own
// faults. work itself is destroyed on the loop thread, after its result
// has run. At process exit the job running is finished and those waiting
// are dropped; their results never run.
void RunOffLoop(std::function<std::function<void()>()> work);

// Blocks until every job handed to RunOffLoop so far has run and posted its
// result to the loop, which runs those results on its next turn. For
// harnesses that need each round to end in the same state (fuzz targets);
// a node never waits on its worker. Call from the loop thread only.
void FinishOffLoopWork();

}  // namespace qel
