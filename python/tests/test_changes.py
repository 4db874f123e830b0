"""The feed of changes."""

import asyncio
import datetime
import os
import subprocess
import sys
import threading

import pytest
from library import on_a_server, place

import sagleme as sg
from sagleme import statuses


class Item(sg.Table, name="Shop.Item"):
    name: str | None
    size: int = 0


class Box(Item):
    lid: bool = False


@pytest.fixture
def shop():
    """Where the database is; a server is asked often."""
    return place("shop") + ("&changes_interval=0.05" if on_a_server() else "")


@pytest.fixture
def db(shop):
    with sg.open(shop, models=[Box], sync=False) as opened:
        opened.apply()
        opened.keep_changes(bytes=1 << 20)
        yield opened


def change(db):
    """Three commits: two objects, a change and a deletion."""
    with db.write() as tx:
        ids = [tx.new(Item, name="one").id, tx.new(Box, name="two").id]
    with db.write() as tx:
        tx.get(Item, ids[0]).size = 7
    with db.write() as tx:
        tx.delete(tx.get(Item, ids[1]))
    return ids


def test_changes_are_told_in_their_order(db):
    ids = change(db)
    found = list(db.changes())
    assert [(each.kind, each.object, each.table) for each in found] == [
        ("created", ids[0], "Shop.Item"), ("created", ids[1], "Shop.Box"),
        ("changed", ids[0], "Shop.Item"), ("deleted", ids[1], "Shop.Box")]
    assert found[2].columns == ("size",) and found[0].former_table == ""
    assert [each.last for each in found] == [False, True, True, True]
    assert found[0].commit == found[1].commit < found[2].commit < found[3].commit
    now = datetime.datetime.now(datetime.timezone.utc)
    assert datetime.timedelta(0) <= now - found[0].time < datetime.timedelta(hours=1)
    kept = db.kept_changes()
    assert kept.bytes == 1 << 20 and kept.last == found[3].commit


def test_reading_goes_on_where_it_ended(db):
    change(db)
    found = list(db.changes())
    for after in (found[1], found[1].position, found[1].commit):
        assert list(db.changes(after=after)) == found[2:]
    assert list(db.changes(after=found[0])) == found[1:]
    with pytest.raises(sg.WrongType, match="not 'x'"):
        db.changes(after="x")
    with pytest.raises(sg.Error):
        db.changes(after=10**9)


def test_following_waits_for_what_comes(db):
    change(db)
    got = []
    with db.changes(follow=True) as changes:
        assert not changes.wait(0)

        def read():
            for each in changes:
                got.append(each.kind)
                if len(got) == 4:
                    return

        thread = threading.Thread(target=read)
        thread.start()
        change(db)
        thread.join(60)
        assert got == ["created", "created", "changed", "deleted"]


@pytest.mark.parametrize("what", ["the changes", "the database"])
def test_closing_ends_a_wait(db, what):
    changes = db.changes(follow=True)
    got = []
    waits = threading.Event()

    def read():
        waits.set()
        got.append(list(changes))

    thread = threading.Thread(target=read)
    thread.start()
    waits.wait()
    (changes if what == "the changes" else db).close()
    thread.join(60)
    assert got == [[]] and changes.closed and not changes.wait()
    assert next(changes, None) is None
    changes.close()


def test_asyncio_follows_and_is_cancelled(db):
    async def run():
        with db.changes(follow=True) as changes:
            first = asyncio.ensure_future(anext(changes))
            await asyncio.sleep(0)
            with pytest.raises(sg.InUse, match="another task"):
                await anext(changes)
            await asyncio.to_thread(change, db)
            got = [await first]
            async for each in changes:
                got.append(each)
                if len(got) == 4:
                    break
            waiting = asyncio.ensure_future(anext(changes))
            await asyncio.sleep(0)
            waiting.cancel()
            with pytest.raises(asyncio.CancelledError):
                await waiting
            await asyncio.to_thread(change, db)
            got.append(await anext(changes))
            last = asyncio.ensure_future(collect(changes))
            await asyncio.sleep(0)
            db.close()
            await last
            return [each.kind for each in got]

    async def collect(changes):
        return [each async for each in changes]

    assert asyncio.run(run()) == ["created", "created", "changed", "deleted", "created"]


def test_other_processes_are_followed(db, shop):
    program = """
import sys, sagleme as sg
with sg.open(sys.argv[1]) as db, db.write() as tx:
    tx.new(db["Shop.Item"], name="there")
"""
    with db.changes(follow=True) as changes:
        subprocess.run([sys.executable, "-c", program, shop], check=True)
        assert next(changes).kind == "created"


