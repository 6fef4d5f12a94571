"""Smart cards (ISO/IEC 14443-4)."""

from __future__ import annotations

from dataclasses import dataclass, field
from types import TracebackType
from typing import NamedTuple

from . import _native
from ._errors import Error
from ._keys import Buffer
from ._values import Timeout, Uid, number, seconds


@dataclass(frozen=True)
class ApduAnswer:
    """What a smart card answered to a command APDU (ISO/IEC 7816-4)."""

    data: bytes  #: Without the status word.
    sw1: int
    sw2: int
    follow_ups: list[bytes] = field(default_factory=list)  #: What Card.exchange has sent after the command.

    @property
    def status_word(self) -> int:
        return self.sw1 << 8 | self.sw2

    @property
    def ok(self) -> bool:
        return self.status_word == 0x9000


class Card:
    """A session with a smart card, which Reader.wait_for_card opens. It ends with close(), with the block of a `with`
    statement, or with this object. Threads take turns."""

    def __init__(self, native: _native.Card) -> None:
        self._native = native

    @property
    def uid(self) -> Uid:
        return Uid(self._native.uid())

    @property
    def ats(self) -> bytes:
        """Answer to select, its length byte first."""
        return self._native.ats()

    @property
    def number(self) -> int:
        """Its number on the line, 0 to 15."""
        return self._native.number()

    def transmit(
        self, command: Buffer, *, nad: int = 0, raw: bool = False, retry: bool = False, timeout: Timeout = 5.0
    ) -> bytes:
        """Sends bytes and gives the answer as it comes.

        `nad` is the node address, for cards that take one; a `raw` command has no place for it. `retry` is for a
        command that may be repeated: if the exchange fails, the card is woken and the command sent once more. After
        LostError it is not known whether the card has done what it was told."""
        return self._native.transmit(memoryview(command), seconds(timeout), number(nad, 255), raw, retry)

    def exchange(
        self, command: Buffer, *, nad: int = 0, raw: bool = False, retry: bool = False, timeout: Timeout = 5.0
    ) -> ApduAnswer:
        """Sends a command APDU, fetches what waits (61xx) with GET RESPONSE, and repeats a command with a wrong Le
        (6Cxx) with the right one. See transmit."""
        return ApduAnswer(*self._native.exchange(memoryview(command), seconds(timeout), number(nad, 255), raw, retry))

    def read_ndef(self, *, timeout: Timeout = 5.0) -> bytes:
        """The bytes of the NDEF message of an NFC Forum Type 4 Tag; none for an empty message. Raises ContentError for
        a card that is no such tag or breaks the rules."""
        return self._native.read_ndef(seconds(timeout))

    def close(self) -> None:
        """Deselects the card. Its operations then raise NoReaderError."""
        self._native.close()

    def __enter__(self) -> Card:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, traceback: TracebackType | None
    ) -> None:
        try:
            self.close()
        except Error:
            pass  # the card is out of the field, or the reader is: the session is over either way


class NdefText(NamedTuple):
    language: str
    text: str


@dataclass(frozen=True)
class NdefRecord:
    """A record of an NDEF message (NFC Data Exchange Format, NFC Forum), its chunks joined."""

    type_name_format: int  #: 0 to 7.
    type: bytes
    id: bytes
    payload: bytes
    uri: str | None  #: The whole URI of a URI record or of one whose type is a URI.
    text: NdefText | None  #: Of a text record in UTF-8.
    type_name: str  #: The type in the form of a URN or media type: "urn:nfc:wkt:U", "text/plain"; "empty" or "unknown".


@dataclass(frozen=True)
class NdefMessage:
    """An NDEF message: its records, in order."""

    records: list[NdefRecord]

    @staticmethod
    def parse(message: Buffer) -> NdefMessage:
        """Raises ContentError, which says where the message is not sound."""
        return NdefMessage(
            [
                NdefRecord(form, kind, id_, payload, uri, text and NdefText(*text), type_name)
                for form, kind, id_, payload, uri, text, type_name in _native.parse_ndef(message)
            ]
        )
