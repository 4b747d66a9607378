"""A scene for tests of real processes: a home, a port folder and a registry of its own, before the
library, which reads the environment, is loaded."""

from __future__ import annotations

import os
import pathlib
import shutil
import subprocess
import tempfile
from collections.abc import Callable, Iterator

import pytest

PROGRAMS = pathlib.Path(os.environ["CONVEY_PROGRAMS"])
SECONDS = 60  # what is waited for comes long before

_folder = pathlib.Path(tempfile.mkdtemp(prefix="convey-python-"))
os.environ.update(HOME=str(_folder), XDG_RUNTIME_DIR=str(_folder),
                  OVREL_CAPS_DB=str(_folder / "caps.db"), CONVEY_CAPS_FOLDER=str(PROGRAMS))


def pytest_unconfigure() -> None:
    shutil.rmtree(_folder, ignore_errors=True)


def register(specifier: str, path: str = "/opt/apps/App.app") -> None:
    subprocess.run([PROGRAMS / "ovrel-caps", "add-app", specifier, "--path", path], check=True,
                   stdout=subprocess.DEVNULL)


@pytest.fixture(scope="session")
def registry() -> None:
    for name in ("echo", "diary", "clock", "target", "absent"):
        register(name + "-1.0")


Start = Callable[..., "subprocess.Popen[str]"]


@pytest.fixture
def start(registry: None) -> Iterator[Start]:
    """Starts a program of ours, or the interpreter with a text, and reads its first line."""
    processes: list[subprocess.Popen[str]] = []

    def run(*command: str | pathlib.Path, first: str) -> subprocess.Popen[str]:
        process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        processes.append(process)
        assert process.stdout is not None
        assert process.stdout.readline() == first + "\n"
        return process

    yield run
    for process in processes:
        process.kill()
        process.communicate()


@pytest.fixture
def echo(start: Start) -> subprocess.Popen[str]:
    """The example application, which answers "echo: " and the body, and "fail" with an error."""
    return start(PROGRAMS / "host", "echo-1.0", "--quiet", first="running as echo-1.0")


@pytest.fixture
def target(start: Start) -> subprocess.Popen[str]:
    """One that takes orders: "hold" is never answered."""
    return start(PROGRAMS / "target_program", "target-1.0", first="running")
