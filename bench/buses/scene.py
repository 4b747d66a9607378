"""A home, a registry and a bus for programs that are measured. BIN: the folder of the programs;
libconvey and the package convey are to be found."""

from __future__ import annotations

import contextlib
import os
import pathlib
import shutil
import subprocess
import tempfile
from collections.abc import Iterator

PROGRAMS = pathlib.Path(os.environ["BIN"]).absolute()


@contextlib.contextmanager
def scene() -> Iterator[None]:
    folder = tempfile.mkdtemp(prefix="convey-bench-")
    os.environ.update(HOME=folder, XDG_RUNTIME_DIR=folder, OVREL_CAPS_DB=f"{folder}/caps.db",
                      CONVEY_CAPS_FOLDER=str(PROGRAMS))
    for name in ("clock-1.0", "diary-1.0"):
        subprocess.run([PROGRAMS / "ovrel-caps", "add-app", name, "--path", "/opt/App.app"],
                       check=True, stdout=subprocess.DEVNULL)
    daemon = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--print-address"],
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    try:
        assert daemon.stdout is not None
        os.environ["DBUS_SESSION_BUS_ADDRESS"] = daemon.stdout.readline().strip()
        yield
    finally:
        daemon.kill()
        daemon.communicate()
        shutil.rmtree(folder)


@contextlib.contextmanager
def serving(*command: str | pathlib.Path) -> Iterator[None]:
    """A program that says "running" when it does."""
    process = subprocess.Popen([*command, "serve"], stdout=subprocess.PIPE, text=True)
    try:
        assert process.stdout is not None and process.stdout.readline() == "running\n", command
        yield
    finally:
        process.kill()
        process.communicate()
