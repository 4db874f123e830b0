"""What a class that cannot be a table, or does not fit the database, is told.

Every message names the class and the column as the program writes them, says what is wrong, and
what to do about it.
"""

import datetime
import decimal
import typing

import pytest
from test_schema import in_child

import sagleme as sg

BEFORE = """
class Person(sg.Table):
    name: str | None

class Item(sg.Table):
    title: str | None = sg.column(name="Title")
    lender: Person | None = sg.ref()

class Named(sg.Table, abstract=True):
    label: str | None

class Plain:
    pass
"""


def run(source):
    exec(BEFORE + source, {"__name__": "program", "sg": sg, "datetime": datetime.datetime,
                           "timezone": datetime.timezone, "Decimal": decimal.Decimal,
                           "typing": typing})


def refused(source, message):
    with pytest.raises(sg.ModelError) as caught:
        run(source)
    assert message in str(caught.value)


# What an annotation can be, and what is said of it.
ANNOTATIONS = {
    "set": "Bad.a: set is no type of a column; a column holds one value; make the elements objects "
           "of a class that refers to this one, and reach them with sg.Back",
    "list[int]": "Bad.a: list[int] is no type of a column; a column holds one value;",
    "list[Person] | None": "Bad.a: list[program.Person] | None is no type of a column; a column",
    "dict[str, int]": "Bad.a: dict[str, int] is no type of a column; a column holds one value;",
    "typing.List[int]": "Bad.a: List[int] is no type of a column; a column holds one value;",
    "typing.Optional[tuple]": "Bad.a: tuple | None is no type of a column; a column holds one",
    "complex": "Bad.a: complex is no type of a column; it is one of int, float, bool, decimal.",
    "Plain | None": "Bad.a: Plain | None is no type of a column; it is one of int, float, bool,",
    "None": "Bad.a: None is no type of a column; it is one of int, float, bool,",
    "typing.Any": "Bad.a: Any is no type of a column; it is one of int, float, bool,",
    "int | str": "Bad.a: int | str is no type of a column; a column has one type; make a column "
                 "for each of these",
    "int | str | None": "Bad.a: int | str | None is no type of a column; a column has one type;",
    "typing.Optional[typing.Union[int, Person]]":
        "Bad.a: int | Person | None is no type of a column; a column has one type;",
    "Person | Item | None": "Bad.a: Person | Item | None is no type of a column; a reference leads "
                            "to one class and those below it; give these a common base",
    "str": "Bad.a: texts, binaries, references and keys can be null in the database; write "
           "str | None",
    "bytes": "Bad.a: texts, binaries, references and keys can be null in the database; write "
             "bytes | None",
    "Person": "Bad.a: texts, binaries, references and keys can be null in the database; write "
              "Person | None",
    "sg.Key": "Bad.a: texts, binaries, references and keys can be null in the database; write "
              "sg.Key | None",
    "Named | None": "Bad.a: Named has no table to refer to; refer to a class that has one, or give "
                    "Named a name=",
    "sg.Table | None": "Bad.a: Table has no table to refer to;",
    "'Integer'": "Bad.a: Integer cannot be understood: name 'Integer' is not defined; import it, or "
                 "write a class that comes later as \"Name | None\"",
    "'list[Nothing]'": "Bad.a: list[Nothing] cannot be understood: name 'Nothing' is not defined;",
    "'int |'": "Bad.a: int | cannot be understood: invalid syntax",
    "'sg.Nothing | None'": "Bad.a: sg.Nothing | None cannot be understood: module 'sagleme' has no "
                           "attribute 'Nothing'; write a type, as in \"int | None\"",
    "'5 | None'": "Bad.a: 5 | None cannot be understood: unsupported operand",
    "'5'": "Bad.a: 5 is no type of a column; it is one of int, float, bool,",
    "'sg.Back[Item]'": "Bad.a: a back reference names a class and its reference: "
                       'sg.Back["Item", "lender"]',
    "sg.Back[Item, 'owner']": "Bad.a: Item has no reference 'owner'; it has lender",
    "sg.Back[Item, 'title']": "Bad.a: Item has no reference 'title'; it has lender",
    "sg.Back[Person, 'name']": "Bad.a: Person has no reference 'name'; it has none",
    "sg.Back[Plain, 'lender']": "Bad.a: a back reference names a class of a table, not <class ",
    "sg.Back[Named, 'lender']": "Bad.a: Named has no table to refer to;",
    "sg.Back[Item, 'lender'] = 5": "Bad.a: a back reference is no column and takes no value",
}


