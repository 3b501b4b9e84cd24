"""Costs of the Python layer: a ping's round trip through the binding (median
microseconds of wall time per call), blocking and awaited, pings per second with
many awaited at once, and messages received per second through ``async for``.
Run with the module on PYTHONPATH (build/python)."""
import asyncio
import statistics
import time

import qel


def linked():
    a, b = qel.Node("alpha"), qel.Node("beta")
    a.listen()
    b.listen()
    b.connect(f"127.0.0.1:{a.port}")
    a.node_info(b.node_id)
    b.node_info(a.node_id)
    return a, b


async def main(pings=2000, messages=50000, in_flight=100):
    a, b = linked()
    for _ in range(100):
        a.ping(b.node_id)
    times = []
    for _ in range(pings):
        start = time.perf_counter()
        a.ping(b.node_id)
        times.append(time.perf_counter() - start)
    print(f"ping through the binding: median {statistics.median(times) * 1e6:.1f} us over {pings}")

    for _ in range(100):
        await a.ping_async(b.node_id)
    times = []
    for _ in range(pings):
        start = time.perf_counter()
        await a.ping_async(b.node_id)
        times.append(time.perf_counter() - start)
    print(f"ping_async, one at a time: median {statistics.median(times) * 1e6:.1f} us over {pings}")

    rounds = pings * 10 // in_flight
    start = time.perf_counter()
    for _ in range(rounds):
        await asyncio.gather(*(a.ping_async(b.node_id) for _ in range(in_flight)))
    elapsed = time.perf_counter() - start
    done = rounds * in_flight
    print(f"ping_async, {in_flight} in flight: {done / elapsed:,.0f} pings/s ({done} in {elapsed:.2f} s)")

    received = 0
    # Sends run ahead of the reader here: room for all, none dropped.
    async with b.events(limit=messages) as events:
        start = time.perf_counter()
        for i in range(messages):
            a.send("m", b.node_id)
            if i % 500 == 499:
                await asyncio.sleep(0)
        async for event in events:
            if event.name == "message":
                received += 1
                if received == messages:
                    break
        elapsed = time.perf_counter() - start
    print(f"async for: {messages / elapsed:,.0f} messages/s ({messages} in {elapsed:.2f} s, sends included)")


asyncio.run(main())
