#include "rig.h"

#include <cstdlib>

namespace qelbench {

std::string RttReport(const std::vector<double>& ns, int failures) {
  return "rtt n=" + std::to_string(ns.size()) + " fail=" + std::to_string(failures) +
         " p50=" + std::to_string(Percentile(ns, 50)) +
         " p99=" + std::to_string(Percentile(ns, 99));
}

void ParsePing(const std::string& line, int64_t& count, int64_t& budgetMs) {
  count = std::strtoll(line.c_str() + 5, nullptr, 10);
  budgetMs = FieldInt(line, "ms");
  if (budgetMs <= 0) budgetMs = 1000;
}

}  // namespace qelbench
