"""Writes the types of what the plug-in publishes, from the published tree itself.

    PYTHONPATH=PACKAGES python published_types.py OUTPUT

The file has a class for each namespace, and overloads for the private methods, which are no
attributes but are had by their full names.
"""

import json
import sys
from pathlib import Path

from vantrace import _core, host
from vantrace._argument_names import argument_names

HEAD = """\
# Made from the published tree. No module of this name runs.
from collections.abc import Mapping
from typing import Any, Literal, SupportsIndex, overload

from ._core import Method

# Any other sequence of str does as well, but str is one to a type checker, and no list of texts.
_Texts = list[str] | tuple[str, ...] | Mapping[str, object] | None

class _Published:
    @property
    def __name__(self) -> str: ...
"""
LAST = """\
@overload
def private(full_name: str) -> Method: ...
"""
ARGUMENTS = {
    "logical scalar": "bool",
    "int32 scalar": "SupportsIndex",
    "uint64 scalar": "SupportsIndex",
    "double scalar": "float",
    "char": "str",
    "KobsFactoryString scalar": "str",
    "KobsFactoryString vector": "_Texts",
}
RESULTS = {
    "logical scalar": "bool",
    "int32 scalar": "int",
    "uint64 scalar": "int",
    "KobsFactoryString scalar": "str",
    "KobsFactoryString vector": "list[str]",
    "void": "None",
    "any": "Any",
}


def class_name(full_name):
    return "".join(part[0].upper() + part[1:] for part in full_name.split("."))


def is_private(method):
    return "Private" in method.attributes


def argument_types(method):
    return [ARGUMENTS[kind] for kind in method.inputs]


def result_type(method):
    [kind] = method.outputs or ["void"]
    return RESULTS[kind]


def call_signature(name, method):
    types = zip(argument_names(method), argument_types(method))
    named = [f"{argument}: {kind}" for argument, kind in types]
    return f"def {name}({', '.join(['self', *named, '/'])}) -> {result_type(method)}"


def method_lines(method):
    yield f"    {call_signature(method.__name__, method)}:"
    yield f"        {json.dumps(method.__doc__)}"


def class_lines(namespace):
    yield ""
    yield f"class {class_name(namespace.full_name)}(_Published):"
    yield f"    {json.dumps(namespace.description)}"
    for child in namespace.namespaces():
        yield "    @property"
        yield f"    def {child.name}(self) -> {class_name(child.full_name)}: ..."
    for method in namespace.methods():
        if not is_private(method):
            yield from method_lines(method)


def private_class_lines(method):
    """A method's type, told by what its full name leads to."""
    yield ""
    yield f"class {class_name(method.__qualname__)}(Method):"
    yield f"    {call_signature('__call__', method)}:"
    yield f"        {json.dumps(method.__doc__)}"


def private_lines(method):
    name = method.__qualname__
    yield "@overload"
    yield f'def private(full_name: Literal["{name}"]) -> {class_name(name)}: ...'


def walk(namespace):
    """The children before what has them."""
    for child in namespace.namespaces():
        yield from walk(child)
    yield namespace


def types_of_tree():
    host.load()
    namespaces = [namespace for root in _core.roots() for namespace in walk(root)]
    methods = [method for namespace in namespaces for method in namespace.methods()]
    private = [method for method in methods if is_private(method)]
    lines = [line for namespace in namespaces for line in class_lines(namespace)]
    lines += [line for method in private for line in private_class_lines(method)]
    lines += ["", *(line for method in private for line in private_lines(method))]
    return HEAD + "".join(line + "\n" for line in lines) + LAST


if __name__ == "__main__":
    Path(sys.argv[1]).write_text(types_of_tree(), encoding="utf-8")
