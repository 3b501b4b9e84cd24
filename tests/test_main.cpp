// Test entry point: every run gets its own per-user config folder, so a
// developer's debug switch never leaks in, and a loopback local address, so
// no test traffic can leave the machine.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  auto config = std::filesystem::temp_directory_path() / "qel-tests-xdg";
  std::filesystem::create_directories(config);
  setenv("XDG_CONFIG_HOME", config.c_str(), 1);
  setenv("QEL_LOCAL_ADDRESS", "127.0.0.1", 1);
  return RUN_ALL_TESTS();
}
