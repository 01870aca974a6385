"""Published namespaces as Python objects."""


class Namespace:
    """A namespace of published methods."""

    # Members join the instance's own dictionary when the first of them is asked for.

    def __init__(self, handle):
        self.__dict__["_handle"] = handle

    def __getattr__(self, name):
        if name.startswith("__") and name.endswith("__"):
            raise AttributeError(name)
        members = {child.name: Namespace(child) for child in self._handle.namespaces()}
        private = set()
        for method in self._handle.methods():
            if "Private" in method.attributes:
                private.add(method.__name__)
            else:
                members[method.__name__] = method
        self.__dict__.update(members)
        if name in members:
            return members[name]
        how = " but through vantrace.host.private" if name in private else ""
        raise AttributeError(f"{self._handle.full_name} has no member {name!r}{how}", name=name)

    def __setattr__(self, name, value):
        raise AttributeError(f"{self._handle.full_name} is published: it cannot be changed")

    def __delattr__(self, name):
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
