// AdminServer: a node's state over HTTP for operators and their tools.
// Opt-in: the qel_admin library, not part of every node (nor of <qel/qel.h>).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <qel/export.h>
#include <qel/node.h>

namespace qel {

struct AdminOptions {
  // Any address but a loopback one (127.*, ::1, localhost) needs a token.
  std::string address = "127.0.0.1";
  int32_t port = 0;  // 0: any free port
  // When set, every request must carry "Authorization: Bearer <token>".
  std::string token;
};

// Serves, on threads of its own:
//   /metrics      Prometheus text format 0.0.4
//   /api/status   the node's snapshot as JSON
//   /api/events   Server-Sent Events: each event as the console's --json prints it
//   /             a live page of the overlay as the node knows it
// The node is only read on the loop's thread: a request hands its work to the
// loop with Post and answers 503 when the loop does not run it within 2 s.
// Bound to loopback, a request naming another host in its Host header is
// refused (403), so a web page cannot reach the server by rebinding a name.
//
// Create, start, stop and destroy it on the loop's thread. The node object
// must outlive the server; shutting the node down first is fine.
class QEL_API AdminServer {
 public:
  AdminServer(cQEL& node, AdminOptions options);
  ~AdminServer();  // stops
  AdminServer(const AdminServer&) = delete;
  AdminServer& operator=(const AdminServer&) = delete;

  // Starts serving and returns the URL, "http://address:port". Throws
  // QelError when the address cannot be bound, or is not loopback and no
  // token is given.
  std::string Start();
  // Stops serving: open event streams end, the node is no longer observed.
  void Stop();

 private:
  struct State;
  cQEL& node_;
  AdminOptions options_;
  std::shared_ptr<State> state_;
};

}  // namespace qel
