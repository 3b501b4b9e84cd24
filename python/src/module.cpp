// _qel: the C++ half of the Python module; qel/__init__.py builds the
// Pythonic API (events, asyncio, exceptions) over it.
#include <pybind11/functional.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>

#include <qel/qel.h>
#ifdef QEL_HAVE_ADMIN
#include <qel/admin.h>
#endif

#include "admin/event_json.h"
#include "admin/snapshot_json.h"

namespace py = pybind11;

namespace {

// Set once asyncio watches the loop's descriptor: from then on a call that
// may leave work queued wakes the loop, so asyncio runs it without delay.
bool descriptorWatched = false;

// Wraps a call made from Python outside the loop's handlers.
struct HostCall {
  ~HostCall() {
    if (descriptorWatched) qel::WakeLoop();
  }
};

// "Error <number>: <text>" as the node's Error event words its faults; other
// texts (a connect's failure) carry no number.
int32_t ErrorNumber(const std::string& text) {
  if (text.rfind("Error ", 0) != 0) return 0;
  try {
    return std::stoi(text.substr(6));
  } catch (...) {
    return 0;
  }
}

class Node {
 public:
  Node(const std::string& name, int32_t port, const std::string& settings) {
    node_.Error = [this](std::string& text, std::string& from) {
      lastError_ = text;
      Emit("error", text, from);
    };
    node_.MessageReceived = [this](std::string& text, std::string& type, std::string& from) {
      if (type.empty()) {
        Emit("message", text, from);
      } else {
        Emit("message", text, from, type);
      }
    };
    node_.ConnectionReq = [this](std::string& ip, bool& cancel) {
      cancel = Emit("connection_request", ip);
    };
    node_.ConnectionEstab = [this](std::string& address) { Emit("connected", address); };
    node_.ConnectionClosed = [this](std::string& address, std::string& id) {
      Emit("disconnected", address, id);
    };
    node_.FetchProgress = [this](std::string& id, int64_t& done, int64_t& total) {
      Emit("fetch_progress", id, done, total);
    };
    node_.FetchFinished = [this](std::string& id, qel::enmFileStatus& status, std::string& reason) {
      Emit("fetch_done", id, status == qel::FS_Complete, reason);
    };
    Checked([&] {
      node_.Initialise(name, port, qel::role_Peer, "", "", settings);
      return lastError_.empty();  // bad settings are reported, not returned
    });
  }

  ~Node() { Detach(); }

  void Attach(py::handle self) { self_ = self; }
  // Called before the Python object goes: events may no longer reach it.
  void Detach() { self_ = py::handle(); }

  std::string Id() { return node_.NodeID(); }
  std::string KeyId() { return node_.KeyID(); }
  int32_t Port() { return node_.ListenPort(); }

