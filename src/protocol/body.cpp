#include "protocol/body.h"

#include <libdeflate.h>
#include <zlib.h>

#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

#include <qel/error.h>

namespace qel {
namespace {

struct FreeCompressor {
  void operator()(libdeflate_compressor* compressor) const {
    libdeflate_free_compressor(compressor);
  }
};

// A compressor is costly to make (it holds its hash tables), so each thread
// keeps one per level it has used, for its whole life.
libdeflate_compressor& Compressor(int level) {
  thread_local std::array<std::unique_ptr<libdeflate_compressor, FreeCompressor>, 13> compressors;
  if (level < 0 || level >= static_cast<int>(compressors.size())) {
    throw std::invalid_argument("CompressBody: bad compression level");
  }
  auto& compressor = compressors[static_cast<size_t>(level)];
  if (!compressor) {
    compressor.reset(libdeflate_alloc_compressor(level));
    if (!compressor) throw std::bad_alloc();
  }
  return *compressor;
}

void SetLength(FieldList& fields, std::string_view name, size_t length) {
  SetField(fields, name, Variant(std::to_string(length)));
}

}  // namespace

void EncryptBody(std::string& data, std::string_view key) {
  if (key.empty())
    throw QelError(errors::kSubscriptOutOfRange, "EncryptBody", "Subscript out of range");
  const size_t n = key.size();
  // pattern[j .. j + 8) holds the key bytes that start at key position j.
  std::string pattern;
  pattern.reserve(n + 7);
  while (pattern.size() < n + 7) pattern.append(key.substr(0, std::min(n, n + 7 - pattern.size())));

  char* bytes = data.data();
  const size_t size = data.size();
  const size_t step = 8 % n;
  size_t j = 0;
  size_t i = 0;
  for (; i + 8 <= size; i += 8) {
    uint64_t word;
    uint64_t mask;
    std::memcpy(&word, bytes + i, 8);
    std::memcpy(&mask, pattern.data() + j, 8);
    word ^= mask;
    std::memcpy(bytes + i, &word, 8);
    j += step;
    if (j >= n) j -= n;
  }
  for (; i < size; ++i) {
    bytes[i] = static_cast<char>(bytes[i] ^ pattern[j]);
    if (++j == n) j = 0;
  }
}

void CompressBody(std::string& data, int level) {
  libdeflate_compressor& compressor = Compressor(level);
  // The bound is always enough, even for data that does not compress.
  const size_t capacity = libdeflate_zlib_compress_bound(&compressor, data.size());
  auto out = std::make_unique_for_overwrite<char[]>(capacity);
  const size_t size =
      libdeflate_zlib_compress(&compressor, data.data(), data.size(), out.get(), capacity);
  if (size == 0) throw std::logic_error("CompressBody: output above libdeflate's bound");
  data.assign(out.get(), size);
}

DecodeResult UncompressBody(std::string& data, int64_t originalLength, int64_t maxLength) {
  if (originalLength < 0 || originalLength > maxLength) return DecodeResult::TooLarge;
  // zlib itself inflates, so every stream another node's zlib makes is read
  // as it expects; inflating costs a small part of what compressing does.
  // The claim bounds the output, so a sender cannot make the node allocate
  // more than the limit it accepted; whatever inflates past it is corrupt.
  std::string out(static_cast<size_t>(originalLength), '\0');
  uLongf length = static_cast<uLongf>(originalLength);
  int rc = uncompress(reinterpret_cast<Bytef*>(out.data()), &length,
                      reinterpret_cast<const Bytef*>(data.data()), static_cast<uLong>(data.size()));
  if (rc == Z_MEM_ERROR) throw std::bad_alloc();
  if (rc != Z_OK) return DecodeResult::Corrupt;
  if (length < out.size()) {
    // A claim larger than the body must not keep its memory.
    out.resize(length);
    out.shrink_to_fit();
  }
  data = std::move(out);
  return DecodeResult::Ok;
}

void EncodeBody(typMessage& message, const EncodeOptions& options) {
  if (message.Body.empty()) return;
  if (options.useEnc) {
    const bool ownKey = !options.destinationKey.empty();
    EncryptBody(message.Body, ownKey ? options.destinationKey : options.netPass);
    AppendField(message.Fields, "Flags", ownKey ? "KE" : "NE", ",");
  }
  if (options.useComp) {
    AppendField(message.Fields, "Flags", "Z", ",");
    SetLength(message.Fields, "Original-Length", message.Body.size());
    CompressBody(message.Body);
  }
  SetLength(message.Fields, "Content-Length", message.Body.size());
}

DecodeOutcome DecodeBody(typMessage& message, std::string_view netPass, std::string_view ownKey,
                         int64_t maxLength) {
  DecodeOutcome outcome;
  outcome.contentLength = static_cast<int64_t>(message.Body.size());
  outcome.originalLength = outcome.contentLength;
  if (message.Body.empty()) return outcome;

  const bool ne = HasFlag(message, "NE");
  const bool ke = !ne && HasFlag(message, "KE");
  const std::string_view key = ne ? netPass : ownKey;
  // Checked before inflating so a throw leaves the body as received.
  if ((ne || ke) && key.empty()) {
    throw QelError(errors::kSubscriptOutOfRange, "EncryptBody", "Subscript out of range");
  }
  if (HasFlag(message, "Z")) {
    outcome.compressed = true;
    const std::string* field = FindField(message.Fields, "Original-Length");
    std::optional<int64_t> original = field ? ParseLength(*field) : std::nullopt;
    if (!original) {
      outcome.result = DecodeResult::Corrupt;
      return outcome;
    }
    outcome.originalLength = *original;
    outcome.result = UncompressBody(message.Body, *original, maxLength);
    if (outcome.result != DecodeResult::Ok) return outcome;
  }
  if (ne || ke) EncryptBody(message.Body, key);
  return outcome;
}

}  // namespace qel