@pytest.mark.parametrize("annotation", ANNOTATIONS)
def test_annotations(annotation):
    refused(f"class Bad(sg.Table):\n    a: {annotation}", ANNOTATIONS[annotation])


# Defaults and options behind an annotation.
VALUES = {
    "int = 'big'": "Bad.a: 'big' is no default for int, which takes an int from -2**63 to "
                   "2**63 - 1",
    "int = True": "Bad.a: True is no default for int, which takes an int",
    "int = 2**63": "Bad.a: 9223372036854775808 is no default for int, which takes an int from",
    "int = sg.column(1.5)": "Bad.a: 1.5 is no default for int, which takes an int",
    "sg.ULong = -1": "Bad.a: -1 is no default for sg.ULong, which takes an int from 0 to 2**64 - 1",
    "sg.Key | None = 2**64": "is no default for sg.Key, which takes an int from 0 to 2**64 - 1",
    "float = 'x'": "Bad.a: 'x' is no default for float, which takes a float",
    "float = 10**400": "is no default for float, which takes a float",
    "sg.Float32 = 1e300": "Bad.a: 1e+300 is no default for sg.Float32, which takes a float that 32 "
                          "bits hold",
    "bool = 1": "Bad.a: 1 is no default for bool, which takes True or False",
    "Decimal = 1.5": "Bad.a: 1.5 is no default for Decimal, which takes a decimal.Decimal of at "
                     "most 6 places, up to 9223372036854.775807",
    "Decimal = Decimal('0.0000001')": "Bad.a: Decimal('1E-7') is no default for Decimal, which",
    "Decimal = Decimal('1E13')": "Bad.a: Decimal('1E+13') is no default for Decimal, which takes",
    "Decimal = Decimal('NaN')": "Bad.a: Decimal('NaN') is no default for Decimal, which takes",
    "datetime = 5": "Bad.a: 5 is no default for datetime, which takes a datetime with a time zone",
    "datetime = datetime(2020, 1, 1)":
        "Bad.a: datetime.datetime(2020, 1, 1, 0, 0) is no default for datetime, which takes a "
        "datetime with a time zone, such as datetime.timezone.utc",
    "str | None = 5": "Bad.a: 5 is no default for str, which takes a str without U+0000",
    r"str | None = 'a\0b'": "is no default for str, which takes a str without U+0000",
    "bytes | None = 'x'": "Bad.a: 'x' is no default for bytes, which takes bytes",
    "Person | None = 5": "Bad.a: 5 is no default for reference, which takes none: it is None until "
                         "it is set",
    "int = sg.column(stored=True)": "Bad.a: stored=True keeps a default in the database; there is "
                                    "none to keep: give one, or leave stored=True out",
    "int = sg.ref()": "Bad.a: sg.ref() is for references; write sg.column() for int",
    "str | None = sg.ref(on_delete='cascade')": "Bad.a: sg.ref() is for references; write "
                                                "sg.column() for str",
    "Person | None = sg.ref(on_delete='explode')":
        "Bad.a: on_delete is one of keep, refuse, set_null, cascade, last, not 'explode'",
    "int = sg.column(0, comment=7)": "Bad.a: a comment is a text, not 7",
    "int = sg.column(0, name='')": "Bad.a: a column cannot be called ''; its name has a character "
                                   "at least, no U+0000, and does not begin with __",
    "int = sg.column(0, name='__a')": "Bad.a: a column cannot be called '__a'; its name",
    r"int = sg.column(0, name='a\0')": r"Bad.a: a column cannot be called 'a\x00'; its name",
    "int = sg.column(0, name=5)": "Bad.a: name= takes a name, not 5",
    "int = sg.column(0, was=5)": "Bad.a: was= takes a name, not 5",
    "int = sg.column(0, was='')": "Bad.a: a column cannot be called ''; its name",
}


