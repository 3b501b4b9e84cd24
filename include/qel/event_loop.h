// The event loop that carries all of QEL's network and timer events.
#pragma once

#include <cstdint>
#include <functional>

#include <qel/export.h>

namespace qel {

// One loop serves every node object of the process, on the host's thread:
// the thread that calls these functions and the node objects' methods.
// Events are raised from inside these calls (and from inside the node
// methods that wait for an answer).

// Runs every network and timer event that is ready; when none is ready,
// waits up to lngWaitMs milliseconds for one and runs it (and whatever else
// is then ready).
QEL_API void DoEvents(int32_t lngWaitMs = 0);

// Runs events until StopEventLoop() is called (from a handler, or through
// Post from another thread).
QEL_API void RunEventLoop();

// Makes RunEventLoop() return after the event that is running.
QEL_API void StopEventLoop();

// Runs fn on the loop's thread, inside a later DoEvents or RunEventLoop. The
// only function here that may be called from any thread.
QEL_API void Post(std::function<void()> fn);

}  // namespace qel
