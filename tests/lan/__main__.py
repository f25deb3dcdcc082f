"""Runs the end-to-end tests on a private virtual LAN: python3 tests/lan [pytest's arguments]

$TQ names the executable (build/release/TQ), $TQ_EMULATOR what runs it if it is of another machine.
"""
import pathlib
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "support"))

import lan  # noqa: E402
import pytest  # noqa: E402

lan.enter()
sys.exit(pytest.main([str(HERE), "-q", "-p", "no:cacheprovider", "--durations=3", *sys.argv[1:]]))
