"""Python access to the attribute family of the install root.

The attributes are the ones renderer plug-ins receive: immutable,
reference-counted values (null, int, float, double and string arrays with a
tuple size, and groups of named children). This module wraps the C handles of
libXoAttribute.so, found at <root>/lib relative to this file:

    >>> import ArboliteAPI as A
    >>> b = A.GroupBuilder()
    >>> b.set("camera.fov", A.FloatAttribute(45.0)).set("name", A.StringAttribute("persp"))
    >>> group = b.build()
    >>> group.getChildByName("camera.fov").getValue()
    45.0
    >>> A.Attribute.parseBinary(group.getBinary()) == group
    True

Every wrapper owns one reference to its handle and gives it back when it is
collected. kindlet imports this module at every start, and most renders never
use it: so the import itself defines nothing, and the body (_ArboliteAPI,
then ctypes and the library) is loaded at the first use of a name.
"""

import sys

__all__ = [
    "Attribute", "NullAttribute", "DataAttribute", "IntAttribute", "FloatAttribute",
    "DoubleAttribute", "StringAttribute", "GroupAttribute", "GroupBuilder", "libraryPath",
    "TYPE_INVALID", "TYPE_NULL", "TYPE_INT", "TYPE_FLOAT", "TYPE_DOUBLE", "TYPE_STRING",
    "TYPE_GROUP",
]


def __getattr__(name):
    if name not in __all__:
        raise AttributeError("module %r has no attribute %r" % (__name__, name))
    import _ArboliteAPI
    module = sys.modules[__name__]
    for public in __all__:
        setattr(module, public, getattr(_ArboliteAPI, public))
    return getattr(_ArboliteAPI, name)


def __dir__():
    return sorted(set(globals()) | set(__all__))
