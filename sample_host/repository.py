"""The repository that is served: its directory of sources and its database."""

import os
import sqlite3
from collections.abc import Generator, Iterable
from contextlib import closing, contextmanager
from pathlib import Path
from typing import Any

BUSY_TIMEOUT_S = 2.0  # how long a call waits for another writer before it raises

# STRICT, so that no column can hold what the tracker could not read back.
_SCHEMA = (
    """CREATE TABLE IF NOT EXISTS tool_health (
           tool_name TEXT PRIMARY KEY, call_count INTEGER, error_count INTEGER,
           last_error TEXT, disabled_at TEXT, updated_at TEXT) STRICT""",
    "CREATE TABLE IF NOT EXISTS schema_info (key TEXT PRIMARY KEY, value TEXT) STRICT",
)


# Every call opens a connection of its own and is one transaction, durable when the call returns. So
# threads share nothing, and a file that was locked or missing at one call may be fine at the next.
class Database:
    """An SQLite file in WAL mode, for any number of threads. All calls block."""

    def __init__(self, path: Path) -> None:
        self._path = path.absolute()

    @contextmanager
    def _transaction(self) -> Generator[sqlite3.Connection]:
        uri = self._path.as_uri()
        if not os.access(self._path.parent, os.W_OK):
            uri += "?immutable=1"  # WAL mode needs files beside the database to write
        db = sqlite3.connect(uri, timeout=BUSY_TIMEOUT_S, isolation_level="IMMEDIATE", uri=True)
        with closing(db):
            db.execute("PRAGMA journal_mode = WAL")
            for table in _SCHEMA:
                db.execute(table)
            with db:
                yield db

    def fetchall(self, sql: str, params: tuple[Any, ...] = ()) -> list[tuple[Any, ...]]:
        with self._transaction() as db:
            return db.execute(sql, params).fetchall()

    def fetchone(self, sql: str, params: tuple[Any, ...] = ()) -> tuple[Any, ...] | None:
        with self._transaction() as db:
            return db.execute(sql, params).fetchone()

    def execute(self, sql: str, params: tuple[Any, ...] = ()) -> None:
        with self._transaction() as db:
            db.execute(sql, params)

    def executemany(self, sql: str, params: Iterable[tuple[Any, ...]]) -> None:
        with self._transaction() as db:
            db.executemany(sql, params)


class Repository:
    """A directory of sources and the database that belongs to it."""

    def __init__(self, directory: Path, database: Path) -> None:
        self.directory = directory.absolute()
        self.db = Database(database)
