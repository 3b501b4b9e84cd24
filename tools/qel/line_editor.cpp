#include "line_editor.h"

#include <histedit.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <system_error>

#include <qel/event_loop.h>

namespace qelcli {
namespace {

// Bound to a function that asks libedit to redraw the whole line: the one
// way to make it clear the line on the screen.
constexpr const char* kRedrawKeys = "^X^]";
constexpr const char* kRedrawPushed = "\030\035";

bool InputWaiting() {
  pollfd fd{0, POLLIN, 0};
  return poll(&fd, 1, 0) > 0;
}

}  // namespace

struct LineEditor::Libedit {
  EditLine* el = nullptr;
  History* history = nullptr;
  std::string prompt;
  bool hidden = false;  // the prompt is left out while the line is off the screen

  static char* Prompt(EditLine* el) {
    void* self = nullptr;
    el_get(el, EL_CLIENTDATA, &self);
    auto* edit = static_cast<Libedit*>(self);
    return const_cast<char*>(edit->hidden ? "" : edit->prompt.c_str());
  }

  static unsigned char Redraw(EditLine*, int) { return CC_REDISPLAY; }

  ~Libedit() {
    if (el) el_end(el);  // restores the terminal
    if (history) history_end(history);
  }
};

struct LineEditor::Watch {
  std::mutex mutex;
  std::condition_variable done;
  bool busy = false;    // a read is posted and has not finished
  bool closed = false;  // the editor is gone
};

LineEditor::LineEditor(std::string prompt, std::function<bool(std::optional<std::string>)> onLine)
    : edit_(std::make_unique<Libedit>()),
      watch_(std::make_shared<Watch>()),
      onLine_(std::move(onLine)) {
  // Multibyte characters are edited as one.
  std::setlocale(LC_CTYPE, "");
  tcgetattr(0, &terminal_);
  edit_->prompt = std::move(prompt);
  edit_->history = history_init();
  HistEvent event;
  history(edit_->history, &event, H_SETSIZE, 1000);
  history(edit_->history, &event, H_SETUNIQUE, 1);
  EditLine* el = edit_->el = el_init("qel", stdin, stdout, stderr);
  el_set(el, EL_CLIENTDATA, edit_.get());
  el_set(el, EL_EDITOR, "emacs");
  // SIGINT and SIGTERM are the console's: libedit must not catch them.
  el_set(el, EL_SIGNAL, 0);
  el_set(el, EL_HIST, history, edit_->history);
  el_set(el, EL_PROMPT, &Libedit::Prompt);
  el_source(el, nullptr);  // the user's ~/.editrc
  el_set(el, EL_ADDFN, "qel-redraw", "redraw the line", &Libedit::Redraw);
  el_set(el, EL_BIND, kRedrawKeys, "qel-redraw", nullptr);
  el_set(el, EL_UNBUFFERED, 1);  // shows the prompt
  editing_ = true;

  if (pipe(wake_) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  watcher_ = std::thread([this] { Watcher(); });
}

LineEditor::~LineEditor() {
  {
    std::lock_guard lock(watch_->mutex);
    watch_->closed = true;
  }
  watch_->done.notify_all();
  (void)!write(wake_[1], "x", 1);
  watcher_.join();
  close(wake_[0]);
  close(wake_[1]);
  // The shell's prompt goes on a line of its own.
  if (editing_) std::fputs("\n", stdout);
  std::fflush(stdout);
  edit_.reset();
  tcsetattr(0, TCSADRAIN, &terminal_);
}

void LineEditor::Print(std::string_view text) {
  // The status lines are taken off, the text written where they were, and
  // they go back below it.
  std::string out;
  for (size_t i = 0; i < statusLines_; ++i) out += "\x1b[1A\x1b[2K";
  out += '\r';
  out += text;
  out += status_;
  statusLines_ = static_cast<size_t>(std::count(status_.begin(), status_.end(), '\n'));
  Write(out);
}

void LineEditor::Status(std::string_view lines) {
  status_ = lines;
  Print("");
}

void LineEditor::Write(std::string_view text) {
  if (!editing_) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    return;
  }
  EditLine* el = edit_->el;
  // Take the line off: empty it and hide the prompt, then have libedit
  // redraw the whole of it, which leaves the cursor where the prompt began.
  const LineInfoW* line = el_wline(el);
  const std::wstring typed(line->buffer, line->lastchar);
  const int cursor = static_cast<int>(line->cursor - line->buffer);
  el_cursor(el, static_cast<int>(typed.size()) - cursor);
  el_deletestr(el, static_cast<int>(typed.size()));
  edit_->hidden = true;
  el_push(el, kRedrawPushed);
  int count = 0;
  el_gets(el, &count);  // runs the pushed keys only

  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);

  // Put it back below the text, cursor and all.
  edit_->hidden = false;
  if (!typed.empty()) el_winsertstr(el, typed.c_str());
  el_cursor(el, cursor - static_cast<int>(typed.size()));
  el_set(el, EL_REFRESH);
}

void LineEditor::ReadKeys() {
  while (editing_ && InputWaiting()) {
    int count = 0;
    const char* line = el_gets(edit_->el, &count);
    if (!line) {
      Finish(std::nullopt);  // end of input, or the terminal is gone
      return;
    }
    if (count > 0 && line[count - 1] == '\n') Finish(std::string(line, count - 1));
  }
}

void LineEditor::Finish(std::optional<std::string> line) {
  // While the line's command runs the terminal writes as usual but echoes
  // nothing: keys typed meanwhile show once the next prompt reads them.
  el_set(edit_->el, EL_UNBUFFERED, 0);
  termios quiet = terminal_;
  quiet.c_lflag &= ~(ECHO | ICANON);
  quiet.c_cc[VMIN] = 1;
  quiet.c_cc[VTIME] = 0;
  tcsetattr(0, TCSADRAIN, &quiet);
  editing_ = false;
  if (!line) std::fputs("\n", stdout);
  if (line && !line->empty()) {
    HistEvent event;
    history(edit_->history, &event, H_ENTER, line->c_str());
  }
  const bool end = !line;
  if (!onLine_(std::move(line)) || end) {
    finished_ = true;
    return;
  }
  // libedit must find the terminal as it was when it started: it takes
  // other chars for the user's own and would bind Ctrl-D to insert itself.
  tcsetattr(0, TCSADRAIN, &terminal_);
  el_set(edit_->el, EL_UNBUFFERED, 1);  // a fresh line with its prompt
  editing_ = true;
}

void LineEditor::Watcher() {
  for (;;) {
    pollfd fds[2] = {{0, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents) return;
    std::unique_lock lock(watch_->mutex);
    watch_->busy = true;
    qel::Post([this, watch = watch_] {
      {
        std::lock_guard lock(watch->mutex);
        if (watch->closed) return;
      }
      ReadKeys();
      // Once the console is done nothing more is read: the watcher waits
      // for the end.
      if (finished_) return;
      std::lock_guard lock(watch->mutex);
      watch->busy = false;
      watch->done.notify_all();
    });
    watch_->done.wait(lock, [this] { return !watch_->busy || watch_->closed; });
    if (watch_->closed) return;
  }
}

}  // namespace qelcli
