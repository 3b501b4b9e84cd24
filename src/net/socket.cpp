#include "net/socket.h"

#include <algorithm>
#include <array>
#include <span>
#include <cerrno>
#include <chrono>
#include <deque>
#include <utility>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include "net/asio_context.h"

namespace qel {

using asio::ip::tcp;

namespace {

// The buffer every socket of the process reads into. The loop runs on one
// thread, so a socket waits until the kernel has bytes for it and only then
// borrows this buffer: an idle connection holds no read buffer at all. A
// data handler keeps it until it returns, for messages are handled where
// they lie; a socket that becomes readable meanwhile (in a loop the handler
// runs) reads into a buffer of its own for that one read.
struct ReadBuffer {
  std::unique_ptr<char[]> bytes;  // allocated at the first read
  uint64_t lease = 0;             // who has it now; 0: nobody
  uint64_t lastLease = 0;
};

ReadBuffer& TheReadBuffer() {
  static auto* buffer = new ReadBuffer;  // sockets outlive static destruction
  return *buffer;
}

// Small messages share output pieces of up to this capacity; a larger
// message is a piece of its own.
constexpr size_t kPieceBytes = 16 * 1024;
// Pieces written out wait here for the next socket that queues: a busy link
// reuses the same few instead of growing, freeing and faulting in new ones
// every write, and a socket holds a piece only while its bytes wait for the
// kernel. The cap bounds what the process keeps once every link is idle.
constexpr size_t kFreePieces = 8;

std::vector<std::string>& FreePieces() {
  static auto* pieces = new std::vector<std::string>;  // sockets outlive static destruction
  return *pieces;
}

std::string TakePiece() {
  std::vector<std::string>& free = FreePieces();
  std::string piece = std::move(free.back());
  free.pop_back();
  return piece;
}

// One entry of a socket's write queue: bytes held, or bytes still in a file.
struct Piece {
  std::string bytes;
  FileSpan file;  // file.length > 0: the piece is these, and bytes is empty
  Piece() = default;
  explicit Piece(std::string&& text) : bytes(std::move(text)) {}
  explicit Piece(std::string_view text) : bytes(text) {}
  bool FromFile() const { return file.length > 0; }
};

// Blocks SIGPIPE on this thread while it lives. sendfile has no MSG_NOSIGNAL, and a
// library must not let a peer that vanished kill its host; a SIGPIPE that the write
// raised is taken back before the mask is restored.
class NoSigPipe {
 public:
  NoSigPipe() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_, &old_);
    ownsMask_ = !sigismember(&old_, SIGPIPE);
  }
  ~NoSigPipe() {
    if (!ownsMask_) return;
    if (raised_) {
      const timespec zero{};
      sigtimedwait(&pipe_, nullptr, &zero);
    }
    pthread_sigmask(SIG_SETMASK, &old_, nullptr);
  }
  void Raised() { raised_ = true; }

 private:
  sigset_t pipe_{}, old_{};
  bool ownsMask_ = false;
  bool raised_ = false;
};

