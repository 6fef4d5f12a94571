import os
import signal
import subprocess
import sys
import threading
from concurrent.futures import ThreadPoolExecutor
from contextlib import nullcontext, suppress
from datetime import datetime, timedelta, timezone
from pathlib import Path

import pytest
import qvlmf500
from pytest import raises
from qvlmf500 import BadArgumentError, DataAccess, EventKind, Key, Login, NoReaderError, Reason, TrailerAccess, Who

MODEL = qvlmf500.Model(os.environ.get("QVL_TEST_READER", "tama"))
EXAMPLES = Path(__file__).parents[2] / "examples/python"
OPENING = 30  # readers of one machine take turns
KEY_A, KEY_B, DIRECTORY_B, AS_B = "A1" * 6, "B1" * 6, "DB" * 6, Login("B1" * 6, "B")


@pytest.fixture
def field():
    with qvlmf500.VirtualReader(MODEL, ["new:1k:01020304"]) as virtual:
        yield virtual


@pytest.fixture
def reader(field):
    with qvlmf500.Reader(OPENING) as reader:
        yield reader


@pytest.fixture
def tag(reader):
    return reader.wait_for_tag(10)


@pytest.fixture
def application(tag):
    assert tag.format(DIRECTORY_B).complete
    application = tag.create_application(0x4711, 2, DIRECTORY_B, (KEY_A, KEY_B))
    application.make_value_block(0, 10, (KEY_A, KEY_B))
    return application


def run(code):
    """A program that runs `code` with an open reader, and takes its time to end."""
    before = f"import qvlmf500, sys, threading, time\nreader = qvlmf500.Reader({OPENING})\n"
    before += "class Slow:\n    def __del__(self, sleep=time.sleep): sleep(0.2)\nsys.slow = Slow()\n"
    return subprocess.run([sys.executable, "-c", before + code], stderr=subprocess.PIPE, timeout=60)


def test_an_application_to_its_end(reader, tag, application):
    assert reader.wait_for_tag(10, app=0x4711).uid == tag.uid == bytes.fromhex("01020304")
    assert (tag.applications(), tag.directory()[1:4], application.sectors()) == ([0x4711], [0x4711, 0x4711, 0], [1, 2])
    assert application.write(1, memoryview(b"text"), AS_B).complete
    application.increment(0, 5, AS_B)
    application.decrement(0, 7, KEY_A)
    blocks = application.read_all(bytes.fromhex(KEY_A))
    assert (len(blocks), bytes(blocks)[:4], blocks.at(1)) == (6, b"\x08\0\0\0", b"text" + bytes(12))
    application.set_access(2, "read-only", (KEY_A, KEY_B))
    conditions = application.access(0, KEY_A)
    assert conditions.data == (DataAccess("value"), DataAccess.WRITE_B, DataAccess.READ_ONLY)
    assert qvlmf500.SectorAccess.decode(conditions.encode()) == conditions
    assert (DataAccess.VALUE.increment, DataAccess.VALUE.decrement) == (Who.KEY_B, Who.EITHER)
    application.make_decrement_only_block(1, 3, (KEY_A, KEY_B))
    done = application.write_all(b"all", AS_B, fill=b"-" * 16)
    assert [each.ok for each in done] == [True, False, False, True, True, True]
    assert application.add_sectors(1, DIRECTORY_B, (KEY_A, KEY_B)) == [3]
    assert application.set_keys((KEY_B, KEY_A), AS_B).complete and application.read(3, 3, KEY_B).at(2) == b"-" * 16
    application.remove_sectors(2, 1, DIRECTORY_B, Login(KEY_A, "B"))
    assert application.sectors() == [1, 2]


