import os
import signal
import subprocess
import sys
import threading
import time
from datetime import datetime, timezone

import pytest
import qvlmf500
from conftest import MODEL, OPENING
from qvlmf500 import EventKind

IS_PN531 = MODEL is qvlmf500.Model.PN531


@pytest.fixture
def alarm():
    """Has a signal handler run in the middle of what the test waits for."""

    def set_alarm(handler):
        signal.signal(signal.SIGALRM, lambda *_: handler())
        signal.setitimer(signal.ITIMER_REAL, 0.3)

    yield set_alarm
    signal.setitimer(signal.ITIMER_REAL, 0)
    signal.signal(signal.SIGALRM, signal.SIG_DFL)


def start(code):
    """A program that runs `code` with an open reader."""
    before = f"import qvlmf500, threading\nreader = qvlmf500.Reader({OPENING})\nprint('open', flush=True)\n"
    child = subprocess.Popen([sys.executable, "-c", before + code], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert child.stdout.readline() == b"open\n"
    return child


def test_what_a_reader_tells_and_does(field, reader):
    is_ = reader.identity()
    assert (is_.model, len(is_.id)) == (("PN531", 6) if IS_PN531 else ("MF RC500", 4))
    reader.set_light(3, True)
    assert bool(field.led) == IS_PN531
    if IS_PN531:
        assert reader.relay(b"\x02")[0] == 3
    else:
        with pytest.raises(qvlmf500.NotSupportedError):
            reader.relay(bytearray(b"\x02"))
    with pytest.raises(ValueError, match="lights 0 to 3"):
        reader.set_light(4, True)
    assert [tag.uid.hex() for tag in reader.tags()] == ["01020304"]


def test_events_in_their_order(field, reader):
    watch = reader.watch()
    told = []

    def until(kind):
        for event in watch:
            told.append((event.kind, event.uid and str(event.uid)))
            if event.kind is kind:
                return event

    arrived = until(EventKind.TAG_ARRIVED)
    assert abs((datetime.now(timezone.utc) - arrived.time).total_seconds()) < 60 and "Mifare" in arrived.type_name
    field.take_away("tag1")
    until(EventKind.TAG_LEFT)
    field.unplug()
    until(EventKind.READER_LOST)
    with pytest.raises(qvlmf500.Error) as lost:
        reader.tags(timeout=0)
    assert lost.value.reason in (qvlmf500.Reason.READER_LOST, qvlmf500.Reason.NO_READER)
    field.plug_in()
    until(EventKind.READER_BACK)
    names = [(EventKind.TAG_ARRIVED, "01020304"), (EventKind.TAG_LEFT, "01020304")]
    assert told == [*names, (EventKind.READER_LOST, None), (EventKind.READER_BACK, None)]
    reader.close()
    with pytest.raises(qvlmf500.NoReaderError):
        next(watch)


def test_ctrl_c_ends_a_wait(field):
    field.take_away("tag1")
    for wait in ("reader.wait_for_tag()", "list(reader.watch())", "reader.wait_for_card()"):
        child = start(wait)
        while not field.field_is_on:
            time.sleep(0.01)
        child.send_signal(signal.SIGINT)
        _, complaint = child.communicate(timeout=60)
        assert child.returncode == -signal.SIGINT and complaint.endswith(b"\nKeyboardInterrupt\n")


def test_a_thread_that_waits_at_the_end_of_the_program(field):
    child = start("threading.Thread(target=lambda: list(reader.watch()), daemon=True).start()\n"
                  "threading.Thread(target=lambda: reader.wait_for_tag(uid='01'), daemon=True).start()\n")
    output, complaint = child.communicate(timeout=60)
    assert (child.returncode, b"Fatal" in complaint) == (0, False)


def test_signal_handlers_within_a_wait(reader, alarm):
    alarm(lambda: 1 // 0)
    with pytest.raises(ZeroDivisionError):
        reader.wait_for_tag(uid="05")
    inner = []

    def ask():
        with pytest.raises(qvlmf500.BadArgumentError, match="cannot begin another") as refused:
            reader.tags()
        inner.append(refused)
        reader.close()

    alarm(ask)
    with pytest.raises(qvlmf500.NoReaderError, match="closed"):
        reader.wait_for_tag(uid="05")
    assert inner
    with qvlmf500.Reader(OPENING) as another:  # the first one gave it back
        assert another.tags()


def test_nothing_works_after_its_reader(field, reader):
    tag = reader.wait_for_tag(10)
    field.place("new:card:05060708")
    card = reader.wait_for_card(10)
    operations = [lambda: tag.read(1), tag.application(1).sectors, reader.watch().next, reader.tags, reader.wait_for_tag]
    operations += [lambda: card.transmit(b"\0"), tag.image, card.close]
    reader.close()
    reader.close()
    for operation in operations:
        with pytest.raises(qvlmf500.NoReaderError):
            operation()
    assert (tag.uid.hex(), card.uid.hex()) == ("01020304", "05060708")


def test_without_a_reader(field):
    field.unplug()
    with pytest.raises(qvlmf500.NoReaderError, match="no reader was found in " + field.root):
        qvlmf500.Reader(0)
    asked = []
    field.end()
    with pytest.raises(qvlmf500.NoReaderError, match="ended"):
        field.place("new:1k")
    with pytest.raises(ValueError, match="no kind of tag"):
        qvlmf500.VirtualReader(MODEL, ["new:6k"])
    with pytest.raises(qvlmf500.NoReaderError, match="cannot be run"):
        qvlmf500.VirtualReader(program="/nowhere")
    assert asked == [] and os.environ.get("QVL_DEVICE_ROOT") is None


def test_threads_share_a_reader(field, reader):
    tag = reader.wait_for_tag(10)
    tag.set_value(1, 0)
    card_name = field.place("new:card:05060708")
    problems = []

    def count():
        try:
            for _ in range(5):
                tag.increment(1, 1, timeout=60)
        except Exception as problem:
            problems.append(problem)

    waiting = threading.Thread(target=count), threading.Thread(target=count), threading.Thread(target=count)
    for thread in waiting:
        thread.start()
    for thread in waiting:
        thread.join()
    assert (problems, tag.value(1)) == ([], 15)
    with reader.wait_for_card(10) as card:
        answers = []
        each = [threading.Thread(target=lambda: answers.append(card.exchange(b"\0\0\0\0", timeout=60))) for _ in range(3)]
        for thread in each:
            thread.start()
        for thread in each:
            thread.join()
        assert [answer.status_word for answer in answers] == [0x6D00] * 3 and not answers[0].ok
        field.remove(card_name)
        with pytest.raises(qvlmf500.LostError):
            card.transmit(b"\0\0\0\0")
    with pytest.raises(qvlmf500.NoReaderError, match="session"):
        card.transmit(b"\0")


def test_a_card_and_its_message(field, reader, tmp_path):
    message = bytes.fromhex("91010a5402656e") + b"Hello\xff\xfe" + bytes.fromhex("5101035504") + b"a.b"[:2]
    (tmp_path / "file").write_bytes(len(message).to_bytes(2, "big") + message + bytes(30))
    lines = "kind card\nuid 0506070809\n".replace("0809", "08") + "ndef file\nanswer 00B1* 01 02 6101\nanswer 00C0* 03 9000\n"
    (tmp_path / "my.card").write_text(lines)
    field.place(tmp_path / "my.card", "mine")
    with reader.wait_for_card(10, uid="05060708") as card:
        answer = card.exchange(b"\0\xb1\0\0\0")
        assert (answer.data, answer.ok, answer.follow_ups) == (b"\1\2\3", True, [b"\0\xc0\0\0\1"])
        assert card.ats[0] == len(card.ats) and card.number < 16
        read = card.read_ndef()
    assert read == message
    text, link = qvlmf500.NdefMessage.parse(read).records
    assert text.text == ("en", "Hello\ufffd\ufffd") and text.uri is None
    assert (link.uri, link.type_name, link.payload) == ("https://a.", "urn:nfc:wkt:U", b"\4a.")
