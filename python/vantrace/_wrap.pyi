from collections.abc import Callable
from types import ModuleType, TracebackType
from typing import Any, Self, TypeVar

_Function = TypeVar("_Function", bound=Callable[..., Any])

def wrap(function: _Function, name: str | None = None, /, **context: object) -> _Function: ...

class wrap_module:
    def __init__(self, module: ModuleType) -> None: ...
    @property
    def names(self) -> list[str]: ...
    def undo(self) -> None: ...
    def __enter__(self) -> Self: ...
    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None: ...
