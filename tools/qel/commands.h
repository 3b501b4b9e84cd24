// The console's commands: one table, each entry a small function.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <qel/node.h>

#include "downloads.h"
#include "output.h"
#include "rpc_bindings.h"

namespace qelcli {

// What a command works on.
struct Session {
  qel::cQEL& node;
  Downloads& downloads;
  RpcBindings& rpc;
  bool quit = false;  // set by `quit`
};

using Args = std::vector<std::string>;

// An entry of the command table in commands.cpp.
struct Command {
  std::string_view name;
  std::string_view usage;  // the arguments, as help shows them
  std::string_view description;
  size_t minArgs;
  size_t maxArgs;
  bool text;  // the last argument is free text: the rest of the line, spaces kept
  CommandResult (*run)(Session&, const Args&);
};

// A console line cut after its first word.
struct ParsedLine {
  std::string word;
  std::string rest;  // without the blanks that led it
};
ParsedLine SplitWord(std::string_view line);

// The arguments of a command: words, except that with lastIsText the
// maxArgs-th one is the rest of the line as it is.
Args SplitArgs(std::string_view rest, size_t maxArgs, bool lastIsText);

// Runs one console line; the word is what the result is reported under.
// Unknown words, bad arguments and QelErrors give a failed result. connect,
// nodes, ping, ls, search, fileinfo and login run the event loop while they
// wait, so events are raised (and posted functions run) before this returns.
// get gives a pending result: its own is written when the download ends.
CommandResult RunLine(Session& session, const ParsedLine& line);

}  // namespace qelcli