// Reads a file piece's bytes into out, as the kernel would send them; false when the file
// ends first.
bool AppendFileBytes(const FileSpan& span, std::string& out) {
  const size_t start = out.size();
  out.resize(start + span.length);
  for (size_t done = 0; done < span.length;) {
    const ssize_t n = pread(span.file->fd(), out.data() + start + done, span.length - done,
                            span.offset + static_cast<int64_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      out.resize(start + done);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

void GivePiece(std::string&& piece) {
  std::vector<std::string>& free = FreePieces();
  // A message that was a piece of its own is freed.
  if (piece.capacity() != kPieceBytes || free.size() >= kFreePieces) return;
  piece.clear();
  free.push_back(std::move(piece));
}

}  // namespace

struct Socket::Impl : std::enable_shared_from_this<Impl> {
  // Large reads keep a fast sender's bytes moving in few system calls.
  static constexpr size_t kReadSize = 65536;

  Impl() : socket(IoContext()), resolver(IoContext()), connectTimer(IoContext()) {}

  void StartReading() {
    if (readPending || paused || inMemory || state != SocketState::Connected) return;
    readPending = true;
    // Armed once the handler returns to the loop and its writes are out:
    // arming may cost a system call, and a reply must not wait behind it.
    PendingReads().push_back({shared_from_this(), generation});
  }

  // Sockets that asked to read, each with the generation that asked.
  using ReadRequests = std::vector<std::pair<std::shared_ptr<Impl>, uint64_t>>;
  static ReadRequests& PendingReads() {
    static auto* pending = new ReadRequests;
    return *pending;
  }

  void ArmRead() {
    if (paused || state != SocketState::Connected) {
      readPending = false;  // ResumeReading asks again
      return;
    }
    // A wait, not a read: an idle socket then holds no buffer, and the
    // read takes whatever the kernel has into the shared one.
    Await(tcp::socket::wait_read, &Impl::readPending, &Impl::ReadNow);
  }

  // Runs then once the socket is ready for kind; busy is set meanwhile.
  void Await(tcp::socket::wait_type kind, bool Impl::*busy, void (Impl::*then)()) {
    this->*busy = true;
    socket.async_wait(kind, [self = shared_from_this(), gen = generation, busy,
                             then](const std::error_code& ec) {
      if (gen != self->generation) return;
      (*self).*busy = false;
      if (!ec) ((*self).*then)();
    });
  }

  void ReadNow() {
    // Paused after the wait began: the bytes stay with the kernel, and the
    // peer waits in TCP's flow control.
    if (state != SocketState::Connected || paused) return;
    if (handlers.onReadRoom) {
      if (const std::span<char> room = handlers.onReadRoom(); !room.empty()) return ReadInto(room);
    }
    ReadBuffer& shared = TheReadBuffer();
    // The lease of this read, 0 for a buffer of its own. The outer one is
    // saved and restored: once a handler resumed reading, or after a close and
    // a new connect, a loop it runs may read this socket again.
    struct Restore {
      Impl& impl;
      uint64_t outer;
      std::unique_ptr<char[]> own;
      ~Restore() {
        impl.ReleaseBuffer();
        if (own) impl.ownBytes -= kReadSize;
        impl.lease = outer;
      }
    } restore{*this, std::exchange(lease, 0), nullptr};
    char* buffer = nullptr;
    if (shared.lease == 0) {
      if (!shared.bytes) shared.bytes = std::make_unique_for_overwrite<char[]>(kReadSize);
      lease = shared.lease = ++shared.lastLease;
      buffer = shared.bytes.get();
    } else {
      restore.own = std::make_unique_for_overwrite<char[]>(kReadSize);
      ownBytes += kReadSize;
      buffer = restore.own.get();
    }
    std::error_code ec;
    const size_t n = socket.read_some(asio::buffer(buffer, kReadSize), ec);
    // Woken without bytes after all. Compared only once the read failed: a
    // sanitizer build checks the category's type there, which takes a
    // descriptor, and a node out of descriptors must still read.
    if (ec && (ec == asio::error::would_block || ec == asio::error::try_again)) {
      StartReading();
      return;
    }
    OnRead(ec, std::string_view(buffer, n));
  }

  // Reads into the owner's room, which holds only until its next handler runs.
  void ReadInto(std::span<char> room) {
    std::error_code ec;
    const size_t n = socket.read_some(asio::buffer(room.data(), room.size()), ec);
    if (ec && (ec == asio::error::would_block || ec == asio::error::try_again)) {
      StartReading();
      return;
    }
    if (ec) return OnRead(ec, {});
    OnDirect(n);
  }

  void OnDirect(size_t n) {
    if (auto& h = handlers.onDirect) {
      auto keep = h;  // the handler may replace the handlers or destroy the socket
      keep(n);
    }
    if (state == SocketState::Connected) StartReading();
  }

  // Gives the shared buffer back when the running handler of this socket
  // has it.
  void ReleaseBuffer() {
    ReadBuffer& shared = TheReadBuffer();
    if (lease != 0 && shared.lease == lease) shared.lease = 0;
    lease = 0;
  }

  void OnRead(const std::error_code& ec, std::string_view data) {
    if (state != SocketState::Connected) return;  // closed meanwhile
    if (ec) {
      // The owner closes it in its handler, so that its own close logic runs;
      // the handler may even have connected this socket anew.
      const uint64_t before = generation;
      if (auto h = handlers.onPeerClosed) h(ec);
      if (generation == before) CloseNow();
      return;
    }
    if (auto& h = handlers.onData) {
      auto keep = h;  // the handler may replace the handlers or destroy the socket
      keep(data);
    }
    if (state == SocketState::Connected) StartReading();
  }

  void Queue(std::string_view data) {
    if (inMemory && outgoing.empty()) {
      // No kernel to wait for: the bytes go where the link writes, as a flush would put them.
      inMemory->append(data);
      queuedBytes += data.size();
      return;
    }
    std::string* back =
        outgoing.empty() || outgoing.back().FromFile() ? nullptr : &outgoing.back().bytes;
    if (data.size() > kPieceBytes) {
      outgoing.emplace_back(data);
    } else if (back && back->size() + data.size() <= back->capacity()) {
      back->append(data);  // fits: never reallocates
    } else if (back && back->capacity() < kPieceBytes && back->size() + data.size() <= kPieceBytes) {
      // Made while no piece was free: it grows, up to a whole piece, and
      // once written joins the free list. Built anew, as reserve() would
      // overshoot the whole piece's size.
      std::string grown;
      grown.reserve(std::min(kPieceBytes, std::max(2 * back->capacity(), back->size() + data.size())));
      grown.append(*back).append(data);
      *back = std::move(grown);
    } else if (FreePieces().empty()) {
      // No piece free: take only the message's size, so that many links
      // that each send a little do not each make a whole piece.
      outgoing.emplace_back(data);
    } else {
      outgoing.emplace_back(TakePiece());
      outgoing.back().bytes.assign(data);
    }
    queuedBytes += data.size();
  }

  // Gives every piece back. A socket that goes on keeps its emptied queue, which would be
  // made again for the next write; release frees a long one's map too.
  void GiveBack(bool release = true) {
    for (Piece& piece : outgoing) GivePiece(std::move(piece.bytes));
    if (release) {
      std::deque<Piece>().swap(outgoing);
    } else {
      outgoing.clear();
    }
    queuedBytes = 0;
    fileBytes = 0;
  }

  void ScheduleFlush() {
    if (inMemory && queuedBytes > 0) {
      bool ended = false;
      for (const Piece& piece : outgoing) {
        if (!piece.FromFile()) {
          inMemory->append(piece.bytes);
        } else if (!AppendFileBytes(piece.file, *inMemory)) {
          ended = true;
          break;
        }
      }
      const size_t n = queuedBytes;
      GiveBack(false);
      if (!memoryPeer.expired()) DeliverLater();
      if (ended) return FileEnded();
      if (auto h = handlers.onSent) h(n);
      return;
    }
    if (writing || flushListed || outgoing.empty()) return;
    flushListed = true;
    // Written once the handler that queued it returns to the loop, so every
    // message queued meanwhile joins the same write, and no turn of the
    // loop is spent on it.
    PendingFlushes().push_back(shared_from_this());
  }

  static std::vector<std::shared_ptr<Impl>>& PendingFlushes() {
    static auto* pending = new std::vector<std::shared_ptr<Impl>>;
    return *pending;
  }

  // Drops the first n queued bytes, which the kernel took.
  void Consume(size_t n) {
    queuedBytes -= n;
    while (n > 0) {
      Piece& front = outgoing.front();
      if (front.FromFile()) {
        const size_t taken = std::min(n, front.file.length);
        front.file.offset += static_cast<int64_t>(taken);
        front.file.length -= taken;
        fileBytes -= taken;
        n -= taken;
        if (front.file.length > 0) return;
      } else if (n < front.bytes.size()) {
        front.bytes.erase(0, n);
        return;
      } else {
        n -= front.bytes.size();
        GivePiece(std::move(front.bytes));
      }
      outgoing.pop_front();
    }
  }

  // Hands the kernel what it takes of the queue's front: the held pieces up to the first
  // file piece in one write, or that file piece. ended: the file piece cannot be sent;
  // full: the socket took less than it was given, so it has no room for more now.
  size_t WriteFront(std::error_code& ec, bool& ended, bool& full) {
    Piece& front = outgoing.front();
    if (front.FromFile()) {
      NoSigPipe guard;
      off_t offset = front.file.offset;
      ssize_t n;
      do {
        n = sendfile(socket.native_handle(), front.file.file->fd(), &offset, front.file.length);
      } while (n < 0 && errno == EINTR);
      if (n > 0) return static_cast<size_t>(n);
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        ec = asio::error::would_block;
      } else if (n < 0 && (errno == EPIPE || errno == ECONNRESET)) {
        if (errno == EPIPE) guard.Raised();
        ec.assign(errno, asio::error::get_system_category());  // the link broke
      } else {
        ended = true;  // the file's end, or its read failed
      }
      return 0;
    }
    std::array<asio::const_buffer, 64> pieces;
    size_t count = 0, given = 0;
    for (const Piece& piece : outgoing) {
      if (count == pieces.size() || piece.FromFile()) break;
      pieces[count++] = asio::buffer(piece.bytes);
      given += piece.bytes.size();
    }
    const size_t n =
        socket.write_some(std::span<const asio::const_buffer>(pieces.data(), count), ec);
    full = n < given;
    return n;
  }

  void WriteQueued() {
    // Written at once while the kernel takes it, and the rest when the socket can take
    // more: nothing the kernel still reads from belongs to an operation in flight, so a
    // close frees the queue at once.
    while (!writing && !outgoing.empty() && state == SocketState::Connected) {
      std::error_code ec;
      bool ended = false, full = false;
      const size_t n = WriteFront(ec, ended, full);
      if (ended) return FileEnded();
      if (ec) {
        // Compared only once the write failed, as reads are.
        if (ec == asio::error::would_block || ec == asio::error::try_again) break;
        // Reads report the break; what was queued is lost with the link.
        GiveBack();
        return;
      }
      Consume(n);
      if (auto h = handlers.onSent) h(n);
      if (full) break;
    }
    if (writing || outgoing.empty() || state != SocketState::Connected) return;
    Await(tcp::socket::wait_write, &Impl::writing, &Impl::WriteQueued);
  }

  // The file under a queued piece was cut or failed: its message can never be completed, and
  // whatever followed it would be read as its body. Nothing more goes out, and the peer
  // sees the stream end.
  void FileEnded() {
    GiveBack();
    std::error_code ignored;
    socket.shutdown(tcp::socket::shutdown_send, ignored);
    if (auto& h = handlers.onFileEnded) {
      auto keep = h;  // the handler may replace the handlers or destroy the socket
      keep();
    }
  }

  // Hands what this end of a pair in memory sent to the other end from the loop, as a read
  // would: never from inside the writer, whose handler may be the reader's too.
  void DeliverLater() {
    if (deliveryPosted) return;
    deliveryPosted = true;
    // What was sent before a close still arrives: the buffer and the peer are taken now.
    asio::post(IoContext(), [self = shared_from_this(), sent = inMemory, to = memoryPeer] {
      self->deliveryPosted = false;
      const std::string bytes = std::exchange(*sent, {});
      if (auto peer = to.lock(); peer && !bytes.empty()) peer->ReceiveInMemory(bytes);
    });
  }

  void ReceiveInMemory(std::string_view data) {
    // Kept alive: a handler may destroy the socket, which must then end the loop.
    const std::shared_ptr<Impl> self = shared_from_this();
    const uint64_t gen = generation;
    while (inMemory && generation == gen && !data.empty()) {
      const std::span<char> room = handlers.onReadRoom ? handlers.onReadRoom() : std::span<char>();
      if (room.empty()) return OnRead({}, data);
      const size_t n = std::min(room.size(), data.size());
      std::copy_n(data.data(), n, room.data());
      data.remove_prefix(n);
      OnDirect(n);
    }
  }

  void CloseNow() {
    if (auto peer = std::exchange(memoryPeer, {}).lock()) {
      // The other end hears of the close after what was sent before it, as over TCP.
      asio::post(IoContext(), [peer, gen = peer->generation] {
        if (peer->generation != gen || peer->state != SocketState::Connected) return;
        peer->memoryPeer.reset();
        peer->OnRead(asio::error::eof, {});
      });
    }
    ++generation;
    readPending = false;
    paused = false;
    writing = false;
    std::error_code ignored;
    resolver.cancel();
    connectTimer.cancel();
    if (socket.is_open() && state == SocketState::Connected) {
      // Best effort for messages queued just before a close: whatever the
      // kernel takes without blocking still goes out.
      for (const Piece& piece : outgoing) {
        if (piece.FromFile() ||
            socket.write_some(asio::buffer(piece.bytes), ignored) < piece.bytes.size()) {
          break;
        }
      }
    }
    // Released, not cleared: a closed socket holds no memory.
    GiveBack();
    inMemory.reset();
    socket.shutdown(tcp::socket::shutdown_both, ignored);
    socket.close(ignored);
    state = SocketState::Closed;
  }

  tcp::socket socket;
  tcp::resolver resolver;
  SocketState state = SocketState::Closed;
  Handlers handlers;
  asio::steady_timer connectTimer;
  uint64_t lease = 0;   // the shared read buffer's lease of the running data handler
  size_t ownBytes = 0;  // read buffers of its own, held while handlers run
  bool paused = false;
  std::deque<Piece> outgoing;  // held pieces (most of them from FreePieces) and file pieces
  size_t queuedBytes = 0;
  size_t fileBytes = 0;  // of queuedBytes, those still in files
  bool writing = false;
  bool readPending = false;
  uint64_t generation = 0;  // bumped on close: completions of older operations are ignored
  bool flushListed = false;  // in PendingFlushes
  uint64_t connectAttempt = 0;
  std::shared_ptr<std::string> inMemory;  // set by the test seam: where sent bytes go
  std::weak_ptr<Impl> memoryPeer;         // the other end, for a pair joined in memory
  bool deliveryPosted = false;            // a DeliverLater waits to run
};

void FlushPendingWrites() {
  static bool flushing = false;
  static auto* now = new std::vector<std::shared_ptr<Socket::Impl>>;
  if (flushing) return;  // the outer call takes what is queued meanwhile
  flushing = true;
  auto& pending = Socket::Impl::PendingFlushes();
  // A flush may queue more (a handler told of sent bytes writing again).
  while (!pending.empty()) {
    now->swap(pending);
    for (auto& impl : *now) {
      // Still listed while it runs: what the hook sends joins this write.
      if (impl->handlers.onFlush && impl->state == SocketState::Connected) {
        auto keep = impl->handlers.onFlush;  // the hook may replace the handlers
        keep();
      }
      impl->flushListed = false;
      impl->WriteQueued();
    }
    now->clear();
  }
  // Then the reads the handlers asked for: none completes inside this call.
  auto& reads = Socket::Impl::PendingReads();
  static auto* arming = new Socket::Impl::ReadRequests;
  arming->swap(reads);
  for (auto& [impl, generation] : *arming) {
    if (impl->generation == generation && impl->readPending) impl->ArmRead();
  }
  arming->clear();
  flushing = false;
}

Socket::Socket() : impl_(std::make_shared<Impl>()) {}

Socket::~Socket() {
  impl_->handlers = {};
  impl_->CloseNow();
}

void Socket::SetHandlers(Handlers handlers) {
  impl_->handlers = std::move(handlers);
}

void Socket::Connect(const std::string& host, uint16_t port, int32_t timeoutMs) {
  impl_->CloseNow();
  // A socket object may be reused for a new connection: start from a fresh one.
  impl_->socket = tcp::socket(IoContext());
  impl_->state = SocketState::Connecting;
  const uint64_t attempt = ++impl_->connectAttempt;
  auto fail = [](const std::shared_ptr<Impl>& self, const std::error_code& ec) {
    self->state = SocketState::Error;
    if (auto h = self->handlers.onError) h(ec);
  };
  impl_->connectTimer.expires_after(std::chrono::milliseconds(std::max(timeoutMs, 0)));
  impl_->connectTimer.async_wait([self = impl_, attempt, fail](const std::error_code& ec) {
    if (ec || attempt != self->connectAttempt || self->state != SocketState::Connecting) return;
    self->resolver.cancel();
    std::error_code ignored;
    self->socket.close(ignored);
    fail(self, asio::error::timed_out);
  });
  impl_->resolver.async_resolve(
      tcp::v4(), host, std::to_string(port),
      [self = impl_, attempt, fail](const std::error_code& ec, tcp::resolver::results_type found) {
        if (attempt != self->connectAttempt || self->state != SocketState::Connecting) return;
        if (ec) return fail(self, ec);
        asio::async_connect(
            self->socket, found,
            [self, attempt, fail](const std::error_code& ec, const tcp::endpoint&) {
              if (attempt != self->connectAttempt || self->state != SocketState::Connecting) {
                return;
              }
              if (ec) return fail(self, ec);
              self->connectTimer.cancel();
              std::error_code ignored;
              // Connecting left the descriptor registered for writability,
              // which Asio never takes back: every acknowledgement would then
              // wake the loop for nothing. Registered anew, it waits for
              // reads only (and for writes only while one waits).
              if (const auto fd = self->socket.release(ignored); !ignored) {
                self->socket.assign(tcp::v4(), fd, ignored);
                if (ignored) {
                  ::close(fd);
                  return fail(self, ignored);
                }
              }
              self->socket.set_option(tcp::no_delay(true), ignored);
              // Reads and writes are tried at once: neither may block the loop.
              self->socket.non_blocking(true, ignored);
              self->state = SocketState::Connected;
              self->StartReading();
              self->ScheduleFlush();
              if (auto h = self->handlers.onConnected) h();
            });
      });
}

void Socket::ResumeReading() {
  impl_->paused = false;
  if (impl_->state == SocketState::Connected) impl_->StartReading();
}

void Socket::PauseReading() {
  impl_->paused = true;
}

void Socket::Send(std::string_view data) {
  impl_->Queue(data);
  impl_->ScheduleFlush();
}

void Socket::Send(std::span<const std::string_view> pieces) {
  for (std::string_view piece : pieces) impl_->Queue(piece);
  impl_->ScheduleFlush();
}

void Socket::SendOwned(std::string&& data) {
  if (data.size() < kPieceBytes) return Send(std::string_view(data));
  impl_->queuedBytes += data.size();
  impl_->outgoing.emplace_back(std::move(data));
  impl_->ScheduleFlush();
}

void Socket::SendOwned(std::string&& header, std::string&& body) {
  impl_->Queue(header);
  impl_->queuedBytes += body.size();
  impl_->outgoing.emplace_back(std::move(body));
  impl_->ScheduleFlush();
}

void Socket::SendFile(std::string&& header, FileSpan body) {
  impl_->Queue(header);
  if (body.length > 0) {
    impl_->queuedBytes += body.length;
    impl_->fileBytes += body.length;
    impl_->outgoing.emplace_back().file = std::move(body);
  }
  impl_->ScheduleFlush();
}

void Socket::RequestFlush() {
  if (impl_->flushListed || impl_->state != SocketState::Connected) return;
  impl_->flushListed = true;
  Impl::PendingFlushes().push_back(impl_);
}

void Socket::DiscardQueued() {
  impl_->GiveBack();
}

size_t Socket::QueuedBytes() const {
  return impl_->queuedBytes;
}

size_t Socket::BufferBytes() const {
  return impl_->queuedBytes - impl_->fileBytes + impl_->ownBytes;
}

void Socket::Close() {
  ++impl_->connectAttempt;
  impl_->CloseNow();
}

SocketState Socket::State() const {
  return impl_->state;
}

std::string Socket::RemoteHost() const {
  std::error_code ec;
  auto endpoint = impl_->socket.remote_endpoint(ec);
  return ec ? std::string() : endpoint.address().to_string();
}

uint16_t Socket::RemotePort() const {
  std::error_code ec;
  auto endpoint = impl_->socket.remote_endpoint(ec);
  return ec ? 0 : endpoint.port();
}

ConnectFailure ClassifyConnectError(const std::error_code& ec) {
  if (ec.category() == asio::error::get_netdb_category() ||
      ec.category() == asio::error::get_addrinfo_category()) {
    return ConnectFailure::Lookup;
  }
  if (ec == asio::error::connection_refused) return ConnectFailure::Refused;
  if (ec == asio::error::timed_out || ec == std::errc::timed_out) return ConnectFailure::TimedOut;
  return ConnectFailure::Other;
}

bool Socket::SetKeepAlive(int32_t seconds) {
  if (seconds <= 0 || !impl_->socket.is_open()) return false;
  // Probes start after `idle` quiet seconds, three of them `interval` apart:
  // a silent peer is given up about 2 * seconds after it was last heard.
  // The user timeout does the same while sent data waits for an
  // acknowledgement, when the kernel would otherwise retry for minutes.
  const int idle = std::min(seconds, 32767);
  const int interval = std::max(1, (idle + 2) / 3);
  const int count = 3;
  const unsigned userTimeoutMs = 2000u * static_cast<unsigned>(idle);
  const int on = 1;
  const int fd = impl_->socket.native_handle();
  return setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) == 0 &&
         setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle) == 0 &&
         setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval) == 0 &&
         setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count) == 0 &&
         setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &userTimeoutMs, sizeof userTimeoutMs) == 0;
}

