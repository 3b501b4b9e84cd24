// TCP sockets on the event loop: what the connection layer needs and no more.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <system_error>

#include "net/file_span.h"

namespace qel {

// The states the connection logic tests, numbered as other nodes' socket
// facility numbers them; anything above Closed counts as in use.
enum class SocketState : int32_t {
  Closed = 0,
  Listening = 2,
  Connecting = 6,
  Connected = 7,
  Error = 9
};

// One TCP connection. Handlers run on the loop; a handler may close or
// destroy the socket. Nothing is raised after Close(). Sockets read into a
// buffer they share, so an idle connection holds none.
class Socket {
 public:
  struct Handlers {
    std::function<void()> onConnected;                    // outgoing connect completed
    std::function<void(std::string_view)> onData;         // bytes arrived
    // The peer closed (ec is end of file) or the link broke.
    std::function<void(const std::error_code&)> onPeerClosed;
    std::function<void(const std::error_code&)> onError;  // a connect failed
    std::function<void(size_t)> onSent;                   // bytes handed to the kernel
    // Asked right before every read: room where the owner wants the next
    // bytes put instead of the shared buffer (empty: no such room). The read
    // writes only there, before any handler runs, and reports through
    // onDirect(n) with n > 0; the span is never kept for a later read.
    std::function<std::span<char>()> onReadRoom;
    std::function<void(size_t)> onDirect;
    // Runs when the socket's batch of writes is about to leave (see RequestFlush): what it
    // sends joins the batch. A transform seals what the handlers wrote here, once per batch.
    std::function<void()> onFlush;
    // A file being sent ended (or failed) before the bytes queued from it: the message it
    // was the body of cannot be completed, so nothing more is written and the peer sees
    // the stream end. Runs from the write; the owner should close the link from the loop.
    std::function<void()> onFileEnded;
  };

  Socket();
  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  void SetHandlers(Handlers handlers);

  // Starts connecting; the state is Connecting until it ends in Connected
  // (onConnected) or Error (onError), at the latest after timeoutMs.
  void Connect(const std::string& host, uint16_t port, int32_t timeoutMs = 30000);

  // Reads on while the data handler is still running: a nested run of the loop
  // may deliver more data, into a buffer of that read's own. The bytes the
  // handler was given stay valid until it returns.
  void ResumeReading();
  // Stops reading after the read in progress (the peer then waits in TCP's
  // flow control) until ResumeReading.
  void PauseReading();

  // Queues bytes. Everything queued before the handler returns to the loop
  // leaves in one write (see FlushPendingWrites); a slow peer only grows its
  // own queue.
  void Send(std::string_view data);
  // The same for a message given as pieces, queued as one.
  void Send(std::span<const std::string_view> pieces);
  // The same, taking the bytes over: a large message is queued without a copy.
  void SendOwned(std::string&& data);
  // A message in two parts, header and body, written as one without joining them.
  void SendOwned(std::string&& header, std::string&& body);
  // A message whose body is read from a file by the kernel as it is written, never copied
  // into the process: the body's bytes count as queued but hold no memory (BufferBytes).
  // When the file holds fewer bytes than body names by then, see onFileEnded.
  void SendFile(std::string&& header, FileSpan body);
  // Has onFlush run at the next FlushPendingWrites, whether or not anything is queued.
  void RequestFlush();
  // Forgets what is queued and not yet being written, giving its memory back.
  void DiscardQueued();
  // Bytes queued or being written.
  size_t QueuedBytes() const;
  // Memory the socket's buffers take, reserved room included; bytes queued from files not.
  size_t BufferBytes() const;

  // Writes what the kernel takes of the queue at once, then closes and
  // releases the socket's buffers.
  void Close();

  SocketState State() const;
  std::string RemoteHost() const;
  // The peer's port, or 0 when the socket is not connected.
  uint16_t RemotePort() const;
  uint16_t LocalPort() const;
  // Has the kernel probe a quiet connection, so that a peer that vanished
  // without closing (power lost, link down) is closed within about
  // 2 * seconds. False when seconds <= 0 or the socket is not open.
  bool SetKeepAlive(int32_t seconds);

  // Seam for tests and fuzzing: drops any real connection and becomes
  // Connected without touching the network. What is sent is appended to
  // *sent at once; ReceiveInMemory hands bytes to the handlers as reads
  // would: into the room onReadRoom offers while it offers one, the rest to
  // the data handler. Close() and Connect() work as usual and end the
  // in-memory link.
  void ConnectInMemory(std::shared_ptr<std::string> sent);
  void ReceiveInMemory(std::string_view data);
  // The same seam for two sockets joined to each other: what one sends reaches the other
  // from the loop, as reads would (reading is never paused), and closing or destroying one
  // is seen by the other as its peer closing, after what was sent before.
  static void JoinInMemory(Socket& a, Socket& b);

 private:
  friend class Listener;
  friend void FlushPendingWrites();
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

// What a connect's error (onError) means to the one who asked for it.
enum class ConnectFailure { Lookup, Refused, TimedOut, Other };
ConnectFailure ClassifyConnectError(const std::error_code& ec);

// Writes what every socket queued since the last call, then starts the
// reads handlers asked for. The event loop calls it whenever a handler
// returns and before it waits.
void FlushPendingWrites();

// A listening socket. Each incoming connection is accepted and offered to
// onAccept, which keeps it or lets it go (closing it).
//
// When accepting fails for want of resources (descriptors, buffers, memory)
// the listener waits kAcceptBackoffMs before trying again and calls
// onAcceptError once for the whole spell.
class Listener {
 public:
  static constexpr int32_t kAcceptBackoffMs = 100;

  explicit Listener(std::function<void(std::unique_ptr<Socket>)> onAccept,
                    std::function<void(const std::error_code&)> onAcceptError = {});
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // Listens on port (0: any free port) at address, a numeric IPv4 or IPv6
  // address; empty means every IPv4 interface.
  std::error_code Listen(uint16_t port, const std::string& address = {});
  void Close();
  SocketState State() const;
  uint16_t LocalPort() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace qel
