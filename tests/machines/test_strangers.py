"""Who has no right to be heard, is not; who talks nonsense, hurts nobody."""

from __future__ import annotations

import re
import shutil
import sys
import threading
from typing import Any

from conftest import LUMEN, OFFER, USE, Pair, knows
from world import HERE, Certificates, Machine, Process, Word, World, eventually


def starts(machine: Machine, rest: str = "", **changes: str) -> Process:
    return machine.start("convey-link", machine.configure(rest, **changes), log="link.log")


def by_hand(machine: Machine, *lines: str, server: int = 1) -> str:
    """What a bare client of the servers is told, with the certificate of this machine."""
    return machine.run(sys.executable, HERE / "bare.py", machine.door(server), machine.keys(), machine.name,
                       text="".join(line + "\n" for line in lines))


def frame(subject: str, payload: bytes) -> str:
    text = payload.decode("latin-1").encode("unicode_escape").decode()
    return f"PUB {subject} {len(payload)}\\r\\n{text}\\r\\n"


def test_certificates_that_the_servers_do_not_take(world: World) -> None:
    desk, workshop, attic = world["desk"], world["workshop"], world["attic"]
    # Another authority's.
    folder = desk.home / ".config" / "convey"
    Certificates(world.folder / "other", None)
    other = Certificates(folder, Certificates(world.folder / "others"))
    other.sign("desk", "email:desk@studio")
    (folder / "desk.key").chmod(0o600)
    shutil.copy(world.keys.folder / "ca.pem", folder)
    assert starts(desk).wait() == 5
    # The authority's, for a user whom no server knows.
    workshop.keys(user="nobody@studio")
    assert starts(workshop).wait() == 5
    # The servers' is of another authority than this link trusts.
    shutil.copy(world.folder / "others" / "ca.pem", attic.keys())
    assert starts(attic).wait() == 5


def test_a_name_that_is_anothers(pair: Pair) -> None:
    pair.join()
    target = pair.target()
    attic = pair.world["attic"]
    # By the certificate of the attic: the servers' permissions are against it.
    link = starts(attic, OFFER, name='"workshop"')
    link.says("Permissions Violation for .* to \"convey.studio.workshop")
    link.kill()
    # By the same certificate, twice.
    folder = attic.keys()
    shutil.rmtree(folder)
    shutil.copytree(pair.workshop.keys(), folder)
    twin = starts(attic, OFFER, name='"workshop"', **{"tls.cert": '"workshop.pem"', "tls.key": '"workshop.key"'})
    assert twin.wait() == 4
    assert 'name "workshop" is used twice in realm "studio"' in twin.said()
    eventually("the first goes on", lambda: knows(pair.desk, "ECHO_RESPONSE"))
    assert target.process.poll() is None


def test_a_stranger_of_another_realm(pair: Pair) -> None:
    pair.join()
    pair.target()
    attic = pair.world["attic"]
    attic.keys(user="front@gallery")
    # As what it is, in its own realm: the realm of the others is another world.
    link = attic.join(USE, realm='"gallery"', name='"front"', **{"tls.cert": '"attic.pem"', "tls.key": '"attic.key"'})
    eventually("nobody is there", lambda: knows(attic, "ISNOTRUNNING"))
    assert link.end() == 0
    # With the others' realm in its file, and their names by hand.
    link = starts(attic, USE)
    link.says("Permissions Violation for .* to \"convey.studio.attic")
    said = by_hand(attic, "SUB convey.studio.> 1\\r\\n", frame("convey.studio.workshop.desk", b"hello"))
    assert said.count("Permissions Violation") == 2
    assert knows(pair.desk, "ECHO_RESPONSE")


GARBAGE = [b"", b"\0", b"\xff" * 70, b"hello", b"{}", bytes(range(256)), bytes(200000),
           b"@CV>Version:2.05\nTarget:lumen-2.5-en_us\nSender:x-1.0\nContent-Length:99999999\n\n"]


def test_garbage_on_the_subjects(pair: Pair) -> None:
    """From one who may speak to the links, but says nothing that they understand."""
    pair.join()
    pair.target()
    eventually("it runs", lambda: knows(pair.desk, "ECHO_RESPONSE"))
    for payload in GARBAGE:
        said = by_hand(pair.world["attic"], *(frame(f"convey.studio.{to}.attic", payload)
                                              for to in ("workshop", "desk") for _ in range(20)))
        assert "-ERR" not in said, payload
    pair.workshop_link.says("refused: .*attic")
    assert knows(pair.desk, "ECHO_RESPONSE")
    assert pair.workshop_link.process.poll() is None and pair.desk_link.process.poll() is None


NAMES = ("desk", "workshop", "attic")


def others(name: str) -> list[str]:
    return [one for one in NAMES if one != name]


def stream(name: str) -> str:
    return f"convey=studio={name}"


def keep(world: World, *senders: str) -> None:
    """Has the keeper make the streams of these, for all others: it sits where the attic's link does not run yet."""
    attic = world["attic"]
    attic.keys("keeper@studio")
    file = attic.configure(name='"keeper"')
    for name in senders:
        store: list[Word] = ["convey-link", "store", file, name, *others(name)]
        eventually("the servers make a stream", lambda: "wait in" in attic.run(*store, status=None))
    shutil.rmtree(attic.keys())


