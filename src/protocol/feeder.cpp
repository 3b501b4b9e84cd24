#include "protocol/feeder.h"

#include <algorithm>
#include <cstdint>

namespace qel {
namespace {

constexpr std::string_view kEndOfHeader = "\r\n\r\n";
// Reserved up front at most; a peer's Content-Length is only a claim.
constexpr int64_t kMaxBodyReserve = 1 << 20;

// Where the end of the header finishes within data (one past its last byte),
// given the header received so far; npos when it is not there yet. Only the
// last three bytes of what came before can be part of it, so the header is
// never searched again.
size_t EndOfHeader(std::string_view before, std::string_view data) {
  const size_t carried = std::min<size_t>(before.size(), kEndOfHeader.size() - 1);
  for (size_t k = carried; k > 0; --k) {
    // k bytes of the terminator already arrived; the rest must open data.
    const size_t need = kEndOfHeader.size() - k;
    if (before.substr(before.size() - k) == kEndOfHeader.substr(0, k) &&
        data.substr(0, need) == kEndOfHeader.substr(k)) {
      return need;
    }
  }
  size_t at = data.find(kEndOfHeader);
  return at == std::string_view::npos ? at : at + kEndOfHeader.size();
}

}  // namespace

bool MessageFeeder::TakeWhole(std::string_view& data) {
  std::string_view type;
  WireIndex index;
  int64_t length = 0;
  if (!IndexHeader(data, limits_.maxHeader, index, type, length)) return false;
  // Over the limit, or not all here yet: the full path decides.
  if (length > limits_.maxMessage || length > INT32_MAX ||
      static_cast<uint64_t>(length) > data.size() - index.headerSize) {
    return false;
  }
  whole_ = {data.substr(0, index.headerSize + static_cast<size_t>(length)), type, index};
  data.remove_prefix(whole_.bytes.size());
  return true;
}

MessageFeeder::StepResult MessageFeeder::TakeHeader(std::string_view& data) {
  const size_t end = EndOfHeader(current_.Header, data);
  const size_t take = end == std::string_view::npos ? data.size() : end;
  if (current_.Header.size() + take > limits_.maxHeader) {
    Reset();
    return StepResult::HeaderTooLong;
  }
  if (end == std::string_view::npos) {
    current_.Header.append(data);
    data.remove_prefix(take);
    return StepResult::NeedMore;
  }
  // A header that arrived in one piece is parsed where it lies, uncopied.
  const std::string_view whole =
      current_.Header.empty() ? data.substr(0, take) : current_.Header.append(data.substr(0, take));
  data.remove_prefix(take);

  current_.HeaderDone = true;
  if (!ParseHeader(current_, whole)) {
    ++malformed_;
    Reset();
    return StepResult::Dropped;
  }
  // Absent or not a number counts as no body. Lengths are 32-bit on every
  // node, so a larger one is refused like any other over the limit.
  bodyLength_ = 0;
  bodyFilled_ = 0;
  if (const std::string* field = FindField(current_.Fields, "Content-Length")) {
    std::optional<int64_t> length = ParseLength(*field);
    if (length && *length > 0) bodyLength_ = *length;
  }
  if (bodyLength_ > limits_.maxMessage || bodyLength_ > INT32_MAX) {
    Reset();
    return StepResult::BodyTooLong;
  }
  if (bodyLength_ > 0)
    current_.Body.reserve(static_cast<size_t>(std::min(bodyLength_, kMaxBodyReserve)));
  return StepResult::Complete;
}

MessageFeeder::StepResult MessageFeeder::Step(std::string_view& data) {
  if (!current_.HeaderDone) {
    // A message that starts in data and ends there too, in the plain form,
    // is found and indexed in one pass, and kept as it came.
    if (limits_.keepPlainAsBytes && current_.Header.empty() && TakeWhole(data))
      return StepResult::Whole;
    StepResult header = TakeHeader(data);
    if (header != StepResult::Complete) return header;
  }
  std::string& body = current_.Body;
  const size_t missing = static_cast<size_t>(bodyLength_) - bodyFilled_;
  const size_t take = std::min(missing, data.size());
  // Room offered for a read and not used: the bytes came this way instead.
  if (body.size() > bodyFilled_) body.resize(bodyFilled_);
  Reserve(bodyFilled_ + take);
  body.append(data.substr(0, take));
  bodyFilled_ += take;
  data.remove_prefix(take);
  if (take < missing) return StepResult::NeedMore;
  bodyFilled_ = 0;
  return StepResult::Complete;
}

void MessageFeeder::Reserve(size_t size) {
  std::string& body = current_.Body;
  if (size <= body.capacity()) return;
  // Doubled as a string does, but never past the announced length. A fresh
  // string, because reserve on one that has room doubles it regardless.
  std::string grown;
  grown.reserve(std::min(static_cast<size_t>(bodyLength_), std::max(size, 2 * body.capacity())));
  grown.append(body);
  body.swap(grown);
}

std::span<char> MessageFeeder::BodyRoom() {
  if (!current_.HeaderDone || bodyLength_ < kDirectBody) return {};
  std::string& body = current_.Body;
  const auto length = static_cast<size_t>(bodyLength_);
  if (body.size() == bodyFilled_) {
    // Grown only as the bytes come: a peer's Content-Length is only a claim.
    const size_t end = std::min(length, bodyFilled_ + kBodyStep);
    Reserve(end);
    body.resize(end);
  }
  return {body.data() + bodyFilled_, body.size() - bodyFilled_};
}

bool MessageFeeder::TakeDirect(size_t n) {
  bodyFilled_ += std::min(n, current_.Body.size() - bodyFilled_);
  return current_.HeaderDone && bodyFilled_ == static_cast<size_t>(bodyLength_);
}

}  // namespace qel
