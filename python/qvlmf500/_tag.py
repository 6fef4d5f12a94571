"""Storage tags: their blocks, sectors and applications."""

from __future__ import annotations

import enum
from collections.abc import Callable, Iterable
from typing import Generic, NamedTuple, TypeVar

from . import _native
from ._access import DataAccess, SectorAccess, TrailerAccess, sector_access
from ._keys import Buffer, Key, KeyLike, KeyPairLike, KeyRing, KeyType, LoginLike
from ._values import (
    Blocks,
    Geometry,
    Results,
    Timeout,
    Uid,
    blocks,
    key,
    login as login_of,
    number,
    optional_key,
    pair,
    seconds,
)

FACTORY = Key.factory()
DIRECTORY = Key.directory()
ALL_BLOCKS = 999  #: The number of blocks that stands for all up to the end.
_MOST_ID = 0xFFFF

_Native = TypeVar("_Native", bound=_native.Memory)


class Memory(Generic[_Native]):
    """The memory of a tag, or the part of it that belongs to an application: blocks and sectors are numbered within it
    from 0.

    Every operation finds the tag anew, works on it, and leaves it asleep; if the tag goes away in the middle, it is
    waited for within the time limit and the work goes on. Operations that work block by block give what became of each
    block and raise an error only if none succeeded. A login is a key (used as key A) or a Login."""

    def __init__(self, native: _Native) -> None:
        self._native = native

    def read(self, first: int, count: int = 1, login: LoginLike = FACTORY, *, timeout: Timeout = 5.0) -> Blocks:
        """Reads `count` data blocks from `first` on. Trailers are skipped and do not count."""
        return blocks(self._native.read(number(first), number(count), login_of(login), seconds(timeout)))

    def write(
        self, first: int, data: Buffer, login: LoginLike = FACTORY, *, count: int | None = None, timeout: Timeout = 5.0
    ) -> Results:
        """Writes data blocks from `first` on, as many as the data needs or `count`; what it leaves of them becomes
        zero. Trailers are skipped."""
        rest = (memoryview(data), login_of(login), seconds(timeout))
        if count is None:
            return Results(self._native.write(number(first), *rest))
        return Results(self._native.write_count(number(first), number(count), *rest))

    def value(self, block: int, login: LoginLike = FACTORY, *, timeout: Timeout = 5.0) -> int:
        """The amount in a value block."""
        return self._native.value(number(block), login_of(login), seconds(timeout))

    def set_value(self, block: int, value: int, login: LoginLike = FACTORY, *, timeout: Timeout = 5.0) -> None:
        """Makes the block hold this amount. Its condition has to allow writing."""
        self._native.set_value(number(block), _amount(value), login_of(login), seconds(timeout))

    def increment(
        self, block: int, amount: int, login: LoginLike = FACTORY, *, to: int | None = None, timeout: Timeout = 5.0
    ) -> None:
        """Adds to the value, or with `to` puts the sum into another block of the sector. Never repeated by itself:
        after an error with status 3120 it is not known whether it took place."""
        place = None if to is None else number(to)
        self._native.increment(number(block), number(amount, 2**32 - 1), login_of(login), place, seconds(timeout))

    def decrement(
        self, block: int, amount: int, login: LoginLike = FACTORY, *, to: int | None = None, timeout: Timeout = 5.0
    ) -> None:
        """Takes from the value; see increment."""
        place = None if to is None else number(to)
        self._native.decrement(number(block), number(amount, 2**32 - 1), login_of(login), place, seconds(timeout))

    def make_value_block(self, block: int, value: int, keys: KeyPairLike, *, timeout: Timeout = 5.0) -> None:
        """Makes a value block of a data block. The trailer is written again, with both keys; key B opens it."""
        self._native.make_value_block(number(block), _amount(value), pair(keys), seconds(timeout))

    def make_decrement_only_block(self, block: int, value: int, keys: KeyPairLike, *, timeout: Timeout = 5.0) -> None:
        """One that can only be decremented, and never filled up again. Not with value 0."""
        self._native.make_decrement_only_block(number(block), _amount(value), pair(keys), seconds(timeout))

    def access(self, sector: int, login: LoginLike = FACTORY, *, timeout: Timeout = 5.0) -> SectorAccess:
        """Which key allows what in a sector."""
        return sector_access(self._native.access(number(sector), login_of(login), seconds(timeout)))

    def set_access(
        self, block: int, access: DataAccess | str, keys: KeyPairLike, *, timeout: Timeout = 5.0
    ) -> None:
        """Gives one data block a condition and clears it. The trailer is written again, with both keys; key B opens
        it."""
        self._native.set_access(number(block), DataAccess(access).value, pair(keys), seconds(timeout))


