"""QEL from Python: make this program a node of a QEL overlay.

A node raises events two ways: handlers set as attributes (``node.on_message =
fn``) and, under asyncio, ``async for event in node.events()``. QEL's loop runs
on the thread that created the first node; under asyncio that is the asyncio
thread, which watches the loop's descriptor, so no second thread is needed.
"""

from __future__ import annotations

import asyncio
import dataclasses
import json
import os
import time
import traceback
import warnings
import weakref
from typing import Callable, ClassVar, Optional

from . import _qel
from ._errors import Error

__version__ = _qel.version

__all__ = [
    "Node", "Error", "Timeout", "HandlerWarning", "process", "watch",
    "Message", "Fault", "ConnectionRequest", "Connected", "Disconnected",
    "FetchProgress", "FetchDone", "RpcReturn", "Dropped", "NodeInfo", "FileInfo",
]


class Timeout(Error, TimeoutError):
    """No answer came within the time allowed."""


class HandlerWarning(RuntimeWarning):
    """A handler raised; the node went on."""


# Events: what ``Node.events()`` yields. ``name`` is the handler's suffix
# (``on_message`` for "message").

@dataclasses.dataclass(frozen=True)
class Message:
    name: ClassVar[str] = "message"
    text: str
    from_id: str
    type: str = ""


@dataclasses.dataclass(frozen=True)
class Fault:
    """A fault the node reports, or a message sent as an error."""
    name: ClassVar[str] = "error"
    text: str
    node_id: str


@dataclasses.dataclass(frozen=True)
class ConnectionRequest:
    name: ClassVar[str] = "connection_request"
    address: str


@dataclasses.dataclass(frozen=True)
class Connected:
    name: ClassVar[str] = "connected"
    address: str


@dataclasses.dataclass(frozen=True)
class Disconnected:
    name: ClassVar[str] = "disconnected"
    address: str
    node_id: str


@dataclasses.dataclass(frozen=True)
class FetchProgress:
    name: ClassVar[str] = "fetch_progress"
    fetch_id: str
    done: int
    total: int


@dataclasses.dataclass(frozen=True)
class FetchDone:
    name: ClassVar[str] = "fetch_done"
    fetch_id: str
    ok: bool
    reason: str


@dataclasses.dataclass(frozen=True)
class RpcReturn:
    name: ClassVar[str] = "rpc_return"
    request_id: str
    result: str
    from_id: str
    procedure: str


@dataclasses.dataclass(frozen=True)
class Dropped:
    """Stands for the oldest events a stream let go, unread, to stay within its limit."""
    name: ClassVar[str] = "dropped"
    missed: int


_EVENTS = {cls.name: cls for cls in (Message, Fault, ConnectionRequest, Connected,
                                     Disconnected, FetchProgress, FetchDone, RpcReturn)}


@dataclasses.dataclass(frozen=True)
class NodeInfo:
    id: str
    name: str
    role: int
    descriptor: str
    direct: bool
    address: str
    sharing_files: bool
    active_user: str


@dataclasses.dataclass(frozen=True)
class FileInfo:
    size: int
    md5: Optional[str]


def process(wait: float = 0) -> None:
    """Runs every event that is ready; with nothing ready, waits up to
    ``wait`` seconds for one. A program without asyncio calls it in its loop."""
    _qel.process(int(wait * 1000))


_watched: "weakref.WeakSet[asyncio.AbstractEventLoop]" = weakref.WeakSet()


def watch(loop: Optional[asyncio.AbstractEventLoop] = None) -> None:
    """Runs QEL's events from the asyncio loop (the running one by default)
    whenever they are ready. Nodes do this themselves when created, or when
    ``events()`` or an ``*_async`` method is first used, under a running loop."""
    loop = loop or asyncio.get_running_loop()
    if loop in _watched:
        return
    loop.add_reader(_qel.descriptor(), _qel.process, 0)
    _watched.add(loop)


def _watch_running() -> None:
    try:
        watch()
    except RuntimeError:  # no running loop: the host calls process()
        pass


