#!/usr/bin/env python3
"""A wire between two interfaces on which every frame takes its time: what comes in at one end leaves
the other one so many milliseconds later.

    lab/slow_wire.py INTERFACE INTERFACE MILLISECONDS [PERCENT]

So many percent of them are lost, and as many take twice the time, so that later ones overtake them.

For kernels that have no netem.
"""
import heapq
import itertools
import random
import select
import socket
import sys
import time

SOL_PACKET, VNET_HDR, IGNORE_OUTGOING = 263, 15, 23
ETH_P_ALL = 3
RCVBUFFORCE = 33
SEGMENTS = 10 + 65536 + 14  # frames larger than the MTU stay whole, with what the kernel says of them


def end_of_wire(interface):
    end = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)  # until it is bound, of no packets
    end.setsockopt(SOL_PACKET, VNET_HDR, 1)
    end.setsockopt(SOL_PACKET, IGNORE_OUTGOING, 1)
    end.setsockopt(socket.SOL_SOCKET, RCVBUFFORCE, 16 << 20)
    end.bind((interface, ETH_P_ALL))
    end.setblocking(False)
    return end


def carry(ends, delay, percent):
    on_the_way, numbers = [], itertools.count()  # by when they leave, then in the order in which they came
    while True:
        wait = None if not on_the_way else max(0, on_the_way[0][0] - time.monotonic())
        for end in select.select(ends, [], [], wait)[0]:
            frame, luck = end.recv(SEGMENTS), random.uniform(0, 100)
            if luck >= percent:
                leaves = time.monotonic() + delay * (2 if luck < 2 * percent else 1)
                heapq.heappush(on_the_way, (leaves, next(numbers), ends[end is ends[0]], frame))
        while on_the_way and on_the_way[0][0] <= time.monotonic():
            *_, end, frame = heapq.heappop(on_the_way)
            try:
                end.send(frame)
            except OSError:
                pass  # lost, as on any wire


if __name__ == "__main__":
    if sys.argv[1:2] in (["-h"], ["--help"]):
        print(__doc__, end="")
        sys.exit()
    if len(sys.argv) not in (4, 5):
        sys.exit(__doc__)
    milliseconds, percent = (float(word) for word in (*sys.argv[3:], 0)[:2])
    carry([end_of_wire(interface) for interface in sys.argv[1:3]], milliseconds / 1000, percent)
