// Describing a caught fault the way the host reads it.
#pragma once

#include <exception>
#include <string>

namespace qel {

// "Error <number>: <description>" for a fault caught in a public method or a
// handler: QelErrors keep their numbers, running out of memory is 7, anything
// else is reported with number 5 (an invalid call) and its text.
std::string DescribeFault(const std::exception& fault);

// The same for the exception being handled (call from inside a catch block).
std::string DescribeCurrentFault();

}  // namespace qel
