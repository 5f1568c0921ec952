"""Values of variables: their types, and how bytes become Python objects and back. No state.

The table has the rows of include/tvsqdz_variables.h, and the records are those of include/tvsqdz_records.h; a test compares
them.
"""

from __future__ import annotations

import struct
from typing import List, NamedTuple, Optional, Sequence, Tuple, Union

# 32-bit numbers of this value are not known.
NOT_KNOWN = 0xFFFFFFFF

JOB_NAME_SIZE = 256
OWNER_NAME_SIZE = 32
PORT_TEXT_SIZE = 128


class Job(NamedTuple):
    """A job record: "SendingJobInfo", and an entry of the job queues."""

    jobName: str
    ownerName: str
    jobId: int


class PrintingJob(NamedTuple):
    """ "PrintingJobInfo"."""

    jobName: str
    ownerName: str
    jobId: int
    progress: int


class PrintingJob2(NamedTuple):
    """ "PrintingJobInfo2": the job, and its coverage for each colour."""

    job: PrintingJob
    coverage: Tuple[int, ...]


class Port(NamedTuple):
    """ "Port"."""

    portKind: int
    portName: str
    portDetail: str


class PortEx(NamedTuple):
    """ "PortEx": bits of "PrinterExtStatus", and the port."""

    extStatus: int
    port: Port


# None is a number that is not known. A tuple of numbers is a record whose words have no names.
Value = Union[None, int, str, bytes, Job, PrintingJob, PrintingJob2, Port, PortEx, Tuple[Optional[int], ...], List[Job]]

# Name, type, size in bytes (0: it varies).
BUILT_IN = {
    "AccessControlList": ("VARIABLE", 0),
    "ClientStatus": ("NUMBER", 4),
    "CompulsivePolling": ("NUMBER", 4),
    "CoverageInfo": ("RECORD", 24),
    "CurrentFeeder": ("NUMBER", 4),
    "CurrentStatus": ("COMPOSITE", 24),
    "DeleteJobId": ("NUMBER", 4),
    "ErrCoverOpen": ("NUMBER", 4),
    "ErrFormRegistError": ("NUMBER", 4),
    "ErrNoPaper": ("RECORD", 4),
    "ErrNoPaper2": ("COMPOSITE", 8),
    "ErrPaperJam": ("NUMBER", 4),
    "ErrPaperSizeError": ("NUMBER", 4),
    "ErrPaperState": ("RECORD", 4),
    "JobStatus": ("NUMBER", 4),
    "LMFunction": ("NUMBER", 4),
    "LMStatus": ("NUMBER", 4),
    "PageCount": ("NUMBER", 4),
    "Port": ("RECORD", 260),
    "PortEx": ("COMPOSITE", 264),
    "PowerSaveEnd": ("NUMBER", 4),
    "PrinterBinConfig": ("VARIABLE", 0),
    "PrinterDisplay": ("RECORD", 132),
    "PrinterDisplay2": ("RECORD", 260),
    "PrinterExtConfig": ("NUMBER", 4),
    "PrinterExtStatus": ("NUMBER", 4),
    "PrinterFontInfo": ("VARIABLE", 0),
    "PrinterLocation": ("STRING", 260),
    "PrinterManufacturer": ("STRING", 64),
    "PrinterMemory": ("NUMBER", 4),
    "PrinterModel": ("STRING", 64),
    "PrinterName": ("STRING", 260),
    "PrinterOptConfig": ("VARIABLE", 0),
    "PrinterQueue": ("VARIABLE", 0),
    "PrinterStatus": ("RECORD", 12),
    "PrinterStatus2": ("NUMBER", 4),
    "PrinterStatusEx": ("COMPOSITE", 32),
    "PrintingJobInfo": ("RECORD", 296),
    "PrintingJobInfo2": ("COMPOSITE", 320),
    "PrintingMyJob": ("NUMBER", 4),
    "PrintingStatus": ("RECORD", 8),
    "ReadRequest": ("STRING", 32),
    "ReceivePort": ("NUMBER", 4),
    "RefreshStatus": ("STRING", 260),
    "RunningPSW": ("NUMBER", 4),
    "RWResult": ("NUMBER", 4),
    "SendingJobInfo": ("RECORD", 292),
    "ServerOS": ("RECORD", 12),
    "ServiceTag": ("STRING", 32),
    "SetJob": ("NUMBER", 4),
    "SpoolerQueue": ("VARIABLE", 0),
    "SpoolerStatus": ("NUMBER", 4),
    "SpoolingMyJob": ("NUMBER", 4),
    "TerminateManager": ("NUMBER", 4),
    "UserAuthority": ("NUMBER", 4),
    "WarmupRemains": ("NUMBER", 4),
    "WriteRequest": ("STRING", 32),
}

# The fields of each record: the size of a text, NUMBER, WORDS of a coverage, or another record.
_NUMBER = object()
_COVERAGE = object()
_COVERAGE_WORDS = 6
_FIELDS: dict = {
    Job: (JOB_NAME_SIZE, OWNER_NAME_SIZE, _NUMBER),
    PrintingJob: (JOB_NAME_SIZE, OWNER_NAME_SIZE, _NUMBER, _NUMBER),
    PrintingJob2: (PrintingJob, _COVERAGE),
    Port: (_NUMBER, PORT_TEXT_SIZE, PORT_TEXT_SIZE),
    PortEx: (_NUMBER, Port),
}
RECORDS: dict = {
    "Port": Port,
    "PortEx": PortEx,
    "PrintingJobInfo": PrintingJob,
    "PrintingJobInfo2": PrintingJob2,
    "SendingJobInfo": Job,
}
DISPLAYS = ("PrinterDisplay", "PrinterDisplay2")  # a text and more, with no published layout
JOB_QUEUES = ("PrinterQueue", "SpoolerQueue")


