"""Signatures of published methods, for help() and completion."""

from inspect import Parameter, Signature

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
    """Positional arguments, named by nothing but their order."""
    parameters = [
        Parameter(
            f"arg{number}",
            Parameter.POSITIONAL_ONLY,
            annotation=_ARGUMENTS.get(data_type, data_type),
        )
        for number, data_type in enumerate(method.inputs, 1)
    ]
    [result] = method.outputs or ["void"]
    return Signature(parameters, return_annotation=_RESULTS.get(result, result))
