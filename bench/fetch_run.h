// One `get` between two `qel node --json` processes, checked against the
// source file, and what the transfer figures print of it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "harness.h"

namespace qelbench {

// How long a node process may live: it serves every transfer of the run.
inline constexpr unsigned kNodeLifetimeSeconds = 1800;

// One part of the shared file: where it starts and how many bytes.
struct Span {
  int64_t offset = 0;
  int64_t length = 0;
};

// The next JSON line of a node that matches, skipping the others; nullopt
// with why after timeoutMs, or when the node reports a failure or exits.
std::optional<nlohmann::json> WaitLine(Child& node,
                                       const std::function<bool(const nlohmann::json&)>& match,
                                       int timeoutMs, std::string& why);

// Whether line is the result of the console command word.
bool IsCommand(const nlohmann::json& line, const char* word);

// fetcher fetches span of serverID's shared file "\big" (of fileSize bytes)
// into target with `get`, and the rate comes back as the fetching node timed
// it, from sending GET to the file being whole on disk. nullopt, with why,
// when the result fails, the fetcher's link closes, its pieces stop coming
// for half a minute, or target's length or sampled bytes differ from
// source's. Afterwards the fetcher may still wait for the file: a caller
// that goes on after a failure starts a fresh one.
std::optional<double> Fetch(Child& fetcher, const std::string& serverID, const Span& span,
                            int64_t fileSize, const std::string& source, const std::string& target,
                            std::string& why);

// Reads what a node wrote meanwhile (its pipe must not fill), keeping the
// last Error or ConnectionClosed as the reason a transfer may have failed;
// waits up to waitMs for a first line.
void Drain(Child* node, std::string& trouble, int waitMs = 0);

// "812 MB/s".
std::string Megabytes(double bytesPerSecond);
// "10.4 MiB", or "?" for a negative size.
std::string Mebibytes(int64_t kib);
// "qel 812 MB/s (±3%)", or "qel failed (why)".
std::string Show(const char* name, const std::vector<double>& rates, const std::string& failure);

}  // namespace qelbench
