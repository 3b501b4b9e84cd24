import time

import pytest

import qel

DEADLINE = 20.0  # seconds; generous, as the machine may be busy


def eventually(done, deadline=DEADLINE):
    """Runs QEL's events until done() holds; False when the deadline passes."""
    end = time.monotonic() + deadline
    while not done():
        if time.monotonic() > end:
            return False
        qel.process(0.1)
    return True


def linked():
    """Two listening nodes of this process, linked over loopback, each knowing the other."""
    a, b = qel.Node("alpha"), qel.Node("beta")
    a.listen()
    b.listen()
    b.connect(f"127.0.0.1:{a.port}")
    a.node_info(b.node_id)
    b.node_info(a.node_id)
    return a, b


@pytest.fixture
def pair():
    a, b = linked()
    yield a, b
    a.close()
    b.close()
