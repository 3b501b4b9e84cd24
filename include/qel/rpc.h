// cQELRPC: the handle through which a host hears of remote procedure calls.
#pragma once

#include <functional>
#include <string>

#include <qel/export.h>

namespace qel {

// Returned by cQEL::bindRPC; the node keeps its own reference until
// unbindRPC or the node's end, so the host may drop its copy at any time,
// inside its own handler too. Events are raised on the host's thread from
// inside QEL's calls; an exception a handler throws stops at QEL as for the
// node's events.
class QEL_API cQELRPC {
 public:
  // A call arrived for a name bound RPC_INCOMING: the name as the caller
  // wrote it, its parameters, the request to answer with returnRemoteProc,
  // the caller. Set SendOK to answer "OK" at once.
  std::function<void(std::string& ProcName, std::string& Params, std::string& ReqID,
                     std::string& nodeID, bool& SendOK)>
      RemoteProcCall;
  // An answer arrived to a call made through a name bound RPC_RETURN: the
  // name as bound, the result ("RPC_UNBOUND" when the callee has no binding
  // for it), the call's request identifier and the node that answered (a
  // call to "BROADCAST" takes every answer, each naming its node).
  std::function<void(std::string& ProcName, std::string& Params, std::string& ReqID,
                     std::string& nodeID)>
      RemoteProcReturn;
};

}  // namespace qel