@pytest.mark.parametrize("value", VALUES)
def test_values(value):
    refused(f"class Bad(sg.Table):\n    a: {value}", VALUES[value])


# Whole classes.
CLASSES = {
    "class Bad(sg.Table):\n    id: int":
        "Bad.id: the attribute's name is taken; give the column another one, as in id_: ... = "
        "sg.column(name='id')",
    "class Bad(sg.Table):\n    to_dict: int": "Bad.to_dict: the attribute's name is taken;",
    "class Bad(sg.Table):\n    _a: int":
        "Bad._a: the attribute of a column does not begin with an underscore; write a: ... = "
        "sg.column(name='_a')",
    "class Bad(sg.Table):\n    __a: int":
        "Bad.__a: the attribute of a column does not begin with an underscore; write a: ...",
    "class Bad(sg.Table):\n    a = sg.column()": "Bad.a has no annotation; write a: int = ...",
    "class Bad(sg.Table):\n    a = sg.Back[Item, 'lender']":
        "Bad.a: a back reference is an annotation; write a: sg.Back[...]",
    "class Bad(sg.Table):\n    __slots__ = ('x',)":
        "Bad: objects of a table have columns and no __slots__",
    "class Bad(Item):\n    title: str | None":
        "Bad.title: Item has a column of that name; give this one another",
    "class Bad(Item):\n    title = 'x'":
        "Bad.title: Item has a column of that name, which would be hidden; give this one another",
    "class Bad(Item):\n    def lender(self): pass":
        "Bad.lender: Item has a column of that name, which would be hidden; give this one another",
    "class Bad(Named):\n    label = 'x'":
        "Bad.label: its abstract base has a column of that name, which would be hidden;",
    "class Bad(Item):\n    text: str | None = sg.column(name='Title')":
        "Bad: Item.title and Bad.text are both column 'Title' in the database; give one another "
        "name=",
    "class Bad(sg.Table):\n    a: int = sg.column(0, name='x')\n    b: int = sg.column(0, name='x')":
        "Bad: Bad.a and Bad.b are both column 'x' in the database; give one another name=",
    "class Bad(sg.Table):\n    a: int = sg.column(0, was='x')\n    b: int = sg.column(0, was='x')":
        "Bad.a and Bad.b: both were 'x'; one can be, so take was= from the other",
    "class Bad(sg.Table):\n    a: int = sg.column(0, was='b')\n    b: int = sg.column(0, was='a')":
        "Bad.a: was='b' leads back to 'a', and names that change places are not told from names "
        "that stay; rename one to a third name and apply that first",
    "class Bad(sg.Table):\n    a: int = sg.column(0, was='b')\n    b: int = sg.column(0, was='c')\n"
    "    c: int = sg.column(0, was='a')": "Bad.a: was='b' leads back to 'a',",
    "class Bad(sg.Table):\n" + "".join(f"    a{i}: int\n" for i in range(113)):
        "Bad: a table has at most 112 columns, inherited ones included, not 113; move some to a "
        "class that it refers to",
    "class Bad(Item, Person): pass": "Bad derives from Item and Person; a table has one base",
    "class Bad(sg.Table, dict): pass":
        "Bad cannot derive from dict: multiple bases have instance lay-out conflict; beside its "
        "table's base a class takes plain mixins without slots",
    "class Bad(sg.Table, name='A..B'): pass":
        "Bad: 'A..B' is no name for a table; write words with dots between them, as in Library.Book",
    "class Bad(sg.Table, name=''): pass": "Bad: '' is no name for a table;",
    r"class Bad(sg.Table, name='A\0'): pass": r"Bad: 'A\x00' is no name for a table;",
    "class Bad(sg.Table, name=5): pass": "Bad: name= takes the name of a table, not 5",
    "class Bad(sg.Table, was=5): pass": "Bad: was= takes the name of a table, not 5",
    "class Bad(sg.Table, was='A.'): pass": "Bad: 'A.' is no name for a table;",
    "class Bad(sg.Table, name='Sagleme.Internal.Bad'): pass":
        "Bad: 'Sagleme.Internal.Bad' is in a name space of the system's tables; choose another one",
    "class Bad(sg.Table, nmae='x'): pass":
        "Bad: a table takes name, was, abstract and indexes, not nmae",
    "class Bad(sg.Table, indexes=[sg.Index('b')]):\n    a: int":
        "Bad: an index names 'b', which is no column; there are a",
    "class Bad(sg.Table, indexes=[sg.Index('b')]): pass":
        "Bad: an index names 'b', which is no column; there are none",
    "class Bad(sg.Table, indexes=[sg.Index()]):\n    a: int":
        'Bad: an index takes names of columns, as in sg.Index("author", "-year"), not ()',
    "class Bad(sg.Table, indexes=[sg.Index(5)]):\n    a: int":
        'Bad: an index takes names of columns, as in sg.Index("author", "-year"), not (5,)',
    "class Bad(sg.Table, indexes=[sg.Index('a', '-a')]):\n    a: int":
        "Bad: an index names 'a' twice",
    "class Bad(sg.Table, indexes=[sg.Index('--a')]):\n    a: int":
        "Bad: an index names '-a', which is no column; there are a",
    "class Bad(sg.Table, indexes=[sg.Index(*(f'a{i}' for i in range(16)))]):\n    a0: int":
        "Bad: an index has at most 15 columns, not 16",
    "class Bad(sg.Table, indexes=[sg.Index('a', comment=5)]):\n    a: int":
        "Bad: sg.Index: a comment is a text, not 5",
    "class Bad(sg.Table, indexes=[sg.Index('a')]):\n    a: int = sg.column(0, index=True)":
        "Bad: an index over a is declared twice; leave one out",
    "class Bad(sg.Table, indexes=['a']):\n    a: int":
        "Bad: indexes=[...] takes sg.Index(...), not 'a'",
    "class Bad(sg.Table, indexes='a'):\n    a: int":
        "Bad: indexes=[...] takes a list of sg.Index(...), not 'a'",
}


