#include "console.h"

#include <unistd.h>

#include <deque>
#include <iostream>
#include <memory>
#include <optional>
#include <vector>

#ifdef QEL_HAVE_ADMIN
#include <qel/admin.h>
#endif
#include <qel/error.h>
#include <qel/event_loop.h>
#include <qel/log.h>
#include <qel/node.h>

#include "commands.h"
#include "admin/event_json.h"
#include "downloads.h"
#include "line_editor.h"
#include "line_reader.h"
#include "output.h"
#include "rpc_bindings.h"
#include "signals.h"

namespace qelcli {
namespace {

// Events go out through an observer, converted as the admin server converts
// them, so --json and the server's event stream print the same objects.
int32_t ReportEvents(qel::cQEL& node, Output& out, Downloads& downloads) {
  node.Error = nullptr;  // faults before start had their own handler
  return node.AddEventObserver([&out, &downloads](const qel::typEvent& event) {
    // A download's pieces go to its file and show as its progress: a line
    // for each would cost a write and a wake-up of the reader per piece.
    if (event.Name == "FetchProgress") {
      downloads.OnProgress(std::get<std::string>(event.Fields[0].Value),
                           std::get<int64_t>(event.Fields[1].Value),
                           std::get<int64_t>(event.Fields[2].Value));
    } else if (event.Name == "FetchFinished") {
      downloads.OnFinished(std::get<std::string>(event.Fields[0].Value),
                           static_cast<qel::enmFileStatus>(std::get<int64_t>(event.Fields[1].Value)),
                           std::get<std::string>(event.Fields[2].Value));
    } else {
      out.Event(event.Name, qel::admin::EventFields(event));
    }
  });
}

// "127.0.0.1:8080" or "[::1]:8080" as address and port; nullopt when it is
// neither.
std::optional<std::pair<std::string, int32_t>> SplitHostPort(const std::string& text) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return std::nullopt;
  std::string host = text.substr(0, colon);
  if (host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  try {
    size_t used = 0;
    const int port = std::stoi(text.substr(colon + 1), &used);
    if (used != text.size() - colon - 1 || port < 0 || port > 65535) return std::nullopt;
    return std::make_pair(host, port);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

// Runs console lines one at a time. Commands such as ping run the event loop
// while they wait, and lines posted meanwhile must not start a second command
// inside the first: they queue until it is done.
class Console {
 public:
  Console(qel::cQEL& node, Downloads& downloads, RpcBindings& rpc, Output& out, int32_t observer)
      : session_{node, downloads, rpc}, out_(out), observer_(observer) {}

  // A line, or end of input when there is none.
  void Submit(std::optional<std::string> line) {
    queue_.push_back(std::move(line));
    if (running_) return;
    running_ = true;
    while (!queue_.empty() && !session_.quit) {
      std::optional<std::string> next = std::move(queue_.front());
      queue_.pop_front();
      if (next) {
        Run(*next);
      } else {
        Stop();  // end of input: like quit, with nothing written
      }
    }
    running_ = false;
  }

  void Run(const std::string& line) {
    ParsedLine parsed = SplitWord(line);
    if (parsed.word.empty()) return;
    const CommandResult result = RunLine(session_, parsed);
    if (!result.pending) out_.Result(parsed.word, result);
    if (session_.quit) Stop();
  }

  // Quits as end of input does. A command that waits ends first.
  void Stop() {
    if (stopped_) return;
    stopped_ = true;
    session_.quit = true;
    // Nothing more is written once the console is done.
    session_.node.RemoveEventObserver(observer_);
    session_.rpc.Silence();
    qel::StopEventLoop();
  }

  bool Done() const { return session_.quit; }

 private:
  Session session_;
  Output& out_;
  std::deque<std::optional<std::string>> queue_;
  int32_t observer_;
  bool running_ = false;
  bool stopped_ = false;
};

}  // namespace

int RunNode(const NodeOptions& options) {
  std::string settings;
  try {
    settings = AdvancedSettings(options);
  } catch (const OptionError& e) {
    std::cerr << "qel: " << e.what() << "\n";
    return 2;
  }
  if (!CheckSettings(settings, std::cerr)) return 2;
  qel::SetBusyPoll(options.busyPollUs);
  if (!options.logLevel.empty()) qel::SetLogLevel(*qel::ParseLogLevel(options.logLevel));

  // A person at a terminal gets line editing; pipes and services do not.
  const bool interactive = !options.json && !options.noConsole && isatty(0) && isatty(1);
  std::unique_ptr<LineEditor> editor;
  std::unique_ptr<Output> out =
      options.json ? MakeJsonOutput(std::cout)
                   : MakeTextOutput(
                         [&editor](std::string_view text) {
                           if (editor) {
                             editor->Print(text);
                           } else {
                             std::cout << text << std::flush;
                           }
                         },
                         // Progress bars only where someone watches them.
                         [&editor](std::string_view lines) {
                           if (editor) editor->Status(lines);
                         });

  qel::cQEL node;
  Downloads downloads(node, *out);
  RpcBindings rpc(node, *out);
  // What Initialise reports goes with the other faults found before start:
  // a node whose key file gives no key must not run under another identity.
  std::vector<std::string> faults;
  node.Error = [&faults](std::string& text, std::string&) { faults.push_back(text); };
  node.Initialise(options.name, options.port, options.role, options.descriptor,
                  options.shares.empty() ? "" : options.shares.front(), settings);
  for (const std::string& fault : faults) std::cerr << "qel: " << fault << "\n";
  if (node.KeyID().empty()) return 2;
  const int32_t observer = ReportEvents(node, *out, downloads);
  for (size_t i = 1; i < options.shares.size(); ++i) node.shareFolder(options.shares[i]);
  bool listening = false;
  try {
    listening = node.Listen();
  } catch (const qel::QelError& e) {
    std::cerr << "qel: " << e.Description << "\n";
  }
  if (!listening) {
    std::cerr << "qel: cannot listen on "
              << (options.listenAddress.empty() ? "" : options.listenAddress + " ") << "port "
              << options.port
              << (options.port != 0 ? " (is it in use? --port 0 takes any free one)" : "") << "\n";
    return 1;
  }
  const int32_t port = node.ListenPort();
  Json ready = {{"ID", node.NodeID()},
                {"Name", options.name},
                {"Port", port},
                {"Address", qel::LocalAddress() + ":" + std::to_string(port)},
                {"KeyID", node.KeyID()}};
#ifdef QEL_HAVE_ADMIN
  std::unique_ptr<qel::AdminServer> admin;
#endif
  if (!options.http.empty()) {
    const auto at = SplitHostPort(options.http);
    if (!at) {
      std::cerr << "qel: --http takes ADDRESS:PORT, not \"" << options.http << "\"\n";
      return 2;
    }
#ifdef QEL_HAVE_ADMIN
    admin = std::make_unique<qel::AdminServer>(
        node, qel::AdminOptions{.address = at->first, .port = at->second, .token = options.httpToken});
    try {
      ready["Http"] = admin->Start();
    } catch (const qel::QelError& e) {
      std::cerr << "qel: " << e.Description << "\n";
      return 1;
    }
#else
    std::cerr << "qel: --http is not available: this qel was built without cpp-httplib\n";
    return 2;
#endif
  }
  out->Event("Ready", ready);

  Console console(node, downloads, rpc, *out, observer);
  {
    // The handler posts to the loop: a command that waits sees it when done.
    ShutdownSignals signals([&console] { qel::Post([&console] { console.Stop(); }); });
    for (const std::string& server : options.connects) {
      if (!console.Done()) console.Run("connect " + server + (options.maintain ? " maintain" : ""));
    }
    auto submit = [&console](std::optional<std::string> line) {
      qel::Post([&console, line = std::move(line)]() mutable { console.Submit(std::move(line)); });
    };
    std::unique_ptr<LineReader> reader;
    if (interactive) {
      editor = std::make_unique<LineEditor>("qel> ", [&console](std::optional<std::string> line) {
        console.Submit(std::move(line));
        return !console.Done();
      });
      // Log lines go above the line being typed, as events do.
      qel::SetLogSink([&editor](qel::LogLevel level, std::string_view node, std::string_view line) {
        static constexpr const char* kNames[] = {"", "error", "warn", "info", "debug", "trace"};
        editor->Print(std::string(kNames[static_cast<int>(level)]) + " " + std::string(node) +
                      ": " + std::string(line) + "\n");
      });
    } else if (!options.noConsole) {
      reader = std::make_unique<LineReader>(0, submit, [submit] { submit(std::nullopt); });
    }
    if (!console.Done()) qel::RunEventLoop();
    reader.reset();
    if (editor) qel::SetLogSink({});
    editor.reset();
  }
  node.RemoveEventObserver(observer);
  rpc.Silence();
  node.ShutDown();
  return 0;
}

}  // namespace qelcli
