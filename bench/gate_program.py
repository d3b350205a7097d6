#!/usr/bin/env python3
"""What the gate's program takes for a packet by itself, in nanoseconds: the kernel's own test run gives
it the same packet again and again. Several objects, as of two builds, take turns.

    scripts/private python3 -B bench/gate_program.py [--rounds N]
                                                    build/release/avcore/gate/gate.bpf.o [OBJECT ...]

First the loop of the test run with a program that does nothing; the others' figures are without it.
Nothing else of the gate's costs is in here: the kernel's way to the program, and caches that other
work has filled. Medians of the rounds. That a packet is marked anew can't be shown: it is from the
first time on.
"""
import argparse
import ctypes
import errno
import os
import socket
import statistics
import struct
import sys
import time

TIMES = 200000  # a packet in each round
PORTS = struct.pack("!HH", 40000, 5201)
ADDRESSES = {4: ("10.1.0.12", "192.0.2.5"), 6: ("2001:db8:1::12", "2001:db8:2::5")}
PASS, DENY = 1, 2  # as in gate_records.h, as all layouts below
STILL_COUNT = 2
KILLED = "nobody there, counted"  # its avcore was killed
# What is measured, the version of IP, whether somebody decides, and as what.
STATES = [("nobody there", 4, False, None), (KILLED, 4, False, PASS), ("allowed", 4, True, PASS),
          ("allowed", 6, True, PASS), ("denied", 4, True, DENY),
          ("limited", 4, True, PASS), ("undecided, no copies left", 4, True, None)]
GENERATION = 7

libbpf = ctypes.CDLL("libbpf.so.1", use_errno=True)
for function in ("bpf_object__open", "bpf_object__find_program_by_name",
                 "bpf_object__find_map_by_name"):
    getattr(libbpf, function).restype = ctypes.c_void_p


class TestRun(ctypes.Structure):  # bpf_test_run_opts
    _fields_ = [("sz", ctypes.c_size_t), ("data_in", ctypes.c_char_p), ("data_out", ctypes.c_void_p),
                ("data_size_in", ctypes.c_uint32), ("data_size_out", ctypes.c_uint32),
                ("ctx_in", ctypes.c_void_p), ("ctx_out", ctypes.c_void_p),
                ("ctx_size_in", ctypes.c_uint32), ("ctx_size_out", ctypes.c_uint32),
                ("retval", ctypes.c_uint32), ("repeat", ctypes.c_int), ("duration", ctypes.c_uint32),
                ("flags", ctypes.c_uint32), ("cpu", ctypes.c_uint32), ("batch", ctypes.c_uint32)]


def packed(version, address):
    return socket.inet_pton(socket.AF_INET if version == 4 else socket.AF_INET6, address)


def frame(version):
    """A datagram of UDP from the client, of 200 bytes with IPv4."""
    client, server = (packed(version, address) for address in ADDRESSES[version])
    payload = PORTS + struct.pack("!HH", 180, 0) + bytes(172)
    if version == 4:
        head = struct.pack("!BBHHHBBH", 0x45, 0, 200, 1, 0, 64, socket.IPPROTO_UDP, 0)
    else:
        head = struct.pack("!IHBB", 6 << 28, 180, socket.IPPROTO_UDP, 64)
    ethernet = bytes.fromhex("020000000005" "02000000000c" + ("0800" if version == 4 else "86dd"))
    return ethernet + head + client + server + payload


def flow(version):
    sides = (packed(version, address) for address in ADDRESSES[version])
    mapped = b"" if version == 6 else bytes(10) + b"\xff\xff"
    return b"".join(mapped + side for side in sides) + PORTS + struct.pack(
        "BBxx", socket.IPPROTO_UDP, 0)


def run(program, packet):
    test = TestRun(sz=ctypes.sizeof(TestRun), data_in=packet, data_size_in=len(packet), repeat=TIMES)
    if libbpf.bpf_prog_test_run_opts(program, ctypes.byref(test)) != 0:
        sys.exit(f"the kernel doesn't run it: {os.strerror(ctypes.get_errno())}")
    return test.duration


def idler():
    """A program that lets the packet go on."""
    code = struct.pack("<BBhiBBhi", 0xB7, 0, 0, -1, 0x95, 0, 0, 0)  # r0 = -1, exit
    fd = libbpf.bpf_prog_load(3, b"idler", b"GPL", code, ctypes.c_size_t(2), None)  # SCHED_CLS
    if fd < 0:
        sys.exit(f"no program can be loaded: {os.strerror(ctypes.get_errno())}")
    return fd


class Gate:
    def __init__(self, path):
        self.gate = ctypes.c_void_p(libbpf.bpf_object__open(path.encode()))
        recent = ctypes.c_void_p(libbpf.bpf_object__find_map_by_name(self.gate, b"recent"))
        if recent:
            libbpf.bpf_map__set_max_entries(
                recent, libbpf.libbpf_num_possible_cpus() * libbpf.bpf_map__max_entries(recent))
        if not self.gate or libbpf.bpf_object__load(self.gate) != 0:
            sys.exit(f"{path} can't be loaded: {os.strerror(ctypes.get_errno())}")
        self.program = libbpf.bpf_program__fd(ctypes.c_void_p(
            libbpf.bpf_object__find_program_by_name(self.gate, b"jorn_gate_up")))
        self.changes = 0

    def write(self, name, key, value):
        fd = libbpf.bpf_object__find_map_fd_by_name(self.gate, name)
        done = (libbpf.bpf_map_update_elem(fd, key, value, ctypes.c_uint64(0)) if value else
                libbpf.bpf_map_delete_elem(fd, key))
        if done not in (0, -errno.ENOENT):
            sys.exit(f"{name.decode()} can't be written: {os.strerror(ctypes.get_errno())}")

    def prepare(self, state):
        name, version, attended, action = state
        self.changes += 1
        beat = time.monotonic_ns() + 10 ** 15 if attended else 0
        self.write(b"settings", struct.pack("I", 0),
                   struct.pack("QIIIIII", beat, GENERATION, 0, 1, STILL_COUNT * (name == KILLED),
                               self.changes, 0))
        bucket = int(name == "limited")
        self.write(b"limits", struct.pack("I", 1), struct.pack("QQ", 10 ** 12, 10 ** 9))
        self.write(b"verdicts", flow(version), action and struct.pack(
            "IBBBxIIII", GENERATION, action, 0, 0, 0, bucket, bucket, 0))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--rounds", type=int, default=9)
    parser.add_argument("objects", nargs="+", metavar="OBJECT")
    arguments = parser.parse_args()
    libbpf.libbpf_set_print(None)
    idle = idler()
    gates = [Gate(path) for path in arguments.objects]
    loop = statistics.median(run(idle, frame(4)) for _ in range(arguments.rounds))
    print(f"the loop: {loop:.0f} ns")
    for state in STATES:
        for gate in gates:
            gate.prepare(state)
        rounds = [[run(gate.program, frame(state[1])) for gate in gates]
                  for _ in range(arguments.rounds)]
        print(f"{state[0] + ', IPv' + str(state[1]):32}" + "".join(
            f"{statistics.median(each) - loop:8.0f} ns" for each in zip(*rounds)))


if __name__ == "__main__":
    main()
