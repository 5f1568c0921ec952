#!/usr/bin/env python3
"""A Printer MIB for snmpd's pass_persist: replays the file that its argument names, "OID TYPE VALUE" lines, read anew at
each question."""
import sys


def rows():
    with open(sys.argv[1]) as file:
        fields = [line.split(None, 2) for line in file if line.strip() and not line.startswith("#")]
    return {tuple(map(int, row[0].strip(".").split("."))): (row[1], row[2].strip() if len(row) > 2 else "") for row in fields}


for line in sys.stdin:
    command = line.strip()
    if command == "PING":
        print("PONG", flush=True)
        continue
    oid = tuple(map(int, sys.stdin.readline().strip().strip(".").split(".")))
    table = rows()
    if command == "getnext":
        oid = min((name for name in table if name > oid), default=None)
    if oid not in table:
        print("NONE", flush=True)
    else:
        print("." + ".".join(map(str, oid)), *table[oid], sep="\n", flush=True)
