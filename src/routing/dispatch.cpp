#include "routing/dispatch.h"

#include <stdexcept>

namespace qel {

uint32_t Dispatcher::Key(std::string_view type) {
  if (type.empty() || type.size() > 0xFFFF) return 0;  // no registered type has key 0
  return static_cast<uint32_t>(type.size()) << 16 |
         static_cast<uint32_t>(static_cast<unsigned char>(type.front())) << 8 |
         static_cast<unsigned char>(type.back());
}

void Dispatcher::Register(std::string_view type, MessageHandler handler) {
  if (Key(type) == 0 || Find(type)) {
    throw std::logic_error("message type \"" + std::string(type) + "\" taken or unusable");
  }
  keys_.push_back(Key(type));
  entries_.push_back({std::string(type), std::move(handler)});
}

const MessageHandler* Dispatcher::Find(std::string_view type) const {
  const uint32_t key = Key(type);
  for (size_t i = 0; i < keys_.size(); ++i) {
    if (keys_[i] == key && entries_[i].type == type) return &entries_[i].handler;
  }
  return nullptr;
}

}  // namespace qel
