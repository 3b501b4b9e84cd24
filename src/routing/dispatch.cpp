#include "routing/dispatch.h"

#include <stdexcept>

namespace qel {

void Dispatcher::Register(std::string_view type, MessageHandler handler) {
  // No type is empty, which lets Find look at the first byte of any type
  // whose length matches.
  if (type.empty() || Find(type)) {
    throw std::logic_error("message type \"" + std::string(type) + "\" registered twice or empty");
  }
  entries_.push_back({std::string(type), std::move(handler)});
}

const MessageHandler* Dispatcher::Find(std::string_view type) const {
  for (const Entry& entry : entries_) {
    if (entry.type.size() == type.size() && entry.type[0] == type[0] && entry.type == type) {
      return &entry.handler;
    }
  }
  return nullptr;
}

}  // namespace qel
