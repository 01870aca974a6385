"""Signatures of published methods, for help() and completion."""

from inspect import Parameter, Signature

from ._argument_names import argument_names

_ARGUMENTS = {
    "logical scalar": bool,
    "int32 scalar": int,
    "uint64 scalar": int,
    "double scalar": float,
    "char": str,
    "KobsFactoryString scalar": str,
    "KobsFactoryString vector": "list[str]",
}

_RESULTS = _ARGUMENTS | {"void": None, "any": Signature.empty}


def signature(method):
    """Of positional arguments: a published method takes none by their names."""
    parameters = [
        Parameter(
            name, Parameter.POSITIONAL_ONLY, annotation=_ARGUMENTS.get(data_type, data_type)
        )
        for name, data_type in zip(argument_names(method), method.inputs)
    ]
    [result] = method.outputs or ["void"]
    return Signature(parameters, return_annotation=_RESULTS.get(result, result))
