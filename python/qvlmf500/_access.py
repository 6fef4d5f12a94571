"""What the access conditions of Mifare Classic mean, as in the data sheets MF1S50yyX and MF1S70yyX."""

from __future__ import annotations

import enum
from dataclasses import dataclass

from . import _native
from ._keys import Buffer


class Who(enum.Flag):
    """Which keys of the sector allow something."""

    NOBODY = 0
    KEY_A = 1
    KEY_B = 2
    EITHER = 3


_DATA_RULES = _native.data_rules()
_TRAILER_RULES = _native.trailer_rules()


class DataAccess(enum.Enum):
    """Condition of a data block, by its bits C1 C2 C3."""

    READ_ONLY = "010"
    WRITE_B = "100"
    ONLY_B = "011"
    READ_ONLY_B = "101"
    LOCKED = "111"
    OPEN = "000"
    VALUE = "110"
    DECREMENT_ONLY = "001"

    @classmethod
    def _missing_(cls, value: object) -> DataAccess | None:
        return next((each for each in cls if each.word == value), None)

    @property
    def bits(self) -> str:
        return self.value

    @property
    def word(self) -> str:
        """Its name for users, such as "read-only", which makes the condition too."""
        return _DATA_RULES[self.value][0]

    @property
    def read(self) -> Who:
        return Who(_DATA_RULES[self.value][1])

    @property
    def write(self) -> Who:
        return Who(_DATA_RULES[self.value][2])

    @property
    def increment(self) -> Who:
        return Who(_DATA_RULES[self.value][3])

    @property
    def decrement(self) -> Who:
        return Who(_DATA_RULES[self.value][4])


class TrailerAccess(enum.Enum):
    """Condition of a sector trailer, by its bits C1 C2 C3. Key A is never read."""

    BITS_000 = "000"
    BITS_010 = "010"
    BITS_100 = "100"
    BITS_110 = "110"
    BITS_001 = "001"  #: As delivered.
    BITS_011 = "011"  #: As formatted by this library: A reads, B writes.
    BITS_101 = "101"
    BITS_111 = "111"

    @property
    def bits(self) -> str:
        return self.value

    @property
    def write_key_a(self) -> Who:
        return Who(_TRAILER_RULES[self.value][0])

    @property
    def read_access(self) -> Who:
        return Who(_TRAILER_RULES[self.value][1])

    @property
    def write_access(self) -> Who:
        return Who(_TRAILER_RULES[self.value][2])

    @property
    def read_key_b(self) -> Who:
        return Who(_TRAILER_RULES[self.value][3])

    @property
    def write_key_b(self) -> Who:
        return Who(_TRAILER_RULES[self.value][4])

    @property
    def key_b_is_data(self) -> bool:
        """A key B that can be read is data and opens nothing."""
        return self.read_key_b != Who.NOBODY


@dataclass(frozen=True)
class SectorAccess:
    """The conditions of a sector: of its three groups of data blocks and of its trailer."""

    data: tuple[DataAccess, DataAccess, DataAccess] = (DataAccess.OPEN,) * 3
    trailer: TrailerAccess = TrailerAccess.BITS_001

    def encode(self) -> bytes:
        """Bytes 6 to 8 of the trailer."""
        return _native.encode_access(([each.value for each in self.data], self.trailer.value))

    @staticmethod
    def decode(three_bytes: Buffer) -> SectorAccess | None:
        """From bytes 6 to 8 of a trailer; None if the bits and their complements do not agree: no key opens such a
        sector."""
        plain = _native.decode_access(three_bytes)
        return None if plain is None else sector_access(plain)


def sector_access(plain: _native.Access) -> SectorAccess:
    data, trailer = plain
    first, second, third = (DataAccess(each) for each in data)
    return SectorAccess((first, second, third), TrailerAccess(trailer))
