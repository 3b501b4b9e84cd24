// The process-wide debug log.
#pragma once

#include <string>

#include <qel/export.h>

namespace qel {

// The debug log's text, or empty when debug mode is off. Debug mode is
// switched on by the per-user setting "enabled" = True in section "debug" of
// $XDG_CONFIG_HOME/Mardek QEL/settings.xml (~/.config when XDG_CONFIG_HOME is
// unset), read when a node object is created. The log keeps about the last
// 32000 characters and mirrors every line to stderr.
QEL_API std::string DebugLogText();

}  // namespace qel
