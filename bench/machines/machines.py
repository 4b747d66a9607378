"""What a link costs beside bare clients of the same server: a request and its result, messages one
way, large texts, requests that wait on a disk, and a link that has nothing to do.

Usage: machines.py [ROUNDS] [MESSAGES] [KEPT], with the environment of tests/machines."""

from __future__ import annotations

import pathlib
import resource
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "tests" / "machines"))
from world import PROGRAMS, Machine, Process, World, eventually  # which stands there

ENDS = PROGRAMS / "machines_ends"
APP = "echo-1.0"
LINK = "conveylink-2.0"  # its own specifier
LARGE = "10"  # texts
COUNTED = 20  # large texts whose processor time is counted


def measured(machine: Machine, *command: str) -> dict[str, float]:
    printed = machine.run("sh", "-c", 'cd .config/convey && exec "$@"', "sh", ENDS, *command, seconds=600)
    return {name: float(value) for name, value in map(str.split, printed.splitlines())}


def processor(pid: int) -> float:
    """Seconds that the threads of a process were busy, themselves and in the system."""
    return sum(int(task.read_text(encoding="ascii").split()[0])
               for task in pathlib.Path(f"/proc/{pid}/task").glob("*/schedstat")) / 1e9


def busy_parts(parts: dict[str, Process], messages: str, machine: Machine, *command: str) -> list[dict[str, float]]:
    """Seconds that each was busy for a small text, and for a large one. What asks is a process of its own: what it
    takes to begin is taken off."""
    def asks(small: str, large: str) -> float:
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        measured(machine, *command, "10", small, large)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime

    begins, busy = asks("1", "0"), []
    for small, large in (messages, "0"), ("1", str(COUNTED)):
        before, count = {part: processor(process.pid) for part, process in parts.items()}, int(large) or int(small)
        asked = asks(small, large)
        busy.append({"who asks": (asked - begins) / count, **{
            part: (processor(process.pid) - before[part]) / count for part, process in parts.items()}})
    return busy


def print_busy(title: str, busy: list[dict[str, float]]) -> None:
    print(f"\n| processor time, {title} | of a text of 300 bytes | of 16 MiB |\n|---|---|---|")
    for part in busy[0]:
        print(f"| {part} | {busy[0][part] * 1e6:.1f} µs | {busy[1][part] * 1e3:.0f} ms |")


def switches(pid: int) -> int:
    """How often the threads of a process were woken up."""
    return sum(switches_of_threads(pid))


def switches_of_threads(pid: int) -> list[int]:
    """The same for each, oldest first."""
    found = []
    for task in sorted(pathlib.Path(f"/proc/{pid}/task").iterdir(), key=lambda task: int(task.name)):
        for line in (task / "status").read_text(encoding="ascii").splitlines():
            if line.startswith("voluntary_ctxt_switches:"):
                found.append(int(line.split()[1]))
    return found