def size_of(record: type) -> int:
    """Bytes of a record, which has no padding."""
    return sum(
        field if isinstance(field, int)
        else 4 if field is _NUMBER
        else 4 * _COVERAGE_WORDS if field is _COVERAGE
        else size_of(field)
        for field in _FIELDS[record]
    )


def _text(field: bytes, codec: str) -> str:
    return field.split(b"\0", 1)[0].decode(codec, "replace")


def _unpack(record: type, data: bytes, codec: str):
    values: List[object] = []
    at = 0
    for field in _FIELDS[record]:
        if field is _NUMBER:
            values.append(struct.unpack_from("<I", data, at)[0])
            at += 4
        elif field is _COVERAGE:
            values.append(struct.unpack_from(f"<{_COVERAGE_WORDS}I", data, at))
            at += 4 * _COVERAGE_WORDS
        elif isinstance(field, int):
            values.append(_text(data[at : at + field], codec))
            at += field
        else:
            values.append(_unpack(field, data[at : at + size_of(field)], codec))
            at += size_of(field)
    return record(*values)


def _number_or_none(number: int) -> Optional[int]:
    return None if number == NOT_KNOWN else number


def decode(name: str, kind: str, data: bytes, codec: str) -> Value:
    """The value of a variable of that type. Bytes that do not have the form of the type stay bytes."""
    record = RECORDS.get(name)
    if record is not None and kind in ("RECORD", "COMPOSITE") and len(data) == size_of(record):
        return _unpack(record, data, codec)
    if kind == "NUMBER" and len(data) in (1, 2, 4):
        number = int.from_bytes(data, "little")
        return _number_or_none(number) if len(data) == 4 else number
    if kind == "STRING":
        return _text(data, codec)
    if kind in ("RECORD", "COMPOSITE") and data and len(data) % 4 == 0 and name not in DISPLAYS:
        words = struct.unpack(f"<{len(data) // 4}I", data)
        return _number_or_none(words[0]) if len(words) == 1 else tuple(map(_number_or_none, words))
    if name in JOB_QUEUES and len(data) >= 4:
        # The count is what a writer claims. Only entries that are present count.
        count = min(struct.unpack_from("<I", data)[0], (len(data) - 4) // size_of(Job))
        return [_unpack(Job, data[4 + i * size_of(Job) : 4 + (i + 1) * size_of(Job)], codec) for i in range(count)]
    return data


def _word(number: object, size: int = 4) -> bytes:
    if number is None and size == 4:
        number = NOT_KNOWN
    if not isinstance(number, int):
        raise TypeError(f"a number is needed, not {type(number).__name__}")
    bits = 8 * size
    if not -(1 << (bits - 1)) <= number < 1 << bits:
        raise ValueError(f"{number} does not fit {bits} bits")
    return (number & ((1 << bits) - 1)).to_bytes(size, "little")


def encode_text(text: str, codec: str, room: int, what: str) -> bytes:
    """The text in the ANSI code page, with its NUL. Raises ValueError for one that would be stored as another."""
    try:
        data = text.encode(codec)
    except UnicodeEncodeError as error:
        missing = text[error.start]
        raise ValueError(f"{what}: the product's code page has no {missing!r}") from None
    if b"\0" in data:
        raise ValueError(f"{what}: a text has no NUL inside")
    if room and len(data) >= room:
        raise ValueError(f"{what}: the text takes {len(data)} bytes, at most {room - 1} fit")
    return data + b"\0"


def _pack(record: type, value: Sequence, codec: str, what: str) -> bytes:
    fields = _FIELDS[record]
    if len(value) != len(fields):
        raise ValueError(f"{what}: {record.__name__} has {len(fields)} fields")
    data = b""
    for field, part in zip(fields, value):
        if field is _NUMBER:
            data += _word(part)
        elif field is _COVERAGE:
            if len(part) != _COVERAGE_WORDS:
                raise ValueError(f"{what}: a coverage has {_COVERAGE_WORDS} numbers")
            data += b"".join(map(_word, part))
        elif isinstance(field, int):
            data += encode_text(part, codec, field, what).ljust(field, b"\0")
        else:
            data += _pack(field, part, codec, what)
    return data


def encode(name: str, kind: str, size: int, value: Value, codec: str) -> bytes:
    """The bytes that a write takes. size: of the variable, 0: it varies. Bytes are taken as they are."""
    if isinstance(value, (bytes, bytearray, memoryview)):
        return bytes(value)
    if isinstance(value, str):
        if kind != "STRING" and name in BUILT_IN:
            raise TypeError(f"{name} is no text; give it a number, a record or bytes")
        return encode_text(value, codec, size, name)
    if kind == "STRING":
        raise TypeError(f"{name} is a text")
    if value is None or isinstance(value, int):
        if kind == "NUMBER" or size == 4:
            return _word(value, size if size in (1, 2) else 4)
        raise TypeError(f"{name} is no number; give it a record or bytes")
    record = RECORDS.get(name)
    if record is not None and isinstance(value, tuple):
        return _pack(record, value, codec, name)
    if name in JOB_QUEUES and isinstance(value, (list, tuple)):
        return _word(len(value)) + b"".join(_pack(Job, job, codec, name) for job in value)
    if kind in ("RECORD", "COMPOSITE") and isinstance(value, (list, tuple)):
        return b"".join(map(_word, value))
    raise TypeError(f"{name} does not take a {type(value).__name__}; bytes are taken as they are")
