"""The body of ArboliteAPI, which loads it at the first use of one of its
names; import ArboliteAPI, not this module."""

import os

__all__ = [
    "Attribute", "NullAttribute", "DataAttribute", "IntAttribute", "FloatAttribute",
    "DoubleAttribute", "StringAttribute", "GroupAttribute", "GroupBuilder", "libraryPath",
    "TYPE_INVALID", "TYPE_NULL", "TYPE_INT", "TYPE_FLOAT", "TYPE_DOUBLE", "TYPE_STRING",
    "TYPE_GROUP",
]

TYPE_INVALID, TYPE_NULL, TYPE_INT, TYPE_FLOAT, TYPE_DOUBLE, TYPE_STRING, TYPE_GROUP = (
    -1, 0, 1, 2, 3, 4, 5)


def libraryPath():
    """<root>/lib/libXoAttribute.so for the root this module is installed in."""
    here = os.path.dirname(os.path.abspath(__file__))
    return os.path.normpath(os.path.join(here, os.pardir, os.pardir, "lib", "libXoAttribute.so"))


class _CFunctions(object):
    """The C functions, bound on first use."""

    def __init__(self):
        import ctypes
        self.ctypes = ctypes
        lib = ctypes.CDLL(libraryPath())
        handle = ctypes.c_void_p
        size = ctypes.c_size_t
        cstr = ctypes.c_char_p

        def bind(name, restype, *argtypes):
            function = getattr(lib, name)
            function.restype = restype
            function.argtypes = list(argtypes)
            setattr(self, name[len("Xo"):], function)

        bind("XoAttributeRetain", None, handle)
        bind("XoAttributeRelease", None, handle)
        bind("XoAttributeGetType", ctypes.c_int, handle)
        bind("XoAttributeGetNumberOfValues", size, handle)
        bind("XoAttributeGetTupleSize", size, handle)
        bind("XoAttributeGetIntValues", ctypes.POINTER(ctypes.c_int32), handle)
        bind("XoAttributeGetFloatValues", ctypes.POINTER(ctypes.c_float), handle)
        bind("XoAttributeGetDoubleValues", ctypes.POINTER(ctypes.c_double), handle)
        # Raw pointers where the text may hold NUL bytes or must be freed by
        # the library.
        bind("XoAttributeGetStringValue", ctypes.c_void_p, handle, size)
        bind("XoAttributeGetStringLength", size, handle, size)
        bind("XoAttributeGetNumberOfChildren", size, handle)
        bind("XoAttributeGetChildName", cstr, handle, size)
        bind("XoAttributeGetChildByIndex", handle, handle, size)
        bind("XoAttributeGetChildByName", handle, handle, cstr)
        bind("XoAttributeGetGroupInherit", ctypes.c_int, handle)
        bind("XoAttributeEquals", ctypes.c_int, handle, handle)
        bind("XoAttributeGetXML", ctypes.c_void_p, handle)
        bind("XoAttributeGetBinary", ctypes.c_void_p, handle, ctypes.POINTER(size))
        bind("XoAttributeFreeText", None, ctypes.c_void_p)
        bind("XoAttributeParseBinary", handle, ctypes.c_char_p, size)
        bind("XoAttributeCreateNull", handle)
        bind("XoAttributeCreateInt", handle, ctypes.POINTER(ctypes.c_int32), size, size)
        bind("XoAttributeCreateFloat", handle, ctypes.POINTER(ctypes.c_float), size, size)
        bind("XoAttributeCreateDouble", handle, ctypes.POINTER(ctypes.c_double), size, size)
        bind("XoAttributeCreateStringWithLengths", handle, ctypes.POINTER(ctypes.c_char_p),
             ctypes.POINTER(size), size, size)
        bind("XoGroupBuilderCreate", handle)
        bind("XoGroupBuilderDestroy", None, handle)
        bind("XoGroupBuilderSet", None, handle, cstr, handle, ctypes.c_int)
        bind("XoGroupBuilderUpdate", None, handle, handle)
        bind("XoGroupBuilderDel", None, handle, cstr)
        bind("XoGroupBuilderSetGroupInherit", None, handle, ctypes.c_int)
        bind("XoGroupBuilderBuild", handle, handle, ctypes.c_int)

    def takeText(self, pointer, length=None):
        """Copies a text that the library allocated, and frees it."""
        if not pointer:
            return b""
        try:
            if length is None:
                return self.ctypes.string_at(pointer)
            return self.ctypes.string_at(pointer, length)
        finally:
            self.AttributeFreeText(pointer)


