#include "options.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <fstream>
#include <iterator>
#include <map>
#include <system_error>

#include <qel/advanced_settings.h>
#include <qel/error.h>
#include <qel/log.h>
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
  if (text.find(' ') < eq) return "the key of '" + text + "' holds a space";
  return "";
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string CheckAddress(const std::string& text) {
  const std::string address = text.substr(0, text.find('%'));  // an IPv6 scope follows '%'
  unsigned char buffer[sizeof(in6_addr)];
  if (inet_pton(AF_INET, address.c_str(), buffer) == 1 ||
      inet_pton(AF_INET6, address.c_str(), buffer) == 1) {
    return "";
  }
  return "expected a numeric IPv4 or IPv6 address, got '" + text + "'";
}

// Edits that turn a into b, ignoring case.
size_t Distance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) ==
                        std::tolower(static_cast<unsigned char>(b[j - 1]));
      const size_t next = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
      diagonal = row[j];
      row[j] = next;
    }
  }
  return row[b.size()];
}

// The setting a mistyped key most likely meant, or "".
std::string Closest(std::string_view key) {
  std::string best;
  size_t bestDistance = 3;  // more edits than this is another word
  for (const qel::AdvancedSetting& setting : qel::AdvancedSettingsTable()) {
    if (size_t d = Distance(key, setting.key); d < bestDistance) {
      bestDistance = d;
      best = setting.key;
    }
  }
  return best;
}

}  // namespace

void AddNodeOptions(CLI::App& command, NodeOptions& options) {
  options.name = HostName();
  command.add_option("--name", options.name, "Node name")->capture_default_str();
  command.add_option("--port", options.port, "Port to listen on; 0 picks a free one")
      ->capture_default_str()
      ->check(CLI::Range(0, 65535));
  static const std::map<std::string, qel::enmRole> roles{
      {"peer", qel::role_Peer}, {"server", qel::role_Server}, {"router", qel::role_Router}};
  command
      .add_option_function<std::string>(
          "--role", [&options](const std::string& name) { options.role = roles.at(Lower(name)); },
          "Role the node announces (default peer)")
      ->check([](const std::string& name) {
        return roles.count(Lower(name)) ? ""
                                        : "expected peer, server or router, got '" + name + "'";
      })
      ->option_text("peer|server|router");
  command.add_option("--descriptor", options.descriptor, "Descriptor the node announces");
  command.add_option("--share", options.shares, "Folder to share (repeatable)")
      ->check(CLI::ExistingDirectory)
      ->allow_extra_args(false);
  command.add_option("--settings", options.settingsFile, "Settings file (the store's text form)")
      ->check(CLI::ExistingFile);
  command.add_option("--set", options.sets, "KEY=VALUE in section Common (repeatable)")
      ->check(CheckAssignment)
      ->allow_extra_args(false);
  command
      .add_option("--listen-address", options.listenAddress,
                  "Numeric IPv4 or IPv6 address to listen on (setting listenAddress)")
      ->check(CheckAddress);
  command.add_option("--key", options.keyFile,
                     "PEM file of the node's key, created when missing (setting keyFile)");
  command
      .add_option("--secure", options.secureMode,
                  "TLS on links: off, prefer or require (setting secureMode)")
      ->check(CLI::IsMember({"off", "prefer", "require"}, CLI::ignore_case))
      ->option_text("off|prefer|require");
  command.add_option("--trust", options.trustedPeers,
                     "Key IDs a peer may have, comma-separated (setting trustedPeers)");
  command.add_option("--connect", options.connects, "HOST[:PORT] to connect to (repeatable)")
      ->allow_extra_args(false);
  command
      .add_option("--busy-poll", options.busyPollUs,
                  "Microseconds the loop polls before it blocks: shorter round trips, a busy CPU")
      ->check(CLI::Range(0, 1000000))
      ->option_text("US");
  command
      .add_option("--log", options.logLevel,
                  "Log to stderr at this level and above (default: QEL_LOG, else off)")
      ->check([](const std::string& level) {
        return qel::ParseLogLevel(level)
                   ? ""
                   : "expected error, warn, info, debug, trace or off, got '" + level + "'";
      })
      ->option_text("LEVEL");
  command
      .add_option("--http", options.http,
                  "Serve metrics, status, events and a live page on ADDRESS:PORT (port 0: any free)")
      ->option_text("ADDRESS:PORT");
  command.add_option("--http-token", options.httpToken,
                     "Token every HTTP request must carry (Authorization: Bearer); "
                     "needed off loopback");
  command.add_flag("--maintain", options.maintain, "Re-dial the --connect nodes when they drop");
  command.add_flag("--json", options.json, "One JSON object per line, no prompt");
  command.add_flag("--no-console", options.noConsole,
                   "Read no commands: print events until SIGINT or SIGTERM");
}

std::string AdvancedSettings(const NodeOptions& options) {
  if (options.settingsFile.empty() && options.sets.empty() && options.listenAddress.empty() &&
      options.keyFile.empty() && options.secureMode.empty() && options.trustedPeers.empty()) {
    return "";
  }
  qel::cSettings settings;
  if (!options.settingsFile.empty()) {
    const std::string file = "settings file " + options.settingsFile + ": ";
    try {
      settings.LoadSettings(options.settingsFile);
      // The store skips what it cannot place, so a file in another format
      // would load as nothing: refuse it, saying why.
      std::ifstream in(options.settingsFile, std::ios::binary);
      const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
      for (const qel::SettingProblem& problem : qel::CheckAdvancedSettings(text)) {
        if (problem.key.empty()) throw OptionError(file + problem.message);
      }
    } catch (const qel::QelError& e) {
      throw OptionError(file + "Error " + std::to_string(e.Number) + ": " + e.Description);
    } catch (const std::system_error& e) {
      throw OptionError(file + e.code().message());
    }
  }
  auto save = [&settings](const std::string& key, const std::string& value) {
    try {
      settings.SaveSetting(key, value);
    } catch (const qel::QelError& e) {
      throw OptionError("setting " + key + ": Error " + std::to_string(e.Number) + ": " +
                        e.Description);
    }
  };
  for (const std::string& assignment : options.sets) {
    auto eq = assignment.find('=');
    save(assignment.substr(0, eq), assignment.substr(eq + 1));
  }
  if (!options.listenAddress.empty()) save("listenAddress", options.listenAddress);
  if (!options.keyFile.empty()) save("keyFile", options.keyFile);
  if (!options.secureMode.empty()) save("secureMode", options.secureMode);
  if (!options.trustedPeers.empty()) save("trustedPeers", options.trustedPeers);
  return settings.getXML();
}

bool CheckSettings(const std::string& settingsText, std::ostream& errors) {
  bool fine = true;
  for (const qel::SettingProblem& problem : qel::CheckAdvancedSettings(settingsText)) {
    errors << "qel: " << (problem.isError ? "" : "warning: ") << problem.key << "=" << problem.value
           << ": " << problem.message;
    if (!problem.isError) {
      if (std::string guess = Closest(problem.key); !guess.empty()) {
        errors << " (did you mean " << guess << "?)";
      }
    }
    errors << "\n";
    fine = fine && !problem.isError;
  }
  return fine;
}

}  // namespace qelcli
