import os
from typing import Literal, overload

from ._core import Method as Method
from ._core import NotLoadedError as NotLoadedError
from ._core import Plugin as Plugin
from ._core import PluginError as PluginError
from ._published import Performance
from ._published import private as private
from ._tree import Namespace as Namespace

__all__ = [
    "Method",
    "Namespace",
    "NotLoadedError",
    "Plugin",
    "PluginError",
    "load",
    "plugins",
    "private",
    "root",
    "roots",
    "unload",
]

_Path = str | bytes | os.PathLike[str] | os.PathLike[bytes]

def default_plugin() -> str: ...
def load(path: _Path | None = None) -> Plugin: ...
def unload(plugin: Plugin | str | os.PathLike[str] | None = None) -> None: ...
def plugins() -> list[Plugin]: ...
def roots() -> list[Namespace]: ...
# Of the one root that is known here more can be told than of others.
@overload
def root(name: Literal["performance"]) -> Performance: ...  # type: ignore[misc]
@overload
def root(name: str) -> Namespace: ...
