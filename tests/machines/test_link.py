"""An application of another machine is as one of this."""

from __future__ import annotations

import json
import os
import re
import signal
import time
from collections.abc import Iterator

import pytest
from conftest import LUMEN, OFFER, USE, Pair, knows
from judge import lines
from world import Machine, Process, World, eventually

RESPONSE = "<product specifier='lumen' running_response='{}' />\n"


def check(pair: Pair) -> str:
    return pair.desk.run("KivraConveyCmd", "check_running", "lumen")


def test_is_used_as_one_of_this_machine_until_the_link_ends(pair: Pair) -> None:
    desk, workshop = pair.desk, pair.workshop
    pair.join()
    assert re.search(f"{LUMEN} .* no +at workshop ", desk.run("convey", "list"))
    assert "workshop is here" in desk.run("convey", "doctor")
    assert re.search(f"<product specifier='{LUMEN}' path='[^']*workshop[^']*'", desk.run("KivraConveyCmd"))
    assert check(pair) == RESPONSE.format("ISNOTRUNNING")
    assert "at workshop" in desk.run("convey-link", "status")
    # Launched over there, with its parameters.
    assert "result: echo: hello" in desk.run("host", "diary-1.0", "--launch", "lumen", "hello", "-open my picture.png")
    log = workshop.home / "lumen.log"
    eventually("it was launched with its parameters", lambda: log.exists() and
               "-open my picture.png" in log.read_text(encoding="utf-8"))
    eventually("it runs", lambda: check(pair) == RESPONSE.format("ECHO_RESPONSE"))
    assert "ECHO_RESPONSE" in desk.run("convey", "ping", "lumen")
    assert desk.run("convey", "send", "lumen", "--body", "good day").splitlines()[-3:] == [
        "received", "result: echo: good day", "processed"]
    assert "error: failed as asked" in desk.run("convey", "send", "lumen", "--body", "fail", status=1)
    assert re.search(r"\bconvey\d+-2\.0 Tessaly: good day\n", log.read_text(encoding="utf-8"))
    # Who hands over a text that came from elsewhere looks at no digest.
    assert f" {LUMEN} (drops digests)\n" in desk.run("convey", "ports")
    assert [port["name"] for port in json.loads(desk.run("convey", "ports", "--json"))["ports"]
            if not port.get("digests", True)] == [LUMEN]
    assert re.search(r" convey\d+-2\.0 \(drops digests\)\n", workshop.run("convey", "ports")), "askers from elsewhere"
    ports = json.loads(workshop.run("convey", "ports", "--json"))["ports"]
    process = next(port["process"] for port in ports if port["name"] == LUMEN)
    assert f"Process = {process}\n" in desk.run("convey", "diagnose", "lumen", status=None)
    assert "STATUS" in desk.run("convey", "keys", "lumen")
    for redirection in (">/dev/full", ">&-"):
        desk.run("sh", "-c", f"exec convey-link status {redirection}", status=3)
    desk.run("convey-link", desk.keys() / "link.toml", status=6)  # one runs
    before = [link.resident() for link in (pair.desk_link, pair.workshop_link)]
    large = "many words " * (20 * 1024 * 1024 // 11)
    answer = desk.run("convey", "send", "lumen", "--body", "-", "--wait", "60", text=large)
    assert f"result: echo: {large}\n" in answer
    for link, had in zip((pair.desk_link, pair.workshop_link), before):
        eventually("what it left is given back", lambda: bool(link.resident() < had + len(large) // 2))
    assert pair.desk_link.end() == 0
    assert "lumen" not in desk.run("convey", "list")
    assert check(pair) == RESPONSE.format("ISNOTINSTALLED")


def test_is_launched_for_a_message_where_that_is_offered(pair: Pair) -> None:
    desk, workshop = pair.desk, pair.workshop
    workshop.add("kivra-7.0")
    pair.workshop_link = workshop.join(OFFER)
    pair.desk_link = desk.join(USE + USE.replace(LUMEN, "kivra-7.0"))

    def state(app: str, said: str) -> None:
        eventually(f"{app} {said}", lambda: f"{app} at workshop {said}" in desk.run("convey-link", "status"))

    state("kivra-7.0", "not offered")
    state(LUMEN, "does not run")
    assert "ISNOTRUNNING" in desk.run("convey", "ping", "kivra-7.0", status=1)
    desk.run("convey", "send", LUMEN, "--body", "x", status=1)
    desk.run("convey", "launch", LUMEN, "-open", "a.png")
    log = workshop.home / "lumen.log"
    eventually("it was launched with its parameters", lambda: log.exists() and
               f"-specifier {LUMEN} -nostartupscreen -open a.png\n" in log.read_text(encoding="utf-8"))
    state(LUMEN, "runs")
    for port in json.loads(workshop.run("convey", "ports", "--json"))["ports"]:
        if port["name"] == LUMEN:
            os.kill(port["process"], signal.SIGKILL)
    # Who launched it asked for no more than to be told that the parameters came: nobody holds its
    # port for an answer.
    state(LUMEN, "does not run")
    sent = desk.run("convey", "send", LUMEN, "--launch", "--body", "launched by it", "--wait", "25")
    assert "result: echo: launched by it\nprocessed\n" in sent


def test_what_is_said_of_it_is_true(pair: Pair) -> None:
    pair.join()
    target = pair.target()
    eventually("it runs", lambda: knows(pair.desk, "ECHO_RESPONSE"))
    target.kill()
    eventually("it has ended", lambda: knows(pair.desk, "ISNOTRUNNING"))
    target = pair.target()
    eventually("it runs again", lambda: knows(pair.desk, "ECHO_RESPONSE"))
    pair.workshop_link.kill()
    eventually("nobody is there", lambda: knows(pair.desk, "ISNOTRUNNING"))
    eventually("the doctor knows why", lambda: f"{LUMEN} cannot be reached: workshop is away" in
               pair.desk.run("convey", "doctor", "lumen", status=None))
    pair.workshop_link = pair.workshop.join(OFFER)
    eventually("it is back", lambda: knows(pair.desk, "ECHO_RESPONSE"))
    eventually("all is well", lambda: "is idle and well. (at workshop)" in
               pair.desk.run("convey", "doctor", "lumen", status=None))
    pair.workshop.cut()
    begun = time.monotonic()
    assert knows(pair.desk, "Timeout", "--timeout", "2")
    assert time.monotonic() - begun < 20  # within the ping's own time, whatever the machine is at
    pair.workshop.mend()
    eventually("the network is back", lambda: knows(pair.desk, "ECHO_RESPONSE"))


def test_servers_that_have_no_time_are_tried_again(world: World) -> None:
    """They listen, and do not answer: as when all links come to them at once."""
    def stand_still(link: Process, times: int) -> None:
        for server in world.servers.values():
            server.signal(signal.SIGSTOP)
        link.says("disconnected: ", times)
        time.sleep(3)  # at least one attempt ends
        for server in world.servers.values():
            server.signal(signal.SIGCONT)

    desk = world["desk"]
    file = desk.configure(USE)
    for server in world.servers.values():
        server.signal(signal.SIGSTOP)
    link = desk.start("convey-link", file, log="link.log")
    stand_still(link, 1)
    link.says("ready: ")
    stand_still(link, 2)
    link.says("reconnected to ")
    assert link.end() == 0


def test_one_of_this_machine_wins(pair: Pair) -> None:
    pair.desk.add(LUMEN)
    pair.workshop_link = pair.workshop.join(OFFER)
    link = pair.desk.join(USE)
    link.says(f"{LUMEN} is not used: registered here")
    assert "/opt/apps/App.app" in pair.desk.run("convey", "list")
    assert link.end() == 0
    assert "/opt/apps/App.app" in pair.desk.run("convey", "list")


@pytest.fixture(scope="module")
def machine() -> Iterator[Machine]:
    with World(["desk"], servers=()) as world:
        yield world["desk"]


@pytest.mark.parametrize(("rest", "changes", "said"), [
    ("", {"name": '"two words"'}, "name"),
    ("", {"name": '""'}, "name"),
    ("", {"realm": '"a.b"'}, "realm"),
    ("", {"servers": "[]"}, "servers"),
    ("", {"servers": '"tls://n1.example:4222"'}, "servers"),
    ("", {"servers": '["http://n1.example"]'}, "servers"),
    ("", {"colour": '"blue"'}, "colour"),
    ("", {"tls.ca": '"none.pem"'}, "none.pem"),
    ("[[offer]]\nto = [\"desk\"]\n", {}, "app"),
    ("[[offer]]\napp = \"lumen-*\"\nto = \"desk\"\n", {}, "to"),
    ("[[offer]]\napp = \"lumen-*\"\nto = [\"desk\"]\nlaunch = \"yes\"\n", {}, "launch"),
    ("[[use]]\napp = \"lumen-*\"\nat = \"workshop\"\n", {}, "lumen-*"),
    ("[[use]]\napp = \"lumen-2.5-en_us\"\n", {}, "at"),
    (USE + USE, {}, LUMEN),
    ("", {"realm": '""'}, "realm: "),
    ("", {"tls.key": '""'}, "tls: "),
    ("[[offer]]\napp = \"lumen-*\"\nto = [\"desk\"]\nlunch = true\n", {}, "offer: lunch"),
    ("[[offer]]\napp = \"lumen-*\"\nto = [\"anna.*\"]\n", {}, "offer: "),
    ("[[use]]\napp = \"diary\"\nat = \"workshop\"\n", {}, "use: "),
    ("[[use]]\napp = \"Diary-1.0\"\nat = \"workshop\"\n", {}, "use: "),
    ("[[use]]\napp = \"diary-1.0\"\nat = \"desk\"\n", {}, "use: "),
    (USE + "durable = 1\n", {}, "durable: "),
    ("[.use]\n", {}, "line "),
    ("[[use]\n", {}, "link.toml"),
    ("[[use]]\napp = \"\\u0000\"\nat = \"workshop\"\n", {}, "app"),
])
def test_a_bad_file_is_refused_with_what_is_wrong(machine: Machine, rest: str, changes: dict[str, str],
                                                  said: str) -> None:
    file = machine.configure(rest, **changes)
    assert said in machine.run("convey-link", "--check", file, status=1)
    assert said in machine.run("convey-link", file, status=3)


@pytest.mark.parametrize("whose", ["desk", "workshop"])
def test_a_server_dies_in_the_middle_of_a_large_text(pair: Pair, whose: str) -> None:
    """It arrives once and whole over the servers that are left, and so does the answer."""
    size = 20 * 1024 * 1024
    text = "".join(f"{number:07} " for number in range(size // 8))
    pair.join()
    pair.target()
    eventually("it runs", lambda: knows(pair.desk, "ECHO_RESPONSE"))
    (pair.desk.home / "text").write_text(text, encoding="utf-8")
    status = json.loads(pair.world[whose].run("convey-link", "status", "--json"))
    number = int(re.findall(r"(\d):4222", status["server"])[0])
    passed = "in_bytes" if whose == "desk" else "out_bytes"
    before = pair.world.monitor(number, "varz")[passed]
    pair.workshop_link.signal(signal.SIGSTOP)  # takes a part of it at most
    asker = pair.desk.start("sh", "-c", f"exec convey send {LUMEN} --body - --wait 60 <text >said", log="asker.log")
    eventually("a part of it is there",
               lambda: bool(pair.world.monitor(number, "varz")[passed] > before + size // 100))
    pair.world.servers[number].kill()
    pair.workshop_link.signal(signal.SIGCONT)
    ended = asker.wait()
    said = (pair.desk.home / "said").read_text(encoding="utf-8")
    assert ended == 0, (said[:1000], pair.desk_link.said(), pair.workshop_link.said())
    assert lines(pair.handled) == [text]
    assert f"\nresult: {text}\n" in said
