"""What operations take and give."""

from __future__ import annotations

from collections.abc import Iterable
from datetime import timedelta
from operator import index
from typing import NamedTuple, Self

from . import _native
from ._errors import BadArgumentError, Error, Reason, error
from ._keys import Buffer, Key, KeyLike, KeyPair, KeyPairLike, Login, LoginLike
from ._native import Geometry as Geometry

#: Seconds, or None for a wait without end.
Timeout = float | timedelta | None


class Uid(bytes):
    """The UID of a tag or card (ISO/IEC 14443-3), from hexadecimal digits or bytes."""

    MOST_BYTES = 10

    def __new__(cls, value: UidLike) -> Uid:
        try:
            uid = super().__new__(cls, bytes.fromhex(value) if isinstance(value, str) else memoryview(value))
        except ValueError:
            uid = super().__new__(cls)
        if not 0 < len(uid) <= cls.MOST_BYTES:
            raise BadArgumentError("a UID is up to 10 bytes, two hexadecimal digits each")
        return uid

    def __str__(self) -> str:
        return self.hex()

    def __repr__(self) -> str:
        return f"Uid('{self.hex()}')"


UidLike = Uid | str | Buffer


_OK = 3100


class Result(NamedTuple):
    """What became of one block or sector."""

    number: int  #: Of the block or sector; within an application from 0.
    status: int  #: Of the library: 3100, or why not.

    @property
    def ok(self) -> bool:
        return self.status == _OK

    @property
    def reason(self) -> Reason | None:
        """Why not; None if it is done."""
        return None if self.ok else Reason(_native.status_info(self.status)[0])


class Results(tuple[Result, ...]):
    """What became of each block or sector of an operation that may do a part of its work."""

    _unit = "block"

    def __new__(cls, pairs: Iterable[tuple[int, int]], unit: str = "block") -> Self:
        results = tuple.__new__(cls, [Result(*pair) for pair in pairs])
        results._unit = unit
        return results

    @property
    def complete(self) -> bool:
        return all(each.ok for each in self)

    def check(self) -> None:
        """For those who want all or an exception: raises the error of the first that failed."""
        for each in self:
            if not each.ok:
                reason, meaning = _native.status_info(each.status)
                raise error(reason, f"{self._unit} {each.number}: {meaning}", each.status)


_Bytes = bytes  # Blocks.bytes hides the name


class Blocks(Results):
    """Blocks that were read."""

    #: All bytes, with zeros where a block is missing.
    bytes_with_gaps: _Bytes

    def __new__(cls, pairs: Iterable[tuple[int, int]], unit: str = "block", data: bytes = b"") -> Self:
        blocks = super().__new__(cls, pairs, unit)
        blocks.bytes_with_gaps = data
        return blocks

    @property
    def bytes(self) -> _Bytes:
        """All bytes. Raises an error if a block is missing."""
        self.check()
        return self.bytes_with_gaps

    @property
    def block_size(self) -> int:
        return len(self.bytes_with_gaps) // len(self) if self else 0

    def at(self, place: int) -> _Bytes:
        """The bytes of the block at this place of the list. Raises an error if it is missing."""
        Results([self[place]]).check()
        begin = range(len(self))[place] * self.block_size
        return self.bytes_with_gaps[begin : begin + self.block_size]

    def __bytes__(self) -> _Bytes:
        return self.bytes


def blocks(read: tuple[list[tuple[int, int]], bytes]) -> Blocks:
    pairs, data = read
    return Blocks(pairs, data=data)


def number(value: int, most: int = 2**31 - 1, least: int = 0) -> int:
    """A whole number in its range, for the library."""
    if not least <= index(value) <= most:
        raise BadArgumentError(f"{value} is out of range: {least} to {most}")
    return index(value)


def seconds(timeout: Timeout) -> float | None:
    if timeout is None:
        return None
    time = timeout.total_seconds() if isinstance(timeout, timedelta) else float(timeout)
    if time != time:
        raise BadArgumentError("a time limit is a number of seconds, or None")
    return time


def key(value: KeyLike) -> _native.Key:
    return Key(value).native


def optional_key(value: KeyLike | None) -> _native.Key | None:
    return None if value is None else key(value)


def login(value: LoginLike) -> tuple[_native.Key, bool]:
    given = value if isinstance(value, Login) else Login(value)
    return given.key.native, given.type.value == "B"


def pair(value: KeyPairLike) -> tuple[_native.Key, _native.Key]:
    given = KeyPair(*value)
    return given.a.native, given.b.native


__all__ = ["Blocks", "Error", "Geometry", "Result", "Results", "Timeout", "Uid", "UidLike"]
