"""Threads, forks, leaks."""

import gc
import os
import sys
import threading

import pytest
from library import MODELS, Book, Item, Person, fill

import sagleme as sg


def test_each_thread_has_a_transaction(make):
    db = make(*MODELS)
    fill(db)
    counts, failures = [], []

    def work(number):
        try:
            for _ in range(20):
                with db.read() as tx:
                    counts.append(tx.all(Item).where(Item.year >= 1960).count())
                run(number)
        except Exception as error:
            failures.append(error)

    @db.transact(retries=1000)
    def run(tx, number):
        tx.new(Person, name=f"thread {number}")

    threads = [threading.Thread(target=work, args=(i,)) for i in range(6)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failures == [] and counts == [30] * 120
    with db.read() as tx:
        assert tx.all(Person).count() == 2 + 120
    gc.collect()
    assert db.statistics()["transactions"] == 0


def test_a_thread_that_ends_in_a_transaction_gives_it_back(make):
    db = make(*MODELS)

    def forget():
        db.write().new(Person, name="lost")

    thread = threading.Thread(target=forget)
    thread.start()
    thread.join()
    gc.collect()
    assert db.statistics()["transactions"] == 0
    with db.read() as tx:
        assert tx.all(Person).count() == 0


def test_a_fork_opens_the_database_anew(make):
    db = make(*MODELS)
    fill(db)
    tx = db.read()
    book = tx.all(Book).first()
    reader, writer = os.pipe()
    child = os.fork()
    if child == 0:
        said = []
        for use in (lambda: book.title, lambda: tx.all(Book).count(), db.read):
            try:
                use()
                said.append("no error")
            except sg.ForkedError:
                said.append("refused")
        os.write(writer, ",".join(said).encode())
        os._exit(0)
    os.close(writer)
    assert os.read(reader, 1000) == b"refused,refused,refused"
    assert os.waitpid(child, 0)[1] == 0
    assert book.title == "Book 00"
    tx.rollback()


def test_nothing_leaks(make):
    db = make(*MODELS)
    fill(db)

    def once():
        with db.write() as tx:
            books = list(tx.all(Item).where(Item.year > 1900).order("-year"))
            for book in books:
                book.title = book.title
                repr(book), book.to_dict(), book.lender
            list(tx.all(Item).select("title", "lender", "lender.name", "year"))
            tx.all(Book).aggregate(a=sg.sum(Book.pages), b=sg.max(Book.title))
            for wrong in (lambda: tx.new(Book, pages="x"), lambda: books[-1].lender.loans.one(),
                          lambda: tx.all(Book).where(title=5).count()):
                with pytest.raises(sg.Error):
                    wrong()
            tx.rollback()

    for _ in range(5):
        once()
    gc.collect()
    objects, blocks = len(gc.get_objects()), sys.getallocatedblocks()
    references = sys.getrefcount(Book), sys.getrefcount(None)
    for _ in range(200):
        once()
    gc.collect()
    assert len(gc.get_objects()) - objects < 50
    assert sys.getallocatedblocks() - blocks < 500
    assert sys.getrefcount(Book) - references[0] < 20
    assert abs(sys.getrefcount(None) - references[1]) < 200
