"""Published namespaces as Python objects."""


class Namespace:
    """A namespace of published methods."""

    __slots__ = ("_handle", "_members")

    def __init__(self, handle):
        object.__setattr__(self, "_handle", handle)
        object.__setattr__(self, "_members", None)

    def __getattr__(self, name):
        if name.startswith("__") and name.endswith("__"):
            raise AttributeError(name)
        if self._members is None:
            members = {child.name: Namespace(child) for child in self._handle.namespaces()}
            members.update((method.__name__, method) for method in self._handle.methods())
            object.__setattr__(self, "_members", members)
        member = self._members.get(name)
        if member is None or "Private" in getattr(member, "attributes", ()):
            how = "" if member is None else " but through vantrace.host.private"
            raise AttributeError(f"{self._handle.full_name} has no member {name!r}{how}", name=name)
        return member

    def __setattr__(self, name, value):
        raise AttributeError(f"{self._handle.full_name} is published: it cannot be changed")

    def __dir__(self):
        return [member.name for member in self._handle.namespaces()] + [
            method.__name__ for method in listed(self._handle.methods())
        ]

    def __repr__(self):
        return f"<namespace {self._handle.full_name}>"

    @property
    def __name__(self):
        return self._handle.name

    @property
    def __doc__(self):
        lines = [self._handle.description]
        children = [
            f"    {child.name}: {child.description}" for child in self._handle.namespaces()
        ]
        methods = [f"    {method.__doc__}" for method in listed(self._handle.methods())]
        if children:
            lines += ["", "Namespaces:", *children]
        if methods:
            lines += ["", "Methods:", *methods]
        return "\n".join(lines)


def listed(methods):
    """Those that lists and completion show."""
    return [method for method in methods if "Hidden" not in method.attributes]