def test_sectors_with_keys_of_their_own(tag):
    assert tag.set_keys(1, 1, (KEY_A, KEY_B), "FF" * 6).complete
    assert tag.set_trailers(1, 1, "011", (KEY_A, KEY_B), "A").complete
    assert tag.access(1, KEY_A).trailer is TrailerAccess.BITS_011 and not TrailerAccess.BITS_011.key_b_is_data
    part = tag.read(0, 6)
    assert [each.reason for each in part] == [None] * 3 + [Reason.WRONG_KEY] * 3
    with raises(qvlmf500.WrongKeyError, match="^block 4: ") as failed:
        part.bytes
    assert (failed.value.status, part.bytes_with_gaps[48:]) == (part[3].status, bytes(48))
    assert tag.open_sector(1, [KEY_A, KEY_B])[:2] == (Key(KEY_A), Key(KEY_B)) and not tag.open_sector(1).is_open


def test_an_image_goes_onto_another_tag(field, reader, tag, application):
    ring, steps = qvlmf500.KeyRing([KEY_A, KEY_B, Key.directory()]), []
    ring.add_b(DIRECTORY_B)
    image = tag.image(ring, progress=lambda *step: steps.append(step))
    assert (steps, image.missing) == ([(sector, 16) for sector in range(16)], [])
    assert image.bytes == field.image("tag1") and image.composed[2] == image.geometry.trailer_of(2)
    field.place("new:1k:0a0b0c0d")
    other = reader.wait_for_tag(10, uid=bytes.fromhex("0A0B0C0D"))
    assert [each.ok for each in other.write_image(image, without=[5])] == [True] * 46
    assert other.read(4, 2).bytes == image.bytes[64:80] + bytes(16)
    assert 4 not in [each.number for each in other.write_image(tag.image())]  # no published key opens sector 1
    raises(ZeroDivisionError, tag.image, ring, progress=lambda sector, _: 1 // (3 - sector))


def test_what_cannot_be_is_refused(tag):
    for kind, text, call in (
        (BadArgumentError, "12 hexadecimal digits", lambda: tag.read(1, login="SECRET")),
        (TypeError, "positional", lambda: tag.read(1, 1, "SECRET", 5)),
        (ValueError, "-1 is out of range", lambda: tag.read(-1)),
        (TypeError, "bytes-like", lambda: tag.write(1, "text")),
        (ValueError, "not a valid DataAccess", lambda: tag.set_access(1, "opened", (KEY_A, KEY_B))),
        (BadArgumentError, "number of seconds", lambda: tag.read(1, timeout=float("nan"))),
        (qvlmf500.ContentError, "no directory", lambda: tag.applications("FF" * 6)),
        (NoReaderError, "cannot be run", lambda: qvlmf500.VirtualReader(MODEL, program="/nowhere")),
    ):
        with raises(kind, match=text) as refused:
            call()
        assert "SECRET" not in str(refused.value) and "FFFF" not in repr((Key.factory(), Login("FF" * 6)))


def test_a_tag_that_is_away_is_waited_for(field, reader, tag):
    field.take_away("tag1")
    raises(qvlmf500.Error, tag.read, 1, timeout=timedelta(seconds=0.2))
    with raises(TimeoutError, match="01020304 did not come"):
        reader.wait_for_tag(1, uid=tag.uid)
    threading.Timer(0.3, field.bring_back, ["tag1"]).start()  # runs only if the wait lets it
    assert tag.read(1, timeout=None).complete


def test_the_example_counts_down(reader, application):
    reader.close()
    shown = subprocess.check_output([sys.executable, EXAMPLES / "count_down.py"], text=True)
    assert "Tag 01020304 holds 0a000000f5ffffff" in shown and shown.endswith("9 left\n")


def test_what_a_reader_tells_and_does(field, reader):
    identity, is_pn531 = reader.identity(), MODEL is qvlmf500.Model.PN531
    assert (identity.model, len(identity.id)) == (("PN531", 6) if is_pn531 else ("MF RC500", 4))
    reader.set_light(3, True)
    assert bool(field.led) == is_pn531
    with nullcontext() if is_pn531 else raises(qvlmf500.NotSupportedError):
        assert reader.relay(bytearray(b"\x02"))[0] == 3


def test_events_in_their_order(field, reader):
    threading.Timer(0.3, field.take_away, ["tag1"]).start()
    with suppress(qvlmf500.ReaderBusyError):  # another program of this machine has it when the time is over
        assert [event.kind for event in reader.watch(1)] == [EventKind.TAG_ARRIVED, EventKind.TAG_LEFT]
    field.bring_back("tag1")
    told, steps = [], [lambda: field.take_away("tag1"), field.unplug, field.plug_in, reader.close]
    with raises(NoReaderError):
        for event in reader.watch():
            told.append((event.kind, event.uid and str(event.uid)))
            steps[len(told) - 1]()
            assert abs(datetime.now(timezone.utc) - event.time).total_seconds() < 60
    tag = [(EventKind.TAG_ARRIVED, "01020304"), (EventKind.TAG_LEFT, "01020304")]
    assert told == [*tag, (EventKind.READER_LOST, None), (EventKind.READER_BACK, None)]
    field.unplug()
    raises(NoReaderError, qvlmf500.Reader, 0)


def test_ctrl_c_ends_a_wait(field):
    field.take_away("tag1")
    for wait in ("reader.wait_for_tag()", "list(reader.watch())", "reader.wait_for_card()"):
        child = run(f"import os\nthreading.Timer(0.3, os.kill, [os.getpid(), {int(signal.SIGINT)}]).start()\n{wait}")
        assert child.stderr.endswith(b"\nKeyboardInterrupt\n")


def test_threads_that_wait_at_the_end_of_the_program(field):
    waits = ("list(reader.watch())", "reader.wait_for_tag(uid='05')")
    child = run("\n".join(f"threading.Thread(target=lambda: {wait}, daemon=True).start()" for wait in waits))
    assert (child.stderr, child.returncode) == (b"", 0)


def test_signal_handlers_within_a_wait(reader):
    watch = reader.watch()

    def ask(*_):
        for operation in (reader.tags, watch.next):
            raises(BadArgumentError, operation)
        reader.close()

    for handler, kind in ((lambda *_: 1 // 0, ZeroDivisionError), (ask, NoReaderError)):
        signal.signal(signal.SIGALRM, handler)
        signal.setitimer(signal.ITIMER_REAL, 0.3)
        raises(kind, list, watch)
    with qvlmf500.Reader(OPENING) as another:  # the first one gave it back
        assert another.tags()


def test_nothing_works_after_its_reader(field, reader, tag):
    field.place("new:card:05060708")
    card, watch = reader.wait_for_card(10), reader.watch()
    reader.close()
    for operation in (lambda: tag.read(1), tag.application(1).sectors, tag.image, card.close, watch.next, reader.tags):
        raises(NoReaderError, operation)


def test_threads_share_a_reader(field, reader, application):
    with ThreadPoolExecutor() as threads:
        list(threads.map(lambda amount: application.decrement(0, amount, KEY_A, timeout=60), [2, 2, 2, 2, 1]))
        name = field.place("new:card:05060708")
        with reader.wait_for_card(10) as card:
            answers = list(threads.map(lambda _: card.exchange(bytes(4), timeout=60).status_word, range(3)))
            field.remove(name)
            raises(qvlmf500.LostError, card.transmit, bytes(4))
    assert (application.value(0, KEY_A), answers) == (1, [0x6D00] * 3)
    raises(NoReaderError, card.transmit, bytes(4))


def test_a_card_and_its_message(field, reader, tmp_path):
    message = bytes.fromhex("91010a5402656e") + b"Hello\xff\xfe" + bytes.fromhex("5101035504612e")
    (tmp_path / "file").write_bytes(len(message).to_bytes(2, "big") + message + bytes(30))
    (tmp_path / "my.card").write_text("kind card\nuid 05060708\nndef file\nanswer 00B1* 01 6101\nanswer 00C0* 03 9000")
    field.place(tmp_path / "my.card", "mine")
    with reader.wait_for_card(10, uid="05060708") as card:
        answer = card.exchange(b"\0\xb1\0\0\0")
        assert (answer.data, answer.ok, answer.follow_ups) == (b"\1\3", True, [b"\0\xc0\0\0\1"])
        text, link = qvlmf500.NdefMessage.parse(card.read_ndef()).records
    assert (text.text, text.uri, link.uri, link.payload) == (("en", "Hello\ufffd\ufffd"), None, "https://a.", b"\4a.")