  void Listen(int32_t port) {
    Checked([&] { return node_.Listen(port); }, "cannot listen");
  }
  void Connect(const std::string& address, bool maintain) {
    Checked([&] {
      py::gil_scoped_release release;
      return node_.Connect(address, false, maintain);
    }, "cannot connect to " + address);
  }
  bool Disconnect(const std::string& address) {
    HostCall call;
    return node_.DisconnectFrom(address);
  }
  void Send(const std::string& text, const std::string& to) {
    HostCall call;
    node_.SendMessage(text, to);
  }
  // The round trip in seconds, to the microsecond; none when no answer came
  // in time.
  std::optional<double> Ping(const std::string& id, int32_t timeoutMs) {
    // Shared with the ping: a node closed meanwhile drops it uncalled.
    auto rtt = std::make_shared<std::optional<std::chrono::microseconds>>();
    Checked([&] {
      node_.PingAsync(id, [rtt](std::chrono::microseconds r) { *rtt = r; }, timeoutMs);
      py::gil_scoped_release release;
      // The ping's own deadline ends it; the margin only lets that timer run.
      const auto until = std::chrono::steady_clock::now() +
                         std::chrono::milliseconds(timeoutMs) + std::chrono::seconds(1);
      while (!*rtt && std::chrono::steady_clock::now() < until) qel::DoEvents(timeoutMs);
      return true;
    });
    if (!*rtt || (*rtt)->count() < 0) return std::nullopt;
    return (*rtt)->count() / 1e6;
  }
  // Starts a ping; its end comes as the event "ping_done" with token and the
  // round trip in microseconds (negative: none in time).
  void StartPing(int64_t token, const std::string& id, int32_t timeoutMs) {
    HostCall call;
    node_.PingAsync(
        id, [this, token](std::chrono::microseconds rtt) { Emit("ping_done", token, rtt.count()); },
        timeoutMs);
  }
  std::optional<py::dict> Info(const std::string& id, bool cached) {
    std::vector<qel::typNodeInfo> all;
    Checked([&] {
      py::gil_scoped_release release;
      all = node_.GetNodeInfo(id, cached);
      return true;
    });
    if (all.empty() || all[0].ID.empty()) return std::nullopt;
    const auto& i = all[0];
    py::dict d;
    d["id"] = i.ID;
    d["name"] = i.Name;
    d["role"] = static_cast<int>(i.Role);
    d["descriptor"] = i.Descriptor;
    d["direct"] = i.directConn;
    d["address"] = i.Address;
    d["sharing_files"] = i.sharingFiles;
    d["active_user"] = i.activeUser;
    return d;
  }
  void Share(const std::string& folder) {
    Checked([&] {
      node_.shareFolder(folder);
      return true;
    });
  }
  std::vector<std::string> List(const std::string& id, const std::string& path, bool recursive) {
    std::vector<std::string> out;
    Checked([&] {
      py::gil_scoped_release release;
      out = node_.GetContents(path, id, recursive);
      return true;
    });
    if (!out.empty()) out.erase(out.begin());  // element 0 is always empty
    return out;
  }
  // (size, md5 or None); None when the node did not answer, size -1 for no such file.
  std::optional<py::tuple> FileInfo(const std::string& id, const std::string& path, bool hash) {
    qel::typFileInfo info;
    Checked([&] {
      py::gil_scoped_release release;
      info = node_.GetFileInfo(path, id, !hash);
      return true;
    });
    if (!info.isAnswered) return std::nullopt;
    py::object digest = info.strHash.empty() ? py::none() : py::object(py::str(info.strHash));
    return py::make_tuple(info.lngSize, digest);
  }
  std::string StartFetch(const std::string& id, const std::string& remote,
                         const std::string& local, int64_t start, int64_t end, bool resume,
                         bool verify) {
    std::string fetchId;
    Checked([&] {
      fetchId = node_.FetchFile(id, remote, local,
                                {.lngStart = start, .lngEnd = end, .resume = resume, .verify = verify});
      return !fetchId.empty();
    }, "cannot fetch " + remote);
    return fetchId;
  }
  bool CancelFetch(const std::string& id) {
    HostCall call;
    return node_.CancelFetch(id);
  }

  void SetUser(const std::string& name, const std::string& password, bool remove) {
    Checked([&] {
      node_.updateUser(name, password, remove ? qel::user_Remove : qel::user_Update);
      return true;
    });
  }
  bool Login(const std::string& name, const std::string& password) {
    HostCall call;
    py::gil_scoped_release release;
    return node_.LoginAs(name, password);
  }
  std::string Users() { return node_.getUserXML(); }
  // The snapshot as the status API writes it: one JSON text, which Python reads into
  // dicts, so the two never differ.
  std::string SnapshotJson() {
    std::ostringstream out;
    std::string buffer;
    qel::admin::WriteJsonLine(out, qel::admin::SnapshotJson(node_.Snapshot()), buffer);
    return out.str();
  }
  void SyncUsers() {
    HostCall call;
    node_.SyncUserList();
  }

  // Calls of name run the Python object's _answer, which finds its handler:
  // no Python object is held here, as the node may release its bindings
  // after the interpreter is gone.
  void Bind(const std::string& name) {
    HostCall call;
    auto rpc = node_.bindRPC(name, qel::RPC_INCOMING);
    rpc->RemoteProcCall = [this](std::string& proc, std::string& params, std::string& reqId,
                                 std::string& from, bool&) {
      py::gil_scoped_acquire gil;
      if (!self_) return;
      try {
        py::object answer = self_.attr("_answer")(proc, params, from);
        if (!answer.is_none()) node_.returnRemoteProc(reqId, answer.cast<std::string>());
      } catch (py::error_already_set& e) {
        e.discard_as_unraisable(proc.c_str());
      }
    };
  }
  void Unbind(const std::string& name) {
    HostCall call;
    node_.unbindRPC(name, qel::RPC_INCOMING);
  }
  // Starts a call; the answer comes as the event "rpc_return".
  std::string StartCall(const std::string& id, const std::string& name, const std::string& params) {
    HostCall call;
    if (returns_.insert(name).second) {
      auto rpc = node_.bindRPC(name, qel::RPC_RETURN);
      rpc->RemoteProcReturn = [this](std::string& proc, std::string& result, std::string& reqId,
                                     std::string& from) {
        Emit("rpc_return", reqId, result, from, proc);
      };
    }
    return node_.callRemoteProc(id, name, params);
  }

  void Close() {
    Detach();
    HostCall call;
#ifdef QEL_HAVE_ADMIN
    admin_.reset();
#endif
    node_.ShutDown();
  }

