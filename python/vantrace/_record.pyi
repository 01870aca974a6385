import os
from collections.abc import Iterable
from types import TracebackType
from typing import Any, Literal, NamedTuple, Self

import pandas

from ._events import Event
from ._lines import Line, LineTimes

_Path = str | bytes | os.PathLike[str] | os.PathLike[bytes]

class Summary(NamedTuple):
    name: str
    count: int  # type: ignore[assignment]  # in place of the tuple's method
    total: int
    self: int
    minimum: int
    maximum: int
    p50: int
    p99: int

class record:
    path: str | bytes | None
    def __init__(
        self,
        path: _Path | None = None,
        *,
        max_bytes: int = 0,
        keep: Literal["first", "last", "longest"] = "first",
        exact: bool = False,
        functions: bool = False,
        include: str | Iterable[str] = (),
        exclude: str | Iterable[str] = (),
        libraries: bool = False,
        c_calls: bool = False,
        lines: bool = False,
        folder: _Path | None = None,
    ) -> None: ...
    def __enter__(self) -> Self: ...
    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None: ...
    def save(self, path: _Path, *, min_duration: int | None = None) -> None: ...
    def summary(self) -> list[Summary]: ...
    def stats(self) -> dict[str, Summary]: ...
    def lines(self) -> list[Line] | None: ...
    def line_times(self) -> LineTimes | None: ...
    @property
    def has_all_lines(self) -> bool: ...
    def events(self, name: str | None = None) -> list[Event]: ...
    def to_pandas(self, name: str | None = None) -> pandas.DataFrame: ...
    def threads(self) -> list[str]: ...
    def functions(self) -> dict[str, Any] | None: ...
    def places(self) -> dict[str, tuple[str, int]]: ...
    @property
    def counts_all(self) -> bool: ...
    def drops(self) -> dict[str, int]: ...
    def clear(self) -> None: ...
    @property
    def is_active(self) -> bool: ...
