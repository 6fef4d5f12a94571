import subprocess
import sys
import threading
from datetime import timedelta
from pathlib import Path

import pytest
import qvlmf500
from qvlmf500 import DataAccess, Directory, Key, KeyRing, Login, TrailerAccess, Who

KEY_A, KEY_B, DIRECTORY_B = "A1" * 6, "B1" * 6, "DB" * 6
EXAMPLE = Path(__file__).parents[2] / "examples/python/count_down.py"


@pytest.fixture
def tag(reader):
    return reader.wait_for_tag(10, uid="01020304")


@pytest.fixture
def application(tag):
    """With a value block that holds 10, and one free block that it holds in the same sector."""
    assert tag.format(DIRECTORY_B).complete
    made = tag.create_application(0x4711, 2, DIRECTORY_B, (KEY_A, KEY_B))
    made.make_value_block(0, 10, (KEY_A, KEY_B))
    return made


def test_an_application_from_its_creation_to_its_end(reader, tag, application):
    assert reader.wait_for_tag(10, app=0x4711).uid == tag.uid == bytes.fromhex("01020304")
    assert (tag.applications(), tag.directory()[1:4], application.sectors()) == ([0x4711], [0x4711, 0x4711, 0], [1, 2])
    b = Login(KEY_B, "B")
    assert application.write(1, memoryview(b"text"), b).complete
    application.increment(0, 5, b)
    application.decrement(0, 7, KEY_A)
    blocks = application.read_all(bytes.fromhex(KEY_A))
    assert (len(blocks), blocks.block_size, blocks.at(1), application.value(0, KEY_A)) == (6, 16, b"text" + bytes(12), 8)
    assert bytes(blocks)[:4] == (8).to_bytes(4, "little")
    conditions = application.access(0, KEY_A)
    assert conditions.data == (DataAccess.VALUE, DataAccess.WRITE_B, DataAccess.WRITE_B)
    assert (conditions.data[0].word, conditions.data[0].increment) == ("value", Who.KEY_B)
    assert qvlmf500.SectorAccess.decode(conditions.encode()) == conditions
    application.set_access(2, "read-only", (KEY_A, KEY_B))
    with pytest.raises(qvlmf500.NotPermittedError):
        application.write(2, b"x", b)
    application.make_decrement_only_block(1, 3, (KEY_A, KEY_B))
    application.decrement(1, 3, Key(KEY_A))
    assert application.write_all(b"all", b, fill=b"-" * 16).complete is False
    assert application.add_sectors(1, DIRECTORY_B, (KEY_A, KEY_B)) == [3]
    assert application.set_keys((KEY_B, KEY_A), b).complete
    assert application.read(5, 1, KEY_B).complete
    application.remove_sectors(2, 1, DIRECTORY_B, Login(KEY_A, "B"))
    assert application.sectors() == [1, 2]


def test_a_tag_from_delivery_and_back(tag):
    assert tag.set_keys(1, 2, (KEY_A, KEY_B), "FF" * 6).complete
    assert tag.set_trailers(1, 1, "011", (KEY_A, KEY_B), "A").complete
    assert tag.access(1, KEY_A).trailer is TrailerAccess.BITS_011 and not tag.access(1, KEY_A).trailer.key_b_is_data
    part = tag.read(0, 6)
    assert not part.complete and [each.ok for each in part] == [True] * 3 + [False] * 3
    assert part[3].reason is qvlmf500.Reason.WRONG_KEY and part.bytes_with_gaps[48:] == bytes(48)
    with pytest.raises(qvlmf500.WrongKeyError, match="^block 4: ") as failed:
        part.bytes
    assert failed.value.status == part[3].status != 0
    opened = tag.open_sector(1, [KEY_A, KEY_B])
    assert (opened.key_a, opened.key_b) == (Key(KEY_A), Key(KEY_B)) and not tag.open_sector(1).is_open
    with pytest.raises(qvlmf500.WrongKeyError):
        tag.unformat(KEY_B)


