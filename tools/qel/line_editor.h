// Line editing and history for the console on a terminal, with libedit.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include <termios.h>

namespace qelcli {

// libedit is not thread-safe and events are written on the event loop's
// thread, so libedit runs there too, in its unbuffered mode, one key at a
// time. A watcher thread only waits for stdin to have input, posts a read
// to the loop, and waits for that read to finish before it waits again: a
// command that runs the loop while it waits (ping) is never entered by a
// second read, and what is typed meanwhile is read once it is done.
class LineEditor {
 public:
  // onLine gets each line typed, or nullopt at end of input, on the loop's
  // thread; it returns whether to read on.
  LineEditor(std::string prompt, std::function<bool(std::optional<std::string>)> onLine);
  // On the loop's thread: stops reading and gives the terminal back.
  ~LineEditor();
  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;

  // Writes whole lines above the line being typed, which stays as it was.
  void Print(std::string_view text);
  // Keeps lines (each ending with a newline) just above the line being
  // typed, below whatever is printed later; each call replaces the last.
  void Status(std::string_view lines);

 private:
  struct Libedit;
  struct Watch;

  void Write(std::string_view text);
  void ReadKeys();
  void Finish(std::optional<std::string> line);
  void Watcher();

  std::unique_ptr<Libedit> edit_;
  std::shared_ptr<Watch> watch_;  // shared with the reads posted to the loop
  std::function<bool(std::optional<std::string>)> onLine_;
  std::string status_;
  size_t statusLines_ = 0;  // on the screen now
  bool editing_ = false;  // a line is on the screen, taking keys
  bool finished_ = false;
  termios terminal_{};  // stdin's settings before libedit
  int wake_[2] = {-1, -1};  // written to by the destructor to end the watcher
  std::thread watcher_;
};

}  // namespace qelcli