def main(rounds: str = "2000", messages: str = "50000", kept: str = "1000") -> None:
    with World() as world:
        desk, workshop, attic = world["desk"], world["workshop"], world["attic"]
        for machine in (desk, workshop):
            machine.keys()
        # Past the network of the tests, which has costs of its own.
        server = f"tls://{world.door(1)}"
        # Bare clients, as the servers' permissions allow them; both at the same server.
        bare = workshop.start("sh", "-c", 'cd .config/convey && exec "$@"', "sh", ENDS, "client-answer", server,
                              "workshop", "convey.studio.workshop.*", log="bare", first="ready")
        client = ("client-ask", server, "desk", "convey.studio.workshop.desk", "convey.studio.desk.workshop")
        of_nats = measured(desk, *client, rounds, messages, LARGE)
        bare_busy = busy_parts({"the server": world.servers[1], "who is told": bare}, messages, desk, *client)
        bare.kill()
        # The stream in which the desk's requests wait, as its own client has it keep what nobody takes.
        attic.keys("keeper@studio")
        store = ("convey-link", "store", attic.configure(name='"keeper"'), "desk", "workshop")
        eventually("the servers make a stream", lambda: "wait in" in attic.run(*store, status=None))
        bare_kept = measured(desk, "client-ask", server, "desk", "convey.studio.attic.keep.desk",
                             "convey.studio.desk.kept.told.1", kept, kept, "0")
        # Applications of one machine.
        local = desk.start(ENDS, "answer", APP, log="local", first="ready")
        of_one = measured(desk, "ask", "asker-1.0", APP, rounds, messages, LARGE)
        local.end()
        # Of two. The links use the same server.
        one = {"servers": f'["{server}"]'}
        workshop.add(APP)
        offer = f'[[offer]]\napp = "{APP}"\nto = ["desk"]\n'
        other = workshop.join(offer, **one)
        far = workshop.start(ENDS, "answer", APP, log="far", first="ready")
        use = f'[[use]]\napp = "{APP}"\nat = "workshop"\n'
        link = desk.join(use, **one)
        link.says(f"{APP} at workshop: runs")
        of_two = measured(desk, "ask", "asker-1.0", APP, rounds, messages, LARGE)
        parts = {"the sending link": link, "the server": world.servers[1], "the receiving link": other, "the target": far}
        busy = busy_parts(parts, messages, desk, "ask", "asker-1.0", APP)
        bare = desk.start("sh", "-c", 'cd .config/convey && exec "$@"', "sh", ENDS, "client-idle", server, "desk",
                          "convey.studio.desk.absent.bare", log="bare", first="ready")
        time.sleep(2)  # what was is over
        before, seconds = [switches_of_threads(pid) for pid in (link.pid, bare.pid)], 40
        time.sleep(seconds)
        idle, bare_idle = [[(now - was) / seconds for now, was in zip(switches_of_threads(pid), old)]
                           for pid, old in zip((link.pid, bare.pid), before)]
        bare.kill()
        # As who trusts this user's other processes may have it: its texts get no digest. Bare ones have none.
        workshop.run("ovrel-caps", "add-app", LINK, "--path", "/opt/apps/Link.app", "--set", "MessageDigest=false")
        other.end()
        other = workshop.join(offer, **one)
        link.says(f"{APP} at workshop: runs", 2)
        undigested = measured(desk, "ask", "asker-1.0", APP, rounds, messages, LARGE)
        link.end()
        link = desk.join(use + "durable = true\n", **one)
        link.says(f"{APP} at workshop: runs", 3)
        of_kept = measured(desk, "ask", "asker-1.0", APP, kept, kept, "0")
    most = 2 * of_nats["request"] + 2 * of_one["request"]
    print("| between two machines | by links | beside | ratio | at most |\n|---|---|---|---|---|")
    print(f"| request and result, 300 bytes | {of_two['request'] * 1e6:.0f} µs | twice {of_nats['request'] * 1e6:.0f} µs bare "
          f"and {of_one['request'] * 1e6:.0f} µs local | {of_two['request'] / most:.2f} | 1 |")
    for name, what, bound in ("message", "one way, 300 bytes, each", 2), ("large", "one way, 16 MiB, each", 1 / 0.7):
        print(f"| {what} | {of_two[name] * 1e6:.1f} µs | {of_nats[name] * 1e6:.1f} µs bare, "
              f"{of_one[name] * 1e6:.1f} µs local | "
              f"{of_two[name] / of_nats[name]:.2f} | {bound:.2f} |")
        print(f"| the same without digests, which bare has not either | {undigested[name] * 1e6:.1f} µs | | "
              f"{undigested[name] / of_nats[name]:.2f} | {bound:.2f} |")
    floor = of_nats["message"] + 2 * of_one["message"]
    print(f"| one way, 300 bytes, each | {of_two['message'] * 1e6:.1f} µs | {floor * 1e6:.1f} µs: one bare and two local, "
          f"which the links do too | {of_two['message'] / floor:.2f} | |")
    print(f"| `durable`, one way, 300 bytes, each | {of_kept['message'] * 1e6:.0f} µs | {bare_kept['request'] * 1e6:.0f} µs bare, "
          f"each acknowledged before the next ({bare_kept['message'] * 1e6:.0f} µs without) | "
          f"{of_kept['message'] / bare_kept['request']:.2f} | |")
    print(f"| `durable`, request and result, 300 bytes | {of_kept['request'] * 1e6:.0f} µs | "
          f"{of_two['request'] * 1e6:.0f} µs without | {of_kept['request'] / of_two['request']:.2f} | |")
    print(f"| a link with nothing to do, wake-ups a second | {sum(idle):.2f} ({idle[0]:.2f} of its thread, {idle[1]:.2f} of "
          f"the layer's) | {sum(bare_idle):.2f} of a bare client | {sum(idle) - sum(bare_idle):.2f} more | 1 more |")
    print_busy("by links", busy)
    print_busy("bare", bare_busy)


if __name__ == "__main__":
    main(*sys.argv[1:])
