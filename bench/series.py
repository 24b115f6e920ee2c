#!/usr/bin/env python3
"""Measures the query of a plot: one field of one vehicle, one hour at 10 Hz, in a database of 10 million samples.

    bench/series.py --build build/release [--rows 10000000] [--file FILE | --postgres]

Fills a database that vlm-backend has created, as envelopes of a minute would: vehicle after vehicle, event after event.
Then asks a running vlm-backend over HTTP, and prints times and processor times in ms. With --file, the database
stays and is used again. With --postgres, a server of its own is filled instead, the samples received on seven days, and
its plans tell which partitions were read.
"""
import argparse
import contextlib
import http.client
import json
import os
import re
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests/support"))
from servers import Postgres  # noqa: E402

VEHICLES = 10
EVENTS = [("ChassisProxy", "velocityInfo", "chassis_velocity_info"), ("GNSSProxy", "positions", "gnss_positions")]
COLUMN = "gnss_positions.latitude"
BEGIN = 1_700_000_000_000  # ms
PERIOD = 100  # ms
MINUTE = 60_000
DAY = 24 * 60 * MINUTE
REPEAT = 20
DAYS = 7
# Plans with what they read, as the server makes them for the backend.
EXPLAIN = ["session_preload_libraries=auto_explain", "auto_explain.log_min_duration=0", "auto_explain.log_analyze=on",
           "auto_explain.log_timing=off"]

def processor_ms(pids):
    return sum(int(path.read_text().split()[0]) for pid in pids for path in Path(f"/proc/{pid}/task").glob("*/schedstat")) / 1e6


