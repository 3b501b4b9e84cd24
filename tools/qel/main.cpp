// qel: command-line tools around the QEL library.
#include <iostream>

#include <qel/error.h>
#include <qel/node.h>
#include <qel/settings.h>
#include <qel/stats.h>
#include <CLI/CLI.hpp>

#include "console.h"
#include "options.h"

namespace {

// `qel id`: the key ID a node started with --key keyFile has, through the
// node's own reading of the file, so the two cannot differ.
int PrintKeyID(const std::string& keyFile) {
  qel::cSettings settings;
  settings.SaveSetting("keyFile", keyFile);
  qel::cQEL node;
  std::string fault = "no key";
  node.Error = [&fault](std::string& text, std::string&) { fault = text; };
  node.Initialise("id", 0, qel::role_Peer, "", "", settings.getXML());
  const std::string id = node.KeyID();
  if (id.empty()) {
    std::cerr << "qel: " << fault << "\n";
    return 1;
  }
  std::cout << id << "\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"QEL peer-to-peer overlay node"};
  app.set_version_flag("--version", "qel " + qel::cQELStats().QELVersion(),
                       "Print the library's version and exit");
  app.require_subcommand(1);
  qelcli::NodeOptions nodeOptions;
  CLI::App* node = app.add_subcommand("node", "Run one node with a console");
  qelcli::AddNodeOptions(*node, nodeOptions);
  std::string keyFile;
  CLI::App* id = app.add_subcommand("id", "Print the key ID of a node key file");
  id->add_option("--key", keyFile, "PEM file of the node's key, created when missing")
      ->required();
  std::string topic;
  CLI::App* help = app.add_subcommand("help", "Print this help, or a command's");
  help->add_option("command", topic, "The command to describe");
  CLI11_PARSE(app, argc, argv);

  if (help->parsed()) {
    // app.help() would describe the help command itself, the one parsed.
    auto formatter = app.get_formatter();
    if (topic.empty()) {
      std::cout << formatter->make_help(&app, "qel", CLI::AppFormatMode::Normal);
    } else if (topic == "node") {
      std::cout << formatter->make_help(node, "qel node", CLI::AppFormatMode::Normal);
    } else if (topic == "id") {
      std::cout << formatter->make_help(id, "qel id", CLI::AppFormatMode::Normal);
    } else {
      std::cerr << "qel: no command '" << topic << "' (try qel help)\n";
      return 2;
    }
    return 0;
  }
  try {
    if (id->parsed()) return PrintKeyID(keyFile);
    return qelcli::RunNode(nodeOptions);
  } catch (const qel::QelError& e) {
    std::cerr << "qel: Error " << e.Number << ": " << e.Description << "\n";
  } catch (const std::exception& e) {
    std::cerr << "qel: " << e.what() << "\n";
  }
  return 2;
}