_functions = None


def _c():
    global _functions
    if _functions is None:
        _functions = _CFunctions()
    return _functions


def _encode(text):
    if isinstance(text, bytes):
        return text
    return str(text).encode("utf-8", "surrogateescape")


def _decode(data):
    return data.decode("utf-8", "surrogateescape")


class Attribute(object):
    """A handle to an attribute, or an invalid one. The typed classes make
    attributes; ``Attribute.fromHandle`` wraps a C handle."""

    __slots__ = ("_handle",)

    def __init__(self):
        self._handle = None

    @staticmethod
    def _adopt(handle):
        """Wraps a handle whose reference the caller hands over, as an
        instance of the class for its type."""
        if not handle:
            return Attribute()
        attr = object.__new__(_CLASS_BY_TYPE.get(_c().AttributeGetType(handle), Attribute))
        attr._handle = handle
        return attr

    @staticmethod
    def fromHandle(handle):
        """Wraps a C handle (an int or a ctypes pointer), taking a reference
        of its own; the caller keeps its reference."""
        if hasattr(handle, "value"):
            handle = handle.value
        if handle:
            _c().AttributeRetain(handle)
        return Attribute._adopt(handle)

    def __del__(self):
        handle, self._handle = self._handle, None
        # The module may be half torn down at interpreter exit.
        if handle and _functions is not None:
            _functions.AttributeRelease(handle)

    def getHandle(self):
        """The C handle as an int (None if invalid), borrowed: valid while
        this object lives."""
        return self._handle

    def isValid(self):
        return self._handle is not None

    def getType(self):
        return _c().AttributeGetType(self._handle) if self._handle else TYPE_INVALID

    def getXML(self):
        if not self._handle:
            return ""
        return _decode(_c().takeText(_c().AttributeGetXML(self._handle)))

    def getBinary(self):
        if not self._handle:
            return b""
        c = _c()
        length = c.ctypes.c_size_t(0)
        pointer = c.AttributeGetBinary(self._handle, c.ctypes.byref(length))
        return c.takeText(pointer, length.value)

    @staticmethod
    def parseBinary(data):
        """The attribute in a binary form; an invalid one for bad input."""
        data = bytes(data)
        return Attribute._adopt(_c().AttributeParseBinary(data, len(data)))

    def __eq__(self, other):
        if not isinstance(other, Attribute):
            return NotImplemented
        if self._handle is None or other._handle is None:
            return self._handle is None and other._handle is None
        return bool(_c().AttributeEquals(self._handle, other._handle))

    def __ne__(self, other):
        result = self.__eq__(other)
        return result if result is NotImplemented else not result

    __hash__ = None

    def __bool__(self):
        return self.isValid()

    def __repr__(self):
        if not self.isValid():
            return "<%s invalid>" % type(self).__name__
        return "<%s %s>" % (type(self).__name__, self.getXML())


class NullAttribute(Attribute):
    __slots__ = ()

    def __init__(self):
        self._handle = _c().AttributeCreateNull() or None


class DataAttribute(Attribute):
    """Values with a tuple size. Subclasses fix the value type."""

    __slots__ = ()
    _ctype = None
    _convert = None

    def __init__(self, values, tupleSize=1):
        if isinstance(values, (str, bytes)) or not hasattr(values, "__iter__"):
            values = [values]
        values = [self._convert(v) for v in values]
        self._handle = self._create(values, tupleSize) or None
        if self._handle is None:
            raise ValueError("%d values do not make tuples of %d" % (len(values), tupleSize))

    def getNumberOfValues(self):
        return _c().AttributeGetNumberOfValues(self._handle) if self._handle else 0

    def getTupleSize(self):
        return _c().AttributeGetTupleSize(self._handle) if self._handle else 0

    def getValues(self):
        count = self.getNumberOfValues()
        if count == 0:
            return []
        return self._read(count)

    def getValue(self, default=None):
        """The first value, or default when there is none."""
        values = self.getValues()
        return values[0] if values else default

    def getTuples(self):
        values = self.getValues()
        size = self.getTupleSize() or 1
        return [tuple(values[i:i + size]) for i in range(0, len(values), size)]