def _report(where: str, exc: BaseException) -> None:
    text = "".join(traceback.format_exception(exc)).rstrip()
    warnings.warn(f"qel: {where} raised, the node goes on:\n{text}", HandlerWarning, stacklevel=2)


_CLOSED = object()  # the answer of a call its node's closing ended


class _Fetch:
    __slots__ = ("fetch_id", "progress", "future", "ok", "reason")

    def __init__(self, fetch_id, progress, future):
        self.fetch_id = fetch_id
        self.progress = progress
        self.future = future
        self.ok: Optional[bool] = None
        self.reason = ""


class Node(_qel.Node):
    """One node of the overlay.

    ``settings`` is an advanced-settings text (section "Common"), as the C++
    guide describes. Handlers (``on_message(text, from_id)``, ``on_error(text,
    node_id)``, ``on_connection_request(address)`` returning True to refuse,
    ``on_connected(address)``, ``on_disconnected(address, node_id)``,
    ``on_fetch_progress(fetch_id, done, total)``, ``on_fetch_done(fetch_id, ok,
    reason)``) run on the loop's thread; one that raises is reported as a
    HandlerWarning and the node goes on."""

    def __init__(self, name: str, port: int = 0, settings: str = ""):
        super().__init__(name, port, settings)
        self._streams: list = []
        self._fetches: dict = {}
        self._calls: dict = {}
        self._pings: dict = {}
        self._ping_serial = 0
        self._procedures: dict = {}
        self._attach(self)
        _watch_running()

    # Lifetime -----------------------------------------------------------

    def close(self) -> None:
        """Closes the node's links; every later call raises Error, and the fetches,
        calls and pings still waiting end with one."""
        self._close()
        # A closed node raises no more events: what waits for one would wait forever.
        for fetch_id in list(self._fetches):
            self._fetch_event("fetch_done", fetch_id, False, "the node was closed")
        for request, waiting in list(self._calls.items()):
            if waiting is None:
                self._calls[request] = _CLOSED
            elif not waiting.done():
                waiting.set_exception(Error(0, "the node was closed"))
        for future in self._pings.values():
            if not future.done():
                future.set_exception(Error(0, "the node was closed"))

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    # Calls that wait -----------------------------------------------------

    def ping(self, node_id: str, timeout: float = 3.0) -> float:
        """The round trip to node_id in seconds, to the microsecond; Timeout when
        none came (nor, for a node not known yet, its description)."""
        seconds = self._ping(node_id, int(timeout * 1000))
        if seconds is None:
            raise Timeout(0, f"no answer to ping from {node_id} within {timeout} s")
        return seconds

    async def ping_async(self, node_id: str, timeout: float = 3.0) -> float:
        """ping() for asyncio: never blocks the asyncio loop. Several may run at
        once; Timeout also when node_id did not describe itself in time."""
        watch()
        future = asyncio.get_running_loop().create_future()
        self._ping_serial += 1
        token = self._ping_serial
        self._pings[token] = future
        try:
            self._start_ping(token, node_id, int(timeout * 1000))
            microseconds = await future
        finally:
            self._pings.pop(token, None)
        if microseconds < 0:
            raise Timeout(0, f"no answer to ping from {node_id} within {timeout} s")
        return microseconds / 1e6

    def node_info(self, node_id: str, cached: bool = True) -> NodeInfo:
        """What node_id announces about itself; Timeout when it did not answer."""
        info = self._node_info(node_id, cached)
        if info is None:
            raise Timeout(0, f"no information from {node_id}")
        return NodeInfo(**info)

    def file_info(self, node_id: str, path: str, md5: bool = False) -> FileInfo:
        """Size (and MD5 when asked) of a file node_id shares."""
        answer = self._file_info(node_id, path, md5)
        if answer is None:
            raise Timeout(0, f"no answer about {path} from {node_id}")
        if answer[0] < 0:
            raise Error(3, f"{path} is not a shared file of {node_id}")
        return FileInfo(*answer)

    def share(self, folder: str) -> None:
        """Offers a local folder to the network under its last path component."""
        if not os.path.isdir(folder):
            raise Error(3, f"no such folder: {folder}")
        super().share(os.path.abspath(folder))

    def fetch(self, node_id: str, remote: str, local: str,
              progress: Optional[Callable[[int, int], None]] = None, *,
              start: int = -1, end: int = -1, resume: bool = False, verify: bool = False) -> None:
        """Fetches a shared file into ``local``, running the loop until it is
        complete; progress(done, total) follows it. Error when it fails."""
        state = self._begin_fetch(node_id, remote, local, progress, None, start, end, resume, verify)
        try:
            while state.ok is None:
                _qel.process(1000)
        except BaseException:  # KeyboardInterrupt, or a handler's exception
            self._abandon(state)
            raise
        if not state.ok:
            raise Error(0, f"fetch of {remote} failed: {state.reason}")

    async def fetch_async(self, node_id: str, remote: str, local: str,
                          progress: Optional[Callable[[int, int], None]] = None, *,
                          start: int = -1, end: int = -1, resume: bool = False,
                          verify: bool = False) -> None:
        """fetch() for asyncio: never blocks the asyncio loop. Cancelling it (as
        ``asyncio.wait_for`` does at its time-out) cancels the fetch."""
        watch()
        future = asyncio.get_running_loop().create_future()
        state = self._begin_fetch(node_id, remote, local, progress, future, start, end, resume,
                                  verify)
        try:
            await future
        except asyncio.CancelledError:
            self._abandon(state)
            raise

    def start_fetch(self, node_id: str, remote: str, local: str,
                    progress: Optional[Callable[[int, int], None]] = None, *,
                    start: int = -1, end: int = -1, resume: bool = False,
                    verify: bool = False) -> str:
        """Starts a fetch and returns its identifier at once; fetch_progress
        and one fetch_done event follow."""
        return self._begin_fetch(node_id, remote, local, progress, None,
                                 start, end, resume, verify).fetch_id

    def _abandon(self, state: _Fetch) -> None:
        # Nobody waits for it any more: left running, it would go on writing the file.
        if state.ok is None:
            self.cancel_fetch(state.fetch_id)

    def _begin_fetch(self, node_id, remote, local, progress, future, start, end, resume, verify):
        fetch_id = self._start_fetch(node_id, remote, local, start, end, resume, verify)
        early = self._fetches.pop(fetch_id, None)  # ended while it started
        state = self._fetches[fetch_id] = _Fetch(fetch_id, progress, future)
        if early is not None:
            self._fetch_event("fetch_done", fetch_id, early.ok, early.reason)
        return state

    def call(self, node_id: str, procedure: str, params: str = "", timeout: float = 3.0) -> str:
        """Calls a procedure node_id bound and returns its answer."""
        request = self._start_call(node_id, procedure, params)
        self._calls[request] = None
        end = time.monotonic() + timeout
        try:
            while self._calls[request] is None:
                left = end - time.monotonic()
                if left <= 0:
                    raise Timeout(0, f"no answer to {procedure} from {node_id} within {timeout} s")
                _qel.process(max(1, int(left * 1000)))
            if self._calls[request] is _CLOSED:
                raise Error(0, "the node was closed")
            return self._calls[request]
        finally:
            self._calls.pop(request, None)

    async def call_async(self, node_id: str, procedure: str, params: str = "",
                         timeout: float = 3.0) -> str:
        """call() for asyncio."""
        watch()
        future = asyncio.get_running_loop().create_future()
        request = self._start_call(node_id, procedure, params)
        self._calls[request] = future
        try:
            return await asyncio.wait_for(future, timeout)
        except asyncio.TimeoutError:
            raise Timeout(0, f"no answer to {procedure} from {node_id} within {timeout} s") from None
        finally:
            self._calls.pop(request, None)

    def bind(self, name: str, handler: Callable[[str, str], object]) -> None:
        """Serves calls of name (matched ignoring case): handler(params,
        from_id) runs for each, and what it returns (as text) is the answer."""
        if name.lower() not in self._procedures:
            self._bind(name)
        self._procedures[name.lower()] = handler

    def unbind(self, name: str) -> None:
        """Stops serving calls of name."""
        if self._procedures.pop(name.lower(), None) is not None:
            self._unbind(name)

    @property
    def users(self) -> str:
        """The user list as a settings text, one section per user."""
        return self._users()

    def snapshot(self) -> dict:
        """The node's state now, as /api/status gives it: identity, links, known nodes,
        routes, transfers, counters and refusals (docs/observability.md names the keys)."""
        return json.loads(self._snapshot_json())

    # Events -------------------------------------------------------------

    def events(self, limit: int = 10_000) -> "EventStream":
        """An async iterator over the events raised from now on. It holds at most
        ``limit`` unread: past that the oldest go, and a ``Dropped`` comes in their place."""
        watch()
        return EventStream(self, limit)

    def _emit(self, name: str, *args) -> bool:
        if name == "ping_done":  # not an event: the end of a ping_async
            future = self._pings.get(args[0])
            if future is not None and not future.done():
                future.set_result(args[1])
            return False
        if name == "fetch_progress" or name == "fetch_done":
            self._fetch_event(name, *args)
        elif name == "rpc_return":
            self._rpc_return(*args)
        refuse = False
        handler = getattr(self, "on_" + name, None)
        if handler is not None:
            try:
                refuse = handler(*args) is True
            except Exception as exc:  # a handler's fault must not stop the node
                _report(f"the on_{name} handler", exc)
        if self._streams:
            event = _EVENTS[name](*args)
            for stream in self._streams:
                stream._put(event)
        return refuse

    def _fetch_event(self, name: str, fetch_id: str, a, b) -> None:
        state = self._fetches.get(fetch_id)
        if state is None:
            if name == "fetch_done":  # raised inside FetchFile: start_fetch takes it
                self._fetches[fetch_id] = early = _Fetch(fetch_id, None, None)
                early.ok, early.reason = a, b
            return
        if name == "fetch_progress":
            if state.progress is not None:
                try:
                    state.progress(a, b)
                except Exception as exc:
                    _report("a fetch's progress callback", exc)
            return
        del self._fetches[fetch_id]
        state.ok, state.reason = a, b
        if state.future is not None and not state.future.done():
            if a:
                state.future.set_result(None)
            else:
                state.future.set_exception(Error(0, f"fetch failed: {b}"))

    def _rpc_return(self, request: str, result: str, from_id: str, procedure: str) -> None:
        if request not in self._calls:
            return
        waiting = self._calls[request]
        if waiting is None:
            self._calls[request] = result
        elif not waiting.done():
            waiting.set_result(result)

    def _answer(self, procedure: str, params: str, from_id: str):
        handler = self._procedures.get(procedure.lower())
        if handler is None:
            return None
        try:
            answer = handler(params, from_id)
        except Exception as exc:
            _report(f"the {procedure} procedure", exc)
            return None
        return "" if answer is None else str(answer)


class EventStream:
    """The events of one node raised since the stream was made, in order.
    Several streams may run at once; close one (or leave ``async with``) to
    stop collecting."""

    def __init__(self, node: Node, limit: int):
        if limit < 1:
            raise ValueError("an event stream holds at least one event")
        self._node = node
        self._queue: asyncio.Queue = asyncio.Queue()
        self._limit = limit
        self._missed = 0
        node._streams.append(self)

    def _put(self, event) -> None:
        # A reader that falls behind a flood of messages must not hold them all.
        if self._queue.qsize() >= self._limit:
            self._queue.get_nowait()
            self._missed += 1
        self._queue.put_nowait(event)

    def close(self) -> None:
        if self in self._node._streams:
            self._node._streams.remove(self)

    def __aiter__(self):
        return self

    async def __anext__(self):
        if self._missed:  # they came before every event still held
            missed, self._missed = self._missed, 0
            return Dropped(missed)
        return await self._queue.get()

    async def __aenter__(self):
        return self

    async def __aexit__(self, *exc):
        self.close()
