#!/usr/bin/env python3
"""A wire between two interfaces on which every frame takes its time: what comes in at one end leaves
the other one so many milliseconds later.

    lab/slow_wire.py INTERFACE INTERFACE MILLISECONDS

For kernels that have no netem.
"""
import collections
import select
import socket
import sys
import time

SOL_PACKET, VNET_HDR, IGNORE_OUTGOING = 263, 15, 23
RCVBUFFORCE = 33
SEGMENTS = 10 + 65536 + 14  # frames larger than the MTU stay whole, with what the kernel says of them


def end_of_wire(interface):
    end = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
    end.setsockopt(SOL_PACKET, VNET_HDR, 1)
    end.setsockopt(SOL_PACKET, IGNORE_OUTGOING, 1)
    end.setsockopt(socket.SOL_SOCKET, RCVBUFFORCE, 16 << 20)
    end.bind((interface, 0))
    end.setblocking(False)
    return end


def carry(ends, delay):
    on_the_way = collections.deque()  # in the order in which they came
    while True:
        wait = None if not on_the_way else max(0, on_the_way[0][0] - time.monotonic())
        for end in select.select(ends, [], [], wait)[0]:
            frame = end.recv(SEGMENTS)
            on_the_way.append((time.monotonic() + delay, ends[end is ends[0]], frame))
        while on_the_way and on_the_way[0][0] <= time.monotonic():
            _, end, frame = on_the_way.popleft()
            try:
                end.send(frame)
            except OSError:
                pass  # lost, as on any wire


if __name__ == "__main__":
    if sys.argv[1:2] in (["-h"], ["--help"]):
        print(__doc__, end="")
        sys.exit()
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    carry([end_of_wire(interface) for interface in sys.argv[1:3]], float(sys.argv[3]) / 1000)
