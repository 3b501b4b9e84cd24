// The options of `qel node` and the settings text they make.
#pragma once

#include <cstdint>
#include <ostream>
#include <stdexcept>
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
  std::string listenAddress;
  std::string keyFile;
  std::string secureMode;   // setting secureMode; empty: as the settings say
  std::string trustedPeers; // setting trustedPeers; empty: as the settings say
  std::vector<std::string> connects;
  int32_t busyPollUs = 0;  // qel::SetBusyPoll
  std::string logLevel;    // qel::SetLogLevel; empty: QEL_LOG decides
  std::string http;        // ADDRESS:PORT of the admin server; empty: none
  std::string httpToken;
  bool maintain = false;
  bool json = false;
  bool noConsole = false;
};

// Declares the options on the `node` subcommand; values land in options.
void AddNodeOptions(CLI::App& command, NodeOptions& options);

// An option that cannot be used; what() says which and why.
struct OptionError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The advancedSettings text for Initialise: the settings file, every --set
// applied on top, then --listen-address, --key, --secure and --trust; "" when none is given. Throws
// OptionError for a file that does not load or a key the store refuses.
std::string AdvancedSettings(const NodeOptions& options);

// Writes what is wrong with the settings text to errors, one line each;
// false when the node must not start with it.
bool CheckSettings(const std::string& settingsText, std::ostream& errors);

}  // namespace qelcli