uint16_t Socket::LocalPort() const {
  std::error_code ec;
  auto endpoint = impl_->socket.local_endpoint(ec);
  return ec ? 0 : endpoint.port();
}

void Socket::ConnectInMemory(std::shared_ptr<std::string> sent) {
  Close();
  impl_->inMemory = sent ? std::move(sent) : std::make_shared<std::string>();
  impl_->state = SocketState::Connected;
}

void Socket::ReceiveInMemory(std::string_view data) {
  impl_->ReceiveInMemory(data);
}

void Socket::JoinInMemory(Socket& a, Socket& b) {
  a.ConnectInMemory(nullptr);
  b.ConnectInMemory(nullptr);
  a.impl_->memoryPeer = b.impl_;
  b.impl_->memoryPeer = a.impl_;
}

struct Listener::Impl : std::enable_shared_from_this<Impl> {
  Impl(std::function<void(std::unique_ptr<Socket>)> accept,
       std::function<void(const std::error_code&)> acceptError)
      : acceptor(IoContext()),
        backoff(IoContext()),
        onAccept(std::move(accept)),
        onAcceptError(std::move(acceptError)) {}

  static bool OutOfResources(const std::error_code& ec) {
    // Asio's own system category does not compare equal to std::errc.
    if (ec.category() != asio::error::get_system_category()) return false;
    const int e = ec.value();
    return e == EMFILE || e == ENFILE || e == ENOBUFS || e == ENOMEM;
  }