@pytest.mark.parametrize("source", CLASSES)
def test_classes(source):
    refused(source, CLASSES[source])


def test_names_around_the_class_are_looked_up_too():
    class Local(sg.Table):
        a: int

    class Good(sg.Table):
        other: "Local | None"

    assert Good.other._target_class() is Local


# What only shows when the classes come together: behind BEFORE, the models, and what is said.
TOGETHER = {
    "class Bad(sg.Table):\n    a: 'Nowhere | None'": (
        "[Bad]", "Bad.a refers to no class 'Nowhere'; define it, or import its module"),
    "class Bad(sg.Table):\n    a: sg.Back['Nowhere', 'b']": (
        "[Bad]", "Bad.a refers to no class 'Nowhere'; define it, or import its module"),
    "class Bad(sg.Table):\n    a: 'Later | None'\nclass Later(sg.Table, abstract=True): pass": (
        "[Bad]", "Bad.a refers to no class 'Later'"),
    "class Bad(sg.Table):\n    a: sg.Back['Item', 'owner']": (
        "[Bad]", "Bad.a: Item has no reference 'owner'; it has lender"),
    "class Bad(sg.Table):\n    a: sg.Back[Item, 'lender']": (
        "[Bad]", "Bad.a: Item.lender leads to Person, never to Bad; name a reference to Bad"),
    "class Bad(sg.Table, name='Item'): pass": (
        "[Item, Bad]", "program.Item and program.Bad are both table 'Item'; give one another name="),
    "class Bad(Item): pass\nclass Item(sg.Table): pass": (
        "[Bad, Item]", "program.Item was defined twice, and both are in use here: define the classes "
                       "that derive from it or refer to it again too"),
    "class Bad(sg.Table, was='Old'): pass\nclass Worse(sg.Table, was='Old'): pass": (
        "[Bad, Worse]", "Bad and Worse: both were 'Old'; one can be, so take was= from the other"),
    "class Bad(sg.Table, was='Worse'): pass\nclass Worse(sg.Table, was='Bad'): pass": (
        "[Bad, Worse]", "Bad: was='Worse' leads back to 'Bad', and names that change places"),
    "": ("[5]", "models=[...] takes classes derived from sg.Table, not 5"),
    " ": ("[Plain]", "models=[...] takes classes derived from sg.Table, not <class 'program.Plain'>"),
    "  ": ("Item", "models= takes a list of classes, not <table Item>"),
    "   ": ("5", "models= takes a list of classes, not 5"),
}