class Application(Memory[_native.Application]):
    """An application in the directory of a tag: its blocks, numbered from 0 within it."""

    @property
    def id(self) -> int:
        return self._native.id()

    def sectors(self, *, timeout: Timeout = 5.0) -> list[int]:
        """The sectors of the tag that belong to it, in the order of its blocks."""
        return self._native.sectors(seconds(timeout))

    def read_all(self, login: LoginLike = FACTORY, *, timeout: Timeout = 5.0) -> Blocks:
        """All of its blocks."""
        return blocks(self._native.read_all(login_of(login), seconds(timeout)))

    def write_all(
        self, data: Buffer, login: LoginLike = FACTORY, *, fill: Buffer | None = None, timeout: Timeout = 5.0
    ) -> Results:
        """Writes all of its blocks, value blocks too: the data, then `fill` (16 bytes) again and again, or zeros."""
        rest = None if fill is None else memoryview(fill)
        return Results(self._native.write_all(memoryview(data), login_of(login), rest, seconds(timeout)))

    def add_sectors(
        self,
        count: int,
        directory_b: KeyLike,
        new_keys: KeyPairLike,
        *,
        free_sector_b: KeyLike | None = None,
        access: DataAccess | str = DataAccess.WRITE_B,
        timeout: Timeout = 5.0,
    ) -> list[int]:
        """Gives it more sectors, above those that it has, and returns them. See Tag.create_application."""
        keys = (key(directory_b), pair(new_keys), optional_key(free_sector_b))
        return self._native.add_sectors(number(count), *keys, DataAccess(access).value, seconds(timeout))

    def remove_sectors(
        self,
        start: int,
        count: int,
        directory_b: KeyLike,
        login: LoginLike,
        *,
        new_key_a: KeyLike | None = None,
        new_key_b: KeyLike | None = None,
        timeout: Timeout = 5.0,
    ) -> None:
        """Takes sectors from it, from a place in the list of its sectors, and clears them; all of them remove it.
        `login` may write their trailers. Freed sectors get the new keys, or the public key A and the directory's key
        B."""
        keys = (key(directory_b), login_of(login), optional_key(new_key_a), optional_key(new_key_b))
        self._native.remove_sectors(number(start), number(count), *keys, seconds(timeout))

    def set_keys(self, new_keys: KeyPairLike, login: LoginLike, *, timeout: Timeout = 5.0) -> Results:
        """Replaces both keys of all its sectors; `login` may write the trailers."""
        return Results(self._native.set_keys(pair(new_keys), login_of(login), seconds(timeout)), "sector")

    def set_trailers(
        self, access: TrailerAccess | str, keys: KeyPairLike, opens_with: KeyType | str, *, timeout: Timeout = 5.0
    ) -> Results:
        """See Tag.set_trailers."""
        with_b = KeyType(opens_with) is KeyType.B
        done = self._native.set_trailers(TrailerAccess(access).value, pair(keys), with_b, seconds(timeout))
        return Results(done, "sector")


class Directory(enum.Enum):
    """Version of the application directory that formatting writes."""

    NONE = 0
    VERSION_1 = 1
    VERSION_2 = 2


class TagImage:
    """All of a tag's memory as far as the keys reach, block 0 first. The library reads no trailers: they are composed
    of the keys that have opened the sector and of its conditions. It holds keys."""

    def __init__(self, native: _native.TagImage) -> None:
        self._native = native

    @property
    def geometry(self) -> Geometry:
        return self._native.geometry

    @property
    def bytes(self) -> bytes:
        return self._native.bytes

    @property
    def read(self) -> list[int]:
        """Blocks straight from the tag."""
        return self._native.read

    @property
    def composed(self) -> list[int]:
        """Trailers; on an Ultralight the pages of the UID."""
        return self._native.composed

    @property
    def unproven_b(self) -> list[int]:
        """Trailers whose key B can be read on the tag and so could not be tried."""
        return self._native.unproven_b

    @property
    def missing(self) -> list[int]:
        """Blocks that are zero here and something else on the tag."""
        return self._native.missing


class OpenSector(NamedTuple):
    """What keys of a ring have told of a sector: those that open it, and its conditions."""

    key_a: Key | None
    key_b: Key | None
    access: SectorAccess

    @property
    def is_open(self) -> bool:
        return self.key_a is not None or self.key_b is not None


#: Told of each sector before its turn: its number, and how many there are. What it raises ends the work.
Progress = Callable[[int, int], object]


