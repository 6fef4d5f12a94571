"""A reader without hardware."""

from __future__ import annotations

import enum
import os
from collections.abc import Sequence
from types import TracebackType
from typing import NamedTuple

from . import _native


class Model(enum.Enum):
    """Of a virtual reader, by the names that qvlreadersim has for them."""

    PN531 = "tama"
    MF_RC500 = "mf500"


class PlacedTag(NamedTuple):
    """What a virtual reader knows of a tag."""

    name: str
    kind: str
    uid: str  #: In hexadecimal.
    state: str  #: off, idle, ready, active, halted or away.
    source: str  #: As it was given: a file or new:KIND[:UID].


Path = str | os.PathLike[str]


class VirtualReader:
    """A reader without hardware, for the tests of a host: the program qvlreadersim, started on a device root of its own
    and steered from here. It ends with end(), with the block of a `with` statement, and when this process dies. Each
    operation takes effect before it returns. Any thread may call any of them.

    QVL_DEVICE_ROOT of this process leads to it until its end, and for a serial port QVL_PATH to settings with that
    port; os.environ does not show them. Several readers end in the reverse order of their start.

    `tags` are in the field at the start: image file, .card file or new:KIND[:UID]. With `serial_port` the reader is on
    COM1, a PN531 only. With `save_on_exit` images that were written to go back to their files. `options` are further
    ones of qvlreadersim. `program` is that: by default $QVLREADERSIM, else from PATH."""

    def __init__(
        self,
        model: Model | str = Model.PN531,
        tags: Sequence[Path] = (),
        *,
        serial_port: bool = False,
        save_on_exit: bool = False,
        options: Sequence[Path] = (),
        program: Path = "",
    ) -> None:
        self._native = _native.VirtualReader(
            Model(model) is Model.MF_RC500,
            [os.fsencode(tag) for tag in tags],
            serial_port,
            save_on_exit,
            [os.fsencode(option) for option in options],
            os.fsencode(program),
        )

    @property
    def root(self) -> str:
        """Its device root, for the environment of other programs: QVL_DEVICE_ROOT."""
        return self._native.root()

    @property
    def remarks(self) -> list[str]:
        """Remarks on the tags so far, one each."""
        return self._native.remarks()

    def place(self, tag: Path, name: str = "") -> str:
        """Lays a tag into the field: image file, .card file or new:KIND[:UID]. Without a name the reader chooses one.
        Gives its name."""
        return self._native.place(os.fsencode(tag), name)

    def remove(self, name: str) -> None:
        """Takes a tag away for good."""
        self._native.remove(name)

    def take_away(self, name: str) -> None:
        """Holds a tag away from the field. Its memory stays, its state is lost."""
        self._native.take_away(name)

    def bring_back(self, name: str) -> None:
        self._native.bring_back(name)

    def tags(self) -> list[PlacedTag]:
        """All tags, those that are held away too, in the order in which they came."""
        return [PlacedTag(*each) for each in self._native.tags()]

    def save(self, name: str, file: Path = "") -> None:
        """Writes the image of a tag to a file, by default the one that it came from."""
        self._native.save(name, os.fsencode(file))

    def image(self, name: str) -> bytes:
        """The image of a tag: its memory as an image file has it."""
        return self._native.image(name)

    def fault(self, rule: str) -> None:
        """Adds a rule to the fault plan: when, how often and what, such as "40 2 no reply"."""
        self._native.fault(rule)

    def clear_faults(self) -> None:
        self._native.clear_faults()

    def unplug(self) -> None:
        """Pulls the reader out. It forgets key and settings."""
        self._native.unplug()

    def plug_in(self) -> None:
        self._native.plug_in()

    @property
    def field_is_on(self) -> bool:
        return self._native.field_is_on()

    @property
    def led(self) -> int:
        """The LED byte that the host sent last; 0 for an MF RC500."""
        return self._native.led()

    def command(self, line: str) -> str:
        """Any line command of qvlreadersim. Gives its answer: the lines that come first, each with its end, then what
        stands after "ok"."""
        return self._native.command(os.fsencode(line))

    def end(self) -> str:
        """Ends the reader and gives the environment its former values. Gives what went wrong, such as an image that
        could not be saved; empty for nothing, and if it has been ended before."""
        return self._native.end()

    def __enter__(self) -> VirtualReader:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, traceback: TracebackType | None
    ) -> None:
        self.end()