def theirs(me: str) -> list[str]:
    """What one of the realm tries, of what belongs to others or to nobody."""
    tries = [*(f"SUB {subject}" for subject in ("convey.>", "_INBOX.>", "$JS.>", "$SYS.>")),
             *(f"PUB {subject}" for subject in (
                 "convey.gallery.front." + me, "$SYS.REQ.SERVER.PING", "$JS.API.INFO", "$JS.API.STREAM.LIST",
                 # With a stream or a consumer of its own it could hear what is meant for others.
                 "$JS.API.STREAM.CREATE.own", "$JS.API.CONSUMER.DURABLE.CREATE.own." + me))]
    for other in others(me):
        third, kept = others(me)[other == others(me)[0]], stream(other)
        tries += [f"SUB convey.studio.{other}.{what}" for what in ("*", "absent.*", "kept.from", "kept.told.*", "keep.*")]
        tries += [f"PUB convey.studio.{to}{by}.{other}" for to in (me, third) for by in ("", ".keep")]
        tries += [f"PUB $JS.API.{what}" for what in (
            f"STREAM.INFO.{kept}", f"STREAM.MSG.GET.{kept}", f"DIRECT.GET.{kept}", f"STREAM.SNAPSHOT.{kept}",  # reads it
            f"STREAM.PURGE.{kept}", f"STREAM.MSG.DELETE.{kept}", f"STREAM.DELETE.{kept}", f"STREAM.UPDATE.{kept}",
            f"CONSUMER.CREATE.{kept}", f"CONSUMER.CREATE.{kept}.{me}", f"CONSUMER.DURABLE.CREATE.{kept}.{me}",
            f"CONSUMER.MSG.NEXT.{kept}.{third}", f"CONSUMER.INFO.{kept}.{third}", f"CONSUMER.DELETE.{kept}.{third}")]
        tries += [f"PUB $JS.ACK.{kept}.{third}.1.1.1.1.0"]
    return tries


def test_each_of_the_realm_has_its_own_and_nothing_of_the_others(world: World) -> None:
    """By the example's permissions, and with streams in which something lies."""
    keep(world, *NAMES)

    def streams() -> dict[str, Any]:
        page = world.monitor(1, "jsz?accounts=true&streams=true&consumers=true")
        return {one["name"]: one for account in page["account_details"] for one in account["stream_detail"]}

    eventually("each stream and its consumers have leaders", lambda: len(streams()) == len(NAMES) and all(
        one["cluster"].get("leader") for made in streams().values() for one in (made, *made["consumer_detail"])))
    kept = r'MSG convey\.studio\.%s\.kept\.told\.%s 3 +\d+\n{"stream":"convey=studio=%s", *"seq":\d'
    for me in NAMES:
        own = [*(f"SUB convey.studio.{me}.{what}\\r\\n" for what in ("* 1", "absent.* 2", "kept.> 3")),
               "wait 1"]  # until all servers know where answers go
        for other in others(me):
            own += [frame(f"convey.studio.{other}.{me}", b"x"),
                    frame(f"convey.studio.{other}.keep.{me} convey.studio.{me}.kept.told.{other}", b"x"),
                    frame(f"$JS.API.CONSUMER.INFO.{stream(other)}.{me} convey.studio.{me}.kept.clock.{other}", b""),
                    frame(f"$JS.ACK.{stream(other)}.{me}.1.99.99.1.0", b"+ACK")]
        said = by_hand(world[me], *own, f"wait 20 {2 * len(others(me))}")
        assert "-ERR" not in said, said
        for other in others(me):
            assert re.search(kept % (me, other, me), said), said
            assert f'"stream_name":"{stream(other)}","name":"{me}"' in said, said

    def state() -> dict[str, tuple[int, list[str]]]:
        """What each stream holds, and for whom."""
        return {name: (one["state"]["messages"], sorted(all["name"] for all in one["consumer_detail"]))
                for name, one in streams().items()}

    expected = {stream(name): (2, sorted(others(name))) for name in NAMES}
    eventually("each stream holds what its sender has given", lambda: state() == expected)
    for me in NAMES:
        tries = theirs(me)
        said = by_hand(world[me], *(f"{one} {number}\\r\\n" if one.startswith("SUB") else frame(one[4:], b"{}")
                                    for number, one in enumerate(tries)))
        refused = re.findall(r'Permissions Violation for (\S+) to "([^"]+)"', said)
        assert sorted(f"{kind[:3].upper()} {subject}" for kind, subject in refused) == sorted(tries)
    assert state() == expected


def test_answers_that_another_has_the_servers_give(pair: Pair) -> None:
    """Who asks the servers says where they answer: also where another link is told that nobody is
    there, or that a disk has its request."""
    desk, attic = pair.desk, pair.world["attic"]
    keep(pair.world, "attic")
    pair.target()
    pair.workshop_link = pair.workshop.join(OFFER)
    pair.desk_link = desk.join(USE + "durable = true\n")  # but there is no stream of the desk's
    pair.desk_link.says(f"{LUMEN} at workshop: runs")
    asked = [f"PUB {subject} convey.studio.desk.{place} {len(what)}\\r\\n{what}\\r\\n"
             for subject, what, place in (
                 ("convey.studio.nobody.attic", "", "absent.workshop"),
                 ("convey.studio.none.keep.attic", "x", "absent.workshop"),
                 ("convey.studio.none.keep.attic", "x", "kept.told.1"),
                 ("$JS.ACK.convey=studio=attic.attic.1.1.1.1.0", "+ACK", "kept.told.1"))]
    over = threading.Event()
    flood = threading.Thread(target=lambda: [by_hand(attic, *[*asked, "wait 0.05"] * 20)
                                             for _ in iter(over.is_set, True)])
    flood.start()
    try:
        said = desk.run("convey", "send", LUMEN, "--body", "x", "--wait", "40", status=None)
        assert "error" in said, said  # nobody keeps it, and its sender is told
    finally:
        over.set()
        flood.join()
    log = pair.desk_link.said()
    assert "no stream takes it" in log and "away" not in log, log
