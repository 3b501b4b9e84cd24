// What the link table tells the node that owns a link. The node layer
// implements it; the table knows nothing else about nodes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/stats.h"
#include "net/link_id.h"
#include "protocol/message.h"

namespace qel {

class TlsIdentity;

// Whether a node's links run under TLS: off (plaintext, as classic nodes), prefer (dial with
// TLS, fall back to plaintext for a peer that does not answer it; accept both), require.
enum class SecureMode { Off, Prefer, Require };

// How a node protects its links; the same for all of them.
struct LinkSecurity {
  SecureMode mode = SecureMode::Off;
  // The node's certificate and TLS context; null when mode is Off (or the node has no key,
  // which fails every secure link).
  std::shared_ptr<const TlsIdentity> identity;
  // Key IDs a peer may have; empty accepts any key.
  std::vector<std::string> trusted;

  // Whether a link may run in plaintext: a plaintext peer has no key to trust.
  bool PlainAllowed() const { return mode != SecureMode::Require && trusted.empty(); }
  // Whether an accepted link waits for the peer's first byte before it comes up.
  bool Sniffs() const { return mode != SecureMode::Off || !trusted.empty(); }
};

// The limits a connection runs under, given by its owner when it listens or
// dials and kept with the connection.
struct LinkLimits {
  // A message (header or body) longer than this closes the connection.
  int64_t maxMessage = 67108864;
  // How long a dial may take, in ms.
  int32_t connectTimeoutMs = 500;
  // Bytes the table may hold for all connections together (waiting to be
  // sent, or received and not yet processed); past it the connection holding
  // the most is closed.
  int64_t memoryBudget = 268435456;
  // A connection in the middle of a message that receives nothing for this
  // long (ms) is closed.
  int32_t stallTimeoutMs = 30000;
  // Open connections of the owner beyond which new requests are refused.
  int32_t maxConnections = 1024;
  // Without a port in the address, this port is dialled.
  int32_t defaultPort = 0;
  // Seconds of quiet before a connection's peer is probed; one that does
  // not answer is closed about twice that long after it was last heard.
  // 0: the system's default (normally no probes).
  int32_t keepAliveSec = 0;
  // Plaintext or TLS, and which peer keys are trusted.
  LinkSecurity security;
};

// How a link came up.
enum class LinkKind { Accepted, Dialled, Redialled };

class LinkOwner : public std::enable_shared_from_this<LinkOwner> {
 public:
  virtual ~LinkOwner() = default;

  // False once the node has shut down: the table then leaves its
  // connections alone and raises nothing.
  virtual bool Alive() const = 0;
  // A host at sourceIP asks to connect; true refuses it.
  virtual bool OnLinkRequest(const std::string& sourceIP) = 0;
  // link came up.
  virtual void OnLinkUp(LinkId link, LinkKind kind, const std::string& sourceIP) = 0;
  // link closed; address and nodeID are what the table knew.
  virtual void OnLinkDown(LinkId link, const std::string& address, const std::string& nodeID) = 0;
  // A complete message arrived on link. May run the loop; may throw, which
  // the table reports through OnLinkFault before closing that link.
  virtual void OnLinkMessage(LinkId link, typMessage&& message) = 0;
  // Something about one of the owner's connections the host should hear of.
  virtual void OnLinkFault(const std::string& text) = 0;

  // This node's own traffic and refusals; the table counts what happens on its links.
  NodeCounters Counters;

 private:
  friend class LinkTable;
  // The table's elements this owner holds, open or not, in index order. Kept
  // by the table, so that what the owner writes to, routes through or closes
  // costs its own connections, not the process's.
  std::vector<int32_t> Links;
};

}  // namespace qel
