// A host that serves its node's metrics, linked against qel::admin alone.
#include <qel/admin.h>
#include <qel/qel.h>

#include <iostream>

int main() {
  qel::cQEL node;
  node.Initialise("watched", 0);
  qel::AdminServer server(node, {});
  const std::string url = server.Start();
  std::cout << "serving " << url << "\n";
  return url.starts_with("http://127.0.0.1:") ? 0 : 1;
}
