"""A world of machines on one: a cluster of servers, certificates, and machines with a home, a runtime
folder and a registry each, which reach the servers only through a network that can be cut.

Where network namespaces are to be had (as root), each machine is one; elsewhere the machines share
the network, and differ by their folders and addresses. Everything ends with `close`."""

from __future__ import annotations

import contextlib
import ctypes
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request
from collections.abc import Callable, Sequence
from types import TracebackType
from typing import Any

HERE = pathlib.Path(__file__).parent
ROOT = HERE.parents[1]
EXAMPLE = ROOT / "examples" / "link"
PROGRAMS = pathlib.Path(os.environ["CONVEY_PROGRAMS"])
SECONDS = 60.0  # what is waited for comes long before
SERVERS = (1, 2, 3)
PASSED = ("LD_LIBRARY_PATH", "PYTHONPATH", "PYTHONDONTWRITEBYTECODE", "ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS")
MARK = "CONVEY_WORLD"  # in the environment of all that a world has started

Word = str | pathlib.Path

# Where servers and the tools of the network are, for users who have no such folder in their path.
os.environ["PATH"] += ":/usr/sbin:/sbin"


def eventually(what: str, holds: Callable[[], bool], seconds: float = SECONDS) -> None:
    """Waits until the whole of it holds, and fails with what it is."""
    end = time.monotonic() + seconds
    while not holds():
        assert time.monotonic() < end, f"not within {seconds} s: {what}"
        time.sleep(0.02)


def quietly(*command: Word) -> bool:
    return subprocess.run(command, capture_output=True, check=False).returncode == 0


class Certificates:
    """A folder of keys and certificates, which an authority signs: another folder's or its own."""

    def __init__(self, folder: pathlib.Path, authority: Certificates | None = None) -> None:
        self.folder = folder
        folder.mkdir(parents=True)
        if authority is None:
            self._make("ca", "basicConstraints=critical,CA:TRUE")
        self.authority = authority or self
        if authority is not None:
            shutil.copy(authority.folder / "ca.pem", folder)

    def _make(self, name: str, *words: str) -> None:
        command: list[Word] = ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                               "ec_paramgen_curve:P-256", "-nodes", "-days", "30", "-subj",
                               f"/O=studio/CN={name}", "-keyout", self.folder / f"{name}.key",
                               "-out", self.folder / f"{name}.pem"]
        for word in words:
            command += ["-addext", word]
        if name != "ca":
            command += ["-CA", self.authority.folder / "ca.pem",
                        "-CAkey", self.authority.folder / "ca.key"]
        subprocess.run(command, check=True, capture_output=True)

    def sign(self, name: str, alternatives: str) -> None:
        """NAME.pem and NAME.key in the folder."""
        self._make(name, f"subjectAltName={alternatives}", "basicConstraints=critical,CA:FALSE")


class Process:
    """A program that runs, and what it says, in a file."""

    def __init__(self, command: Sequence[Word], environment: dict[str, str], log: pathlib.Path,
                 folder: pathlib.Path) -> None:
        self.log = log
        self.command = [str(word) for word in command]
        with log.open("ab") as out:
            self.process = subprocess.Popen(self.command, env=environment, cwd=folder,
                                            stdin=subprocess.DEVNULL, stdout=out,
                                            stderr=subprocess.STDOUT)

    @property
    def pid(self) -> int:
        return self.process.pid

    def resident(self) -> int:
        """Bytes of memory that it has."""
        pages = pathlib.Path(f"/proc/{self.pid}/statm").read_text(encoding="ascii").split()[1]
        return int(pages) * os.sysconf("SC_PAGE_SIZE")

    def said(self) -> str:
        return self.log.read_text(encoding="utf-8", errors="replace")

    def says(self, pattern: str, times: int = 1, seconds: float = SECONDS) -> None:
        """Waits until it has said that."""
        def enough() -> bool:
            return len(re.findall(pattern, self.said())) >= times

        end = time.monotonic() + seconds
        while not enough():
            gone = self.process.poll() is not None
            assert (not gone and time.monotonic() < end) or enough(), (
                f"{' '.join(self.command)} does not say {pattern!r}, {times} times, but\n{self.said()}")
            time.sleep(0.02)

    def signal(self, number: int) -> None:
        self.process.send_signal(number)

    def kill(self) -> None:
        self.process.kill()
        self.process.wait()

    def end(self) -> int:
        """Asks it to end; its status."""
        self.process.terminate()
        return self.process.wait(SECONDS)

    def wait(self, seconds: float = SECONDS) -> int:
        return self.process.wait(seconds)