@contextlib.contextmanager
def backend(program, database):
    """Its port and its process."""
    process = subprocess.Popen([program, "--database", database, "--prefix", "vlm/none", "--follow", "none",
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


def fill_server(database, rows):
    """The same rows, in as many stretches as there are days."""
    ask = database.ask
    per_day = rows // (VEHICLES * len(EVENTS) * DAYS)
    ask(f"INSERT INTO vehicles (name, prefix) SELECT 'v' || i, 'vlm/v' || i FROM generate_series(0, {VEHICLES - 1}) i")
    events = " UNION ALL ".join(f"SELECT id FROM events WHERE service = '{service}' AND resource = '{resource}'"
                                for service, resource, _ in EVENTS)
    for day in range(DAYS):
        start = (BEGIN // DAY + day) * DAY + 8 * 60 * MINUTE
        name = "samples_" + time.strftime("%Y%m%d", time.gmtime(start / 1000))
        ask(f"CREATE TABLE {name} (LIKE samples INCLUDING DEFAULTS); ALTER TABLE samples ATTACH PARTITION {name} "
            f"FOR VALUES FROM ({start // DAY * DAY}) TO ({start // DAY * DAY + DAY})")
        ask("INSERT INTO reports (message_id, vehicle, application, name, sequence, catalog, received, measured_from, "
            f"measured_to, samples, wire_bytes, envelope) SELECT '{day}-' || v.id || '-' || m, v.id, '', '', m, '', "
            f"{start + MINUTE + 500} + m * {MINUTE}, {start} + m * {MINUTE}, {start + MINUTE - PERIOD} + m * {MINUTE}, "
            f"{len(EVENTS) * MINUTE // PERIOD}, 0, '' FROM generate_series(0, {per_day * PERIOD // MINUTE}) m, vehicles v")
        ask("INSERT INTO samples SELECT 0, v.id, e.id, 1, "
            f"{start} + i * {PERIOD}, {start + MINUTE + 500} + i * {PERIOD} / {MINUTE} * {MINUTE}, "
            "jsonb_build_object('altitudeMeanSeaLevel', i % 600 + 0.5, 'direction', 12.25, 'latitude', 48 + i * 7919 % 10000000 / 1e7, "
            "'longitude', 9 + i / 1e7, 'satellitesUsed', 11, 'timestampValid', true, 'type', 1, 'velocity', 33.5) "
            f"FROM generate_series(0, {per_day // (MINUTE // PERIOD)}) m, vehicles v, ({events}) e, "
            f"generate_series(m::bigint * {MINUTE // PERIOD}, LEAST({per_day}, (m + 1)::bigint * {MINUTE // PERIOD}) - 1) i")
    ask("INSERT INTO latest SELECT DISTINCT ON (vehicle, event, instance) vehicle, event, instance, measured, received, vals "
        "FROM samples ORDER BY vehicle, event, instance, measured DESC")
    ask("VACUUM ANALYZE")


def measure(program, database, middle, server):
    """Asks for each, and prints a line for it. `server`: of PostgreSQL, or None."""
    with backend(program, database) as (port, pid), contextlib.closing(http.client.HTTPConnection("127.0.0.1", port)) as peer:
        for what, target in (
                ("an hour at 10 Hz, one field, 1000 bins",
                 f"series?column={COLUMN}&from={middle - 1_800_000}&to={middle + 1_800_000}&width=1000"),
                ("the track of that hour", f"track?from={middle - 1_800_000}&to={middle + 1_800_000}"),
                ("a minute of it", f"series?column={COLUMN}&from={middle}&to={middle + MINUTE}&width=1000"),
                ("all that the vehicle sent", f"series?column={COLUMN}&width=1000"),
                ("latest values", "latest")):
            log = server.folder / "log" if server else Path(os.devnull)
            logged = log.stat().st_size
            times, processor = [], []
            for _ in range(REPEAT):
                pids = [pid, *(server.processes() if server else [])]
                began, used = time.perf_counter(), processor_ms(pids)
                peer.request("GET", f"/api/vehicles/v3/{target}")
                answer = peer.getresponse()
                body = answer.read()
                times.append((time.perf_counter() - began) * 1000)
                processor.append(processor_ms(pids) - used)
                assert answer.status == 200, body
            samples = json.loads(body)
            samples = samples["samples"] if isinstance(samples, dict) else len(samples)
            print(f"{what}: {samples} samples, median {statistics.median(times):.1f} ms, "
                  f"first {times[0]:.1f} ms, least processor time {min(processor):.1f} ms")
            if server:
                plans = log.read_text()[logged:]
                read = sorted(set(re.findall(r" on (samples_\d{8})", plans)))
                print(f"  partitions in its plans: {len(read)} of {DAYS} ({', '.join(read)})")
                if what.startswith("an hour"):
                    print(next(plan for plan in re.findall(r"Query Text: SELECT MIN\(measured\), MIN.*?(?=\n\S)", plans, re.DOTALL)))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--rows", type=int, default=10_000_000)
    parser.add_argument("--file")
    parser.add_argument("--postgres", action="store_true")
    options = parser.parse_args()
    program = str(options.build.resolve() / "backend/vlm-backend")
    with tempfile.TemporaryDirectory(prefix="vlm-series-") as folder:
        if options.postgres:
            os.chmod(folder, 0o755)
            server = Postgres(folder, EXPLAIN)
            try:
                with backend(program, server.url):
                    pass  # creates the tables
                fill_server(server, options.rows)
                count, size = server.ask("SELECT COUNT(*), pg_database_size('fleet') >> 20 FROM samples").split("|")
                print(f"{count} samples, {size} MiB")
                first, last = map(int, server.ask("SELECT MIN(measured), MAX(measured) FROM samples WHERE received / "
                                                  f"{DAY} = {BEGIN // DAY + DAYS // 2}").split("|"))
                measure(program, server.url, (first + last) // 2, server)
            finally:
                server.stop()
            return
        file = options.file or str(Path(folder) / "vehicles.db")
        if not Path(file).exists():
            with backend(program, file):
                pass  # creates the tables
            fill(file, options.rows)
        with contextlib.closing(sqlite3.connect(f"file:{file}?mode=ro", uri=True)) as sql:
            count, first, last = sql.execute("SELECT COUNT(*), MIN(measured), MAX(measured) FROM samples").fetchone()
        print(f"{count} samples, {Path(file).stat().st_size >> 20} MiB")
        measure(program, file, (first + last) // 2, None)


if __name__ == "__main__":
    main()