def test_an_image_is_restored_on_another_tag(field, reader, tag, application):
    ring = KeyRing([KEY_A, KEY_B, Key.directory()])
    ring.add_b(DIRECTORY_B)
    steps = []
    image = tag.image(ring, progress=lambda *step: steps.append(step))
    assert steps == [(sector, 16) for sector in range(16)]
    assert (image.missing, image.composed[:2], image.geometry.trailer_of(2)) == ([], [3, 7], 11)
    assert image.bytes[64:] == field.image("tag1")[64:] and len(image.bytes) == image.geometry.size
    other = reader.wait_for_tag(10, uid=bytes.fromhex("0A0B0C0D")) if field.place("new:1k:0a0b0c0d") else None
    done = other.write_image(image, without=[5])
    assert done.complete and len(done) == 46
    assert other.read(4, 2).bytes == image.bytes[64:80] + bytes(16)
    with pytest.raises(ZeroDivisionError):
        tag.image(ring, progress=lambda sector, _: 1 // (3 - sector))
    with pytest.raises(qvlmf500.BadArgumentError, match="not the only one"):
        tag.format(KEY_B, Directory.NONE)


@pytest.mark.parametrize(
    "kind, text, call",
    [
        (ValueError, "12 hexadecimal digits", lambda tag: tag.read(1, login="SECRET")),
        (ValueError, "6 bytes", lambda tag: tag.read(1, login=b"SECRETS")),
        (TypeError, "bytes-like", lambda tag: tag.read(1, login=4711)),
        (TypeError, "positional", lambda tag: tag.read(1, 1, "SECRET", 5)),
        (TypeError, "integer", lambda tag: tag.read("1")),
        (qvlmf500.BadArgumentError, "-1 is out of range", lambda tag: tag.read(-1)),
        (qvlmf500.BadArgumentError, "out of range", lambda tag: tag.increment(1, 2**32)),
        (qvlmf500.BadArgumentError, "out of range", lambda tag: tag.application(0x10000)),
        (qvlmf500.BadArgumentError, "outside the tag", lambda tag: tag.read(64)),
        (qvlmf500.BadArgumentError, "nothing to write", lambda tag: tag.write(1, b"")),
        (TypeError, "bytes-like", lambda tag: tag.write(1, "text")),
        (ValueError, "not a valid DataAccess", lambda tag: tag.set_access(1, "opened", (KEY_A, KEY_B))),
        (ValueError, "number of seconds", lambda tag: tag.read(1, timeout=float("nan"))),
        (qvlmf500.ContentError, "no directory", lambda tag: tag.applications("FF" * 6)),
        (qvlmf500.BadArgumentError, "up to 10 bytes", lambda tag: qvlmf500.Uid("0102030")),
        (qvlmf500.BadArgumentError, "image", lambda tag: tag.write_image(bytes(1000))),
        (qvlmf500.ContentError, "ends in the middle", lambda tag: qvlmf500.NdefMessage.parse(b"\xd1\x01")),
    ],
)
def test_what_cannot_be_is_refused(tag, kind, text, call):
    with pytest.raises(kind, match=text) as refused:
        call(tag)
    assert "SECRET" not in str(refused.value) and "FFFF" not in repr((Key.factory(), Login("FF" * 6), tag))


def test_a_tag_that_is_away_is_waited_for(field, reader, tag):
    field.take_away("tag1")
    with pytest.raises((qvlmf500.NoTagError, qvlmf500.LostError)):
        tag.read(1, timeout=timedelta(seconds=0.2))
    with pytest.raises(TimeoutError, match="01020304 did not come"):
        reader.wait_for_tag(0.2, uid=tag.uid)
    back = threading.Timer(0.3, field.bring_back, ["tag1"])
    back.start()
    assert tag.read(1, timeout=None).complete  # which lets the timer run
    back.join()


def test_the_example_counts_down(reader, application):
    reader.close()
    for left in (9, 8):
        shown = subprocess.run([sys.executable, EXAMPLE], capture_output=True, text=True, check=True).stdout
        assert f"Tag 01020304 holds {left + 1:02x}000000" in shown and shown.endswith(f"{left} left\n")
