#!/usr/bin/env python3
"""Runs SQL logic tests over sagleme databases.

  run_logic_tests.py --extension build/sql/sagleme.so [FOLDER]

FOLDER, or the environment variable SAGLEME_SQLLOGICTEST, names a folder of files of the public
corpus, plain (*.test) or packed (*.test.xz). Without either the exit status is 77: skipped.

Tables and indexes are defined with sagleme_exec instead of CREATE TABLE and CREATE INDEX; a key of
integers becomes an ordinary column with a unique index. All else is run as it is written. A record
passes when its result is the expected one. SQLite runs the same records over its own tables and is
the judge: where the answers are alike and the file wants another one, which older and newer versions
gave, the record is counted apart and shown.
"""

import argparse
import collections
import hashlib
import lzma
import os
import pathlib
import re
import sqlite3
import subprocess
import sys
import tempfile

SKIPPED = 77
HASHED = re.compile(r"(\d+) values hashing to ([0-9a-f]{32})")
PRINTER = sqlite3.connect(":memory:")
TYPES = {"INTEGER": "bigint", "FLOAT": "double", "TEXT": "text", "VARCHAR": "text"}


class Record:
    """A statement or a query with what is expected of it."""

    def __init__(self, line, words, conditions):
        self.line = line
        self.kind = words[0]
        self.words = words[1:]
        self.conditions = conditions
        self.sql = ""
        self.expected = []

    def runs(self):
        for condition, engine in self.conditions:
            if (condition == "onlyif") != (engine == "sqlite"):
                return False
        return True


def read_records(lines):
    """Yields the records of a file, `halt` and `hash-threshold` among them."""
    conditions = []
    number = 0
    while number < len(lines):
        line = lines[number]
        number += 1
        words = line.split("#")[0].split() if not line.startswith("#") else []
        if not words:
            continue
        if words[0] in ("onlyif", "skipif"):
            conditions.append((words[0], words[1]))
            continue
        record = Record(number, words, conditions)
        conditions = []
        if record.kind in ("statement", "query"):
            text = []
            while number < len(lines) and lines[number].strip() and lines[number] != "----":
                text.append(lines[number])
                number += 1
            record.sql = "\n".join(text)
            if number < len(lines) and lines[number] == "----":
                number += 1
                while number < len(lines) and lines[number].strip():
                    record.expected.append(lines[number])
                    number += 1
        yield record


def quoted(text):
    return "'" + text.replace("'", "''") + "'"


def define(statement):
    return "SELECT sagleme_exec(" + quoted(statement) + ", 'logic')"


def rewrite_table(name, columns):
    made = []
    indexes = []
    for column in columns.split(","):
        words = column.split()
        kind = TYPES[re.match(r"[A-Za-z]+", words[1]).group().upper()]
        made.append(f"{words[0]} {kind}")
        if re.search(r"PRIMARY\s+KEY|UNIQUE", column, re.I):
            indexes.append(f"CREATE UNIQUE INDEX {name}_{words[0]} ON {name} ({words[0]})")
    return [define(f"CREATE TABLE {name} ({', '.join(made)})")] + [define(each) for each in indexes]


def rewrite(sql):
    """What stands for a statement over our tables."""
    table = re.fullmatch(r"\s*CREATE\s+TABLE\s+(\w+)\s*\((.*)\)\s*", sql, re.I | re.S)
    if table:
        return rewrite_table(table.group(1), table.group(2))
    if re.match(r"\s*(CREATE\s+(UNIQUE\s+)?INDEX|DROP\s+(TABLE|INDEX))\b", sql, re.I):
        return [define(" ".join(sql.split()))]
    return [sql]


def statements_of(sql):
    text = ""
    for line in sql.splitlines():
        text += line + "\n"
        if sqlite3.complete_statement(text):
            yield text.strip().rstrip(";")
            text = ""
    if text.strip():
        yield text


def shown(cell, letter):
    """A value as the corpus writes it."""
    if cell is None:
        return "NULL"
    if letter == "I":
        if isinstance(cell, str):
            found = re.match(r"\s*[-+]?\d+", cell)
            cell = int(found.group()) if found else 0
        whole = int(cell) & 0xFFFFFFFF
        return str(whole - 2**32 if whole >= 2**31 else whole)
    if letter == "R":
        # SQLite writes 16 digits at most and zeros behind them.
        return PRINTER.execute("SELECT printf('%.3f', ?)", (cell,)).fetchone()[0]
    if isinstance(cell, float):
        cell = repr_of_real(cell)
    text = str(cell)
    if not text:
        return "(empty)"
    return "".join(each if " " <= each <= "~" else "@" for each in text)


