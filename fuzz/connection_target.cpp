#include "connection_target.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <qel/event_loop.h>
#include <qel/node.h>
#include <qel/rpc.h>
#include <qel/settings.h>

#include "net/links.h"
#include "net/memory_link.h"
#include "net/worker.h"
#include "node/module.h"
#include "node/node_access.h"
#include "protocol/feeder.h"

namespace qel {
namespace {

// Small enough that inflating bodies stays fast, large enough for any input.
constexpr int64_t kMaxMessage = 1 << 20;

// Small pieces, so that serving pieces.bin goes round its drain wait.
constexpr int32_t kFilePacket = 512;

namespace fs = std::filesystem;

void Write(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// The fuzzing process never destroys its node, but leaves no folder behind.
struct Leftovers {
  ~Leftovers() {
    std::error_code ec;
    for (const fs::path& root : roots) fs::remove_all(root, ec);
  }
  std::vector<fs::path> roots;
};

Leftovers& TheLeftovers() {
  static Leftovers leftovers;
  return leftovers;
}

// What the node shares, made afresh in a temporary folder: files of a few
// sizes (one empty, one of several pieces), nested folders, and links that
// lead out of the share to a file and a folder beside it.
struct ShareOnDisk {
  ShareOnDisk() {
    std::string pattern = (fs::temp_directory_path() / "qel-fuzz-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("no temporary folder for the share");
    root = pattern;
    TheLeftovers().roots.push_back(root);
    const fs::path share = root / "share";
    fs::create_directories(share / "nested" / "deeper");
    fs::create_directories(root / "outside");
    Write(root / "outside" / "secret.txt", "outside the share");
    Write(share / "abc.txt", "abc");
    Write(share / "empty.bin", "");
    std::string pieces;
    for (int i = 0; pieces.size() < 3 * kFilePacket + 100; ++i) pieces += std::to_string(i) + ' ';
    Write(share / "pieces.bin", pieces);
    Write(share / "nested" / "two words.txt", "nested");
    Write(share / "nested" / "deeper" / "last.dat", "deepest");
    fs::create_symlink("../outside/secret.txt", share / "leak.txt");
    fs::create_directory_symlink("../outside", share / "nested" / "away");
  }
  ~ShareOnDisk() {
    std::error_code ec;
    fs::remove_all(root, ec);
  }
  fs::path Share() const { return root / "share"; }

  fs::path root;
};

}  // namespace

struct ConnectionFuzzer::Impl {
  struct Link {
    LinkId id;
    std::shared_ptr<std::string> sent = std::make_shared<std::string>();
  };

  explicit Impl(const std::string& advancedSettings) {
    node.Initialise("fuzz", 0, role_Peer, "", "", advancedSettings);
    state = TheModule().Slot(detail::NodeAccess::SlotIndex(node));
    // Fixed, so that inputs can address the node and decrypt for it.
    state->NodeID = kNodeID;
    state->EncryptionKey = kEncryptionKey;
    state->netPass = kNetPass;
    state->maxMessage = kMaxMessage;
    state->FilePacketBytes = kFilePacket;
    node.shareFolder(disk.Share().string());
    // One name answers at once, one waits for the host; the other kind is
    // bound so that answers to this node's calls have somewhere to go.
    node.bindRPC(kProcName, RPC_INCOMING)->RemoteProcCall =
        [](std::string&, std::string& params, std::string&, std::string&, bool& sendOK) {
          sendOK = params.empty();
        };
    node.bindRPC(kProcName, RPC_RETURN);
    Open();
    // Made with both links up, as a host would; UPDATEUSER then goes out.
    node.updateUser(kUserName, kPassword);
    DoEvents(0);
    users = state->Users.List;
  }

  // Both links, dialled by the node, up and with nothing sent on them yet.
  void Open() {
    in.id = OpenInMemory(*state, state->Limits(), false, in.sent);
    out.id = OpenInMemory(*state, state->Limits(), false, out.sent);
    DoEvents(0);
    in.sent->clear();
    out.sent->clear();
  }

  // Every input starts from the same state: both links new, no message seen
  // and no route learned.
  void Reset() {
    links::CloseAll(*state);
    Open();
  }

  // Tables a peer fills go back to how they were; the node's own questions
  // are open again under kReqID, so answers to them are taken, not dropped.
  void ResetTables() {
    state->Users.List = users;
    state->Users.LoginResult.clear();
    state->Files.Served.clear();
    state->Files.Contents = {};
    state->Files.Searches = {};
    state->Files.FileInfos = {};
    state->Files.Contents.Open(kReqID);
    state->Files.Searches.Open(kReqID);
    state->Files.FileInfos.Open(kReqID);
    for (RpcBinding& binding : state->Rpc) {
      binding.Pending = {};
      binding.PendingBytes = 0;
      if (binding.ReqType != RPC_RETURN) continue;
      binding.Pending.Open(kReqID);
      *binding.Pending.Find(kReqID) = PendingCall{.NodeID = "BROADCAST"};
    }
  }

  ShareOnDisk disk;  // first: outlives the node that shares it
  cQEL node;
  std::shared_ptr<NodeState> state;
  Link in;
  Link out;
  cSettings users;
};

ConnectionFuzzer::ConnectionFuzzer(const std::string& advancedSettings)
    : impl_(std::make_unique<Impl>(advancedSettings)) {}

ConnectionFuzzer::~ConnectionFuzzer() = default;

const std::string& ConnectionFuzzer::Relayed() const {
  return *impl_->out.sent;
}

const std::string& ConnectionFuzzer::Answered() const {
  return *impl_->in.sent;
}

void ConnectionFuzzer::Receive(std::string_view data) {
  impl_->out.sent->clear();
  ReceiveInMemory(impl_->in.id, data);
}

bool ConnectionFuzzer::Run(const uint8_t* data, size_t size) {
  if (size < 2) return true;
  Impl& f = *impl_;
  f.Reset();
  f.state->SeenIDs = PacketCache(f.state->SeenIDs.Capacity());
  f.state->Routes = RouteTable(f.state->maxRoutes);
  f.ResetTables();

  // The first two bytes pick the piece size, so splits are explored too.
  const size_t piece = 1 + ((data[0] << 8 | data[1]) % 4096);
  std::string_view input(reinterpret_cast<const char*>(data + 2), size - 2);
  for (size_t at = 0; at < input.size(); at += piece) {
    ReceiveInMemory(f.in.id, input.substr(at, piece));
  }
  // Hashes run beside the loop: their answers belong to this input.
  FinishOffLoopWork();
  DoEvents(0);  // what the table deferred, closes and drains, and served pieces

  // A relay writes whole messages, which the next node must be able to cut.
  MessageFeeder reread({.maxHeader = 65536, .maxMessage = kMaxMessage});
  auto outcome = reread.Feed(*f.out.sent, [](typMessage&&) {});
  return outcome == MessageFeeder::Outcome::Ok && !reread.InProgress();
}

}  // namespace qel
