// qel_soak: runs `qel node` processes for a while under faults and reports
// what arrived, what crashed and how much memory the nodes took.
#include <cstdio>
#include <ctime>
#include <exception>

#include <CLI/CLI.hpp>

#include "child.h"
#include "hosts.h"
#include "ring.h"

int main(int argc, char** argv) {
  soak::RingOptions ring;
  soak::HostsOptions hosts;
#ifdef QEL_CLI_PATH
  ring.qel = QEL_CLI_PATH;
#endif
  bool netns = false;
  CLI::App app{
      "Soak test of qel nodes: a ring on loopback under kills, or (--netns) hosts in "
      "network namespaces linked as a random graph under link faults and kills"};
  app.add_option("--qel", ring.qel, "the qel binary")->capture_default_str();
  app.add_flag("--netns", netns, "run the hosts check in network namespaces (root)");
  app.add_option("--nodes", ring.nodes, "nodes in the ring")
      ->check(CLI::Range(5, 200))
      ->capture_default_str();
  app.add_option("--seconds", ring.seconds,
                 "seconds of sending (--netns: of traffic and faults, default 100)")
      ->check(CLI::Range(1.0, 86400.0))
      ->capture_default_str();
  app.add_option("--rate", ring.rate,
                 "messages a second (--netns: directed, from each talker, default 20)")
      ->check(CLI::Range(1, 100000))
      ->capture_default_str();
  app.add_option("--kill-every-ms", ring.killEveryMs, "one node killed this often")
      ->check(CLI::Range(10, 3600000))
      ->capture_default_str();
  app.add_option("--down-ms", ring.downMs,
                 "a killed node is restarted this long after (--netns: also how long a link stays "
                 "down, default 6000)")
      ->check(CLI::Range(0, 3600000))
      ->capture_default_str();
  app.add_option("--confirm-timeout-ms", ring.confirmTimeoutMs, "confirmTimeout of the nodes")
      ->check(CLI::Range(1, 3600000))
      ->capture_default_str();
  app.add_option("--confirm-retry", ring.confirmRetry, "confirmRetry of the nodes")
      ->check(CLI::Range(0, 1000))
      ->capture_default_str();
  app.add_option("--max-rss-mib", ring.maxRssMiB,
                 "peak RSS a node may reach; 0: no bound (also --netns)")
      ->check(CLI::Range(0L, 1L << 20))
      ->capture_default_str();
  app.add_option("--drain-seconds", ring.drainSeconds, "deadline for the last messages")
      ->check(CLI::Range(1, 86400))
      ->capture_default_str();
  app.add_option("--seed", ring.seed, "random seed (0: from the clock); --netns: also the graph");
  app.add_option("--hosts", hosts.hosts, "--netns: hosts, one node each")
      ->check(CLI::Range(5, 100))
      ->capture_default_str();
  app.add_option("--talkers", hosts.talkers, "--netns: nodes sending directed and broadcast")
      ->check(CLI::Range(2, 20))
      ->capture_default_str();
  app.add_option("--broadcast-every-ms", hosts.broadcastEveryMs,
                 "--netns: a broadcast from each talker this often")
      ->check(CLI::Range(10, 3600000))
      ->capture_default_str();
  app.add_option("--reconverge-seconds", hosts.reconvergeSeconds,
                 "--netns: bound on a pair's silence after a repair")
      ->check(CLI::Range(1.0, 3600.0))
      ->capture_default_str();
  app.add_option("--secure", hosts.secure, "--netns: the nodes' --secure")
      ->check(CLI::IsMember({"off", "prefer", "require"}))
      ->capture_default_str();
  app.add_option("--keepalive", hosts.keepAlive, "--netns: the nodes' keepAlive, seconds")
      ->check(CLI::Range(1, 3600))
      ->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  if (ring.seed == 0) ring.seed = static_cast<unsigned>(std::time(nullptr));
  hosts.qel = ring.qel;
  hosts.seed = ring.seed;
  // The options both runs take keep each run's own defaults unless given.
  if (app.count("--seconds")) hosts.seconds = ring.seconds;
  if (app.count("--rate")) hosts.rate = ring.rate;
  if (app.count("--down-ms")) hosts.downMs = ring.downMs;
  if (app.count("--max-rss-mib")) hosts.maxRssMiB = ring.maxRssMiB;

  soak::InstallSignalHandlers();
  try {
    return netns ? soak::RunHosts(hosts) : soak::RunRing(ring);
  } catch (const soak::Interrupted& e) {
    std::fprintf(stderr, "qel_soak: %s; every node stopped\n", e.what());
    return 130;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "qel_soak: %s\n", e.what());
    return 1;
  }
}