def test_ctrl_c_ends_a_wait(db, shop):
    program = """
import os, signal, sys, threading, sagleme as sg
with sg.open(sys.argv[1]) as db:
    changes = db.changes(follow=True)
    try:
        threading.Timer(0.2, os.kill, [os.getpid(), signal.SIGINT]).start()
        next(changes)
    except KeyboardInterrupt:
        print("stopped")
"""
    done = subprocess.run([sys.executable, "-c", program, shop], capture_output=True, text=True,
                          timeout=60, check=False)
    assert done.stdout == "stopped\n", done.stderr


def test_several_readers_follow_at_their_own_pace(db, shop):
    with sg.open(shop, models=[Box]) as other, db.changes(follow=True) as ahead, \
            db.changes(follow=True) as behind, other.changes(follow=True) as elsewhere:
        got = {reader: [] for reader in (ahead, behind, elsewhere)}

        def read(reader):
            for each in reader:
                got[reader].append(each)
                if len(got[reader]) == 8:
                    return

        threads = [threading.Thread(target=read, args=[reader]) for reader in (ahead, elsewhere)]
        for thread in threads:
            thread.start()
        change(db)
        change(other)
        for thread in threads:
            thread.join(60)
        assert got[behind] == [] and behind.wait(0)
        read(behind)
        assert got[ahead] == got[behind] == got[elsewhere]
        assert [each.kind for each in got[ahead]] == [
            "created", "created", "changed", "deleted"] * 2


def test_tasks_follow_with_an_iterator_each(db):
    async def run():
        with db.changes(follow=True) as one, db.changes(follow=True) as two:
            tasks = [asyncio.ensure_future(first(reader, 12)) for reader in (one, two)]
            for _ in range(3):
                await asyncio.to_thread(change, db)
            found = await asyncio.gather(*tasks)
            assert found[0] == found[1]
            return [each.kind for each in found[0]]

    async def first(reader, count):
        got = []
        async for each in reader:
            got.append(each)
            if len(got) == count:
                return got

    assert asyncio.run(run()) == ["created", "created", "changed", "deleted"] * 3


def test_an_iteration_without_follow_ends_in_asyncio_too(db):
    change(db)

    async def run():
        return [each async for each in db.changes()]

    assert asyncio.run(run()) == list(db.changes())


def test_a_reader_that_is_too_late_is_told(db):
    """The retention lets go of whole parts of the log, or on a server of some commits at a time."""
    late = db.changes(follow=True)
    start = db.kept_changes().last
    db.keep_changes(bytes=1)
    name = "small" if on_a_server() else "n" * (1 << 20)
    for _ in range(200):
        with db.write() as tx:
            tx.new(Item, name=name)
        if db.kept_changes().first > start + 1:
            break
    kept = db.kept_changes()
    assert start + 1 < kept.first <= kept.last
    for reader in (late, db.changes(after=start)):
        with pytest.raises(sg.ChangesGone) as told:
            next(reader)
        assert told.value.status == statuses.LSCOREDB_CHANGES_GONE
        assert "kept_changes()" in told.value.hint
    assert [each.commit for each in db.changes()][0] == kept.first
    with db.changes(after=kept.last, follow=True) as again:
        change(db)
        assert next(again).commit == kept.last + 1


def test_waiting_tells_what_there_is(db):
    with db.changes(follow=True) as changes:
        assert not changes.wait(0) and not changes.wait(0.2)
        change(db)
        assert changes.wait() and changes.wait(0)
        assert next(changes).kind == "created"


def test_a_child_opens_its_own(db):
    changes = db.changes(follow=True)
    child = os.fork()
    if child == 0:
        try:
            next(changes)
        except sg.ForkedError:
            os._exit(0)
        finally:
            os._exit(1)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
    change(db)
    assert next(changes).kind == "created"


def test_the_schema_is_told(db):
    change(db)
    with db.changes(follow=True) as changes, db.write() as tx:
        sg._core.add_columns(tx, "Shop.Item", [("note", sg.declarations.STRING, True, "")])
        tx.commit()
        found = next(changes)
        assert (found.kind, found.object, found.table) == ("schema", None, "")


@pytest.mark.skipif(on_a_server(), reason="these are no databases of a server")
def test_databases_that_keep_none_say_so():
    class Thing(sg.Table):
        size: int = 0

    with sg.open("plain", models=[Thing], sync=False, log=False) as plain:
        with pytest.raises(sg.Error):
            plain.changes()
        with pytest.raises(sg.Error):
            plain.keep_changes(bytes=1000)
    with sg.open(None, models=[Thing]) as memory, pytest.raises(sg.Error):
        memory.keep_changes(bytes=1000)
