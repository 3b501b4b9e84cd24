// qel: command-line tools around the QEL library.
#include <iostream>

#include <qel/error.h>
#include <CLI/CLI.hpp>

#include "console.h"
#include "options.h"

int main(int argc, char** argv) {
  CLI::App app{"QEL peer-to-peer overlay node"};
  app.require_subcommand(1);
  qelcli::NodeOptions nodeOptions;
  CLI::App* node = app.add_subcommand("node", "Run one node with a console");
  qelcli::AddNodeOptions(*node, nodeOptions);
  CLI11_PARSE(app, argc, argv);

  try {
    return qelcli::RunNode(nodeOptions);
  } catch (const qel::QelError& e) {
    // A settings file or --set the store refuses.
    std::cerr << "qel: Error " << e.Number << ": " << e.Description << "\n";
  } catch (const std::exception& e) {
    std::cerr << "qel: " << e.what() << "\n";
  }
  return 2;
}
