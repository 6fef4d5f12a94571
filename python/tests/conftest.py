import os

import pytest
import qvlmf500

MODEL = qvlmf500.Model(os.environ.get("QVL_TEST_READER", "tama"))
OPENING = 30  # the machine's readers take turns


@pytest.fixture
def field(tmp_path):
    """A virtual reader of the model under test with a factory tag."""
    with qvlmf500.VirtualReader(MODEL, ["new:1k:01020304"]) as virtual:
        yield virtual


@pytest.fixture
def reader(field):
    with qvlmf500.Reader(OPENING) as reader:
        yield reader
