#include <qel/admin.h>

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <future>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>

#include <qel/error.h>
#include <qel/event_loop.h>
#include <qel/snapshot.h>

#include "admin/event_json.h"
#include "admin/event_ring.h"
#include "admin/metrics.h"
#include "admin/snapshot_json.h"

namespace qel {
namespace admin {
std::string_view AdminPage();  // generated from page/index.html
}  // namespace admin

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kLoopWait = std::chrono::seconds(2);
constexpr auto kHeartbeat = std::chrono::seconds(15);
constexpr int kMaxStreams = 8;
// Room for the streams and for requests beside them. Each connection holds a
// thread while it sends its request or idles between requests, so those waits
// are short: a client that trickles its request in, or many idle ones, delay
// the others by about that much.
constexpr size_t kThreads = kMaxStreams + 8;
constexpr time_t kRequestSeconds = 2;

bool IsLoopback(const std::string& address) {
  return address.starts_with("127.") || address == "::1" || address == "localhost";
}

// Takes as long for any wrong token of the right length.
bool SameToken(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  return diff == 0;
}

std::string HostPart(const std::string& address) {
  return address.find(':') != std::string::npos ? "[" + address + "]" : address;
}

void Refuse(httplib::Response& res, int status, const char* text) {
  res.status = status;
  res.set_content(std::string(text) + "\n", "text/plain; charset=utf-8");
}

}  // namespace

struct AdminServer::State {
  State(cQEL& n, AdminOptions o) : node(&n), options(std::move(o)) {}

  cQEL* node;  // read on the loop's thread only
  const AdminOptions options;
  int port = 0;
  admin::EventRing ring{1024, 16 << 20};
  std::atomic<bool> stopping = false;
  std::atomic<int> streams = 0;
  httplib::Server server;
  std::thread thread;
  std::mutex mutex;
  std::condition_variable listenEnded;
  bool ended = false;
  // On the loop's thread only.
  std::optional<int32_t> observer;
  int64_t unwatchedFrom = 0;  // the node's event count when watching stopped

  // The node is watched only while a stream is open: an unwatched node pays
  // nothing per event. What it raised meanwhile is counted as skipped, so a
  // stream that comes back hears how many it missed. Runs on the loop's thread
  // after each stream opens or closes, and acts on the count it finds then.
  // Whether the node is watched now.
  bool Watch() {
    if (streams > 0 && !observer) {
      ring.Skip(node->Snapshot().eventsRaised - unwatchedFrom);
      // Every event, once the host's handler has run, as the console prints it.
      observer = node->AddEventObserver(
          [this](const typEvent& event) { ring.Push(admin::EventLine(event)); });
    } else if (streams == 0 && observer) {
      node->RemoveEventObserver(*observer);
      observer.reset();
      unwatchedFrom = node->Snapshot().eventsRaised;
    }
    return observer.has_value();
  }

  // Runs work on the loop's thread and waits for its result. Empty when the
  // loop did not run it in time, the server stops, or the node is shut down.
  template <typename T>
  std::optional<T> OnLoop(std::function<T(cQEL&)> work, const std::shared_ptr<State>& self) {
    auto promise = std::make_shared<std::promise<std::optional<T>>>();
    auto result = promise->get_future();
    Post([weak = std::weak_ptr<State>(self), promise, work = std::move(work)] {
      std::optional<T> value;
      // A server gone or stopping no longer holds its node.
      if (auto state = weak.lock(); state && !state->stopping) {
        try {
          value = work(*state->node);
        } catch (const QelError&) {  // shut down
        }
      }
      promise->set_value(std::move(value));
    });
    const auto deadline = Clock::now() + kLoopWait;
    // In slices: a server that stops must not wait out the whole span.
    while (result.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
      if (stopping || Clock::now() >= deadline) return std::nullopt;
    }
    return result.get();
  }

  bool AllowedHost(const httplib::Request& req) const {
    if (!IsLoopback(options.address) || !req.has_header("Host")) return true;
    const std::string host = req.get_header_value("Host");
    const std::string portSuffix = ":" + std::to_string(port);
    for (std::string name : {std::string("127.0.0.1"), std::string("localhost"),
                             std::string("[::1]"), HostPart(options.address)}) {
      if (host == name || host == name + portSuffix) return true;
    }
    return false;
  }
};

AdminServer::AdminServer(cQEL& node, AdminOptions options)
    : node_(node), options_(std::move(options)) {}

AdminServer::~AdminServer() {
  Stop();
}

