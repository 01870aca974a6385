from typing import Any, Literal, NamedTuple

class Event(NamedTuple):
    name: str
    kind: Literal["event", "unfinished", "instant", "counter", "stop"]
    start: int
    duration: int | None
    thread: str
    context: dict[str, Any]
