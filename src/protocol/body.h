// Body transformations: repeating-key XOR and zlib, with the flags and length
// fields that announce them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "protocol/message.h"

namespace qel {

// XORs data with key repeated from its first byte; the same call decrypts.
// Throws QelError 9 "Subscript out of range" (source "EncryptBody") when key
// is empty.
void EncryptBody(std::string& data, std::string_view key);

// libdeflate's level for bodies: 7 packs text, source and binaries as tightly
// as zlib's level 9 (within 0.05%, mostly tighter; 2% larger on highly
// repetitive data, and 3 bytes larger below about 30 bytes, which libdeflate
// stores) and 1.5 to 5.5 times faster from 16 KiB up.
inline constexpr int kBodyCompressionLevel = 7;

// Replaces data with its zlib form, made by libdeflate at level (0 to 12):
// any zlib inflates it, although the bytes may differ from what zlib's
// compress2 makes. Throws std::invalid_argument for a level outside 0 to 12,
// std::bad_alloc when the compressor cannot be made. Each thread keeps the
// compressor of each level it used.
void CompressBody(std::string& data, int level = kBodyCompressionLevel);

enum class DecodeResult {
  Ok,
  TooLarge,  // the announced length is negative or above the limit
  Corrupt,   // zlib refused the data, or a length field is not a number
};

// Replaces data with its inflated form. originalLength is the sender's claim
// and the most it may inflate to: output that does not fit is Corrupt, output
// that falls short is accepted. A claim above maxLength is refused before
// anything is allocated. Unlike older nodes, a zlib error is reported instead
// of taking whatever was left in the buffer. data is unchanged unless the
// result is Ok.
DecodeResult UncompressBody(std::string& data, int64_t originalLength, int64_t maxLength);

struct EncodeOptions {
  bool useEnc = false;
  // The destination node's own key when known; netPass otherwise.
  std::string_view destinationKey;
  std::string_view netPass;
  bool useComp = false;
};

// Encodes a non-empty body for sending: encrypts it (flag "KE" with
// destinationKey, else "NE" with netPass), then compresses it (flag "Z",
// "Original-Length" = the length before compression), then sets
// "Content-Length". An empty body is left alone and gets no fields. Throws
// QelError 9 when encryption is on and the chosen key is empty.
void EncodeBody(typMessage& message, const EncodeOptions& options);

struct DecodeOutcome {
  DecodeResult result = DecodeResult::Ok;
  bool compressed = false;     // flag "Z" was set
  int64_t contentLength = 0;   // body bytes as received
  int64_t originalLength = 0;  // "Original-Length" when compressed, else contentLength
};

// Undoes EncodeBody on a received non-empty body: inflates it when "Z" is set
// (limit maxLength), then decrypts with netPass when "NE" is set, else with
// ownKey when "KE" is set. On a result other than Ok the body is left as it
// was received. Throws QelError 9 when the flag's key is empty.
DecodeOutcome DecodeBody(typMessage& message, std::string_view netPass, std::string_view ownKey,
                         int64_t maxLength);

}  // namespace qel
