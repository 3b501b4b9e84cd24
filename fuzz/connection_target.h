// What a peer's bytes reach: a node with two in-memory connections takes the
// input as arriving on one of them, so the stream cutter, the header parser,
// body decoding, dispatch and the relay to the other connection all run. The
// node shares a folder, binds a procedure name and knows a user, so every
// handler a peer can reach has something to work on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace qel {

// A node whose connections live in memory. Create, run and destroy it on
// the host thread; it uses the process-wide link table, so only one
// should exist at a time.
class ConnectionFuzzer {
 public:
  // The node's ID, which inputs may address: "Destination: FUZZNODE".
  static constexpr const char* kNodeID = "FUZZNODE";
  // Its key and the network password, so that inputs can carry KE/NE bodies.
  static constexpr const char* kEncryptionKey = "KEY";
  static constexpr const char* kNetPass = "blankey";
  // Its one shared folder is made in a temporary folder for each fuzzer and
  // removed with it: abc.txt, empty.bin, pieces.bin (several FILE pieces),
  // nested\two words.txt, nested\deeper\last.dat, and two links out of
  // it, leak.txt (a file) and nested\away (a folder).
  // A procedure name bound for calls (answered "OK" at once when a call
  // has no Params) and for answers, and a user the node knows.
  static constexpr const char* kProcName = "FUZZPROC";
  static constexpr const char* kUserName = "fuzzer";
  static constexpr const char* kPassword = "secret";
  // Each input starts with a question of every kind (contents, search, file
  // information, an RPC call to every node) waiting for this ReqID.
  static constexpr const char* kReqID = "FUZZREQ";

  // advancedSettings as Initialise takes them (the fuzzers use the defaults).
  explicit ConnectionFuzzer(const std::string& advancedSettings = "");
  ~ConnectionFuzzer();
  ConnectionFuzzer(const ConnectionFuzzer&) = delete;
  ConnectionFuzzer& operator=(const ConnectionFuzzer&) = delete;

  // Feeds data as connection one receives it, cut into pieces at places the
  // first two bytes choose, then lets the loop run what that made ready
  // (served pieces, hashes done beside it) before returning. Returns false
  // when what the node relayed to connection two does not read back as
  // whole messages.
  bool Run(const uint8_t* data, size_t size);
  // What the last Run relayed to connection two.
  const std::string& Relayed() const;
  // What the last Run sent back on connection one: the node's answers.
  const std::string& Answered() const;

  // Hands data to connection one as a single read, resetting nothing: what
  // the node saw and learned so far stays. Clears what was relayed first.
  void Receive(std::string_view data);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qel