  void AcceptNext() {
    acceptor.async_accept([self = shared_from_this()](const std::error_code& ec, tcp::socket peer) {
      if (self->state != SocketState::Listening) return;
      if (ec && OutOfResources(ec)) {
        // The waiting connection stays in the backlog, so accepting again at
        // once fails again at once: wait for descriptors to come free.
        if (!self->starved) {
          self->starved = true;
          if (auto h = self->onAcceptError) h(ec);
        }
        if (self->state != SocketState::Listening) return;
        self->backoff.expires_after(std::chrono::milliseconds(kAcceptBackoffMs));
        self->backoff.async_wait([self](const std::error_code& waitEc) {
          if (!waitEc && self->state == SocketState::Listening) self->AcceptNext();
        });
        return;
      }
      if (!ec) {
        self->starved = false;
        auto accepted = std::make_unique<Socket>();
        std::error_code ignored;
        peer.set_option(tcp::no_delay(true), ignored);
        peer.non_blocking(true, ignored);  // as for a dialled socket
        accepted->impl_->socket = std::move(peer);
        accepted->impl_->state = SocketState::Connected;
        accepted->impl_->StartReading();
        auto handler = self->onAccept;
        handler(std::move(accepted));
      }
      // Errors such as running out of descriptors must not stop listening.
      if (self->state == SocketState::Listening) self->AcceptNext();
    });
  }

