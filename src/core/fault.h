// Describing a caught fault the way the host reads it.
#pragma once

#include <string>

namespace qel {

// "Error <number>: <description>" for the exception being handled (call from
// inside a catch block): QelErrors keep their numbers, running out of memory
// is 7, anything else is reported with number 5 (an invalid call) and its
// text.
std::string DescribeCurrentFault();

}  // namespace qel
