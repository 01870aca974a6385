from collections.abc import Callable, Generator
from typing import Any, Literal

__all__ = ["add"]

def add(
    work: Generator[Any, Any, Any] | Callable[[], object],
    name: str | None = None,
    session: Literal["main", "ppe"] = "main",
) -> None: ...
