#include "core/report.h"

#include <new>

#include <qel/error.h>
#include <qel/node.h>

#include "core/module.h"
#include "core/node_state.h"

namespace qel {

void ReportError(NodeState& node, std::string strMessage, std::string nodeID) {
  Module& module = TheModule();
  if (module.Debug.Enabled()) {
    module.Debug.Write(nodeID.empty() ? strMessage : strMessage + " [NodeID: " + nodeID + "]");
  }
  if (node.Owner && node.Owner->Error) {
    // A copy, so a handler that replaces itself or destroys the node object
    // does not pull the function out from under its own call.
    auto handler = node.Owner->Error;
    handler(strMessage, nodeID);
  }
}

std::string DescribeFault(const std::exception& fault) {
  if (auto* error = dynamic_cast<const QelError*>(&fault)) {
    return "Error " + std::to_string(error->Number) + ": " + error->Description;
  }
  if (dynamic_cast<const std::bad_alloc*>(&fault)) return "Error 7: Out of memory";
  return std::string("Error 5: ") + fault.what();
}

void ReportCurrentFault(NodeState& node) {
  try {
    throw;
  } catch (const std::exception& fault) {
    ReportError(node, DescribeFault(fault));
  } catch (...) {
    ReportError(node, "Error 5: Unknown fault");
  }
}

}  // namespace qel
