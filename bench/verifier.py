#!/usr/bin/env python3
"""How many instructions the kernel's verifier goes through before it takes the gate: all the ways
through it, of which there may be a million. It is asked to be as strict as on a machine whose words
have to be aligned.

    sudo bench/verifier.py build/release/avcore/gate/gate.bpf.o
"""
import ctypes
import os
import re
import sys

STATISTICS = 4  # the level of the verifier's log that has nothing else
LOG_SIZE = 65536
STRICT_ALIGNMENT = 1  # BPF_F_STRICT_ALIGNMENT
FUNCTION, GLOBAL = 12, 1  # BTF_KIND_FUNC, BTF_FUNC_GLOBAL

libbpf = ctypes.CDLL("libbpf.so.1", use_errno=True)
for function in ("bpf_object__open", "bpf_object__next_program", "bpf_program__name",
                 "bpf_object__btf"):
    getattr(libbpf, function).restype = ctypes.c_void_p
libbpf.btf__type_by_id.restype = ctypes.POINTER(3 * ctypes.c_uint32)


def programs(gate):
    program = libbpf.bpf_object__next_program(gate, None)
    while program:
        program = ctypes.c_void_p(program)
        yield program
        program = libbpf.bpf_object__next_program(gate, program)


def make_functions_static(gate):
    """As avcore does for a kernel without types of its own."""
    types = ctypes.c_void_p(libbpf.bpf_object__btf(gate))
    for number in range(1, libbpf.btf__type_cnt(types)):
        words = libbpf.btf__type_by_id(types, number).contents
        if words[1] >> 24 & 31 == FUNCTION:
            words[1] &= ~GLOBAL


def main(path):
    libbpf.libbpf_set_print(None)
    gate = ctypes.c_void_p(libbpf.bpf_object__open(path.encode()))
    if not gate:
        sys.exit(f"{path} can't be read")
    if not os.path.exists("/sys/kernel/btf/vmlinux"):
        make_functions_static(gate)
    logs = {}
    for program in programs(gate):
        name = ctypes.string_at(libbpf.bpf_program__name(program)).decode()
        logs[name] = ctypes.create_string_buffer(LOG_SIZE)
        libbpf.bpf_program__set_log_level(program, STATISTICS)
        libbpf.bpf_program__set_flags(program, STRICT_ALIGNMENT)
        libbpf.bpf_program__set_log_buf(program, logs[name], ctypes.c_size_t(LOG_SIZE))
    if libbpf.bpf_object__load(gate) != 0:
        sys.exit("".join(log.value.decode() for log in logs.values()) + "The kernel refuses the gate.")
    print(", ".join(f"{name} {int(re.search(rb'processed ([0-9]+) insns', log.value)[1]):,}"
                    for name, log in logs.items()), "instructions")


if __name__ == "__main__":
    main(*sys.argv[1:])