std::string AdminServer::Start() {
  if (state_) throw QelError(0, "AdminServer::Start", "the server runs already");
  if (!IsLoopback(options_.address) && options_.token.empty()) {
    throw QelError(0, "AdminServer::Start",
                   "serving on " + options_.address + " needs a token: only loopback is served without one");
  }
  auto state = std::make_shared<State>(node_, options_);
  State& s = *state;
  s.server.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
  const std::weak_ptr<State> weak = state;

  s.server.set_pre_routing_handler([&s](const httplib::Request& req, httplib::Response& res) {
    if (!s.options.token.empty()) {
      const std::string given = req.get_header_value("Authorization");
      if (!given.starts_with("Bearer ") || !SameToken(given.substr(7), s.options.token)) {
        res.set_header("WWW-Authenticate", "Bearer");
        Refuse(res, 401, "a token is needed: Authorization: Bearer <token>");
        return httplib::Server::HandlerResponse::Handled;
      }
    }
    if (!s.AllowedHost(req)) {
      Refuse(res, 403, "this server answers only to its own address");
      return httplib::Server::HandlerResponse::Handled;
    }
    return httplib::Server::HandlerResponse::Unhandled;
  });

  s.server.Get("/metrics", [&s, weak](const httplib::Request&, httplib::Response& res) {
    auto snapshot = s.OnLoop<NodeSnapshot>([](cQEL& n) { return n.Snapshot(); }, weak.lock());
    if (!snapshot) return Refuse(res, 503, "the node's loop is busy or the node is shut down");
    res.set_content(admin::Metrics(*snapshot), "text/plain; version=0.0.4; charset=utf-8");
  });

  s.server.Get("/api/status", [&s, weak](const httplib::Request&, httplib::Response& res) {
    auto snapshot = s.OnLoop<NodeSnapshot>([](cQEL& n) { return n.Snapshot(); }, weak.lock());
    if (!snapshot) return Refuse(res, 503, "the node's loop is busy or the node is shut down");
    std::ostringstream text;
    std::string buffer;
    admin::WriteJsonLine(text, admin::SnapshotJson(*snapshot), buffer);
    res.set_content(text.str(), "application/json");
  });

  s.server.Get("/api/events", [&s, weak](const httplib::Request& req, httplib::Response& res) {
    if (++s.streams > kMaxStreams) {
      --s.streams;
      return Refuse(res, 503, "too many event streams");
    }
    // Watching starts before the answer does, so the stream carries every
    // event raised after its client saw it open.
    const auto watch = [weak] {
      try {
        if (auto state = weak.lock(); state && !state->stopping) state->Watch();
      } catch (const QelError&) {  // shut down: nothing to watch
      }
    };
    if (!s.OnLoop<bool>([&s](cQEL&) { return s.Watch(); }, weak.lock()).value_or(false)) {
      --s.streams;
      Post(watch);
      return Refuse(res, 503, "the node's loop is busy or the node is shut down");
    }
    // A client that comes back after a drop goes on where it was, as far as
    // the ring still reaches.
    uint64_t cursor = s.ring.Last();
    if (req.has_header("Last-Event-ID")) {
      try {
        cursor = std::min<uint64_t>(std::stoull(req.get_header_value("Last-Event-ID")), cursor);
      } catch (const std::exception&) {
      }
    }
    res.set_header("Cache-Control", "no-store");
    res.set_chunked_content_provider(
        "text/event-stream",
        [&s, cursor, first = true](size_t, httplib::DataSink& sink) mutable {
          std::string out;
          if (first) {
            out = "retry: 2000\n\n";
            first = false;
          } else {
            admin::EventRing::Batch batch = s.ring.After(cursor, Clock::now() + kHeartbeat);
            if (batch.closed || s.stopping) {
              sink.done();
              return true;
            }
            if (batch.missed > 0) {
              out += "event: dropped\ndata: {\"missed\":" + std::to_string(batch.missed) + "}\n\n";
            }
            for (auto& [number, line] : batch.events) {
              // A JSON line holds no raw newline: one data line each.
              if (!line.empty() && line.back() == '\n') line.pop_back();
              out += "id: " + std::to_string(number) + "\ndata: " + line + "\n\n";
            }
            if (out.empty()) out = ":\n\n";  // keeps proxies and the client from timing out
          }
          return sink.write(out.data(), out.size());
        },
        [&s, watch](bool) {
          --s.streams;
          Post(watch);
        });
  });

  s.server.Get("/", [](const httplib::Request&, httplib::Response& res) {
    const std::string_view page = admin::AdminPage();
    res.set_header("Cache-Control", "no-store");
    res.set_content(page.data(), page.size(), "text/html; charset=utf-8");
  });

  s.server.set_default_headers({{"X-Content-Type-Options", "nosniff"}});
  // Headers and body go out in separate writes: without this a small answer
  // waits for the client's delayed acknowledgement.
  s.server.set_tcp_nodelay(true);
  s.server.set_read_timeout(kRequestSeconds, 0);
  s.server.set_keep_alive_timeout(kRequestSeconds);

  if (options_.port == 0) {
    s.port = s.server.bind_to_any_port(options_.address);
  } else {
    s.port = s.server.bind_to_port(options_.address, options_.port) ? options_.port : -1;
  }
  if (s.port <= 0) {
    throw QelError(0, "AdminServer::Start",
                   "cannot serve HTTP on " + options_.address + ":" + std::to_string(options_.port));
  }
  s.unwatchedFrom = node_.Snapshot().eventsRaised;
  s.thread = std::thread([&s] {
    s.server.listen_after_bind();
    std::lock_guard lock(s.mutex);
    s.ended = true;
    s.listenEnded.notify_all();
  });
  state_ = std::move(state);
  return "http://" + HostPart(options_.address) + ":" + std::to_string(s.port);
}

void AdminServer::Stop() {
  if (!state_) return;
  State& s = *state_;
  s.stopping = true;
  s.ring.Close();  // ends the streams
  try {
    if (s.observer) node_.RemoveEventObserver(*s.observer);
  } catch (const QelError&) {  // the node was shut down first: nothing observes it
  }
  {
    // stop() does nothing before the thread has started listening: asked
    // again until the listening ends.
    std::unique_lock lock(s.mutex);
    while (!s.ended) {
      s.server.stop();
      s.listenEnded.wait_for(lock, std::chrono::milliseconds(20));
    }
  }
  s.thread.join();
  // Work posted and not run yet holds only a weak pointer: it finds no server.
  state_.reset();
}

}  // namespace qel
