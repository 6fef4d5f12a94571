"""Keys of Mifare Classic."""

from __future__ import annotations

import enum
from collections.abc import Iterable
from typing import NamedTuple

from . import _native

Buffer = bytes | bytearray | memoryview


class Key:
    """A key of Mifare Classic, from 12 hexadecimal digits or 6 bytes. Its representation does not show it."""

    __slots__ = ("native",)

    #: For this package only.
    native: _native.Key

    def __init__(self, value: KeyLike) -> None:
        if isinstance(value, Key):
            self.native = value.native
        else:
            self.native = _native.Key(value if isinstance(value, str) else bytes(memoryview(value)))

    @classmethod
    def factory(cls) -> Key:
        """FFFFFFFFFFFF, with which tags are delivered."""
        return cls(_native.Key.factory().bytes())

    @classmethod
    def directory(cls) -> Key:
        """A0A1A2A3A4A5, the public key A of an application directory (AN10787)."""
        return cls(_native.Key.directory().bytes())

    @property
    def is_blank(self) -> bool:
        """All zero, as a key A reads from a tag: most likely not a key at all."""
        return self.native.is_blank()

    def __bytes__(self) -> bytes:
        return self.native.bytes()

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, Key):
            return NotImplemented
        return self.native.equals(other.native)

    def __hash__(self) -> int:
        return hash(bytes(self))

    def __repr__(self) -> str:
        return "Key(...)"


KeyLike = Key | str | Buffer


class KeyType(enum.Enum):
    """Which of a sector's two keys."""

    A = "A"
    B = "B"


class Login(NamedTuple("Login", [("key", Key), ("type", KeyType)])):
    """A key and as which of a sector's two it is used."""

    __slots__ = ()

    def __new__(cls, key: KeyLike, type: KeyType | str = KeyType.A) -> Login:  # noqa: A002
        return super().__new__(cls, Key(key), KeyType(type))


#: A key alone is used as key A.
LoginLike = Login | KeyLike


class KeyPair(NamedTuple("KeyPair", [("a", Key), ("b", Key)])):
    """The two keys that a sector is to have."""

    __slots__ = ()

    def __new__(cls, a: KeyLike, b: KeyLike) -> KeyPair:
        return super().__new__(cls, Key(a), Key(b))


KeyPairLike = KeyPair | tuple[KeyLike, KeyLike]


class KeyRing:
    """Keys that may open the sectors of a tag, for work on all of its memory. An empty one holds the published keys."""

    def __init__(self, keys: Iterable[KeyLike] = ()) -> None:
        self._native = _native.KeyRing()
        self.add(*keys)

    def add(self, *keys: KeyLike) -> None:
        """Keys that are worth a try for every sector, as key A and as key B."""
        for key in keys:
            self._native.add(Key(key).native)

    def add_a(self, *keys: KeyLike) -> None:
        """The same, only as key A."""
        for key in keys:
            self._native.add_a(Key(key).native)

    def add_b(self, *keys: KeyLike) -> None:
        """The same, only as key B."""
        for key in keys:
            self._native.add_b(Key(key).native)

    def add_image(self, image: Buffer) -> None:
        """The keys in the trailers of a tag's image, each for its sector."""
        self._native.add_image(image)

    def candidates(self, sector: int, type: KeyType = KeyType.A) -> list[Key]:  # noqa: A002
        """Those worth a try in a sector, the likeliest first."""
        return [Key(each.bytes()) for each in self._native.candidates(sector, type is KeyType.B)]

    def __bool__(self) -> bool:
        return not self._native.empty()
