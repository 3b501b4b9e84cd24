import asyncio
import json
import os
import select
import urllib.request
import warnings

import pytest

import qel
from conftest import DEADLINE, linked


async def first(stream, predicate):
    async for event in stream:
        if predicate(event):
            return event


def test_events_while_a_fetch_runs_and_a_raising_handler(tmp_path):
    async def main():
        a, b = linked()
        shared = tmp_path / "shared"
        shared.mkdir()
        data = os.urandom(2 * 1024 * 1024)
        (shared / "f.bin").write_bytes(data)
        a.share(str(shared))

        # Two streams, each seeing what was raised after it started.
        early = b.events()
        a.send("one", b.node_id)
        got = await asyncio.wait_for(first(early, lambda e: e.name == "message"), DEADLINE)
        assert got == qel.Message("one", a.node_id)
        assert "Message(text='one'" in repr(got)
        late = b.events()
        # A call from outside QEL's loop leaves its writes queued: asyncio must
        # be woken to run them, not wait for the next timer.
        qel.process()
        a.send("two", b.node_id)
        assert select.select([qel._qel.descriptor()], [], [], 0)[0]
        for stream in (early, late):
            got = await asyncio.wait_for(first(stream, lambda e: e.name == "message"), DEADLINE)
            assert got.text == "two"
        early.close()

        # A stream read too slowly keeps its newest events and says how many went.
        slow, full = b.events(limit=3), b.events()
        for i in range(10):
            a.send(f"m{i}", b.node_id)
        await asyncio.wait_for(first(full, lambda e: e.name == "message" and e.text == "m9"), DEADLINE)
        full.close()
        assert [await slow.__anext__() for _ in range(4)] == [
            qel.Dropped(7), *(qel.Message(f"m{i}", a.node_id) for i in (7, 8, 9))]
        slow.close()

        # The asyncio loop keeps running other work while the fetch goes on,
        # and the stream sees its progress and its end.
        ticks = 0

        async def ticker():
            nonlocal ticks
            while True:
                ticks += 1
                await asyncio.sleep(0)

        ticking = asyncio.create_task(ticker())
        local = tmp_path / "copy.bin"
        fetch = asyncio.create_task(b.fetch_async(a.node_id, "\\f.bin", str(local)))
        done = await asyncio.wait_for(first(late, lambda e: e.name == "fetch_done"), DEADLINE)
        await asyncio.wait_for(fetch, DEADLINE)
        ticking.cancel()
        assert done.ok and local.read_bytes() == data
        assert ticks > 1

        # A fetch whose awaiting task is cancelled stops, instead of writing on unheard.
        dropped = asyncio.create_task(b.fetch_async(a.node_id, "\\f.bin", str(tmp_path / "x.bin")))
        await asyncio.sleep(0)  # lets it start
        dropped.cancel()
        with pytest.raises(asyncio.CancelledError):
            await dropped
        assert not [t for t in b.snapshot()["transfers"] if t["incoming"]]

        # A handler that raises is reported; the node goes on.
        b.on_message = lambda text, from_id: {}["missing"]
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            a.send("boom", b.node_id)
            a.send("after", b.node_id)
            got = await asyncio.wait_for(first(late, lambda e: e.name == "message" and e.text == "after"), DEADLINE)
        assert any(w.category is qel.HandlerWarning and "KeyError" in str(w.message) for w in caught)

        a.bind("echo", lambda params, from_id: params)
        assert await asyncio.wait_for(b.call_async(a.node_id, "echo", "x"), DEADLINE) == "x"

        # Closing a node ends a fetch still waiting on it: it raises no more events.
        again = b.fetch_async(a.node_id, "\\f.bin", str(tmp_path / "again.bin"),
                              lambda done, total: b.close())
        with pytest.raises(qel.Error, match="closed"):
            await asyncio.wait_for(again, DEADLINE)
        a.close()

    asyncio.run(main())


def test_pings_in_flight_at_once_leave_the_loop_free():
    async def main():
        a, b = linked()
        # A ping that waits out its time: while it does, the others are
        # sent, answered and awaited.
        lost = asyncio.create_task(a.ping_async("NOBODY", timeout=2.0))
        times = await asyncio.wait_for(
            asyncio.gather(*(a.ping_async(b.node_id) for _ in range(5)), b.ping_async(a.node_id)),
            DEADLINE)
        assert all(isinstance(t, float) and t >= 0 for t in times)
        assert not lost.done()
        with pytest.raises(qel.Timeout):
            await asyncio.wait_for(lost, DEADLINE)
        a.close()
        b.close()

    asyncio.run(main())


def test_http_side_is_answered_from_the_asyncio_loop():
    async def main():
        a, b = linked()
        url = a.serve_http()
        # Each request is posted to QEL's loop, which only asyncio runs here.
        fetch = lambda: urllib.request.urlopen(url + "/api/status", timeout=10).read()
        status = json.loads(await asyncio.get_running_loop().run_in_executor(None, fetch))
        assert [link["nodeID"] for link in status["links"]] == [b.node_id]
        a.close()
        b.close()

    asyncio.run(main())
