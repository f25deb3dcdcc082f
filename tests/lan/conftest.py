"""What every end-to-end test gets."""

import lan
import pytest


@pytest.fixture
def net():
    """A LAN with a technician's desk on it."""
    with lan.Lan() as made:
        made.desk = made.host("desk", "192.168.1.20/24", eth1="10.1.0.20/24")
        yield made
