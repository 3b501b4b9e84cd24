#include "protocol/percent.h"

#include <algorithm>
#include <cstring>

namespace qel {
namespace {

// An escape that reappears after being decoded needs a nested "%25" chain or a
// decoded digit behind a "%"; no real path does that. Every distinct escape
// (22 x 22 with both cases of hex digits), each followed by a batch of "%25"
// passes, stays below this, so the cap only ends hostile input.
constexpr int kMaxPasses = 1024;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Rewrites path in place from from on: runs without "%" move down as they
// are, and each "%" is handed to onPercent(data, size, read, write), which
// consumes it (and what it decodes) and writes the result.
template <typename OnPercent>
void RewritePercents(std::string& path, size_t from, OnPercent onPercent) {
  char* data = path.data();
  const size_t size = path.size();
  size_t read = from;
  size_t write = from;
  while (read < size) {
    const void* hit = std::memchr(data + read, '%', size - read);
    size_t percent = hit ? static_cast<size_t>(static_cast<const char*>(hit) - data) : size;
    std::memmove(data + write, data + read, percent - read);
    write += percent - read;
    read = percent;
    if (read == size) break;
    onPercent(data, size, read, write);
  }
  path.resize(write);
}

// Replaces every "%" + hi + lo at or after from by decoded, in place.
void ReplaceEscape(std::string& path, size_t from, char hi, char lo, char decoded) {
  RewritePercents(path, from, [=](char* data, size_t size, size_t& read, size_t& write) {
    if (read + 2 < size && data[read + 1] == hi && data[read + 2] == lo) {
      data[write++] = decoded;
      read += 3;
    } else {
      data[write++] = data[read++];
    }
  });
}

// Decoding "%25" k times in a row takes one "25" off every "%" followed by a
// run of "25"s (a decoded "%" can only start a new escape, never end one), so
// the k passes are done in one sweep.
void StripPercentChains(std::string& path, size_t from, size_t k) {
  RewritePercents(path, from, [k](char* data, size_t size, size_t& read, size_t& write) {
    data[write++] = data[read++];
    for (size_t skipped = 0;
         skipped < k && read + 1 < size && data[read] == '2' && data[read + 1] == '5'; ++skipped) {
      read += 2;
    }
  });
}

}  // namespace

std::string DecodePath(std::string path, bool* failed) {
  if (failed) *failed = false;
  // Nothing before the first "%" changes again, so each search resumes at the
  // escape just decoded.
  size_t percent = path.find('%');
  for (int pass = 0; percent != std::string::npos && percent + 2 < path.size(); ++pass) {
    const char hi = path[percent + 1];
    const char lo = path[percent + 2];
    const int high = HexValue(hi);
    const int low = HexValue(lo);
    if (high < 0 || low < 0 || pass == kMaxPasses) {
      if (failed) *failed = true;
      return {};
    }
    if (hi == '2' && lo == '5') {
      size_t chain = 0;
      for (size_t at = percent + 1; at + 1 < path.size() && path[at] == '2' && path[at + 1] == '5';
           at += 2) {
        ++chain;
      }
      StripPercentChains(path, percent, chain);
    } else {
      ReplaceEscape(path, percent, hi, lo, static_cast<char>(high * 16 + low));
      percent = path.find('%', percent + 1);
    }
  }
  std::replace(path.begin(), path.end(), '/', '\\');
  return path;
}

}  // namespace qel
