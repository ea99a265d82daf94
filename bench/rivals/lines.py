"""Lines "T<n>=<v>" from a TCP port become records in a queue, and the queue's consumer counts them
and adds their values up; or, when a second port is given, sends each value there as a line.

Usage: lines.py PORT [ANSWER_PORT]
"""

import asyncio
import re
import sys
from dataclasses import dataclass

HOST = "127.0.0.1"
KEY = "5_1_0"
RULE = re.compile(rb"T[0-9]+=([0-9]+)")
CHUNK = 64 * 1024


@dataclass(slots=True)
class Record:
    key: str
    value: bytes


async def cut(reader, queue):
    """Puts the records of each read into the queue in one go; None stands for the end."""
    rest = b""
    match = RULE.fullmatch
    while chunk := await reader.read(CHUNK):
        *lines, rest = (rest + chunk).split(b"\n")
        await queue.put([Record(KEY, found[1]) for line in lines if (found := match(line))])
    await queue.put(None)


async def count(queue):
    number = total = 0
    while (records := await queue.get()) is not None:
        for record in records:
            number += 1
            total += int(record.value)
    print(number, total)


async def answer(queue, writer):
    while (records := await queue.get()) is not None:
        for record in records:
            writer.write(record.value + b"\n")
        await writer.drain()
    writer.close()
    await writer.wait_closed()


async def main(port, answer_port=None):
    queue = asyncio.Queue(maxsize=4)
    if answer_port is None:
        consumer = count(queue)
    else:
        _, writer = await asyncio.open_connection(HOST, answer_port)
        consumer = answer(queue, writer)
    reader, connection = await asyncio.open_connection(HOST, port, limit=CHUNK)
    await asyncio.gather(cut(reader, queue), consumer)
    connection.close()


asyncio.run(main(*map(int, sys.argv[1:])))