class Tag(Memory[_native.Tag]):
    """A storage tag or card that was found by a Reader. Use it from any thread, as long as the Reader is open; after
    that its operations raise NoReaderError."""

    @property
    def uid(self) -> Uid:
        return Uid(self._native.uid())

    @property
    def type_name(self) -> str:
        """Such as "Mifare Standard"."""
        return self._native.type_name()

    @property
    def geometry(self) -> Geometry | None:
        """None for a type without memory of this kind."""
        return self._native.geometry()

    def applications(self, directory: LoginLike = DIRECTORY, *, timeout: Timeout = 5.0) -> list[int]:
        """The applications in the directory, each once. `directory` opens sector 0."""
        return self._native.applications(login_of(directory), seconds(timeout))

    def directory(self, login: LoginLike = DIRECTORY, *, timeout: Timeout = 5.0) -> list[int]:
        """The entry of each sector at its number: an application, 0 for a free sector, 1 for a defect one."""
        return self._native.directory(login_of(login), seconds(timeout))

    def application(self, id: int, directory: LoginLike = DIRECTORY) -> Application:  # noqa: A002
        """An application that is on the tag; nothing is asked of the tag yet. `directory` opens sector 0."""
        return Application(self._native.application(number(id, _MOST_ID), login_of(directory)))

    def create_application(
        self,
        id: int,  # noqa: A002
        sector_count: int,
        directory_b: KeyLike,
        new_keys: KeyPairLike,
        *,
        free_sector_b: KeyLike | None = None,
        access: DataAccess | str = DataAccess.WRITE_B,
        timeout: Timeout = 5.0,
    ) -> Application:
        """Creates one from free sectors. `directory_b` is key B of sector 0, `free_sector_b` that of the free sectors
        (None: the same), `access` the condition of all its blocks."""
        made = self._native.create_application(
            number(id, _MOST_ID),
            number(sector_count),
            key(directory_b),
            pair(new_keys),
            optional_key(free_sector_b),
            DataAccess(access).value,
            seconds(timeout),
        )
        return Application(made)

    def format(
        self,
        key_b: KeyLike,
        directory: Directory = Directory.VERSION_1,
        *,
        key_a: KeyLike | None = None,
        timeout: Timeout = 5.0,
    ) -> Results:
        """Gives a factory tag the keys of this system and a directory. It has to be the only tag in the field. Without
        `key_a`, key A becomes the directory's public one, without a directory the factory key."""
        version = Directory(directory).value
        return Results(self._native.format(key(key_b), version, optional_key(key_a), seconds(timeout)), "sector")

    def unformat(
        self, key_b: KeyLike, directory: Directory = Directory.VERSION_1, *, timeout: Timeout = 5.0
    ) -> Results:
        """Back to the factory state; the tag has to be the only one in the field. `key_b` is that of all sectors.
        Without a directory it goes on with the other sectors if sector 0 fails."""
        return Results(self._native.unformat(key(key_b), Directory(directory).value, seconds(timeout)), "sector")

    def set_keys(
        self, first_sector: int, count: int, new_keys: KeyPairLike, login: LoginLike, *, timeout: Timeout = 5.0
    ) -> Results:
        """Replaces both keys of `count` sectors; `login` may write their trailers."""
        place = (number(first_sector), number(count))
        return Results(self._native.set_keys(*place, pair(new_keys), login_of(login), seconds(timeout)), "sector")

    def set_trailers(
        self,
        first_sector: int,
        count: int,
        access: TrailerAccess | str,
        keys: KeyPairLike,
        opens_with: KeyType | str,
        *,
        timeout: Timeout = 5.0,
    ) -> Results:
        """Gives whole sectors their keys and the conditions of a delivered (BITS_001) or formatted sector (BITS_011),
        the two that there are. `opens_with` names which of the keys, that the sectors have already, opens them."""
        place = (number(first_sector), number(count), TrailerAccess(access).value)
        with_b = KeyType(opens_with) is KeyType.B
        return Results(self._native.set_trailers(*place, pair(keys), with_b, seconds(timeout)), "sector")

    def open_sector(
        self, sector: int, keys: KeyRing | Iterable[KeyLike] = (), *, timeout: Timeout = 5.0
    ) -> OpenSector:
        """Tries keys on a sector."""
        key_a, key_b, access = _native.open_sector(self._native, number(sector), _ring(keys), seconds(timeout))
        a, b = (None if each is None else Key(each.bytes()) for each in (key_a, key_b))
        return OpenSector(a, b, sector_access(access))

    def image(
        self,
        keys: KeyRing | Iterable[KeyLike] = (),
        *,
        progress: Progress | None = None,
        timeout: Timeout = 5.0,
    ) -> TagImage:
        """Reads all of its memory. The time limit is that of each sector."""
        return TagImage(_native.read_image(self._native, _ring(keys), seconds(timeout), progress))

    def write_image(
        self,
        image: TagImage | Buffer,
        keys: KeyRing | Iterable[KeyLike] = (),
        *,
        trailers: bool = False,
        without: Iterable[int] = (),
        progress: Progress | None = None,
        timeout: Timeout = 5.0,
    ) -> Results:
        """Writes an image: its data, and with `trailers` keys and conditions. `keys` are those that the tag has now.
        Block 0, pages 0 to 3 of an Ultralight, the blocks `without` and those that are missing in a TagImage are left
        alone. Of trailers only those of factory and formatted sectors can be written, besides those that are on the tag
        already. The time limit is that of each sector."""
        left_alone = [number(block) for block in without]
        if isinstance(image, TagImage):
            left_alone += image.missing
            image = image.bytes
        where = (self._native, memoryview(image), _ring(keys), trailers, left_alone)
        return Results(_native.write_image(*where, seconds(timeout), progress))


def _amount(value: int) -> int:
    return number(value, 2**31 - 1, -(2**31))


def _ring(keys: KeyRing | Iterable[KeyLike]) -> _native.KeyRing:
    return keys._native if isinstance(keys, KeyRing) else KeyRing(keys)._native
