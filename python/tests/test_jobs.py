"""Long work that is recorded in the database."""

import threading

import pytest

import sagleme as sg


class Thing(sg.Table, name="Thing"):
    size: int = 0
    name: str | None


@pytest.fixture
def db(make):
    made = make(Thing)
    with made.write() as tx:
        tx.insert_many(Thing, [(i, str(i)) for i in range(500)])
    return made


def cut_off(db):
    """An index build that ended after its first batch."""
    assert not db.build_index(Thing, "size", batch=50, report=lambda told: False)
    [job] = db.jobs()
    return job


def test_what_was_cut_off_is_listed_and_resumed(db):
    assert db.jobs() == []
    job = cut_off(db)
    assert (job.kind, job.state, job.batch) == ("index build", "cut off", 50)
    assert "Thing" in job.description and str(job.id) in repr(job)
    told = []
    assert job.resume(report=told.append)
    assert told and db.jobs() == []
    with db.read() as tx:
        assert "Thing.size" in tx.all(Thing).where(Thing.size == 3).explain()


def test_abandoned_work_is_forgotten(db):
    cut_off(db).abandon()
    assert db.jobs() == []
    with db.read() as tx:
        assert "index" not in tx.all(Thing).where(Thing.size == 3).explain()


def test_running_work_is_listed_and_stopped_by_another_thread(db):
    first_batch, looked = threading.Event(), threading.Event()
    done = []

    def report(told):
        first_batch.set()
        looked.wait(60)

    def build():
        try:
            done.append(db.build_index(Thing, "size", batch=50, report=report))
        except sg.Error as error:
            done.append(error)

    thread = threading.Thread(target=build)
    thread.start()
    assert first_batch.wait(60)
    [job] = db.jobs()
    assert job.state == "running" and job.runner.startswith("process ")
    with pytest.raises(sg.InUse):
        job.resume()
    job.stop()
    looked.set()
    thread.join(60)
    assert len(done) == 1 and done[0] is not True
    [job] = db.jobs()
    assert job.state == "cut off" and job.resume()
    with pytest.raises(sg.Error):
        job.stop()


def test_transactions_are_in_the_way(db):
    job = cut_off(db)
    with db.read():
        with pytest.raises(sg.NestedTransaction):
            job.resume()
        with pytest.raises(sg.NestedTransaction):
            db.jobs()
