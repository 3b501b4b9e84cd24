#include "hash_figure.h"

#include <cstdio>
#include <filesystem>
#include <vector>

#include <qel/md5.h>

#include "harness.h"

namespace qelbench {
namespace {

// What `md5sum file` prints before its first blank, or empty.
std::string Md5sum(const std::string& path) {
  std::string command = "md5sum '" + path + "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return "";
  char digest[33] = {};
  const bool ok = std::fread(digest, 1, 32, pipe) == 32;
  pclose(pipe);
  return ok ? std::string(digest, 32) : "";
}

std::string Megabytes(double bytesPerSecond) {
  char text[32];
  std::snprintf(text, sizeof text, "%.0f MB/s", bytesPerSecond / 1e6);
  return text;
}

}  // namespace

void HashFigure(const std::string& folder, int64_t bytes, int runs) {
  const std::string path = folder + "/hash-figure.bin";
  WriteRandomFile(path, bytes);
  std::string failure;
  std::vector<double> qel, reference;
  std::string qelDigest, referenceDigest;
  qelDigest = qel::GetFileHash(path);  // warms the page cache
  for (int run = 0; run < runs; ++run) {
    int64_t start = NowNs();
    qelDigest = qel::GetFileHash(path);
    qel.push_back(static_cast<double>(bytes) * 1e9 / static_cast<double>(NowNs() - start));
    start = NowNs();
    referenceDigest = Md5sum(path);
    reference.push_back(static_cast<double>(bytes) * 1e9 / static_cast<double>(NowNs() - start));
  }
  std::filesystem::remove(path);
  if (qelDigest != referenceDigest) failure = "digests differ: " + qelDigest + " " + referenceDigest;

  const Summary q = Summarise(qel), r = Summarise(reference);
  std::printf("md5 of a %lld MiB file: ", static_cast<long long>(bytes >> 20));
  if (!failure.empty()) {
    std::printf("failed (%s)\n", failure.c_str());
  } else {
    std::printf("qel %s %s  md5sum %s %s\n", Megabytes(q.median).c_str(), FormatSpread(q).c_str(),
                Megabytes(r.median).c_str(), FormatSpread(r).c_str());
  }
  std::fflush(stdout);
}

}  // namespace qelbench
