#!/usr/bin/env python3
"""The records that a log of feeder-sim (--event-log) must lead to, computed from the written rules alone.

usage: expected_records.py LOG MINUTES_WEST DATABASE QUERY

The query gives keys and values of a database. Prints what differs and ends with status 1 when anything does.
The rules: a snapshot answer begins every record; of a message the first occurrence of each field counts; a quote replaces
the book; a timesale counts when its second is later than the record's, so of several trades in one second only the first.
"""
import json
import sqlite3
import sys
import time
from decimal import ROUND_HALF_UP, Decimal


def number_text(value):
    """Shortest text that reads back to the same double, without an exponent."""
    text = format(Decimal(repr(float(value))), "f")
    return text[:-2] if text.endswith(".0") else text


def percent_text(value):
    rounded = Decimal(repr(abs(value))).quantize(Decimal("0.01"), ROUND_HALF_UP)
    return ("m" if value < 0 and rounded != 0 else "") + format(rounded, "f")


def between(text, begin, end):
    start = text.find(begin)
    if start < 0:
        return ""
    start += len(begin)
    stop = text.find(end, start)
    return "" if stop < 0 else text[start:stop].strip(" ")


class Market:
    def __init__(self, minutes_west):
        self.west = minutes_west * 60
        self.quotes = {}  # symbol: last, change, open, high, low, volume, stamp
        self.closes = {}
        self.books = {}
        self.messages = {}  # symbol: its last message with a quote
        self.stamps = {}
        self.counts = {"quote": 0, "timesale": 0, "written": 0, "other": 0}

    def stamp(self, milliseconds):
        second = int(milliseconds) // 1000
        if second not in self.stamps:
            self.stamps[second] = time.strftime("%Y%m%d%H%M%S", time.gmtime(second - self.west))
        return self.stamps[second]

    def snapshot(self, body):
        quotes = json.loads(body, parse_float=str, parse_int=str)["quotes"]["quote"]
        for quote in quotes if isinstance(quotes, list) else [quotes]:
            symbol = quote["symbol"]
            stamp = self.stamp(quote["trade_date"])
            if symbol in self.quotes and stamp < self.quotes[symbol][6]:
                continue
            if quote["last"] is None:
                continue
            # Before the first trade of a day.
            prices = [number_text(quote["last"] if quote[key] is None else quote[key])
                      for key in ("open", "high", "low")]
            volume = "1" if quote["volume"] == "0" else quote["volume"]
            self.quotes[symbol] = [
                number_text(quote["last"]), percent_text(float(quote["change_percentage"] or 0)), *prices,
                number_text(volume), stamp]
            self.closes[symbol] = number_text(quote["prevclose"])
            self.books[symbol] = f'{quote["bid"]}|{quote["bidsize"]}@{quote["ask"]}|{quote["asksize"]}'
            self.messages.pop(symbol, None)

    def message(self, text):
        kind = between(text, '"type":"', '"')
        symbol = between(text, '"symbol":"', '"').upper()
        if kind == "quote":
            self.counts[kind] += 1
            self.messages[symbol] = text
        elif kind == "timesale":
            self.counts[kind] += 1
            self.trade(symbol, text)
        else:
            self.counts["other"] += 1

    def trade(self, symbol, text):
        stamp = self.stamp(between(text, '"date":"', '"'))
        record = self.quotes[symbol]
        if stamp <= record[6]:
            return
        self.counts["written"] += 1
        price = float(between(text, '"last":"', '"'))
        last = number_text(price)
        record[0] = last
        if float(self.closes[symbol]) != 0:
            record[1] = percent_text((price / float(self.closes[symbol]) - 1) * 100)
        if float(record[3]) < price:
            record[3] = last
        if float(record[4]) > price:
            record[4] = last
        record[5] = number_text(float(between(text, '"size":"', '"')) + float(record[5]))
        record[6] = stamp

    def records(self):
        for symbol, text in self.messages.items():
            fields = [between(text, f'"{key}":', ",") for key in ("bid", "bidsz", "ask", "asksz")]
            self.books[symbol] = "{}|{}@{}|{}".format(*fields)
        expected = {f"{symbol}-bid@ask": book for symbol, book in self.books.items()}
        for symbol, record in self.quotes.items():
            if "-" in symbol:  # would break the record, so there is none
                continue
            expected[symbol] = "-".join([symbol, *record[:6], "1", "1", record[6]])
        return expected


def replay(log, minutes_west):
    market = Market(minutes_west)
    with open(log, encoding="utf-8") as lines:
        for line in lines:
            _, _, kind, text = line.rstrip("\n").split("\t", 3)
            if kind == "events":
                market.message(text)
            elif kind == "quotes":
                market.snapshot(text)
    return market


def as_text(value):
    return value.decode() if isinstance(value, bytes) else value


def differences(market, database, query):
    """Expected records that are missing or different, as (key, expected, found)."""
    connection = sqlite3.connect(database)
    found = {as_text(key): as_text(value) for key, value in connection.execute(query)}
    connection.close()
    return [(key, value, found.get(key)) for key, value in market.records().items() if found.get(key) != value]


def main():
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    market = replay(sys.argv[1], int(sys.argv[2]))
    wrong = differences(market, sys.argv[3], sys.argv[4])
    for key, expected, found in wrong[:20]:
        print(f"{key}: expected {expected}, found {found}")
    print(f"{len(market.records())} records, {len(wrong)} wrong; {market.counts}")
    sys.exit(1 if wrong or not market.quotes else 0)


if __name__ == "__main__":
    main()
