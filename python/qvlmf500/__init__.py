"""Contactless tags and smart cards.

    import qvlmf500

    with qvlmf500.Reader() as reader:
        tag = reader.wait_for_tag(10)
        print(tag.uid, tag.type_name)

Time limits are seconds or a timedelta; None is without end. Ctrl-C ends a wait. Keys are hexadecimal digits, six bytes
or a Key. Errors are below Error, with a class for each reason.
"""

from ._access import DataAccess, SectorAccess, TrailerAccess, Who
from ._card import ApduAnswer, Card, NdefMessage, NdefRecord, NdefText
from ._errors import (
    BadArgumentError,
    CancelledError,
    ContentError,
    Error,
    FailedError,
    LostError,
    NoReaderError,
    NotPermittedError,
    NotSupportedError,
    NoTagError,
    ReaderBusyError,
    ReaderLostError,
    Reason,
    TimedOutError,
    WrongKeyError,
)
from ._keys import Buffer, Key, KeyLike, KeyPair, KeyPairLike, KeyRing, KeyType, Login, LoginLike
from ._native import version as __version__
from ._reader import Event, EventKind, Identity, Reader, Watch
from ._tag import ALL_BLOCKS, Application, Directory, Memory, OpenSector, Progress, Tag, TagImage
from ._values import Blocks, Geometry, Result, Results, Timeout, Uid, UidLike
from ._virtual import Model, PlacedTag, VirtualReader

__all__ = [name for name in dir() if not name.startswith("_")] + ["__version__"]

for _name in __all__:
    if isinstance(globals()[_name], type) and globals()[_name].__module__.startswith(f"{__name__}._"):
        globals()[_name].__module__ = __name__
