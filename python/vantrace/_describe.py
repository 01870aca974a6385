"""The published tree as text and as JSON."""

import json

from . import _core, host
from ._tree import listed


def as_json(with_hidden):
    """One object for each root; a list of them unless there is exactly one."""
    described = [_object(root, with_hidden) for root in _roots()]
    top = described[0] if len(described) == 1 else described
    return json.dumps(top, indent=2, ensure_ascii=False) + "\n"


def as_text(with_hidden):
    """An indented tree with descriptions and signatures."""
    lines = [line for root in _roots() for line in _lines(root, with_hidden, "")]
    return "".join(line + "\n" for line in lines)


def _roots():
    host.roots()  # has the plug-in loaded
    return _core.roots()


def _methods(namespace, with_hidden):
    methods = namespace.methods()
    return methods if with_hidden else listed(methods)


def _object(namespace, with_hidden):
    return {
        "name": namespace.name,
        "description": namespace.description,
        "detailedDescription": namespace.detailed_description,
        "namespaces": [_object(child, with_hidden) for child in namespace.namespaces()],
        "methods": [
            {
                "name": method.__name__,
                "attributes": method.attributes,
                "inputs": method.inputs,
                "outputs": method.outputs,
            }
            for method in _methods(namespace, with_hidden)
        ],
    }


def _lines(namespace, with_hidden, indent):
    yield f"{indent}{namespace.name}: {namespace.description}"
    deeper = indent + "  "
    for child in namespace.namespaces():
        yield from _lines(child, with_hidden, deeper)
    for method in _methods(namespace, with_hidden):
        marks = [mark.lower() for mark in method.attributes if mark != "Static"]
        yield deeper + method.__doc__ + (f"  ({', '.join(marks)})" if marks else "")
