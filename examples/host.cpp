// A minimal host: one node, initialised and shut down.
#include <qel/qel.h>

#include <iostream>

int main() {
  qel::cQEL node;
  node.Error = [](std::string& message, std::string&) { std::cerr << message << "\n"; };
  node.Initialise("example", 4000);
  std::cout << "QEL " << qel::cQELStats().QELVersion() << ": node initialised\n";
  node.ShutDown();
}
