"""What operations raise."""

from __future__ import annotations

import enum


class Reason(enum.Enum):
    """Why an operation failed, as far as a program acts on it."""

    NO_TAG = "no tag"
    LOST = "lost"
    WRONG_KEY = "wrong key"
    NOT_PERMITTED = "not permitted"
    CONTENT = "unsuitable content"
    NO_READER = "no reader"
    READER_BUSY = "reader busy"
    READER_LOST = "reader lost"
    NOT_SUPPORTED = "not supported"
    CANCELLED = "cancelled"
    TIMED_OUT = "timed out"
    BAD_ARGUMENT = "bad argument"
    FAILED = "failed"


class Error(Exception):
    """An operation failed. Each reason has a class of its own below this one."""

    reason: Reason = Reason.FAILED
    #: Of the library; 0 if it was not asked.
    status: int

    def __init__(self, text: str, status: int = 0) -> None:
        super().__init__(text)
        self.status = status


class NoTagError(Error):
    """No tag, or not the one that was named, came into the field."""

    reason = Reason.NO_TAG


class LostError(Error):
    """The tag or card left the field, or the link to it broke, while it was being worked on."""

    reason = Reason.LOST


class WrongKeyError(Error):
    """The tag did not accept the key."""

    reason = Reason.WRONG_KEY


class NotPermittedError(Error):
    """The access conditions of the tag, or its type, do not allow this."""

    reason = Reason.NOT_PERMITTED


class ContentError(Error):
    """The tag does not hold what the operation needs: no directory, no such application, no sound value."""

    reason = Reason.CONTENT


class NoReaderError(Error):
    """No reader is there, or the reader object is closed."""

    reason = Reason.NO_READER


class ReaderBusyError(Error):
    """Another program works with the reader."""

    reason = Reason.READER_BUSY


class ReaderLostError(Error):
    """The reader was there and does not answer any longer."""

    reason = Reason.READER_LOST


class NotSupportedError(Error):
    """This reader does not offer the operation."""

    reason = Reason.NOT_SUPPORTED


class CancelledError(Error):
    """The wait was ended."""

    reason = Reason.CANCELLED


class TimedOutError(Error, TimeoutError):
    """The time limit was over."""

    reason = Reason.TIMED_OUT


class BadArgumentError(Error, ValueError):
    """The arguments cannot be: size, range or value."""

    reason = Reason.BAD_ARGUMENT


class FailedError(Error):
    """None of the others: no memory, or a fault in the library."""


_CLASSES: dict[Reason, type[Error]] = {each.reason: each for each in (FailedError, *Error.__subclasses__())}


def error(reason: str, text: str, status: int) -> Error:
    """An error with the class of its reason."""
    return _CLASSES[Reason(reason)](text, status)
