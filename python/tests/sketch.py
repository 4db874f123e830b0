import sagleme as sg

class Person(sg.Table, name="Library.Person"):
    name: str | None
    loans: sg.Back["Item", "lender"]                # who refers to me

class Item(sg.Table, name="Library.Item"):
    title: str | None = sg.column(index=True)
    year: int = 0
    lender: Person | None = sg.ref()

class Book(Item):
    pages: int = 0
    isbn: str | None = sg.column(unique=True, was="Code")   # a rename, by identity

with sg.open("shelf", models=[Person, Item, Book]) as db:
    print(db.plan())                                # each step: instant, background, lossy, refused
    db.apply(allow={"instant", "background"})
    with db.write() as tx:                          # rolls back on an exception
        ada = tx.new(Person, name="Ada")
        tx.new(Book, title="Invisible Cities", year=1972, lender=ada)
    with db.read() as tx:
        for item in tx.all(Item).where(Item.year < 1980).order(Item.year.desc()).prefetch(Item.lender):
            print(type(item).__name__, item.title, item.lender and item.lender.name)
        frame = tx.all(Book).select("title", "year", "lender.name").to_pandas()
