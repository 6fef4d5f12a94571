"""Readers, and what happens in their fields."""

from __future__ import annotations

import atexit
import enum
from collections.abc import Callable
from datetime import datetime, timezone
from time import monotonic
from types import TracebackType
from typing import NamedTuple
from weakref import WeakSet

from . import _native
from ._card import Card
from ._errors import BadArgumentError
from ._keys import Buffer, LoginLike
from ._tag import DIRECTORY, Tag
from ._values import Timeout, Uid, UidLike, login, number, seconds


class Identity(NamedTuple):
    """What a reader tells of itself."""

    adaptor: str  #: Name of the library's adaptor.
    model: str  #: "PN531", "MF RC500", or empty.
    firmware: str  #: Text of the reader.
    id: bytes  #: Serial number: 6 bytes of a PN531, 4 of an MF RC500.
    device: str  #: Instance id of its device; empty if it is not known.


class EventKind(enum.Enum):
    TAG_ARRIVED = "tag arrived"
    TAG_LEFT = "tag left"
    READER_LOST = "reader lost"
    READER_BACK = "reader back"


class Event(NamedTuple):
    """What happened in the field of a reader or to the reader itself."""

    kind: EventKind
    time: datetime  #: In UTC.
    uid: Uid | None  #: Of the tag; None for events of the reader, as the next.
    type_name: str | None


class Watch:
    """Watches the field of a reader: a tag that comes and one that goes are told once each, in their order. It looks
    while somebody waits for an event, about ten times a second, gives way to the operations of all threads, and rests
    while a card session is open. An iterator over events; threads take turns."""

    def __init__(self, native: _native.Watch, timeout: Timeout) -> None:
        self._native = native
        time = seconds(timeout)
        self._deadline = None if time is None else monotonic() + time

    def next(self, timeout: Timeout = None) -> Event | None:
        """The next event; None when the time is over."""
        found = self._native.next(seconds(timeout))
        if found is None:
            return None
        kind, time, uid, type_name = found
        about_tag = (Uid(uid), type_name) if uid else (None, None)
        return Event(EventKind(kind), datetime.fromtimestamp(time, timezone.utc), *about_tag)

    def __iter__(self) -> Watch:
        return self

    def __next__(self) -> Event:
        event = self.next(None if self._deadline is None else self._deadline - monotonic())
        if event is None:
            raise StopIteration
        return event


class Reader:
    """The reader that is attached, open from here to close() or to the end of a `with` statement. There is at least one
    attempt to open it. Tags, cards and watches that it gave may outlive it: their operations then raise NoReaderError.
    Any thread may use it; operations queue.

    A serial port is tried only if the settings or the device root name it. `may_try_port`, if given, is asked before
    each such attempt, with the name of the port and whether it is named; it may say no, or allow a port that is only a
    guess."""

    def __init__(self, timeout: Timeout = 1.0, *, may_try_port: Callable[[str, bool], bool] | None = None) -> None:
        self._native = _native.Reader(seconds(timeout), may_try_port)
        _open.add(self)

    def close(self) -> None:
        """Turns the field off and gives the reader back. Waits of other threads end with NoReaderError, and one that a
        signal handler closes the reader in, too."""
        self._native.close()

    def __enter__(self) -> Reader:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, traceback: TracebackType | None
    ) -> None:
        self.close()

    def identity(self, *, timeout: Timeout = 5.0) -> Identity:
        return Identity(*self._native.identity(seconds(timeout)))

    def set_light(self, light: int, on: bool, duration: int = 1, *, timeout: Timeout = 5.0) -> None:
        """Lights 0 to 2 go on for `duration`, 0 to 31 of the reader's own steps; light 3 is a switch. A reader without
        lights does nothing."""
        self._native.set_light(number(light), bool(on), number(duration), seconds(timeout))

    def relay(self, command: Buffer, *, timeout: Timeout = 5.0) -> bytes:
        """Sends a command to a PN531 as it is, its code first, and gives the reply, its code first. Raises
        NotSupportedError for another reader."""
        return self._native.relay(memoryview(command), seconds(timeout))

    def tags(self, *, timeout: Timeout = 5.0) -> list[Tag]:
        """The tags and cards that are in the field now, perhaps none."""
        return [Tag(each) for each in self._native.tags(seconds(timeout))]

    def wait_for_tag(
        self,
        timeout: Timeout = None,
        *,
        uid: UidLike | None = None,
        app: int | None = None,
        directory_key: LoginLike = DIRECTORY,
    ) -> Tag:
        """Waits for a tag or card: for any, for the one with this UID, or for one whose directory has this application
        and whose sector 0 opens with `directory_key`. Others may be in the field."""
        if uid is not None and app is not None:
            raise BadArgumentError("a tag is waited for by its UID or by its application")
        if uid is not None:
            return Tag(self._native.wait_for_uid(Uid(uid), seconds(timeout)))
        if app is not None:
            return Tag(self._native.wait_for_application(number(app, 0xFFFF), login(directory_key), seconds(timeout)))
        return Tag(self._native.wait_for_tag(seconds(timeout)))

    def watch(self, timeout: Timeout = None) -> Watch:
        """Events of tags and of the reader, for as long as the time limit says. Tags that are in the field already
        arrive first."""
        return Watch(self._native.watch(), timeout)

    def wait_for_card(self, timeout: Timeout = None, *, uid: UidLike | None = None) -> Card:
        """Waits for a smart card, any or the one with this UID, and opens a session with it, even if storage tags are
        in the field."""
        return Card(self._native.wait_for_card(b"" if uid is None else Uid(uid), seconds(timeout)))


_open: WeakSet[Reader] = WeakSet()


@atexit.register
def _close_all() -> None:
    """Ends the waits of threads that would outlive the interpreter."""
    _native.begin_exit()
    for reader in list(_open):
        reader.close()
