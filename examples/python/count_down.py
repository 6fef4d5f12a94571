"""Waits for a tag with an application, shows what it holds and takes one from its value block."""

import qvlmf500

APPLICATION, KEY_A = 0x4711, "A1A1A1A1A1A1"

with qvlmf500.Reader(timeout=30) as reader:
    print("Please hold a tag to the reader")
    tag = reader.wait_for_tag(app=APPLICATION)
    application = tag.application(APPLICATION)
    print(f"Tag {tag.uid} holds {application.read_all(KEY_A).bytes.hex()}")
    application.decrement(0, 1, KEY_A)
    print(f"{application.value(0, KEY_A)} left")
