#include "core/fault.h"

#include <cstdio>
#include <new>

#include <qel/error.h>

#include "core/debug_log.h"

namespace qel {
namespace {

std::string DescribeFault(const std::exception& fault) {
  if (auto* error = dynamic_cast<const QelError*>(&fault)) {
    return "Error " + std::to_string(error->Number) + ": " + error->Description;
  }
  if (dynamic_cast<const std::bad_alloc*>(&fault)) return "Error 7: Out of memory";
  return std::string("Error 5: ") + fault.what();
}

}  // namespace

std::string DescribeCurrentFault() {
  try {
    throw;
  } catch (const std::exception& fault) {
    return DescribeFault(fault);
  } catch (...) {
    return "Error 5: Unknown fault";
  }
}

void ReportHandlerThrew(const char* event) {
  const std::string text =
      std::string("QEL: the ") + event + " handler threw (" + DescribeCurrentFault() + ")";
  if (TheDebugLog().Enabled()) {
    TheDebugLog().Write(text);  // mirrored to stderr
  } else {
    std::fprintf(stderr, "%s\n", text.c_str());
  }
}

}  // namespace qel
