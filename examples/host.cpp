// Two nodes in one process: one listens, the other connects and says hello.
#include <qel/qel.h>

#include <iostream>

int main() {
  qel::cQEL kitchen, garden;
  kitchen.MessageReceived = [](std::string& text, std::string&, std::string& from) {
    std::cout << "kitchen got \"" << text << "\" from " << from << "\n";
    qel::StopEventLoop();
  };
  kitchen.Initialise("kitchen", 0);  // port 0: any free port
  if (!kitchen.Listen()) return 1;
  garden.Initialise("garden");
  if (!garden.Connect("127.0.0.1:" + std::to_string(kitchen.ListenPort()))) return 1;
  garden.SendMessage("hello", kitchen.NodeID());
  qel::RunEventLoop();  // until the handler stops it
}
