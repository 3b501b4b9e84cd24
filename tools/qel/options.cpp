#include "options.h"

#include <unistd.h>

#include <climits>
#include <map>

#include <qel/settings.h>

namespace qelcli {
namespace {

std::string HostName() {
  char name[HOST_NAME_MAX + 1] = {};
  if (gethostname(name, sizeof name - 1) != 0) return "qel";
  return name;
}

std::string CheckAssignment(const std::string& text) {
  auto eq = text.find('=');
  if (eq == std::string::npos || eq == 0) return "expected KEY=VALUE, got '" + text + "'";
  return "";
}

}  // namespace

void AddNodeOptions(CLI::App& command, NodeOptions& options) {
  options.name = HostName();
  command.add_option("--name", options.name, "Node name")->capture_default_str();
  command.add_option("--port", options.port, "Port to listen on; 0 picks a free one")
      ->capture_default_str()
      ->check(CLI::Range(0, 65535));
  const std::map<std::string, qel::enmRole> roles{
      {"peer", qel::role_Peer}, {"server", qel::role_Server}, {"router", qel::role_Router}};
  command.add_option("--role", options.role, "peer, server or router")
      ->transform(CLI::CheckedTransformer(roles, CLI::ignore_case));
  command.add_option("--descriptor", options.descriptor, "Descriptor the node announces");
  command.add_option("--share", options.shares, "Folder to share (repeatable)")
      ->check(CLI::ExistingDirectory)
      ->allow_extra_args(false);
  command.add_option("--settings", options.settingsFile, "Settings file (the store's text form)")
      ->check(CLI::ExistingFile);
  command.add_option("--set", options.sets, "KEY=VALUE in section Common (repeatable)")
      ->check(CheckAssignment)
      ->allow_extra_args(false);
  command.add_option("--connect", options.connects, "HOST[:PORT] to connect to (repeatable)")
      ->allow_extra_args(false);
  command.add_flag("--maintain", options.maintain, "Re-dial the --connect nodes when they drop");
  command.add_flag("--json", options.json, "One JSON object per line, no prompt");
}

std::string AdvancedSettings(const NodeOptions& options) {
  if (options.settingsFile.empty() && options.sets.empty()) return "";
  qel::cSettings settings;
  if (!options.settingsFile.empty()) settings.LoadSettings(options.settingsFile);
  for (const std::string& assignment : options.sets) {
    auto eq = assignment.find('=');
    settings.SaveSetting(assignment.substr(0, eq), assignment.substr(eq + 1));
  }
  return settings.getXML();
}

}  // namespace qelcli
