"""What the gate itself takes of the packets: it is attached and detached in turn within one flood, so
that nothing else differs; the daemon runs with and without it, or not at all.

    scripts/private python3 -B bench/gate_share.py [--bridged] [--cycles N] [--seconds N]

The flood is that of bench/inline.py. Shown are the mean share of the packets that pass, its standard
error, and, as a yardstick, what a program takes that does nothing. By tcx, which the kernel must have.
"""
import argparse
import ctypes
import struct

import inline
from inline import *

BPF_PROG_LOAD, BPF_PROG_ATTACH, BPF_PROG_DETACH, BPF_PROG_GET_FD_BY_ID, BPF_PROG_QUERY = 5, 8, 9, 13, 16
SCHED_CLS, BEFORE_ALL = 3, 1 << 3
TCX_SIDES = TCX_INGRESS, TCX_EGRESS = 46, 47
SYS_BPF = {"x86_64": 321, "aarch64": 280}[os.uname().machine]
ATTRIBUTES = 144  # bytes of the kernel's union, as far as it is used here
NOTHING = struct.pack("=BBhi", 0xB7, 0, 0, -1) + struct.pack("=BBhi", 0x95, 0, 0, 0)  # return TCX_NEXT
libc = ctypes.CDLL(None, use_errno=True)


def bpf(command, attributes):
    block = ctypes.create_string_buffer(attributes, ATTRIBUTES)
    result = libc.syscall(SYS_BPF, command, block, ATTRIBUTES)
    if result < 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))
    return result, block.raw


def first_program(index, side):
    """Its descriptor."""
    ids = (ctypes.c_uint32 * 8)()
    bpf(BPF_PROG_QUERY, struct.pack("=IIIIQI", index, side, 0, 0, ctypes.addressof(ids), len(ids)))
    return bpf(BPF_PROG_GET_FD_BY_ID, struct.pack("=I", ids[0]))[0]


def empty_program():
    code, name = ctypes.create_string_buffer(NOTHING), ctypes.create_string_buffer(b"GPL")
    return bpf(BPF_PROG_LOAD, struct.pack("=IIQQ", SCHED_CLS, len(NOTHING) // 8, ctypes.addressof(code),
                                          ctypes.addressof(name)))[0]


class Share(inline.Bench):
    def measure(self):
        self._lay_out(0)
        self.servers = {port: self.serve_speed(port) for port in (PLAIN, MARKED)}
        self.index = socket.if_nametoindex("wlan0")
        print(f"{'bridged' if self.bridged else 'routed'}, {arguments.cycles} cycles")
        for state in ("an empty program", PLAIN, None), *(
                state for state in STATES if state[2] in ("nobody", "decided")):
            self.measure_share(*state)

    def measure_share(self, name, port, counted):
        with contextlib.ExitStack() as end:
            self.begin_state(end, name, counted)
            if counted:
                programs = {side: first_program(self.index, side) for side in TCX_SIDES}
            else:
                programs = dict.fromkeys(TCX_SIDES, empty_program())
                self.switch(BPF_PROG_ATTACH, programs)
                end.callback(self.switch, BPF_PROG_DETACH, programs)
            end.enter_context(self.flood(port))
            before = self.counts(counted)
            shares = [self.share(programs) for _ in range(arguments.cycles)]
            after = self.counts(counted)
            grown = {key: after[key] - before[key] for key in after}
            self.assertGreaterEqual(grown.get(counted, 0), 0.99 * sum(grown.values()), grown)
            print(f"{name:24} {statistics.mean(shares):.3f} +- "
                  f"{statistics.stdev(shares) / len(shares) ** 0.5:.4f}", flush=True)

    def share(self, programs):
        """Of what passes without them."""
        before = self.rate()
        self.switch(BPF_PROG_DETACH, programs)
        without = self.rate()
        self.switch(BPF_PROG_ATTACH, programs)
        return (before + self.rate()) / 2 / without

    def switch(self, command, programs):
        for side, program in programs.items():
            flags = BEFORE_ALL if command == BPF_PROG_ATTACH else 0
            bpf(command, struct.pack("=IIII", self.index, program, side, flags))

    @contextlib.contextmanager
    def flood(self, port):
        client = subprocess.Popen([*ON_CLIENT, "iperf3", "-c", SERVERS[4], "-p", str(port), "-u", "-b",
                                   "0", "-l", "172", "-t", "3600"], stdout=subprocess.DEVNULL)
        time.sleep(1)  # the verdict comes
        self.servers[port].send_signal(signal.SIGSTOP)
        yield
        client.kill()
        client.wait()
        self.servers[port].send_signal(signal.SIGCONT)
        time.sleep(1)  # it takes what waits

    def rate(self):
        time.sleep(0.1)
        arrived, begun = packets_at_server(), time.monotonic()
        time.sleep(arguments.seconds)
        return (packets_at_server() - arrived) / (time.monotonic() - begun)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--bridged", action="store_true")
    parser.add_argument("--cycles", type=int, default=15)
    parser.add_argument("--seconds", type=float, default=0.8)
    arguments = inline.arguments = parser.parse_args()
    arguments.attach, arguments.speed = "tcx", None
    Share("measure").debug()