class Machine:
    """One that a user sits at. Reaches the servers by its network only."""

    def __init__(self, world: World, name: str, number: int) -> None:
        self.world, self.name, self.number = world, name, number
        self.home = world.folder / name
        self.space = f"{world.space}-{name}"
        (self.home / "run").mkdir(mode=0o700, parents=True)
        self.environment = {
            "HOME": str(self.home), "XDG_RUNTIME_DIR": str(self.home / "run"),
            "XDG_CONFIG_HOME": str(self.home / ".config"), "XDG_STATE_HOME": str(self.home / ".state"),
            "OVREL_CAPS_DB": str(self.home / "caps.db"), "CONVEY_CAPS_FOLDER": str(PROGRAMS),
            "PATH": f"{PROGRAMS}:{os.environ['PATH']}", MARK: str(world.folder),
            **{name: os.environ[name] for name in PASSED if name in os.environ}}
        if world.spaces:
            self._join()
        self._network = subprocess.Popen(
            [*world.at_hub, sys.executable, str(HERE / "proxy.py"),
             *(f"{self.door(i)}={world.door(i)}" for i in SERVERS)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
            env={**os.environ, MARK: str(world.folder)})
        assert self._network.stdout is not None and self._network.stdout.readline() == "ready\n"

    def _join(self) -> None:
        hub, own, end = self.world.hub, self.space, f"m{self.number}"
        subprocess.run(["ip", "netns", "add", own], check=True)
        for line in (f"-n {hub} link add {end} type veth peer name out netns {own}",
                     *(f"-n {hub} address add {self.address(i)}/24 dev {end}" for i in SERVERS),
                     f"-n {hub} link set {end} up",
                     f"-n {own} address add {self.address(10)}/24 dev out",
                     f"-n {own} link set out up", f"-n {own} link set lo up",
                     f"-n {own} route add default via {self.address(1)}"):
            subprocess.run(["ip", *line.split()], check=True)

    def address(self, host: int) -> str:
        return f"{self.world.prefix}.{self.number}.{host}"

    def door(self, server: int) -> str:
        """Where this machine finds a server."""
        return f"{self.address(server)}:4222"

    def servers(self) -> list[str]:
        return [f"tls://{self.door(i)}" for i in SERVERS]

    def command(self, *command: Word) -> list[Word]:
        return ["ip", "netns", "exec", self.space, *command] if self.world.spaces else [*command]

    def run(self, *command: Word, status: int | None = 0, seconds: float = SECONDS, text: str | None = None) -> str:
        """What a program prints here; None: whatever its status is."""
        done = subprocess.run(self.command(*command), env=self.environment, cwd=self.home, text=True,
                              stdin=subprocess.DEVNULL if text is None else None, input=text, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=seconds, check=False)
        assert status is None or done.returncode == status, f"{command}: {done.returncode}\n{done.stdout}"
        return done.stdout

    def start(self, *command: Word, log: str, first: str | None = None) -> Process:
        """Starts a program here, and waits until it says the first line; a log goes on."""
        pattern = "(?m)^" + re.escape(first or "") + "$"
        file = self.home / log
        said = len(re.findall(pattern, file.read_text(encoding="utf-8"))) if file.exists() else 0
        process = Process(self.command(*command), self.environment, file, self.home)
        self.world.processes.append(process)
        if first is not None:
            process.says(pattern, said + 1)
        return process

    def add(self, specifier: str, path: Word = "/opt/apps/App.app") -> None:
        self.run("ovrel-caps", "add-app", specifier, "--path", path)

    # Its link.

    def keys(self, user: str = "") -> pathlib.Path:
        """The folder of its keys; the certificate says who it is: a user of the servers'."""
        folder = self.home / ".config" / "convey"
        if not folder.exists():
            Certificates(folder, self.world.keys).sign(self.name, f"email:{user or self.name + '@studio'}")
            (folder / f"{self.name}.key").chmod(0o600)
        return folder

    def configure(self, rest: str = "", **changes: str) -> pathlib.Path:
        """Writes its file: what joins it, with changes (a TOML value each), and the rest."""
        joins = {"realm": '"studio"', "name": f'"{self.name}"', "servers": json.dumps(self.servers()),
                 "tls.ca": '"ca.pem"', "tls.cert": f'"{self.name}.pem"', "tls.key": f'"{self.name}.key"', **changes}
        file = self.keys() / "link.toml"
        file.write_text("".join(f"{key} = {value}\n" for key, value in joins.items()) + rest, encoding="utf-8")
        return file

    def join(self, rest: str = "", **changes: str) -> Process:
        """Starts its link, and waits until that is ready."""
        said = len(re.findall("ready: ", self._said_by_link()))
        link = self.start("convey-link", self.configure(rest, **changes), log="link.log")
        link.says("ready: ", said + 1)
        return link

    def _said_by_link(self) -> str:
        log = self.home / "link.log"
        return log.read_text(encoding="utf-8") if log.exists() else ""

    # Its network.

    def _order(self, line: str) -> None:
        assert self._network.stdin is not None and self._network.stdout is not None
        self._network.stdin.write(line + "\n")
        self._network.stdin.flush()
        assert self._network.stdout.readline() == "ok\n"

    def slow(self, seconds: float) -> None:
        self._order(f"delay {seconds}")

    def break_connections(self) -> None:
        self._order("break")

    def cut(self) -> None:
        """Nothing passes, and nobody is told."""
        if self.world.spaces:
            subprocess.run(["ip", "-n", self.world.hub, "link", "set", f"m{self.number}", "down"], check=True)
        else:
            self._order("cut")

    def mend(self) -> None:
        if self.world.spaces:
            subprocess.run(["ip", "-n", self.world.hub, "link", "set", f"m{self.number}", "up"], check=True)
        else:
            self._order("mend")


class World:
    def __init__(self, machines: Sequence[str] = ("desk", "workshop", "attic"),
                 servers: Sequence[int] = SERVERS, realm: str = "") -> None:
        """`realm`: other permissions than the example's."""
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="convey-world-"))
        self._claim: socket.socket | None = None
        self.processes: list[Process] = []
        self.machines: dict[str, Machine] = {}
        self.servers: dict[int, Process] = {}
        self.space = f"convey-{os.getpid()}-{self.folder.name[-8:]}"
        self.hub = self.space + "-hub"
        try:
            self.spaces = self._make_hub()
            self.at_hub: list[Word] = ["ip", "netns", "exec", self.hub] if self.spaces else []
            self.prefix = "10.77" if self.spaces else self._own_prefix()
            self._configure(realm)
            for i in servers:
                self.start_server(i)
            if servers:
                eventually("the servers know each other", self._joined)
            for number, name in enumerate(machines, 1):
                self.machines[name] = Machine(self, name, number)
        except BaseException:
            self.close()
            raise

    def __enter__(self) -> World:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()

    def __getitem__(self, machine: str) -> Machine:
        return self.machines[machine]

    def _make_hub(self) -> bool:
        if os.environ.get("CONVEY_WORLD_SPACES") == "0" or not quietly("ip", "netns", "add", self.hub):
            return False
        for line in (f"-n {self.hub} link set lo up",
                     *(f"-n {self.hub} address add 10.77.0.{i}/32 dev lo" for i in SERVERS)):
            if not quietly("ip", *line.split()):
                quietly("ip", "netns", "delete", self.hub)
                return False
        return True

    def _own_prefix(self) -> str:
        """Of the machine's own addresses, those that no other world has."""
        for number in range(1, 254):
            self._claim = socket.socket()
            with contextlib.suppress(OSError):
                self._claim.bind((f"127.{number}.0.4", 4222))
                return f"127.{number}"
            self._claim.close()
        raise RuntimeError("no addresses are left")

    def door(self, server: int) -> str:
        return f"{self.prefix}.0.{server}:4222"

    def _configure(self, realm: str) -> None:
        """The example's configuration, with this world's addresses."""
        self.keys = Certificates(self.folder / "keys")
        for i in SERVERS:
            folder = self.folder / f"n{i}"
            keys = Certificates(folder, self.keys)
            addresses = [f"{self.prefix}.{network}.{i}" for network in range(5)]
            keys.sign("server", ",".join([f"DNS:n{i}.example", *(f"IP:{a},DNS:{a}" for a in addresses)]))
            for file in ("server.conf", "cluster.conf", "realm.conf"):
                text = (EXAMPLE / file).read_text(encoding="utf-8")
                if file == "realm.conf" and realm:
                    text = realm
                text = text.replace("server_name: n1", f"server_name: n{i}").replace("0.0.0.0", addresses[0])
                text = re.sub(r"\bn(\d)\.example\b", rf"{self.prefix}.0.\1", text)
                if file == "server.conf":
                    text += f'include "cluster.conf"\nhttp: {self.prefix}.0.{i}:8222\n'
                (folder / file).write_text(text, encoding="utf-8")

    def monitor(self, i: int, page: str) -> dict[str, Any]:
        """What a server says of itself: varz, connz, routez, subsz; empty when it does not run."""
        found: dict[str, Any] = {}

        def look() -> None:
            if self.spaces:  # a thread of its own, which has its own idea of the network
                with open(f"/run/netns/{self.hub}", encoding="utf-8") as hub:
                    assert ctypes.CDLL(None).setns(hub.fileno(), 0) == 0
            try:
                with urllib.request.urlopen(f"http://{self.prefix}.0.{i}:8222/{page}", timeout=5) as answer:
                    found.update(json.load(answer))
            except OSError:
                pass

        looking = threading.Thread(target=look)
        looking.start()
        looking.join()
        return found

    def _joined(self) -> bool:
        return all(self.monitor(i, "routez").get("num_routes") == len(SERVERS) - 1 for i in SERVERS)

    def start_server(self, i: int) -> None:
        self.servers[i] = Process([*self.at_hub, "nats-server", "-c", "server.conf"],
                                  {**os.environ, MARK: str(self.folder)}, self.folder / f"n{i}.log",
                                  self.folder / f"n{i}")
        self.processes.append(self.servers[i])

    def restart_server(self, i: int) -> None:
        said = len(re.findall("Server is ready", self.servers[i].said()))
        self.start_server(i)
        self.servers[i].says("Server is ready", said + 1)

    def kill_servers(self) -> None:
        for server in self.servers.values():
            server.kill()

    def restart_servers(self) -> None:
        for i in self.servers:
            self.restart_server(i)

    def close(self) -> None:
        for process in self.processes:
            process.process.kill()
            process.process.wait()
        # What those have started, by the mark in its environment.
        mark = f"{MARK}={self.folder}".encode()
        for entry in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if mark in (entry / "environ").read_bytes().split(b"\0"):
                    os.kill(int(entry.name), signal.SIGKILL)
            except (OSError, ValueError):
                continue
        for machine in self.machines.values():
            machine._network.communicate()
        if self._claim is not None:
            self._claim.close()
        if self.spaces:
            for space in [self.hub, *(machine.space for machine in self.machines.values())]:
                quietly("ip", "netns", "delete", space)
        shutil.rmtree(self.folder, ignore_errors=True)
