"""What the controller sends: the numbers of its commands, their records, and jornctl, which sends
them from a document."""
import json

from testbed import *

PRIORITY, USERDEF, CLEAN, DNS_SHOW, PORT_SERVICES, WRITE, UTP, UTP_FLUSH, POLICY, POLICY_FLUSH, LOG, \
    DEBUG, UT_CASE = 4, 6, 8, 10, 13, 17, 20, 22, 23, 24, 26, 34, 39
VOICE, VIDEO = 3, 2


def rule(name, *, app_id=0, cat_id=0, category="", deny=0, mark=None, classify=None, up=0, down=0):
    """`mark` is a pair of kind and traffic type."""
    qos = 0
    if mark is not None:
        qos |= 1 | mark[0] << 2 | mark[1] << 4
    if classify is not None:
        qos |= 2 | classify << 6
    return struct.pack("=HH4x64s32sBBHHxx", app_id, cat_id, name.encode(), category.encode(), deny,
                       qos, up, down)


def policy(utp_id, *rules, name="", uuid="", log=0):
    return struct.pack("=5xB42xI", log, utp_id) + b"".join(rules).ljust(64 * 112, b"\0") + \
        struct.pack("=65s65sxx", name.encode(), uuid.encode())


def utp(utp_id, uuid="", name="n"):
    return struct.pack("=I4x65s65sxx", utp_id, name.encode(), uuid.encode())


def userdef(name, *, src="", dst="", mask="0.0.0.0", src_port=0, port=0, protocol=0, app_id=0,
            cat_id=0):
    def address(text):
        return struct.pack("=H6x16s8x", 2 if text else 0, socket.inet_aton(text or "0.0.0.0"))
    return address(src) + address(dst) + socket.inet_aton(mask) + struct.pack(
        "=HHI66sHHBx", src_port, port, protocol, name.encode(), app_id, cat_id, 0xEE)


def userdefs(*records, count=None):
    return struct.pack("=i", len(records) if count is None else count) + b"".join(records)


def jornctl(*arguments, document=None):
    """Exit status and output."""
    done = subprocess.run([jorn_path("jornctl"), *arguments], input=json.dumps(document), text=True,
                          capture_output=True, timeout=DEADLINE)
    return done.returncode, done.stdout


PING = ipv4_frame(1, icmp_echo())
