"""The feed of changes."""

import asyncio
import datetime
import os
import subprocess
import sys
import threading

import pytest

import sagleme as sg

pytestmark = pytest.mark.skipif("SAGLEME_TEST_POSTGRES" in os.environ,
                                reason="a server's database has no log")


class Item(sg.Table, name="Shop.Item"):
    name: str | None
    size: int = 0


class Box(Item):
    lid: bool = False


@pytest.fixture
def db():
    with sg.open("shop", models=[Box], sync=False, log=True) as opened:
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


def test_other_processes_are_followed(db):
    program = """
import sagleme as sg
with sg.open("shop") as db, db.write() as tx:
    tx.new(db["Shop.Item"], name="there")
"""
    with db.changes(follow=True) as changes:
        subprocess.run([sys.executable, "-c", program], check=True)
        assert next(changes).kind == "created"


def test_ctrl_c_ends_a_wait(db):
    program = """
import os, signal, threading, sagleme as sg
with sg.open("shop") as db:
    changes = db.changes(follow=True)
    try:
        threading.Timer(0.2, os.kill, [os.getpid(), signal.SIGINT]).start()
        next(changes)
    except KeyboardInterrupt:
        print("stopped")
"""
    done = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True,
                          timeout=60, check=False)
    assert done.stdout == "stopped\n", done.stderr


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
