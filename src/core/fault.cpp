#include "core/fault.h"

#include <new>

#include <qel/error.h>

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

}  // namespace qel
