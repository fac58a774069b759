#!/usr/bin/env python3
"""Runs the feeder and a client glued together from libraries (glued_client) against the market simulator, in turns and in
one run, and prints what an event costs either of them.

usage: bench/live/compare.py [--bin FOLDER] [--repeat N] [--events N] [--seconds N] [--long] [PART ...]

Parts: speed (CPU time per event until it is committed and events per second, at full speed with one event per TLS
record), latency (from sending to the record being readable by another process, at 5,000 events a second), start (start
to first record, memory), records (final records of feeder and client against those computed from the simulator's log; with
--long 60 s at 5,000 events a second and 5 s at full speed). Without a part: all of them.
"""
import argparse
import base64
import json
import os
import shutil
import signal
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request

import expected_records

APP = "Quenmark_Tradier_1_"
PAGE = os.sysconf("SC_PAGE_SIZE")
TICK = os.sysconf("SC_CLK_TCK")
LOOKED_AT = 5


class Simulator:
    def __init__(self, bin_folder, *arguments):
        self.process = subprocess.Popen([f"{bin_folder}/feeder-sim", "--with-parent", *map(str, arguments)],
                                        stdout=subprocess.PIPE, text=True)
        ports = json.loads(self.process.stdout.readline())
        self.https, self.http, self.ca = ports["https"], ports["http"], ports["ca"]
        parts = self.ask("/gmt/", "@").split("TZM")
        self.minutes_west = int(parts[1].split("|")[0])

    def ask(self, path, body=None):
        request = urllib.request.Request(f"http://127.0.0.1:{self.http}{path}", body.encode() if body else None)
        with urllib.request.urlopen(request, timeout=60) as answer:
            return answer.read().decode()

    def events(self):
        return json.loads(self.ask("/sim/state"))["events"]

    def hold(self, on):
        self.ask("/sim/hold", "on" if on else "off")

    def symbols(self, count):
        return [stock["symbol"] for stock in json.loads(self.ask("/cad/", "@"))][:count]

    def end(self):
        self.process.terminate()
        self.process.wait()


