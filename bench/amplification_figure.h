// Five nodes of one process joined in a ring, and a raw TCP peer on one of
// them: what the peer gets back for bursts of questions, and how a flood of
// broadcasts crosses the ring, with a given dupWindow.
#pragma once

#include <cstdint>

namespace qelbench {

// Prints, for bursts of WHOIS, SEARCH and SYNCUSERS from the raw peer, the
// bytes it got back per byte it sent, the answers per question and the
// copies of its own questions that came back; then how long `broadcasts`
// broadcasts from one node took to reach the others and how many times each
// node raised MessageReceived for them. Runs in child processes of its own.
void AmplificationFigure(int32_t dupWindow, int64_t broadcasts);

}  // namespace qelbench