class _NumberAttribute(DataAttribute):
    __slots__ = ()

    def __init_subclass__(cls, ctype, kind, convert, **rest):
        super().__init_subclass__(**rest)
        cls._ctype, cls._convert = ctype, staticmethod(convert)
        cls._creator, cls._reader = "AttributeCreate" + kind, "AttributeGet%sValues" % kind

    def _create(self, values, tupleSize):
        c = _c()
        ctype = getattr(c.ctypes, self._ctype)
        array = (ctype * len(values))(*values)
        return getattr(c, self._creator)(array, len(values), tupleSize)

    def _read(self, count):
        pointer = getattr(_c(), self._reader)(self._handle)
        return pointer[:count] if pointer else []


class IntAttribute(_NumberAttribute, ctype="c_int32", kind="Int", convert=int):
    __slots__ = ()


class FloatAttribute(_NumberAttribute, ctype="c_float", kind="Float", convert=float):
    __slots__ = ()


class DoubleAttribute(_NumberAttribute, ctype="c_double", kind="Double", convert=float):
    __slots__ = ()


class StringAttribute(DataAttribute):
    __slots__ = ()
    _convert = staticmethod(_encode)

    def _create(self, values, tupleSize):
        c = _c()
        texts = (c.ctypes.c_char_p * len(values))(*values)
        lengths = (c.ctypes.c_size_t * len(values))(*[len(v) for v in values])
        return c.AttributeCreateStringWithLengths(texts, lengths, len(values), tupleSize)

    def _read(self, count):
        c = _c()
        result = []
        for index in range(count):
            pointer = c.AttributeGetStringValue(self._handle, index)
            length = c.AttributeGetStringLength(self._handle, index)
            result.append(_decode(c.ctypes.string_at(pointer, length)) if pointer else "")
        return result


class GroupAttribute(Attribute):
    """Named children in order. Build one with GroupBuilder."""

    __slots__ = ()

    def getNumberOfChildren(self):
        return _c().AttributeGetNumberOfChildren(self._handle) if self._handle else 0

    def getChildName(self, index):
        name = _c().AttributeGetChildName(self._handle, index) if self._handle else None
        return _decode(name) if name is not None else ""

    def getChildByIndex(self, index):
        if not self._handle:
            return Attribute()
        return Attribute.fromHandle(_c().AttributeGetChildByIndex(self._handle, index))

    def getChildByName(self, nameOrPath):
        """A child by name or dotted path ("a.b.c"); invalid when absent."""
        if not self._handle:
            return Attribute()
        return Attribute.fromHandle(_c().AttributeGetChildByName(self._handle,
                                                                 _encode(nameOrPath)))

    def getGroupInherit(self):
        return bool(self._handle and _c().AttributeGetGroupInherit(self._handle))

    def childList(self):
        return [(self.getChildName(i), self.getChildByIndex(i))
                for i in range(self.getNumberOfChildren())]

    def __len__(self):
        return self.getNumberOfChildren()

    def __iter__(self):
        return iter(self.childList())


class GroupBuilder(object):
    """Collects children and builds an immutable GroupAttribute."""

    BuildAndFlush = 0
    BuildAndRetain = 1

    def __init__(self):
        self._builder = _c().GroupBuilderCreate()
        if not self._builder:
            raise MemoryError("cannot create a group builder")

    def __del__(self):
        builder, self._builder = getattr(self, "_builder", None), None
        if builder and _functions is not None:
            _functions.GroupBuilderDestroy(builder)

    def set(self, name, attr, groupInherit=True):
        """Sets a child; a dotted name enters or creates intermediate groups."""
        _c().GroupBuilderSet(self._builder, _encode(name), attr.getHandle(),
                             1 if groupInherit else 0)
        return self

    def update(self, group):
        """Each child of `group` replaces the same-named child here."""
        _c().GroupBuilderUpdate(self._builder, group.getHandle())
        return self

    def delete(self, name):
        """Removes a child by name or dotted path; absent names are ignored."""
        _c().GroupBuilderDel(self._builder, _encode(name))
        return self

    def setGroupInherit(self, groupInherit):
        _c().GroupBuilderSetGroupInherit(self._builder, 1 if groupInherit else 0)
        return self

    def build(self, mode=BuildAndFlush):
        return Attribute._adopt(_c().GroupBuilderBuild(self._builder, mode))


_CLASS_BY_TYPE = {
    TYPE_NULL: NullAttribute,
    TYPE_INT: IntAttribute,
    TYPE_FLOAT: FloatAttribute,
    TYPE_DOUBLE: DoubleAttribute,
    TYPE_STRING: StringAttribute,
    TYPE_GROUP: GroupAttribute,
}