  std::string ServeHttp(const std::string& address, int32_t port, const std::string& token) {
#ifdef QEL_HAVE_ADMIN
    HostCall call;
    if (admin_) throw qel::QelError(0, "qel", "this node serves HTTP already");
    auto server = std::make_unique<qel::AdminServer>(node_, qel::AdminOptions{address, port, token});
    std::string url = server->Start();
    admin_ = std::move(server);
    return url;
#else
    throw qel::QelError(0, "qel", "this qel was built without cpp-httplib: it serves no HTTP");
#endif
  }

 private:
  // Hands an event to the Python object, which calls its handler and feeds
  // its event streams; true when a handler answered True (a refusal).
  template <typename... Args>
  bool Emit(const char* name, const Args&... args) {
    py::gil_scoped_acquire gil;
    if (!self_) return false;
    try {
      return py::bool_(self_.attr("_emit")(name, args...));
    } catch (py::error_already_set& e) {
      e.discard_as_unraisable(name);
      return false;
    }
  }

  // Runs a call; a false result raises qel.Error with the fault the node
  // reported meanwhile (or what), so a failure never passes silently.
  template <typename F>
  void Checked(F&& f, const std::string& what = "") {
    HostCall call;
    lastError_.clear();
    const bool ok = f();
    if (ok) return;
    std::string text = lastError_.empty() ? what : lastError_;
    throw qel::QelError(ErrorNumber(text), "qel", text);
  }

  qel::cQEL node_;
  py::handle self_;  // borrowed: the Python object owns this one
  std::string lastError_;
  std::set<std::string> returns_;
#ifdef QEL_HAVE_ADMIN
  std::unique_ptr<qel::AdminServer> admin_;  // after node_: it goes first
#endif
};

}  // namespace

PYBIND11_MODULE(_qel, m) {
  m.doc() = "QEL's C++ library; use the qel package, not this module";
  m.attr("version") = qel::cQELStats().QELVersion();

  // Kept for the process's life: a static py::object would be released after
  // the interpreter is gone.
  static py::handle errorType = 
      py::object(py::module_::import("qel._errors").attr("Error")).release();
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const qel::QelError& e) {
      py::object err = errorType(e.Number, e.Description);
      PyErr_SetObject(errorType.ptr(), err.ptr());
    }
  });

  m.def("process", [](int32_t waitMs) {
    py::gil_scoped_release release;
    qel::DoEvents(waitMs);
  }, py::arg("wait_ms") = 0, "Runs every ready event; waits up to wait_ms for one when none is.");
  m.def("descriptor", [] {
    descriptorWatched = true;
    return qel::LoopDescriptor();
  }, "A descriptor readable while events are ready.");
  m.def("wake", &qel::WakeLoop);

  py::class_<Node>(m, "Node")
      .def(py::init<const std::string&, int32_t, const std::string&>())
      .def("_attach", &Node::Attach)
      .def("_detach", &Node::Detach)
      .def_property_readonly("node_id", &Node::Id)
      .def_property_readonly("key_id", &Node::KeyId)
      .def_property_readonly("port", &Node::Port)
      .def("listen", &Node::Listen, py::arg("port") = 0)
      .def("connect", &Node::Connect, py::arg("address"), py::arg("maintain") = false)
      .def("disconnect", &Node::Disconnect)
      .def("send", &Node::Send, py::arg("text"), py::arg("to"))
      .def("_ping", &Node::Ping)
      .def("_start_ping", &Node::StartPing)
      .def("_node_info", &Node::Info)
      .def("share", &Node::Share)
      .def("list", &Node::List, py::arg("node_id"), py::arg("path"), py::arg("recursive") = false)
      .def("_file_info", &Node::FileInfo)
      .def("_start_fetch", &Node::StartFetch)
      .def("cancel_fetch", &Node::CancelFetch)
      .def("set_user", &Node::SetUser, py::arg("name"), py::arg("password") = "",
           py::arg("remove") = false)
      .def("login", &Node::Login, py::arg("name"), py::arg("password") = "")
      .def("_users", &Node::Users)
      .def("_snapshot_json", &Node::SnapshotJson)
      .def("sync_users", &Node::SyncUsers)
      .def("_bind", &Node::Bind)
      .def("_unbind", &Node::Unbind)
      .def("_start_call", &Node::StartCall)
      .def("_close", &Node::Close)
      .def("serve_http", &Node::ServeHttp, py::arg("address") = "127.0.0.1", py::arg("port") = 0,
           py::arg("token") = "",
           "Serves metrics, status, events and a live page over HTTP; returns the URL. "
           "Off loopback a token is needed. Answered while QEL's loop runs.");
}
