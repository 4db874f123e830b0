"""Long work that is recorded in the database."""

import ctypes
import json
import threading

import pytest
from library import place

import sagleme as sg
from sagleme import statuses


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


class Other(sg.Table, name="Other"):
    size: int = 0


REPORT = ctypes.CFUNCTYPE(ctypes.c_uint32, ctypes.c_void_p, ctypes.c_uint64, ctypes.c_uint64,
                          ctypes.c_uint64)


class JobOptions(ctypes.Structure):
    """sagleme_job_options of <sagleme/jobs.h>."""

    _fields_ = [("size", ctypes.c_size_t), ("batch", ctypes.c_uint64), ("pause", ctypes.c_uint64),
                ("take_over", ctypes.c_uint32), ("allow_losses", ctypes.c_uint32),
                ("control", ctypes.c_void_p), ("report", REPORT), ("user", ctypes.c_void_p)]


def cut_off_schema(path):
    """A schema of Thing alone, with an index, whose job ended in the build of it."""
    table = {"name": "Thing",
             "columns": [{"name": "size", "type": "long", "default": 0},
                         {"name": "name", "type": "string"}],
             "indexes": [{"name": "ThingBySize", "columns": ["size"]}]}
    document = json.dumps({"schema": 1, "tables": [table]})
    options = JobOptions(size=ctypes.sizeof(JobOptions), batch=1000, report=REPORT(lambda *_: 1))
    library = ctypes.CDLL("libsaglemehost.so.0")
    status = library.sagleme_apply_schema(path.encode(), document.encode(), ctypes.byref(options))
    assert status == statuses.LSCOREDB_STOPPED


def test_a_job_that_would_lose_objects_goes_on_when_that_is_allowed(make):
    path = place()
    db = make(Thing, path=path)
    with db.write() as tx:
        tx.insert_many(Thing, ((i, None) for i in range(10_000)))
    cut_off_schema(path)
    [job] = [each for each in db.jobs() if each.kind == "apply"]
    with sg.open(path, models=[Thing, Other], sync=False) as beside:
        beside.apply()
        with beside.write() as tx:
            tx.new(Other, size=1)
    for given in ({}, {"allow_losses": False}):
        with pytest.raises(sg.SchemaError, match="the plan would lose values or objects") as told:
            job.resume(**given)
        assert "allow_losses=True" in told.value.hint
    [job] = [each for each in db.jobs() if each.kind == "apply"]
    assert job.state == "cut off" and "would lose" in job.reason
    assert job.resume(allow_losses=True)
    assert "apply" not in [each.kind for each in db.jobs()]
    assert [each["name"] for each in db.schema()] == ["Thing"]
    with db.read() as tx:
        assert tx.all(Thing).count() == 10_000


def test_an_allowance_changes_nothing_for_work_that_loses_nothing(db):
    job = cut_off(db)
    with pytest.raises(TypeError):
        job.resume(allow_loss=True)
    assert job.resume(allow_losses=True)
    assert db.jobs() == []
