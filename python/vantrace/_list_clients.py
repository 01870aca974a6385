"""`vantrace clients`: who sends events to whom."""

import json
import time

from ._client import clients_of_hosts
from ._table import printable

_KEYS = ("host", "client", "process", "threads", "published", "delivered", "dropped", "rate")
_INTERVAL = 1.0  # seconds, over which rates are taken


def show(as_json):
    """Prints the clients of this user's hosts; gives the exit status."""
    rows = _rows()
    if as_json:
        print(json.dumps(rows, indent=2))
        return 0
    if not rows:
        print("no clients")
        return 0
    print(
        f"{'host':>8} {'process':>8} {'threads':>7} {'published':>13} {'delivered':>13} "
        f"{'dropped':>11} {'per second':>11}  client"
    )
    for row in rows:
        print(
            f"{row['host']:>8} {row['process']:>8} {row['threads']:>7} {row['published']:>13,} "
            f"{row['delivered']:>13,} {row['dropped']:>11,} {row['rate']:>11,.0f}  "
            f"{printable(row['client']) or '(unnamed)'}"
        )
    return 0


def _rows():
    before = {_identity(client): client for client in clients_of_hosts()}
    begin = time.monotonic()
    if before:
        time.sleep(_INTERVAL)
    now = clients_of_hosts()
    passed = time.monotonic() - begin
    rows = []
    for client in now:
        earlier = before.get(_identity(client))
        rate = (client[4] - earlier[4]) / passed if earlier else 0.0
        rows.append(dict(zip(_KEYS, (*client, rate))))
    return rows


def _identity(client):
    return client[:3]
