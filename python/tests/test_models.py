"""Classes that are tables."""

import typing

import sagleme as sg


def test_annotations_that_are_understood():
    class Fine(sg.Table):
        kind: typing.ClassVar[int] = 3
        a: typing.Optional[int]
        b: "int | None"
        c: typing.Annotated[int, "a note"] = 4
        d: "typing.Optional[Fine]" = sg.ref()

    assert list(Fine._columns) == ["a", "b", "c", "d"] and Fine.kind == 3
    assert Fine.d._target_class() is Fine


def test_mixins_stand_beside_the_base():
    class Base(sg.Table):
        pass

    class Mixin:
        def shout(self):
            return "!"

    class Good(Base, Mixin):
        pass

    assert Good.shout(None) == "!"


def test_classes_below_an_abstract_one_get_its_indexes_and_back_references(make):
    class Tagged(sg.Table, abstract=True, indexes=[sg.Index("kind", "-tag")]):
        kind: int = 0
        tag: int = sg.column(0, index=True)
        marks: sg.Back["Mark", "of"]

    class Thing(Tagged):
        size: int = 0

    class Mark(sg.Table):
        of: Thing | None = sg.ref()

    db = make(Thing)
    assert [index["columns"] for index in db.schema()[1]["indexes"]] == [
        [("kind", True), ("tag", False)], [("tag", True)]]
    with db.write() as tx:
        thing = tx.new(Thing)
        mark = tx.new(Mark, of=thing)
        assert thing.marks.one() is mark
        assert "Mark.of" in thing.marks.explain()


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
