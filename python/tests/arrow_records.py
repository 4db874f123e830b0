"""Reads what __arrow_c_stream__ gives, by the Arrow C data interface, without any Arrow library."""

import ctypes


class Schema(ctypes.Structure):
    pass


class Array(ctypes.Structure):
    pass


class Stream(ctypes.Structure):
    pass


Schema._fields_ = [
    ("format", ctypes.c_char_p), ("name", ctypes.c_char_p), ("metadata", ctypes.c_void_p),
    ("flags", ctypes.c_int64), ("n_children", ctypes.c_int64),
    ("children", ctypes.POINTER(ctypes.POINTER(Schema))), ("dictionary", ctypes.POINTER(Schema)),
    ("release", ctypes.CFUNCTYPE(None, ctypes.POINTER(Schema))), ("private_data", ctypes.c_void_p)]
Array._fields_ = [
    ("length", ctypes.c_int64), ("null_count", ctypes.c_int64), ("offset", ctypes.c_int64),
    ("n_buffers", ctypes.c_int64), ("n_children", ctypes.c_int64),
    ("buffers", ctypes.POINTER(ctypes.c_void_p)),
    ("children", ctypes.POINTER(ctypes.POINTER(Array))), ("dictionary", ctypes.POINTER(Array)),
    ("release", ctypes.CFUNCTYPE(None, ctypes.POINTER(Array))), ("private_data", ctypes.c_void_p)]
Stream._fields_ = [
    ("get_schema", ctypes.CFUNCTYPE(ctypes.c_int, ctypes.POINTER(Stream), ctypes.POINTER(Schema))),
    ("get_next", ctypes.CFUNCTYPE(ctypes.c_int, ctypes.POINTER(Stream), ctypes.POINTER(Array))),
    ("get_last_error", ctypes.CFUNCTYPE(ctypes.c_char_p, ctypes.POINTER(Stream))),
    ("release", ctypes.CFUNCTYPE(None, ctypes.POINTER(Stream))), ("private_data", ctypes.c_void_p)]

_FIXED = {"l": ctypes.c_int64, "L": ctypes.c_uint64, "g": ctypes.c_double, "tsu:UTC": ctypes.c_int64}


def _pointer(capsule):
    get = ctypes.pythonapi.PyCapsule_GetPointer
    get.restype, get.argtypes = ctypes.c_void_p, [ctypes.py_object, ctypes.c_char_p]
    return ctypes.cast(get(capsule, b"arrow_array_stream"), ctypes.POINTER(Stream))


def _bit(address, at):
    return ctypes.cast(address, ctypes.POINTER(ctypes.c_uint8))[at // 8] >> at % 8 & 1


def _value(format, array, row):
    data = array.buffers[1]
    if format in _FIXED:
        return ctypes.cast(data, ctypes.POINTER(_FIXED[format]))[row]
    if format == "b":
        return bool(_bit(data, row))
    if format == "d:19,6":
        return int.from_bytes(ctypes.string_at(data + 16 * row, 16), "little", signed=True)
    offsets = ctypes.cast(data, ctypes.POINTER(ctypes.c_int64))
    begin, end = offsets[row], offsets[row + 1]
    found = ctypes.string_at(array.buffers[2] + begin, end - begin) if end > begin else b""
    return found.decode() if format == "U" else found


def _column(format, array):
    valid = array.buffers[0]
    return [_value(format, array, row) if valid is None or _bit(valid, row) else None
            for row in range(array.length)]


def read(exporter):
    """[(name, format, values)]; everything is released in the end."""
    capsule = exporter.__arrow_c_stream__()
    stream = _pointer(capsule)
    schema, array = Schema(), Array()
    assert stream.contents.get_schema(stream, ctypes.byref(schema)) == 0
    assert schema.format == b"+s"
    kinds = [(schema.children[i].contents.name.decode(), schema.children[i].contents.format.decode())
             for i in range(schema.n_children)]
    columns = [(name, format, []) for name, format in kinds]
    while True:
        assert stream.contents.get_next(stream, ctypes.byref(array)) == 0
        if not array.release:
            break
        for i, (_, format, values) in enumerate(columns):
            values += _column(format, array.children[i].contents)
        array.release(ctypes.byref(array))
    schema.release(ctypes.byref(schema))
    stream.contents.release(stream)
    return columns
