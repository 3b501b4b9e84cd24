// Describing a caught fault the way the host reads it.
#pragma once

#include <string>

namespace qel {

// "Error <number>: <description>" for the exception being handled (call from
// inside a catch block): QelErrors keep their numbers, running out of memory
// is 7, anything else is reported with number 5 (an invalid call) and its
// text.
std::string DescribeCurrentFault();

// Tells where the host looks that its handler of event threw (call from
// inside a catch block): "QEL: the <event> handler threw (<fault>)" goes to
// the debug log when it is on, else to stderr. The host's fault must not
// unwind the loop, which would leave sockets and timers half handled.
void ReportHandlerThrew(const char* event);

// Runs a host's handler, stopping whatever it throws.
template <typename Handler, typename... Args>
void RunHandler(const char* event, const Handler& handler, Args&... args) {
  if (!handler) return;
  try {
    handler(args...);
  } catch (...) {
    ReportHandlerThrew(event);
  }
}

}  // namespace qel
