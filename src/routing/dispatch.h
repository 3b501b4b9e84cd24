// Which handler takes a message for this node, by message type. Routing
// registers its own types; the layers above register theirs when the node is
// made, so a message goes up once, straight to the code that owns its type.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "net/link_id.h"
#include "protocol/message.h"

namespace qel {

struct RoutingNode;

// What a handler knows of a message besides its fields.
struct Arrival {
  LinkId conn;                // the link it came on
  const std::string& source;  // the node that sent it
  bool keepBody = false;      // it is relayed afterwards, so its body must stay
};

// Handles one message for this node. May run the loop; may throw, and the
// caller reports what it throws through the node's Error event.
using MessageHandler = std::function<void(RoutingNode& node, typMessage& message, const Arrival&)>;

// One node's handlers. Each node has its own table, as each has its own
// shares, users and bindings for its handlers to act on.
class Dispatcher {
 public:
  // Makes handler the one for type (matched exactly, case and all). Only
  // while the node is made: the table may move as it grows, so never from a
  // handler. Throws std::logic_error when type has a handler already (two
  // owners for one type is a wiring fault, and the later must not silently
  // win), or is empty or longer than 65535 bytes.
  void Register(std::string_view type, MessageHandler handler);
  // The same for the form most subsystems' handlers take: fn(node, state, message, source),
  // state being what the subsystem keeps for this node.
  template <typename State, typename Fn>
  void Register(std::string_view type, State& state, Fn fn) {
    Register(type, [&state, fn](RoutingNode& node, typMessage& message, const Arrival& from) {
      fn(node, state, message, from.source);
    });
  }

  // The handler for type, or null. Allocates nothing: it runs for every
  // message this node takes.
  const MessageHandler* Find(std::string_view type) const;

 private:
  // Length, first and last byte of a type, which tell nearly all types apart.
  static uint32_t Key(std::string_view type);

  struct Entry {
    std::string type;
    MessageHandler handler;
  };
  // A few dozen types at most: a scan of their keys, packed together, beats
  // hashing the type of every message; a key that matches is then compared
  // whole. keys_[i] is Key(entries_[i].type).
  std::vector<uint32_t> keys_;
  std::vector<Entry> entries_;
};

}  // namespace qel
