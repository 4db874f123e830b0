"""What a class that cannot be a table is told."""

import typing

import pytest

import sagleme as sg


def refused(words, make):
    with pytest.raises(sg.ModelError, match=words):
        make()


def test_annotations_that_are_no_types_of_columns():
    def a_set():
        class Bad(sg.Table):
            tags: set
    refused("Bad.tags: set is no type of a column; it is one of int, float", a_set)

    def two_types():
        class Bad(sg.Table):
            size: int | str
    refused(r"Bad.size: int \| str is no type of a column", two_types)

    def text():
        class Bad(sg.Table):
            title: str
    refused(r"Bad.title: texts, binaries and references can be null.*write str \| None", text)

    def unknown():
        class Bad(sg.Table):
            size: "Integer"
    refused("Bad.size: Integer cannot be understood", unknown)

    def broken():
        class Bad(sg.Table):
            size: "int |"
    refused("Bad.size: int | cannot be understood", broken)


def test_defaults_that_do_not_fit():
    def text_for_number():
        class Bad(sg.Table):
            size: int = "big"
    refused("Bad.size: 'big' is no default for int", text_for_number)

    def truth_for_number():
        class Bad(sg.Table):
            size: int = True
    refused("Bad.size: True is no default for int", truth_for_number)


def test_names():
    def reserved():
        class Bad(sg.Table):
            id: int
    refused("Bad.id: the attribute's name is taken", reserved)

    def hidden():
        class Bad(sg.Table):
            _x: int
    refused("Bad._x: the attribute's name is taken", hidden)

    def empty():
        class Bad(sg.Table, name="A..B"):
            pass
    refused("Bad: 'A..B' is no name for a table", empty)

    def system():
        class Bad(sg.Table):
            x: int = sg.column(0, name="__x")
    refused("a column cannot be called '__x'", system)

    def option():
        class Bad(sg.Table, nmae="x"):
            pass
    refused("a table takes name, was, abstract and indexes, not nmae", option)


def test_two_columns_by_one_name():
    class Item(sg.Table):
        title: str | None

    def again():
        class Book(Item):
            title: str | None
    refused("Book.title: Item has a column of that name", again)

    def stored():
        class Bad(sg.Table):
            a: int = sg.column(0, name="x")
            b: int = sg.column(0, name="x")
    refused("Bad: a and b are both column 'x'", stored)

    def tables():
        class One(sg.Table, name="T"):
            pass

        class Two(sg.Table, name="T"):
            pass
        sg.open(None, models=[One, Two])
    refused("One and .*Two are both table 'T'", tables)


def test_bases():
    class A(sg.Table):
        pass

    class B(sg.Table):
        pass

    def two():
        class Bad(A, B):
            pass
    refused("Bad derives from A and B; a table has one base", two)

    class Mixin:
        def shout(self):
            return "!"

    class Good(A, Mixin):
        pass
    assert Good.shout(None) == "!"


def test_options_without_annotation():
    def column():
        class Bad(sg.Table):
            size = sg.column()
    refused("Bad.size has no annotation", column)

    def slots():
        class Bad(sg.Table):
            __slots__ = ("x",)
    refused("have columns and no __slots__", slots)


def test_indexes():
    def unknown():
        class Bad(sg.Table, indexes=[sg.Index("size")]):
            pass
    refused("Bad: an index names 'size', which is no column", unknown)

    def no_index():
        class Bad(sg.Table, indexes=["size"]):
            size: int
    refused("takes sg.Index", no_index)
    refused("an index takes names of columns", lambda: sg.Index())


def test_references_to_classes_that_are_not_there():
    class Bad(sg.Table):
        other: "Nowhere | None" = sg.ref()
    refused("Bad refers to no class 'Nowhere'; define it",
            lambda: sg.open(None, models=[Bad]))

    class Back(sg.Table):
        them: sg.Back["Bad", "missing"]
    refused("Bad has no reference 'missing'", lambda: sg.open(None, models=[Back]))
    refused("takes classes derived from sg.Table, not 5", lambda: sg.open(None, models=[5]))


def test_annotations_that_are_understood():
    class Fine(sg.Table):
        kind: typing.ClassVar[int] = 3
        a: typing.Optional[int]
        b: "int | None"
        c: typing.Annotated[int, "a note"] = 4
        d: "typing.Optional[Fine]" = sg.ref()

    assert list(Fine._columns) == ["a", "b", "c", "d"] and Fine.kind == 3
    assert Fine.d._target_class() is Fine


def test_methods_belong_to_objects(make):
    class Square(sg.Table):
        side: int = 0

        @property
        def area(self):
            return self.side**2

        def grow(self):
            self.side += 1

    db = make(Square)
    with db.write() as tx:
        square = tx.new(Square, side=3)
        square.grow()
        assert square.area == 16
