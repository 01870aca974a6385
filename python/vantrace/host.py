"""The host of the plug-ins: loading, unloading, and the door to private methods.

The plug-in that publishes `vantrace.performance` is loaded when that is first asked for. Once it
was loaded, or something was unloaded here, nothing is loaded unasked any more.
"""

import os
import sys

from . import _core
from ._core import Method, NotLoadedError, Plugin, PluginError

# Here, not when the first struct array is made: a fork at that moment would leave the child with a
# module that nobody goes on importing.
from ._struct_array import StructArray as _StructArray
from ._tree import Namespace

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

_core.set_struct_array(_StructArray)

_loaded = []
_loads_unasked = True


def default_plugin():
    """The path of the plug-in that belongs to this package: it stands by the host's libraries."""
    return os.path.join(_core.library_folder(), "libvantrace.so")


def load(path=None):
    """Loads a plug-in, by default the package's own. Gives the Plugin; raises PluginError."""
    global _loads_unasked
    plugin = _core.load(default_plugin() if path is None else path)
    if path is None:
        _loads_unasked = False
        _serve_prompt()
    _loaded[:] = [known for known in _loaded if known.is_loaded and known.path != plugin.path]
    _loaded.append(plugin)
    return plugin


def unload(plugin=None):
    """Unloads a plug-in: a Plugin, a path, or by default all.

    Waits for running calls. Whatever the plug-in published raises NotLoadedError from then on.
    """
    global _loads_unasked
    _loads_unasked = False
    for known in [known for known in plugins() if plugin is None or _is_same(known, plugin)]:
        known.unload()
    _loaded[:] = plugins()


def plugins():
    """The loaded plug-ins, in order of loading."""
    return [plugin for plugin in _loaded if plugin.is_loaded]


def roots():
    """The published root namespaces, in order of publication."""
    _load_unasked()
    return [Namespace(handle) for handle in _core.roots()]


def root(name):
    """The root namespace of a name. Raises NotLoadedError when no plug-in publishes it."""
    _load_unasked()
    try:
        return Namespace(_core.find_root(name))
    except LookupError as error:
        raise NotLoadedError(f"plug-in is not loaded: {error}") from None


def private(full_name):
    """The method of a dotted name, private ones too.

    >>> private("performance.productStats.logEventTime")
    """
    _load_unasked()
    try:
        return _core.resolve(full_name)
    except LookupError:
        if plugins():
            raise
        raise NotLoadedError("plug-in is not loaded") from None


def _serve_prompt():
    """Where there is a prompt, the plug-in's tasks run at it."""
    if hasattr(sys, "ps1") or sys.flags.interactive:
        from . import tasks  # noqa: F401


def _is_same(known, plugin):
    if isinstance(plugin, Plugin):
        return known is plugin or known.path == plugin.path
    return os.path.realpath(known.path) == os.path.realpath(plugin)


def _load_unasked():
    if _loads_unasked:
        load()
