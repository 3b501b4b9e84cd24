#include "commands.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <stdexcept>

#include <qel/error.h>
#include <qel/settings.h>
#include <qel/stats.h>

#include "empty_listing.h"
#include "admin/snapshot_json.h"

namespace qelcli {
namespace {

// Thrown by a handler whose arguments do not fit its usage.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

CommandResult Fail(std::string error, Json value = nullptr) {
  return {false, std::move(value), std::move(error)};
}

// A number argument within [min, max]; the error says what is allowed.
int32_t ParseNumber(const std::string& text, const char* what, int32_t min, int32_t max) {
  int64_t number = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (ec != std::errc() || end != text.data() + text.size() || number < min || number > max) {
    throw UsageError(std::string(what) + " must be a number from " + std::to_string(min) + " to " +
                     std::to_string(max) + ", got '" + text + "'");
  }
  return static_cast<int32_t>(number);
}

Json NodeInfoJson(const qel::typNodeInfo& info) {
  return {{"ID", info.ID},
          {"Name", info.Name},
          {"Role", static_cast<int32_t>(info.Role)},
          {"Descriptor", info.Descriptor},
          {"directConn", info.directConn},
          {"Address", info.Address},
          {"sharingFiles", info.sharingFiles},
          {"activeUser", info.activeUser}};
}

CommandResult Id(Session& s, const Args&) {
  return {true, s.node.NodeID(), ""};
}

CommandResult Connect(Session& s, const Args& args) {
  bool maintain = args.size() > 1;
  if (maintain && args[1] != "maintain")
    throw UsageError("expected 'maintain', got '" + args[1] + "'");
  // The node reads what follows the last colon as the port.
  std::string address = args[0];
  std::string note;
  if (size_t colon = address.rfind(':'); colon != std::string::npos) {
    ParseNumber(address.substr(colon + 1), "PORT", 1, 65535);
  } else {
    // Without a port the node dials its own listen port.
    address += ":" + std::to_string(s.node.ListenPort());
    note = "no port given: dialled " + address + ", this node's own port";
  }
  if (s.node.Connect(args[0], false, maintain)) return {true, true, "", note};
  return Fail("could not connect to " + address, false);
}

CommandResult Listen(Session& s, const Args& args) {
  const int32_t port = args.empty() ? 0 : ParseNumber(args[0], "PORT", 0, 65535);
  const int32_t advertised = s.node.ListenPort();
  if (!s.node.Listen(port)) {
    return Fail("could not listen on port " + std::to_string(port != 0 ? port : advertised) +
                    "; is it in use?",
                false);
  }
  if (port == 0 || port == s.node.ListenPort()) return {true, s.node.ListenPort(), ""};
  return {true, port, "", "other nodes are still told port " + std::to_string(advertised)};
}

CommandResult Disconnect(Session& s, const Args& args) {
  if (s.node.DisconnectFrom(args[0])) return {true, true, ""};
  return Fail("no connection to " + args[0], false);
}

CommandResult DisconnectNode(Session& s, const Args& args) {
  if (s.node.DisconnectFrom(args[0], true)) return {true, true, ""};
  return Fail("no connection to node " + args[0], false);
}

CommandResult DisconnectAll(Session& s, const Args&) {
  if (s.node.DisconnectAll()) return {true, true, ""};
  return Fail("could not close the connections", false);
}

CommandResult Send(Session& s, const Args& args) {
  s.node.SendMessage(args[1], args[0]);
  return {};
}

CommandResult SendType(Session& s, const Args& args) {
  s.node.SendMessage(args[2], args[1], args[0]);
  return {};
}

CommandResult Ping(Session& s, const Args& args) {
  int32_t timeout = args.size() > 1 ? ParseNumber(args[1], "TIMEOUT_MS", 0, INT32_MAX) : 3000;
  int32_t ms = s.node.Ping(args[0], timeout);
  if (ms >= 0) return {true, ms, ""};
  return Fail("no answer within " + std::to_string(timeout) + " ms", ms);
}

CommandResult Nodes(Session& s, const Args& args) {
  bool fresh = false;
  std::string destination = "BROADCAST";
  for (const std::string& arg : args) {
    if (arg == "fresh") {
      fresh = true;
    } else if (&arg == &args[0]) {
      destination = arg;
    } else {
      throw UsageError("expected 'fresh', got '" + arg + "'");
    }
  }
  Json list = Json::array();
  // Records without an identifier are placeholders (element 0 of a BROADCAST
  // answer, or the blank record of a node that did not answer).
  for (const auto& info : s.node.GetNodeInfo(destination, !fresh)) {
    if (!info.ID.empty()) list.push_back(NodeInfoJson(info));
  }
  if (destination != "BROADCAST" && list.empty()) {
    return Fail("no answer from " + destination, std::move(list));
  }
  return {true, std::move(list), ""};
}

CommandResult Role(Session& s, const Args& args) {
  const std::array<std::pair<std::string_view, qel::enmRole>, 3> roles = {
      {{"peer", qel::role_Peer}, {"server", qel::role_Server}, {"router", qel::role_Router}}};
  for (const auto& [name, role] : roles) {
    if (args[0] == name) {
      s.node.switchRole(role);
      return {};
    }
  }
  throw UsageError("expected peer, server or router, got '" + args[0] + "'");
}

CommandResult Stats(Session& s, const Args&) {
  qel::cQELStats stats;
  Json refused = Json::object();
  for (const std::string& reason : qel::cQELStats::RefusalReasons()) {
    refused[reason] = stats.Refused(reason);
  }
  // This node's links by kind: a prefer node shows how many peers still talk plaintext.
  const std::vector<qel::typLinkInfo> links = s.node.Links();
  const auto secure = std::count_if(links.begin(), links.end(),
                                    [](const qel::typLinkInfo& link) { return link.isSecure; });
  return {true,
          {{"InByteSpeed", stats.InByteSpeed()},
           {"OutByteSpeed", stats.OutByteSpeed()},
           {"InPacketRate", stats.InPacketRate()},
           {"OutPacketRate", stats.OutPacketRate()},
           {"InPacketCount", stats.InPacketCount()},
           {"OutPacketCount", stats.OutPacketCount()},
           {"QELVersion", stats.QELVersion()},
           {"AvgCompression", stats.AvgCompression()},
           {"ResendWindowCuts", stats.ResendWindowCuts()},
           {"IgnoredCancels", stats.IgnoredCancels()},
           {"Refused", refused},
           {"Links", links.size()},
           {"SecureLinks", secure}},
          ""};
}

CommandResult Status(Session& s, const Args&) {
  return {true, qel::admin::SnapshotJson(s.node.Snapshot()), ""};
}

CommandResult Share(Session& s, const Args& args) {
  std::error_code ec;
  // The node ignores a path that is not there without a word.
  if (!std::filesystem::exists(args[0], ec)) return Fail("no such folder: " + args[0]);
  s.node.shareFolder(args[0]);
  return {};
}

// GetFileInfo, and how long it waited: the console does not know the node's
// Timeout, and that number is the same one, and what a person can act on.
qel::typFileInfo TimedFileInfo(Session& s, const std::string& path, const std::string& nodeID,
                               bool skipHash, std::chrono::milliseconds& waited) {
  const auto asked = std::chrono::steady_clock::now();
  qel::typFileInfo info = s.node.GetFileInfo(path, nodeID, skipHash);
  waited = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 asked);
  return info;
}

std::string NoAnswer(const std::string& nodeID, std::chrono::milliseconds waited) {
  return "no answer from " + nodeID + " within " + std::to_string(waited.count()) + " ms";
}

CommandResult Ls(Session& s, const Args& args) {
  const bool recursive = args.size() > 2;
  if (recursive && args[2] != "recursive")
    throw UsageError("expected 'recursive', got '" + args[2] + "'");
  const std::string& nodeID = args[0];
  const std::string& path = args[1];
  const std::vector<std::string> listing = s.node.GetContents(path, nodeID, recursive);
  // Element 0 is the library's blank placeholder.
  Json paths = Json::array();
  for (size_t i = 1; i < listing.size(); ++i) paths.push_back(listing[i]);
  if (!paths.empty()) return {true, std::move(paths), ""};

  // Empty, missing, refused and unanswered all look like this: ask more.
  std::chrono::milliseconds waited{0};
  ListingQuestions ask;
  ask.fileInfo = [&](const std::string& remotePath) {
    return TimedFileInfo(s, remotePath, nodeID, true, waited);
  };
  ask.list = [&](const std::string& folder) {
    std::vector<std::string> entries = s.node.GetContents(folder, nodeID, false);
    if (!entries.empty()) entries.erase(entries.begin());
    return entries;
  };
  ask.sharesFiles = [&]() -> std::optional<bool> {
    const std::vector<qel::typNodeInfo> info = s.node.GetNodeInfo(nodeID, false);
    if (info.empty() || info.front().ID.empty()) return std::nullopt;
    return info.front().sharingFiles;
  };
  switch (ExplainEmptyListing(path, ask)) {
    case EmptyListing::Empty:
      return {true, std::move(paths), ""};
    case EmptyListing::Unknown:
      return {true, std::move(paths), "",
              "empty, or no such folder: a name holding % cannot be looked up"};
    case EmptyListing::Missing:
      return Fail("no folder " + path + " shared by " + nodeID, std::move(paths));
    case EmptyListing::File:
      return Fail(path + " is a file shared by " + nodeID + ", not a folder", std::move(paths));
    case EmptyListing::NotSharing:
      return Fail(nodeID + " shares no folders", std::move(paths));
    case EmptyListing::NoAnswer:
      return Fail(NoAnswer(nodeID, waited), std::move(paths));
    case EmptyListing::Refused:
      return Fail("a path holding ..\\ leaves the shares: nothing was asked", std::move(paths));
  }
  return {true, std::move(paths), ""};
}

CommandResult Search(Session& s, const Args& args) {
  qel::enmSearchType type;
  if (args[0] == "node") {
    type = qel::Find_Node;
  } else if (args[0] == "file") {
    type = qel::Find_File;
  } else {
    throw UsageError("expected node or file, got '" + args[0] + "'");
  }
  Json results = Json::array();
  for (const qel::typSearchResult& found : s.node.SearchReq(type, args[1])) {
    if (!found.nodeID.empty())
      results.push_back({{"nodeID", found.nodeID}, {"Result", found.Result}});
  }
  return {true, std::move(results), ""};
}

CommandResult FileInfo(Session& s, const Args& args) {
  const bool hash = args.size() > 2;
  if (hash && args[2] != "hash") throw UsageError("expected 'hash', got '" + args[2] + "'");
  std::chrono::milliseconds waited{0};
  const qel::typFileInfo info = TimedFileInfo(s, args[1], args[0], !hash, waited);
  if (!info.isAnswered) {
    return Fail(NoAnswer(args[0], waited) +
                (hash ? " (a hash of a large file may need more: --set Timeout=MS)" : ""));
  }
  Json value = {{"lngSize", info.lngSize}, {"strHash", info.strHash}};
  if (info.lngSize < 0) return Fail("no file " + args[1] + " shared by " + args[0], value);
  if (hash && info.strHash.empty()) {
    return Fail(args[0] + " sent no hash: it has too many files to hash at once, try again later",
                value);
  }
  return {true, std::move(value), ""};
}

CommandResult Get(Session& s, const Args& args) {
  GetRequest request{args[0], args[1], args[2]};
  for (size_t i = 3; i < args.size(); ++i) {
    if (args[i] == "resume") {
      request.resume = true;
    } else if (args[i] == "verify") {
      request.verify = true;
    } else if (request.range.empty() && i == 3) {
      request.range = args[i];
    } else {
      throw UsageError("expected START-END, 'resume' or 'verify', got '" + args[i] + "'");
    }
  }
  try {
    return s.downloads.Start(request);
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
}

CommandResult Cancel(Session& s, const Args& args) {
  if (args.size() == 1) return s.downloads.Cancel("", args[0]);
  return s.downloads.Cancel(args[0], args[1]);
}

CommandResult Peers(Session& s, const Args&) {
  Json list = Json::array();
  for (const qel::typLinkInfo& link : s.node.Links()) {
    list.push_back({{"Address", link.Address},
                    {"nodeID", link.nodeID},
                    {"Direction", link.isAccepted ? "accepted" : "dialled"},
                    {"Secure", link.isSecure},
                    {"PeerKey", link.PeerKey},
                    {"Age", link.lngAge}});
  }
  return {true, std::move(list), ""};
}

CommandResult Users(Session& s, const Args& args) {
  // The list holds every user's password in clear; a screen or a log of
  // the console should not, unless asked.
  if (!args.empty() && args[0] != "show-passwords" && args[0] != "--show-passwords")
    throw UsageError("expected 'show-passwords', got '" + args[0] + "'");
  if (!args.empty()) return {true, s.node.getUserXML(), ""};
  qel::cSettings list;
  list.LoadXML(s.node.getUserXML());
  for (const std::string& user : list.ListSections()) {
    // An empty password (a removed user, a fresh account) is shown as it is.
    if (!user.empty() && !list.GetSetting("Password", "", user).toString().empty())
      list.SaveSetting("Password", std::string("********"), user);
  }
  return {true, list.getXML(), ""};
}

CommandResult UserSet(Session& s, const Args& args) {
  s.node.updateUser(args[0], args[1], qel::user_Update);
  return {};
}

CommandResult UserRemove(Session& s, const Args& args) {
  s.node.updateUser(args[0], "", qel::user_Remove);
  return {};
}

CommandResult Login(Session& s, const Args& args) {
  if (s.node.LoginAs(args[0], args.size() > 1 ? args[1] : "")) return {true, true, ""};
  return Fail("login refused: unknown user, wrong password, or no node answered in time", false);
}

CommandResult SyncUsers(Session& s, const Args&) {
  s.node.SyncUserList();
  return {};
}

qel::enmRPCType RpcType(const std::string& word) {
  if (word == "in") return qel::RPC_INCOMING;
  if (word == "return") return qel::RPC_RETURN;
  throw UsageError("expected in or return, got '" + word + "'");
}

CommandResult RpcBind(Session& s, const Args& args) {
  const qel::enmRPCType type = RpcType(args[1]);
  const bool ok = args.size() > 2;
  if (ok && args[2] != "ok") throw UsageError("expected 'ok', got '" + args[2] + "'");
  if (ok && type != qel::RPC_INCOMING) throw UsageError("ok answers calls: it goes with in");
  return s.rpc.Bind(args[0], type, ok);
}

CommandResult RpcUnbind(Session& s, const Args& args) {
  return s.rpc.Unbind(args[0], RpcType(args[1]));
}

CommandResult RpcCall(Session& s, const Args& args) {
  return s.rpc.Call(args[0], args[1], args.size() > 2 ? args[2] : "");
}

CommandResult RpcReturn(Session& s, const Args& args) {
  return s.rpc.Return(args[0], args.size() > 1 ? args[1] : "");
}

CommandResult Help(Session&, const Args&);

CommandResult Quit(Session& s, const Args&) {
  s.quit = true;
  return {};
}

const std::array kCommands = {
    Command{"id", "", "this node's identifier", 0, 0, false, Id},
    Command{"connect", "HOST[:PORT] [maintain]", "connect; maintain re-dials when it drops", 1, 2,
            false, Connect},
    Command{"disconnect", "HOST:PORT", "close the connections to an address", 1, 1, false,
            Disconnect},
    Command{"disconnect-node", "NODEID", "close the connection to a node", 1, 1, false,
            DisconnectNode},
    Command{"disconnect-all", "", "stop listening and close every connection", 0, 0, false,
            DisconnectAll},
    Command{"listen", "[PORT]", "listen again after disconnect-all", 0, 1, false, Listen},
    Command{"peers", "", "this node's links: address, node, direction, security, age", 0, 0, false,
            Peers},
    Command{"send", "NODEID|BROADCAST TEXT", "send a message", 2, 2, true, Send},
    Command{"send-type", "TYPE NODEID|BROADCAST TEXT", "send a message of a type (ERROR: an error)",
            3, 3, true, SendType},
    Command{"ping", "NODEID [TIMEOUT_MS]", "round-trip time to a node in ms", 1, 2, false, Ping},
    Command{"nodes", "[NODEID|BROADCAST] [fresh]", "describe nodes; fresh: ask, not the cache", 0,
            2, false, Nodes},
    Command{"share", "DIR", "share a folder", 1, 1, true, Share},
    Command{"ls", "NODEID PATH [recursive]", "list a shared path; recursive: all below", 2, 3,
            false, Ls},
    Command{"search", "node|file TEXT", "nodes or shared files whose name holds TEXT", 2, 2, true,
            Search},
    Command{"fileinfo", "NODEID PATH [hash]", "size (and MD5) of a shared file", 2, 3, false,
            FileInfo},
    Command{"get", "NODEID REMOTEPATH LOCALPATH [START-END] [resume] [verify]",
            "fetch a shared file in the background", 3, 6, false, Get},
    Command{"cancel", "[NODEID] ID",
            "stop a download of this console (any unique start of its ID), or with NODEID a "
            "transfer NODEID serves to this node",
            1, 2, false, Cancel},
    Command{"users", "[show-passwords]",
            "the user list, as settings text; passwords masked unless asked", 0, 1, false, Users},
    Command{"user-set", "NAME PASSWORD", "set a user here and on every node", 2, 2, true, UserSet},
    Command{"user-remove", "NAME", "remove a user (kept here with no password)", 1, 1, false,
            UserRemove},
    Command{"login", "NAME [PASSWORD]", "log in as a user; the first node to answer decides", 1, 2,
            true, Login},
    Command{"sync-users", "", "swap user lists with every node; later changes win", 0, 0, false,
            SyncUsers},
    Command{"rpc-bind", "NAME in|return [ok]",
            "take calls to NAME (ok: answer OK at once) or its answers", 2, 3, false, RpcBind},
    Command{"rpc-unbind", "NAME in|return", "drop a binding (case counts)", 2, 2, false, RpcUnbind},
    Command{"rpc-call", "NODEID|BROADCAST NAME [PARAMS]", "call NAME; the value is the request", 2,
            3, true, RpcCall},
    Command{"rpc-return", "REQID [PARAMS]", "answer a call that arrived", 1, 2, true, RpcReturn},
    Command{"role", "peer|server|router", "the role announced from now on", 1, 1, false, Role},
    Command{"stats", "", "traffic figures of this process; this node's links, secure ones apart", 0,
            0, false, Stats},
    Command{"status", "",
            "this node: identity, links, known nodes, transfers, memory, counters, refusals", 0, 0,
            false, Status},
    Command{"help", "", "list the commands", 0, 0, false, Help},
    Command{"quit", "", "shut the node down and exit", 0, 0, false, Quit},
};

CommandResult Help(Session&, const Args&) {
  Json lines = Json::array();
  for (const Command& c : kCommands) {
    std::string usage = std::string(c.name) + (c.usage.empty() ? "" : " ") + std::string(c.usage);
    usage.resize(std::max<size_t>(usage.size() + 2, 44), ' ');
    lines.push_back(usage + std::string(c.description));
  }
  return {true, std::move(lines), ""};
}

const Command* Find(std::string_view word) {
  for (const Command& c : kCommands) {
    if (c.name == word) return &c;
  }
  return nullptr;
}

bool IsSpace(char c) {
  return c == ' ' || c == '\t';
}

}  // namespace

ParsedLine SplitWord(std::string_view line) {
  size_t start = 0;
  while (start < line.size() && IsSpace(line[start])) ++start;
  size_t end = start;
  while (end < line.size() && !IsSpace(line[end])) ++end;
  size_t rest = end;
  while (rest < line.size() && IsSpace(line[rest])) ++rest;
  return {std::string(line.substr(start, end - start)), std::string(line.substr(rest))};
}

Args SplitArgs(std::string_view rest, size_t maxArgs, bool lastIsText) {
  Args args;
  while (!rest.empty()) {
    if (lastIsText && args.size() + 1 == maxArgs) {
      args.emplace_back(rest);
      break;
    }
    ParsedLine next = SplitWord(rest);
    args.push_back(std::move(next.word));
    rest = rest.substr(rest.size() - next.rest.size());
  }
  return args;
}

CommandResult RunLine(Session& session, const ParsedLine& line) {
  const Command* command = Find(line.word);
  if (!command) return Fail("unknown command '" + line.word + "' (try help)");
  std::string usage = "usage: " + std::string(command->name) + (command->usage.empty() ? "" : " ") +
                      std::string(command->usage);
  Args args = SplitArgs(line.rest, command->maxArgs, command->text);
  if (args.size() < command->minArgs || args.size() > command->maxArgs) {
    return Fail(usage);
  }
  try {
    return command->run(session, args);
  } catch (const UsageError& e) {
    return Fail(std::string(e.what()) + "; " + usage);
  } catch (const qel::QelError& e) {
    return Fail("Error " + std::to_string(e.Number) + ": " + e.Description);
  } catch (const std::exception& e) {
    return Fail(e.what());
  }
}

}  // namespace qelcli
