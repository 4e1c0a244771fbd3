"""Reference parse of a "raidcom get ldev" key-value listing, timed for ldev_parse_bench.

Usage: ldev_parse_bench.py FILE [ROUNDS]. Prints the best processor time in seconds and the record count.
"""
import sys
import time


def parse(text):
    records = []
    record = None
    for line in text.split("\n"):
        key, sep, value = line.partition(":")
        if not sep:
            continue
        key = key.strip()
        value = value.strip()
        if key == "Serial#" or record is None:
            record = {}
            records.append(record)
        record[key] = value
    return records


def main():
    with open(sys.argv[1], encoding="ascii") as f:
        text = f.read()
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 3
    best = None
    count = 0
    for _ in range(rounds):
        start = time.process_time()
        count = len(parse(text))
        elapsed = time.process_time() - start
        best = elapsed if best is None else min(best, elapsed)
    print(f"{best:.6f} {count}")


if __name__ == "__main__":
    main()
