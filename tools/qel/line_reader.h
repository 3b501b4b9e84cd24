// Reads stdin's lines on a thread of its own, so the event loop never blocks.
#pragma once

#include <functional>
#include <string>
#include <thread>

namespace qelcli {

class LineReader {
 public:
  // Calls onLine for each line of fd (without its "\n" or "\r\n") and then
  // onEnd once at end of input, both on the reader's thread.
  LineReader(int fd, std::function<void(std::string)> onLine, std::function<void()> onEnd);
  // Stops reading, even in the middle of a line, and joins the thread.
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

 private:
  void Run();

  int fd_;
  int wake_[2] = {-1, -1};  // written to by the destructor to end the poll
  std::function<void(std::string)> onLine_;
  std::function<void()> onEnd_;
  std::thread thread_;
};

}  // namespace qelcli