  tcp::acceptor acceptor;
  asio::steady_timer backoff;
  std::function<void(std::unique_ptr<Socket>)> onAccept;
  std::function<void(const std::error_code&)> onAcceptError;
  SocketState state = SocketState::Closed;
  bool starved = false;  // accepting is paused for want of resources
};

Listener::Listener(std::function<void(std::unique_ptr<Socket>)> onAccept,
                   std::function<void(const std::error_code&)> onAcceptError)
    : impl_(std::make_shared<Impl>(std::move(onAccept), std::move(onAcceptError))) {}

Listener::~Listener() {
  Close();
}

std::error_code Listener::Listen(uint16_t port, const std::string& address) {
  Close();
  std::error_code ec;
  tcp::endpoint endpoint(tcp::v4(), port);
  if (!address.empty()) {
    auto ip = asio::ip::make_address(address, ec);
    if (ec) return ec;
    endpoint = tcp::endpoint(ip, port);
  }
  auto& acceptor = impl_->acceptor;
  acceptor.open(endpoint.protocol(), ec);
  if (!ec) acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
  if (!ec) acceptor.bind(endpoint, ec);
  if (!ec) acceptor.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    std::error_code ignored;
    acceptor.close(ignored);
    impl_->state = SocketState::Closed;
    return ec;
  }
  impl_->state = SocketState::Listening;
  impl_->AcceptNext();
  return {};
}

void Listener::Close() {
  std::error_code ignored;
  impl_->state = SocketState::Closed;
  impl_->backoff.cancel();
  impl_->acceptor.close(ignored);
}

SocketState Listener::State() const {
  return impl_->state;
}

uint16_t Listener::LocalPort() const {
  std::error_code ec;
  auto endpoint = impl_->acceptor.local_endpoint(ec);
  return ec ? 0 : endpoint.port();
}

}  // namespace qel