def repr_of_real(value):
    text = f"{value:.15g}"
    return text if "." in text or "e" in text or "inf" in text else text + ".0"


def ordered(rows, letters, order):
    lines = [[shown(cell, letters[i]) for i, cell in enumerate(row)] for row in rows]
    if order == "rowsort":
        lines.sort()
    values = [value for line in lines for value in line]
    if order == "valuesort":
        values.sort()
    return values


def matches(values, expected):
    hashed = HASHED.fullmatch(expected[0]) if len(expected) == 1 else None
    if hashed is None:
        return values == expected
    digest = hashlib.md5("".join(value + "\n" for value in values).encode()).hexdigest()
    return [str(len(values)), digest] == [hashed.group(1), hashed.group(2)]


class Side:
    """One connection, which says what it answers: rows, or the text of an error."""

    def __init__(self, extension=None):
        self.connection = sqlite3.connect(":memory:", isolation_level=None)
        self.rewrites = extension is not None
        if self.rewrites:
            self.connection.enable_load_extension(True)
            self.connection.load_extension(extension)

    def run(self, sql):
        rows = []
        try:
            for statement in statements_of(sql):
                for written in rewrite(statement) if self.rewrites else [statement]:
                    rows = self.connection.execute(written).fetchall()
        except sqlite3.Error as error:
            return None, str(error)
        return rows, ""


class File:
    def __init__(self, path, extension, directory):
        self.path = path
        self.counts = collections.Counter()
        self.failures = []
        self.notes = []
        self.ours = Side(extension)
        self.native = Side()
        self.ours.connection.execute("SELECT sagleme_attach(?, 'logic')", (directory,))

    def run(self):
        opened = lzma.open if self.path.suffix == ".xz" else open
        with opened(self.path, "rt", encoding="utf-8") as stream:
            lines = stream.read().split("\n")
        for record in read_records(lines):
            if not record.runs():
                self.counts["other engines"] += 1
            elif record.kind == "halt":
                break
            elif record.kind == "statement":
                self.statement(record)
            elif record.kind == "query":
                self.query(record)
        return not self.failures

    def fail(self, record, text):
        self.counts["failed"] += 1
        self.failures.append(f"{self.path.name}:{record.line}: {record.sql}\n  {text}")

    def statement(self, record):
        ours, error = self.ours.run(record.sql)
        native, _ = self.native.run(record.sql)
        wanted = record.words[0] == "ok"
        if (ours is not None) != wanted:
            self.fail(record, error or "an error was expected")
        elif (native is not None) != wanted:
            self.fail(record, "SQLite itself answers otherwise")
        else:
            self.counts["statements"] += 1

    def query(self, record):
        letters = record.words[0]
        order = record.words[1] if len(record.words) > 1 else "nosort"
        ours, error = self.ours.run(record.sql)
        native, native_error = self.native.run(record.sql)
        values = None if ours is None else ordered(ours, letters, order)
        judged = None if native is None else ordered(native, letters, order)
        if values != judged:
            self.fail(record, f"answers {(values or [error])[:20]}, "
                              f"SQLite {(judged or [native_error])[:20]}")
        elif values is not None and matches(values, record.expected):
            self.counts["queries"] += 1
        else:
            self.counts["otherwise in this SQLite"] += 1
            self.notes.append(f"{self.path.name}:{record.line}: {record.sql}\n"
                              f"  SQLite {sqlite3.sqlite_version} answers the same: "
                              f"{(values or [error])[:20]}, expected {record.expected[:20]}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--extension", required=True)
    parser.add_argument("--sagleme", required=True, help="the command, which makes databases")
    parser.add_argument("folder", nargs="?", default=os.environ.get("SAGLEME_SQLLOGICTEST"))
    options = parser.parse_args()
    if not options.folder:
        print("SAGLEME_SQLLOGICTEST names no folder: skipped")
        return SKIPPED
    files = sorted(each for each in pathlib.Path(options.folder).iterdir()
                   if each.name.endswith((".test", ".test.xz")))
    if not files:
        print(f"{options.folder} holds no *.test and no *.test.xz")
        return 2
    total = collections.Counter()
    for path in files:
        with tempfile.TemporaryDirectory(prefix="sagleme_logic_") as directory:
            database = os.path.join(directory, "logic")
            subprocess.run([options.sagleme, "create", database], check=True,
                           capture_output=True)
            file = File(path, options.extension, database)
            file.run()
            file.ours.connection.close()
        total.update(file.counts)
        print(f"{path.name}: {dict(file.counts)}", flush=True)
        for text in file.failures[:10] + file.notes[:10]:
            print(text)
    print(f"all of {len(files)} files: {dict(total)}")
    return 1 if total["failed"] else 0


if __name__ == "__main__":
    sys.exit(main())