def cpu_seconds(pid):
    """User and system time of all threads, ended ones included."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def memory(pid):
    """Resident megabytes: now, and the most there were."""
    sizes = {}
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        for line in file:
            if line.startswith(("VmRSS", "VmHWM")):
                sizes[line[:5]] = int(line.split()[1]) / 1024
    return sizes["VmRSS"], sizes["VmHWM"]


class Client:
    """A program under test: `database` and `query` give its records as keys and values."""

    def __init__(self, folder):
        self.database = os.path.join(folder, "records.db")
        self.process = None

    def commit_time(self):
        """When the log of the database was written last; seconds since 1970."""
        return os.stat(self.database + "-wal").st_mtime

    def wait_idle(self, quiet=0.5):
        while True:
            last = self.commit_time()
            if time.time() - last > quiet:
                return last
            time.sleep(0.05)

    def has_record(self):
        try:
            connection = sqlite3.connect(f"file:{self.database}?mode=ro", uri=True)
            try:
                return connection.execute(self.query).fetchone() is not None
            finally:
                connection.close()
        except sqlite3.Error:
            return False

    def end(self):
        self.process.send_signal(signal.SIGTERM)
        _, status, used = os.wait4(self.process.pid, 0)
        self.process.returncode = status
        return used.ru_utime + used.ru_stime


class Feeder(Client):
    name = "feeder"
    query = ("SELECT e.name, e.value FROM entry e WHERE e.section = (SELECT s.id FROM section s JOIN application a "
             f"ON s.application = a.id WHERE a.folded = x'{APP.lower().encode().hex()}' "
             f"AND s.folded = x'{b'feeder'.hex()}')")

    @classmethod
    def books(cls, symbols):
        keys = ", ".join(f"x'{(symbol.lower() + '-bid@ask').encode().hex()}'" for symbol in symbols)
        return f"{cls.query} AND e.folded IN ({keys})"

    def __init__(self, folder, bin_folder, simulator, symbols):
        super().__init__(folder)
        self.host = subprocess.Popen(["klv.exe", "3600"], executable=shutil.which("sleep"))
        environment = dict(os.environ, FEEDER_STORE=self.database, FEEDER_HOME=folder, SSL_CERT_FILE=simulator.ca)
        base = f"https://localhost:{simulator.https}"
        settings = {("Quenmark", "API"): {"name": "Tradier", "#": "1", "EP": base + "/v1/",
                                          "q": base64.b64encode(b"bench-token").decode(),
                                          "t": base64.b64encode(b"bench-credential").decode()},
                    ("Quenmark", "Hosts"): {"TimeZone": base,
                                            "Stream": f"wss://localhost:{simulator.https}/v1/markets/events"},
                    (APP, "GrafAbertPapel"): {f"chart-{symbol}": symbol for symbol in symbols},
                    (APP, "Descs"): {symbol: "described" for symbol in symbols}}
        # The first write makes the file, the rest would take a process each.
        subprocess.run([f"{bin_folder}/feeder-settings", "set", "Quenmark", "API", "name", "Tradier"], check=True,
                       env=environment)
        self.seed(settings)
        self.started = time.time()
        self.process = subprocess.Popen([f"{bin_folder}/feeder"], env=environment)

    def seed(self, settings):
        connection = sqlite3.connect(self.database)
        for (application, section), values in settings.items():
            names = [name.encode() for name in (application.lower(), application, section.lower(), section)]
            connection.execute("INSERT OR IGNORE INTO application(folded, name) VALUES(?, ?)", names[:2])
            connection.execute("INSERT OR IGNORE INTO section(application, folded, name) "
                               "SELECT id, ?3, ?4 FROM application WHERE folded = ?1 AND ?2 NOT NULL", names)
            connection.executemany(
                "INSERT OR REPLACE INTO entry(section, folded, name, value) SELECT s.id, ?3, ?4, ?5 FROM section s "
                "JOIN application a ON s.application = a.id WHERE a.folded = ?1 AND s.folded = ?2",
                [(names[0], names[2], key.lower().encode(), key.encode(), value.encode())
                 for key, value in values.items()])
        connection.commit()
        connection.close()

    def end(self):
        self.host.kill()
        self.host.wait()
        return super().end()


class Glued(Client):
    name = "glued client"
    query = "SELECT key, value FROM record"

    @classmethod
    def books(cls, symbols):
        keys = ", ".join(f"'{symbol}-bid@ask'" for symbol in symbols)
        return f"{cls.query} WHERE key IN ({keys})"

    def __init__(self, folder, bin_folder, simulator, symbols):
        super().__init__(folder)
        self.started = time.time()
        self.process = subprocess.Popen([f"{bin_folder}/glued_client", str(simulator.https), simulator.ca,
                                         self.database, str(simulator.minutes_west)], stdin=subprocess.PIPE, text=True)
        self.process.stdin.write("\n".join(symbols) + "\n")
        self.process.stdin.close()


class Session:
    """One client on one simulator, subscribed and waiting for its first event."""

    def __init__(self, client, options, symbols, *arguments):
        self.folder = tempfile.mkdtemp(prefix="quenmark-live-", dir=options.folder)
        self.log = os.path.join(self.folder, "events.log")
        arguments = [os.path.join(self.folder, "events.log") if word == "LOG" else word for word in arguments]
        self.simulator = Simulator(options.bin, "--symbols", symbols, *arguments)
        self.simulator.hold(True)
        self.symbols = self.simulator.symbols(symbols)
        self.client = client(self.folder, options.bin, self.simulator, self.symbols)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.client.end()
        self.simulator.end()
        shutil.rmtree(self.folder)

    def wait_subscribed(self):
        while self.simulator.events()["subscriptions"] == 0:
            time.sleep(0.02)
        self.client.wait_idle(0.3)

    def go(self):
        """Events begin."""
        self.pid = self.client.process.pid
        self.cpu = cpu_seconds(self.pid), cpu_seconds(self.simulator.process.pid)
        self.begun = time.time()
        self.simulator.hold(False)

    def cost(self, ended):
        """(events, CPU per event in µs, events/s, the simulator's CPU per event in µs)"""
        events = self.simulator.events()["events"]
        used = cpu_seconds(self.pid) - self.cpu[0], cpu_seconds(self.simulator.process.pid) - self.cpu[1]
        return events, used[0] / events * 1e6, events / (ended - self.begun), used[1] / events * 1e6


def speed(options, client, symbols, kinds, events):
    arguments = ["--rate", 0, "--events", events] + (["--event-kinds", kinds] if kinds else [])
    with Session(client, options, symbols, *arguments) as session:
        session.wait_subscribed()
        session.go()
        while True:
            ended = session.client.wait_idle()
            if session.simulator.events()["events"] == events:
                return session.cost(ended)


def part_speed(options):
    print(f"{'full speed':34}{'client':>14}{'CPU µs/event':>14}{'events/s':>12}{'simulator µs':>14}")
    for label, symbols, kinds in (("50 symbols, quotes", 50, "quote"), ("50 symbols, all kinds", 50, ""),
                                  ("2,000 symbols, quotes", 2000, "quote")):
        # The slow client gets fewer events, so that both take about as long.
        runs = {Feeder: [], Glued: []}
        for _ in range(options.repeat):
            runs[Feeder].append(speed(options, Feeder, symbols, kinds, options.events))
            runs[Glued].append(speed(options, Glued, symbols, kinds, options.events // 6))
        medians = {}
        for client, results in runs.items():
            medians[client] = [statistics.median(column) for column in zip(*results)]
            _, cpu, rate, simulator = medians[client]
            print(f"{label:34}{client.name:>14}{cpu:14.2f}{rate:12,.0f}{simulator:14.2f}")
        feeder, glued = medians[Feeder], medians[Glued]
        print(f"{'':34}{'ratio':>14}{feeder[1] / glued[1]:14.3f}{feeder[2] / glued[2]:12.2f}")


def part_latency(options):
    print(f"{'5,000 events/s, 50 symbols':34}{'client':>14}{'median µs':>12}{'p90':>10}{'p99':>10}{'longest':>10}")
    runs = {Feeder: [], Glued: []}
    for _ in range(options.repeat):
        for client, results in runs.items():
            with Session(client, options, 50, "--rate", 5000, "--event-kinds", "quote", "--latency") as session:
                session.wait_subscribed()
                session.go()
                time.sleep(1)
                # A few of the records: what is read at once must not take longer than the next event.
                query = client.books(session.symbols[:LOOKED_AT])
                answer = subprocess.run(
                    [f"{options.bin}/latency_reader", session.client.database, query, str(options.seconds)],
                    stdout=subprocess.PIPE, text=True, check=True).stdout
                results.append([float(word) for word in answer.split()])
    medians = {client: [statistics.median(column) for column in zip(*results)] for client, results in runs.items()}
    for client, row in medians.items():
        print(f"{f'{row[0]:,.0f} records seen':34}{client.name:>14}{row[1]:12.0f}{row[2]:10.0f}{row[3]:10.0f}{row[4]:10.0f}")
    ratios = [feeder / glued for feeder, glued in zip(medians[Feeder], medians[Glued])]
    print(f"{'':34}{'ratio':>14}{ratios[1]:12.2f}{ratios[2]:10.2f}{ratios[3]:10.2f}{ratios[4]:10.2f}")


def part_start(options):
    print(f"{'start and memory':34}{'client':>14}{'first record s':>16}{'MB':>8}{'most MB':>9}")
    for symbols in (50, 2000):
        for client in (Feeder, Glued):
            with Session(client, options, symbols, "--rate", 5000) as session:
                while not session.client.has_record():
                    time.sleep(0.005)
                first = time.time() - session.client.started
                session.wait_subscribed()
                session.go()
                time.sleep(options.seconds)
                now, most = memory(session.pid)
                print(f"{f'{symbols:,} symbols':34}{client.name:>14}{first:16.2f}{now:8.1f}{most:9.1f}")


def part_records(options):
    wrong = 0
    runs = [(50, 5000, 60 if options.long else 3), (50, 0, 5 if options.long else 1),
            (2000, 5000, 60 if options.long else 3), (2000, 0, 5 if options.long else 1)]
    for symbols, rate, seconds in runs:
        for client in (Feeder, Glued):
            with Session(client, options, symbols, "--rate", rate, "--event-log", "LOG") as session:
                session.wait_subscribed()
                session.go()
                sizes = []
                while time.time() - session.begun < seconds:
                    time.sleep(seconds / 6)
                    sizes.append(memory(session.pid)[0])
                session.simulator.hold(True)
                session.client.wait_idle(2)
                market = expected_records.replay(session.log, session.simulator.minutes_west)
                found = expected_records.differences(market, session.client.database, client.query)
                pace = f"{rate:,} events/s" if rate else "full speed"
                print(f"{f'{symbols:,} symbols, {seconds} s at {pace}':40}{client.name:>14}: {market.counts}, "
                      f"{len(market.records()) - len(found)} of {len(market.records())} records as computed; "
                      f"MB {' '.join(f'{size:.1f}' for size in sizes)}")
                for key, expected, value in found[:5]:
                    print(f"  {key}: expected {expected}, found {value}")
                wrong += len(found)
    if wrong:
        sys.exit(f"{wrong} records are wrong")


PARTS = {"speed": part_speed, "latency": part_latency, "start": part_start, "records": part_records}


def main():
    root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bin", default=f"{root}/build-bench/bin", help="folder of the programs")
    parser.add_argument("--folder", help="where databases are made; a disk as users have it (default: the temporary one)")
    parser.add_argument("--repeat", type=int, default=3, help="runs per figure; the median is printed")
    parser.add_argument("--events", type=int, default=1_500_000, help="events of a run at full speed")
    parser.add_argument("--seconds", type=int, default=10, help="of the runs at 5,000 events a second")
    parser.add_argument("--long", action="store_true")
    parser.add_argument("parts", nargs="*", metavar="PART", choices=[[], *PARTS], default=[])
    options = parser.parse_args()
    for part in options.parts or PARTS:
        PARTS[part](options)
        print(flush=True)


if __name__ == "__main__":
    main()
