#!/usr/bin/env python3
"""Measures the query of a plot: one field of one vehicle, one hour at 10 Hz, in a database of 10 million samples.

    bench/series.py --build build/release [--rows 10000000] [--file FILE]

Fills a database that vlm-backend has created, as envelopes of a minute would: vehicle after vehicle, event after event.
Then asks a running vlm-backend over HTTP, and prints times and processor times in ms. With --file, the database
stays and is used again.
"""
import argparse
import contextlib
import http.client
import json
import sqlite3
import statistics
import subprocess
import tempfile
import time
from pathlib import Path

VEHICLES = 10
EVENTS = [("ChassisProxy", "velocityInfo", "chassis_velocity_info"), ("GNSSProxy", "positions", "gnss_positions")]
COLUMN = "gnss_positions.latitude"
BEGIN = 1_700_000_000_000  # ms
PERIOD = 100  # ms
MINUTE = 60_000
REPEAT = 20


def processor_ms(pid):
    return sum(int(path.read_text().split()[0]) for path in Path(f"/proc/{pid}/task").glob("*/schedstat")) / 1e6


@contextlib.contextmanager
def backend(program, file):
    """Its port and its process."""
    process = subprocess.Popen([program, "--database", file, "--prefix", "vlm/none", "--follow", file + ".none",
                                "--listen", "127.0.0.1:0"], stdout=subprocess.PIPE, text=True)
    try:
        line = next(line for line in process.stdout if "the page is at" in line)
        yield int(line.rstrip().rstrip("/").rsplit(":", 1)[1]), process.pid
    finally:
        process.terminate()
        process.wait(10)


def fill(file, rows):
    sql = sqlite3.connect(file)
    sql.execute("PRAGMA journal_mode = WAL")
    sql.execute("PRAGMA synchronous = OFF")
    events = [sql.execute("SELECT id, resource FROM events WHERE service = ? AND resource = ?", event[:2]).fetchone()
              for event in EVENTS]
    for vehicle in range(VEHICLES):
        sql.execute("INSERT INTO vehicles (name, prefix) VALUES (?, ?)", (f"v{vehicle}", f"vlm/v{vehicle}"))
    ids = [row[0] for row in sql.execute("SELECT id FROM vehicles ORDER BY id")]
    values = ('{"altitudeMeanSeaLevel":%d.5,"direction":12.25,"latitude":48.%07d,"longitude":9.%07d,"satellitesUsed":11,'
              '"timestampValid":true,"type":1,"velocity":33.5}')
    indexes = sql.execute("SELECT name, sql FROM sqlite_master WHERE type = 'index' AND tbl_name = 'samples'").fetchall()
    for name, _ in indexes:
        sql.execute(f"DROP INDEX {name}")  # written at the end, that takes less time
    per_minute = MINUTE // PERIOD
    minutes = rows // (VEHICLES * len(events) * per_minute)
    for minute in range(minutes):
        start = BEGIN + minute * MINUTE
        for vehicle in ids:
            for event, _ in events:
                sql.executemany("INSERT INTO samples VALUES (?, ?, ?, 1, ?, ?, ?)",
                                ((minute, vehicle, event, start + i * PERIOD, start + MINUTE + 500,
                                  values % (i, i * 7919 % 10_000_000, minute)) for i in range(per_minute)))
        sql.commit()
    sql.executemany("INSERT INTO latest VALUES (?, ?, 1, ?, ?, ?)",
                    ((vehicle, event, start + MINUTE - PERIOD, start + MINUTE + 500, values % (1, 2, minute))
                     for vehicle in ids for event, _ in events))
    for _, statement in indexes:
        sql.execute(statement)
    sql.commit()
    sql.execute("PRAGMA wal_checkpoint(TRUNCATE)")
    sql.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--rows", type=int, default=10_000_000)
    parser.add_argument("--file")
    options = parser.parse_args()
    program = str(options.build / "backend/vlm-backend")
    with tempfile.TemporaryDirectory() as folder:
        file = options.file or str(Path(folder) / "vehicles.db")
        if not Path(file).exists():
            with backend(program, file):
                pass  # creates the tables
            fill(file, options.rows)
        with contextlib.closing(sqlite3.connect(f"file:{file}?mode=ro", uri=True)) as sql:
            count, first, last = sql.execute("SELECT COUNT(*), MIN(measured), MAX(measured) FROM samples").fetchone()
        middle = (first + last) // 2
        with backend(program, file) as (port, pid), contextlib.closing(http.client.HTTPConnection("127.0.0.1", port)) as peer:
            print(f"{count} samples, {Path(file).stat().st_size >> 20} MiB")
            for what, target in (
                    ("an hour at 10 Hz, one field, 1000 bins",
                     f"series?column={COLUMN}&from={middle - 1_800_000}&to={middle + 1_800_000}&width=1000"),
                    ("the track of that hour", f"track?from={middle - 1_800_000}&to={middle + 1_800_000}"),
                    ("a minute of it", f"series?column={COLUMN}&from={middle}&to={middle + MINUTE}&width=1000"),
                    ("all that the vehicle sent", f"series?column={COLUMN}&width=1000"),
                    ("latest values", "latest")):
                times, processor = [], []
                for _ in range(REPEAT):
                    began, used = time.perf_counter(), processor_ms(pid)
                    peer.request("GET", f"/api/vehicles/v3/{target}")
                    answer = peer.getresponse()
                    body = answer.read()
                    times.append((time.perf_counter() - began) * 1000)
                    processor.append(processor_ms(pid) - used)
                    assert answer.status == 200, body
                samples = json.loads(body)
                samples = samples["samples"] if isinstance(samples, dict) else len(samples)
                print(f"{what}: {samples} samples, median {statistics.median(times):.1f} ms, "
                      f"first {times[0]:.1f} ms, least processor time {min(processor):.1f} ms")


if __name__ == "__main__":
    main()
