"""What the controller sends: the numbers of its commands, their records, and jornctl, which sends
them from a document."""
import json

from testbed import *

PRIORITY, USERDEF, CLEAN, DNS_SHOW, PORT_SERVICES, WRITE, UTP, UTP_FLUSH, POLICY, POLICY_FLUSH, LOG, \
    WEB_POLICY, WEB_FLUSH, WEB_INTF, DEBUG, CARRIER, CARRIER_BINDING, UT_CASE = \
    4, 6, 8, 10, 13, 17, 20, 22, 23, 24, 26, 28, 29, 30, 34, 35, 36, 39
VOICE, VIDEO = 3, 2
DISABLE, DELETE, ADD = 1, 2, 3  # of a web binding


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
            cat_id=0, family=2):
    def address(text):
        return struct.pack("=H6x16s8x", family if text else 0, socket.inet_aton(text or "0.0.0.0"))
    return address(src) + address(dst) + socket.inet_aton(mask) + struct.pack(
        "=HHI66sHHBx", src_port, port, protocol, name.encode(), app_id, cat_id, 0xEE)


def userdefs(*records, count=None):
    return struct.pack("=i", len(records) if count is None else count) + b"".join(records)


def web_policy(uuid="", *, name="", utp_id=0, filter_type=4, categories=(), slots=(), white=(),
               black=(), counts=(None, None, None), google=None, bing=None, youtube=None):
    """`slots` are categories behind those that are counted; `counts` lie about the lists; an engine
    with an address has safe search on."""
    counts = [len(found) if count is None else count
              for count, found in zip(counts, (categories, white, black))]

    def texts(patterns):
        return b"".join(struct.pack("65s", p.encode("latin-1")) for p in patterns)

    def engine(vip):
        return struct.pack("=B3x4s", 1 if vip else 0, socket.inet_aton(vip or "0.0.0.0"))
    listed = [*categories, *slots]
    return (struct.pack("=IB3x83i", filter_type, counts[0], *listed, *[0] * (83 - len(listed))) +
            struct.pack("=B1040s", counts[1], texts(white)) +
            struct.pack("=B1040s2x", counts[2], texts(black)) +
            engine(google) + engine(bing) + engine(youtube) +
            struct.pack("=I65s65s2x", utp_id, uuid.encode(), name.encode()))


def web_binding(ifname="wlan0", uuid="u", *, op=ADD, enable=1, value=7):
    return struct.pack("=B17s2xII65s3x", enable, ifname.encode(), value, op, uuid.encode())


def carrier(name, priority, *epdgs, alt="alt", count=None):
    """`epdgs` are pairs of name and address."""
    slots = b"".join(struct.pack("256s4s", fqdn.encode(), socket.inet_aton(address))
                     for fqdn, address in epdgs)
    return struct.pack("=B3xi1300s65s65s", len(epdgs) if count is None else count, priority, slots,
                       alt.encode(), name.encode())


def carrier_binding(ifname, *names, enable=1, value=0, count=None):
    profiles = b"".join(struct.pack("65s", name.encode()) for name in names)
    return struct.pack("=B19sii325s325x2x", enable, ifname.encode(), value,
                       len(names) if count is None else count, profiles)


def jornctl(*arguments, document=None):
    """Exit status, output and complaints."""
    done = subprocess.run([jorn_path("jornctl"), *arguments], input=json.dumps(document), text=True,
                          capture_output=True, timeout=DEADLINE)
    return done.returncode, done.stdout, done.stderr


PING = ipv4_frame(1, icmp_echo())
