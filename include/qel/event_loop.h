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
//
// The loop's thread is the first thread that creates a node object, runs
// the loop (DoEvents, RunEventLoop) or reads cQELStats figures; it stays
// the loop's thread for the life of the process. Every method of cQEL and
// cQELStats (but QELVersion and RefusalReasons), DoEvents and RunEventLoop
// called on another thread throw QelError -2147221500
// (errors::kWrongThread) before they touch anything; a node object destroyed
// on another thread is left open and says so on stderr. Other threads hand
// work to the loop with Post. cSettings, clsFileIO2, cMD5, Variant and the
// settings checks hold no loop state: any thread may use its own objects.

// Runs every network and timer event that is ready; when none is ready,
// waits up to lngWaitMs milliseconds for one and runs it (and whatever else
// is then ready).
QEL_API void DoEvents(int32_t lngWaitMs = 0);

// Runs events until StopEventLoop() is called (from a handler, or through
// Post from another thread).
QEL_API void RunEventLoop();

// Makes RunEventLoop() return after the event that is running. Only posts,
// so any thread may call it.
QEL_API void StopEventLoop();

// Before the loop blocks waiting for an event, it polls for up to this many
// microseconds (0, the default: it blocks at once). A reply that comes
// within the span is taken without waiting to be woken, which shortens
// round trips on an idle machine at the cost of a busy CPU; where the peer
// shares the CPU, it lengthens them. Clamped to 0..1000000.
QEL_API void SetBusyPoll(int32_t microseconds);

// Runs fn on the loop's thread, inside a later DoEvents or RunEventLoop. May
// be called from any thread.
QEL_API void Post(std::function<void()> fn);

// A file descriptor that is readable whenever the loop has an event ready
// (a socket, a timer, work posted from another thread), for a host whose own
// loop (Python's asyncio, a GUI's) watches descriptors: when it is readable,
// call DoEvents(0), which runs everything ready and returns at once. Owned
// by QEL: never close or read it. Once it is asked for, work handed to the
// loop from outside DoEvents (Post from another thread, the worker's results)
// also makes it readable; a host that calls a node method outside DoEvents
// calls WakeLoop afterwards, since such a call may leave work queued. Loop
// thread only (QelError kWrongThread otherwise).
QEL_API int LoopDescriptor();

// Makes LoopDescriptor() readable, so the host's loop calls DoEvents(0) soon.
// Any thread may call it.
QEL_API void WakeLoop();

}  // namespace qel
