"""What many links cost a cluster of three servers: memory, subjects, messages while nothing happens,
and the time until all know of all that they use.

Usage: scale.py LINKS PEERS, with the environment of tests/machines. Each link offers five applications
and uses those of PEERS others. All on this machine, without delays of a network."""

from __future__ import annotations

import os
import pathlib
import re
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "tests" / "machines"))
from machines import switches
from world import PROGRAMS, SERVERS, Certificates, Process, World, eventually  # which stands there

APPS = 5
IDLE_SECONDS = 20


class Link:
    def __init__(self, world: World, number: int, links: int, peers: int) -> None:
        name = f"l{number}"
        self.home = world.folder / name
        self.peers = [(number + 1 + i) % links for i in range(peers)]
        (self.home / "run").mkdir(mode=0o700, parents=True)
        keys = Certificates(self.home / "keys", world.keys)
        keys.sign(name, f"email:{name}@studio")
        server = world.door(SERVERS[number % len(SERVERS)])
        text = (f'realm = "studio"\nname = "{name}"\nservers = ["tls://{server}"]\ntls.ca = "ca.pem"\n'
                f'tls.cert = "{name}.pem"\ntls.key = "{name}.key"\n[[offer]]\napp = "{name}app*"\nto = ["*"]\n')
        for peer in self.peers:
            for app in range(APPS):
                text += f'[[use]]\napp = "l{peer}app{app}-1.0"\nat = "l{peer}"\n'
        (keys.folder / f"{name}.key").chmod(0o600)
        (keys.folder / "link.toml").write_text(text, encoding="utf-8")
        self.environment = {"HOME": str(self.home), "XDG_RUNTIME_DIR": str(self.home / "run"),
                            "OVREL_CAPS_DB": str(self.home / "caps.db"), "CONVEY_CAPS_FOLDER": str(PROGRAMS)}

    def start(self, world: World) -> None:
        self.process = Process([*world.at_hub, PROGRAMS / "convey-link", self.home / "keys" / "link.toml"],
                               self.environment, self.home / "log", self.home)
        world.processes.append(self.process)

    def sees_all(self) -> bool:
        return set(re.findall(r"l(\d+) is here", self.process.said())) >= {str(peer) for peer in self.peers}


def permissions(links: int) -> str:
    users = "".join(
        f'{{ user: "l{i}@studio", permissions {{ publish {{ allow: ["convey.studio.*.l{i}"] }}, subscribe '
        f'{{ allow: ["convey.studio.l{i}.*", "convey.studio.l{i}.absent.*"] }} }} }}\n' for i in range(links))
    return f"accounts {{ STUDIO {{ users: [\n{users}] }} }}\n"


def kib(pid: int) -> int:
    status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    return int(re.findall(r"RssAnon:\s+(\d+)", status)[0])


def processor(pids: list[int]) -> float:
    """Milliseconds of processor time that they have used."""
    ticks = 0
    for pid in pids:
        fields = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rpartition(")")[2].split()
        ticks += int(fields[11]) + int(fields[12])
    return ticks * 1000 / os.sysconf("SC_CLK_TCK")


def main(links: str, peers: str) -> None:
    with World((), realm=permissions(int(links))) as world:
        empty = [world.monitor(i, "varz") for i in SERVERS]
        all_links = [Link(world, number, int(links), int(peers)) for number in range(int(links))]
        begun = time.monotonic()
        for link in all_links:
            link.start(world)
        eventually("all see all that they use", lambda: all(link.sees_all() for link in all_links), 600)
        seconds = time.monotonic() - begun
        time.sleep(5)  # what beginnings bring is over
        before = [world.monitor(i, "varz") for i in SERVERS]
        pids = [link.process.pid for link in all_links], [server.pid for server in world.servers.values()]
        woken, used = sum(map(switches, pids[0])), [processor(some) for some in pids]
        time.sleep(IDLE_SECONDS)
        after = [world.monitor(i, "varz") for i in SERVERS]
        woken = sum(map(switches, pids[0])) - woken
        used = [processor(some) - was for some, was in zip(pids, used)]
        own = sum(kib(link.process.pid) for link in all_links) / len(all_links)

    def more(key: str, old: list[dict[str, int]]) -> int:
        return sum(new[key] - was[key] for new, was in zip(after, old))

    print(f"| {links} links, each uses {APPS} applications of each of {peers} others | |\n|---|---|")
    print(f"| until all see all | {seconds:.1f} s |")
    print(f"| subscriptions of the servers | {sum(server['subscriptions'] for server in after)} |")
    print(f"| memory of the three servers | {more('mem', empty) / len(all_links) / 1024:.0f} KiB a link |")
    print(f"| memory of a link, its own | {own / 1024:.1f} MiB |")
    print(f"| messages to the servers, idle | {more('in_msgs', before) / IDLE_SECONDS / len(all_links):.2f} /s a link |")
    print(f"| bytes to the servers, idle | {more('in_bytes', before) / IDLE_SECONDS / len(all_links):.0f} /s a link |")
    for who, milliseconds in zip(("links", "servers"), used):
        print(f"| processor time of the {who}, idle | {milliseconds / IDLE_SECONDS / len(all_links):.2f} ms/s a link |")
    print(f"| wake-ups, idle | {woken / IDLE_SECONDS / len(all_links):.1f} /s a link |")


if __name__ == "__main__":
    main(*sys.argv[1:])
