from collections.abc import Callable
from typing import Any, TypeVar, overload

_Target = TypeVar("_Target", bound=Callable[..., Any])

@overload
def instrumented(__target: _Target, *, name: str | None = None, **context: object) -> _Target: ...
@overload
def instrumented(
    __target: None = None, *, name: str | None = None, **context: object
) -> Callable[[_Target], _Target]: ...