@pytest.mark.parametrize("source", TOGETHER)
def test_models(source):
    models, message = TOGETHER[source]
    refused(f"{source}\nsg.open(None, models={models})", message)


def test_a_base_that_the_models_lack_comes_with_them():
    run("""
class Book(Item):
    pages: int
with sg.open(None, models=[Book]) as db:
    db.apply()
    assert sorted(db.classes) == ["Book", "Item", "Person"]
""")


def test_every_type_can_have_a_unique_index():
    run("""
class Good(sg.Table):
    a: int = sg.column(0, unique=True)
    b: str | None = sg.column(unique=True)
    c: bytes | None = sg.column(unique=True)
    d: Decimal = sg.column(Decimal(0), unique=True)
    e: float = sg.column(0.0, unique=True)
    f: sg.Float32 = sg.column(0.0, unique=True)
    g: bool = sg.column(False, unique=True)
    h: datetime = sg.column(datetime(2020, 1, 1, tzinfo=timezone.utc), unique=True)
    i: sg.ULong = sg.column(0, unique=True)
    j: sg.Key | None = sg.column(unique=True)
    k: Person | None = sg.ref(unique=True)
with sg.open(None, models=[Good]) as db:
    db.apply()
    with db.write() as tx:
        tx.new(Good)
        try:
            tx.new(Good)
        except sg.DuplicateKey:
            tx.rollback()
        else:
            raise AssertionError("two objects with equal values")
""")


# ---- classes that do not fit the database: the first class is applied, the second is not

FIT = {
    "a: str | None": "background  change column Thing.a from int to str | None",
    "a: int | None": "background  change column Thing.a from int to int | None",
    "a: sg.ULong": "background  change column Thing.a from int to sg.ULong",
    "b: float = sg.column(0.0, was='a')": "background  change column Thing.b from int to float",
    "count: bool = sg.column(False, name='a')": "background  change column Thing.a from int to bool",
    "a: bytes | None": "lossy       drop column Thing.a, with its values",
    "n: int": "background  change column Thing.n from int | None to int",
    "r: 'Other | None'": "instant     change column Thing.r from Thing | None to Other | None",
    "a: int = 0": "lossy       drop column Thing.n, with its values",
}


@pytest.mark.parametrize("column", FIT)
def test_models_that_do_not_fit(column):
    def make(body, step=""):
        run(f"""
class Other(sg.Table): pass
class Thing(sg.Table):
{body}
with sg.open("fit", models=[Other, Thing]) as db:
    assert {step!r} in str(db.plan()), db.plan()
    db.apply()
""")

    make("    a: int\n    n: int | None\n    r: 'Thing | None'")

    def change():
        with pytest.raises(sg.SchemaError, match="nothing was changed; not allowed:\nlossy ") as caught:
            make("    " + column, FIT[column])
        assert caught.value.hint

    in_child(change)


def test_objects_of_a_class_that_does_not_fit():
    run("""
class Thing(sg.Table, name="T"):
    a: int
with sg.open("fit", models=[Thing]) as db:
    db.apply()
""")

    def change():
        run("""
class Thing(sg.Table, name="T"):
    a: float
class Absent(sg.Table):
    a: int
with sg.open("fit", models=[Thing, Absent]) as db, db.read() as tx:
    for cls, words in ((Thing, "class Thing does not fit table T: column a is int there and float "
                               "as Thing.a; db.plan() shows more"),
                       (Absent, "the database has no table Absent for class Absent; db.apply() "
                                "creates it")):
        try:
            tx.all(cls).count()
        except sg.SchemaError as error:
            assert words in str(error), error
        else:
            raise AssertionError(cls)
""")

    in_child(change)


def test_labels_that_are_none():
    with sg.open(None, models=[]) as db:
        for bad in ({"refused"}, {"fast"}, "instant"):
            with pytest.raises(sg.WrongType, match="allow takes a set of instant, background, lossy"):
                db.apply(allow=bad)
