#include "files/serving_queue.h"

#include <vector>

namespace qel {

size_t QueuedGet::Bytes() const {
  return sizeof(QueuedGet) + asker.size() + reqID.size() + resource.size();
}

ServingQueue::Turn ServingQueue::Offer(QueuedGet& get, size_t maxBytes) {
  Counts& counts = askers_[get.asker];
  if (running_ < kServingPerNode && counts.running < kServingPerAsker) {
    ++running_;
    ++counts.running;
    return Turn::Now;
  }
  const size_t bytes = get.Bytes();
  if (queue_.size() >= kQueuedPerNode || counts.waiting >= kQueuedPerAsker ||
      queuedBytes_ + bytes > maxBytes) {
    Forget(get.asker);
    return Turn::Refused;
  }
  ++counts.waiting;
  queuedBytes_ += bytes;
  queue_.push_back(std::move(get));
  return Turn::Later;
}

void ServingQueue::Ended(const std::string& asker) {
  auto it = askers_.find(asker);
  if (it == askers_.end() || it->second.running == 0) return;
  --it->second.running;
  --running_;
  Forget(asker);
}

std::optional<QueuedGet> ServingQueue::Next(std::vector<QueuedGet>& dropped) {
  for (auto it = queue_.begin(); it != queue_.end();) {
    Counts& counts = askers_[it->asker];
    const bool cancelled = it->cancelled && *it->cancelled;
    if (!cancelled && (running_ >= kServingPerNode || counts.running >= kServingPerAsker)) {
      ++it;
      continue;
    }
    QueuedGet get = std::move(*it);
    it = queue_.erase(it);
    queuedBytes_ -= get.Bytes();
    --counts.waiting;
    if (cancelled) {
      Forget(get.asker);
      dropped.push_back(std::move(get));
      continue;
    }
    ++running_;
    ++counts.running;
    return get;
  }
  return std::nullopt;
}

// An asker with nothing running or waiting leaves the table, which so
// stays as small as the transfers it counts.
void ServingQueue::Forget(const std::string& asker) {
  auto it = askers_.find(asker);
  if (it != askers_.end() && it->second.running == 0 && it->second.waiting == 0) askers_.erase(it);
}

}  // namespace qel
