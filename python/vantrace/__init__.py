"""See where the time of a program goes.

    import vantrace

    with vantrace.event("solve", n=512):  # a stretch of work
        ...

    @vantrace.instrumented  # each call of a function
    def assemble(): ...

    vantrace.instant("converged", residual=1e-9)
    vantrace.counter("residual", 1e-9)  # a curve

    with vantrace.record("trace.json"):  # records all threads, writes a trace
        ...

    from vantrace import performance  # the tree of published methods

`python -m vantrace run script.py` records a whole script with all of its functions; in a notebook,
after `%load_ext vantrace`, `%%vantrace` records a cell. `vantrace.host` loads and unloads plug-ins.
`vantrace.tasks` takes work to be done in small steps. `vantrace.client` sends events to another
process that records.
"""

try:
    from ._core import NotLoadedError, PluginError, counter, event, instant
    from ._core import version as __version__
except ModuleNotFoundError:
    from ._unsupported import explain

    raise ImportError(explain(), name=__name__) from None

__all__ = [
    "LoggingHandler",
    "NotLoadedError",
    "PluginError",
    "StructArray",
    "client",
    "counter",
    "event",
    "host",
    "instant",
    "instrumented",
    "performance",
    "record",
    "tasks",
    "trace_gc",
    "wrap",
    "wrap_module",
]


# What most programs do not need, or not at once, is imported when it is asked for.
_LATER = {
    "LoggingHandler": "._logging",
    "StructArray": "._struct_array",
    "instrumented": "._instrumented",
    "load_ipython_extension": "._notebook",
    "record": "._record",
    "trace_gc": "._collections",
    "unload_ipython_extension": "._notebook",
    "wrap": "._wrap",
    "wrap_module": "._wrap",
}


def __getattr__(name):
    from importlib import import_module

    if name == "performance":
        # Not kept: there is another one after unloading and loading.
        return import_module(".host", __name__).root("performance")
    if name in ("client", "host", "tasks"):
        return import_module(f".{name}", __name__)
    if name not in _LATER:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    value = globals()[name] = getattr(import_module(_LATER[name], __name__), name)
    return value


def __dir__():
    return sorted(set(globals()) | set(__all__))


def _join_as_environment_says():
    from os import environ

    if name := environ.get("VANTRACE_CLIENT"):
        from .client import join

        join(name)


_join_as_environment_says()
