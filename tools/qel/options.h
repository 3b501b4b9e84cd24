// The options of `qel node` and the settings text they make.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <qel/types.h>
#include <CLI/CLI.hpp>

namespace qelcli {

struct NodeOptions {
  std::string name;
  int32_t port = 4000;
  qel::enmRole role = qel::role_Peer;
  std::string descriptor;
  std::vector<std::string> shares;  // the first goes to Initialise, the rest to shareFolder
  std::string settingsFile;
  std::vector<std::string> sets;  // KEY=VALUE, section Common
  std::vector<std::string> connects;
  bool maintain = false;
  bool json = false;
};

// Declares the options on the `node` subcommand; values land in options.
void AddNodeOptions(CLI::App& command, NodeOptions& options);

// The advancedSettings text for Initialise: the settings file with every
// --set applied on top, or "" when neither is given. Throws qel::QelError for
// a file that is not a settings text or a key the store refuses.
std::string AdvancedSettings(const NodeOptions& options);

}  // namespace qelcli
