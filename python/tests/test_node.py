import gc
import os
import tracemalloc
import warnings

import pytest

import qel
from conftest import eventually


def test_messages_ping_and_failures_raise(pair):
    a, b = pair
    got = []
    b.on_message = lambda text, from_id: got.append((text, from_id))
    a.send("hello", b.node_id)
    assert eventually(lambda: got)
    assert got == [("hello", a.node_id)]
    status = b.snapshot()
    assert status["nodeID"] == b.node_id and status["messagesReceived"] >= 1
    assert [link["nodeID"] for link in status["links"]] == [a.node_id]

    rtt = a.ping(b.node_id)
    assert isinstance(rtt, float) and 0 < rtt < 3  # timed finer than milliseconds

    # Failures the library reports through its Error event raise, with its text.
    with pytest.raises(qel.Error, match="refused|failed"):
        a.connect("127.0.0.1:1")
    with pytest.raises(qel.Timeout):
        a.ping("0123456789ABCDEF", timeout=0.2)
    with pytest.raises(qel.Error):
        a.share("/no/such/folder")
    with pytest.raises(qel.Error):
        qel.Node("bad", settings="this is not a settings text")

    # A handler that raises is reported and the node goes on.
    b.on_message = lambda text, from_id: 1 / 0
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        a.send("boom", b.node_id)
        assert eventually(lambda: caught)
    assert caught[0].category is qel.HandlerWarning
    assert "ZeroDivisionError" in str(caught[0].message)
    b.on_message = lambda text, from_id: got.append((text, from_id))
    a.send("after", b.node_id)
    assert eventually(lambda: got[-1][0] == "after")


def test_fetch_with_progress_and_rpc(pair, tmp_path):
    a, b = pair
    shared = tmp_path / "shared"
    shared.mkdir()
    data = os.urandom(3 * 1024 * 1024 + 17)
    (shared / "big.bin").write_bytes(data)
    a.share(str(shared))

    assert b.list(a.node_id, "/") == ["\\big.bin"]
    info = b.file_info(a.node_id, "\\big.bin")
    assert info.size == len(data)

    seen = []
    local = tmp_path / "copy.bin"
    b.fetch(a.node_id, "\\big.bin", str(local), progress=lambda d, t: seen.append((d, t)))
    assert local.read_bytes() == data
    assert seen and seen[-1] == (len(data), len(data))
    assert all(x[0] <= y[0] for x, y in zip(seen, seen[1:]))
    with pytest.raises(qel.Error):
        b.fetch(a.node_id, "\\missing.bin", str(tmp_path / "none"))

    a.bind("Upper", lambda params, from_id: params.upper() + " from " + from_id)
    assert b.call(a.node_id, "upper", "abc") == "ABC from " + b.node_id


def test_messages_through_callbacks_leave_no_growth(pair):
    a, b = pair
    count = [0]

    def on_message(text, from_id):
        count[0] += 1

    b.on_message = on_message

    def burst(n):
        start = count[0]
        for i in range(n):
            a.send("m%d" % (i % 10), b.node_id)
            if i % 100 == 99:
                qel.process(0)
        assert eventually(lambda: count[0] - start == n)

    burst(1000)  # warm the caches up
    gc.collect()
    objects = len(gc.get_objects())
    tracemalloc.start()
    before = tracemalloc.take_snapshot()
    burst(10000)
    gc.collect()
    after = tracemalloc.take_snapshot()
    tracemalloc.stop()
    grown = sum(s.size_diff for s in after.compare_to(before, "filename"))
    del before, after
    gc.collect()
    assert grown < 64 * 1024, grown
    assert len(gc.get_objects()) - objects < 100
