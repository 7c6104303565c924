"""The bus's messages as bytes, for tests that look at the wire or put something on it. Written from the
layout alone: nothing here is shared with the library."""
import collections
import struct

SYNC, REQUEST, ACK, MNG = 1, 2, 4, 8
HEADER = struct.Struct(">BBBBIIIIIIII")
FIELDS = "version reserved flags qos len src_node dst_node src_app dst_app app_ver seq rpc_status"
Header = collections.namedtuple("Header", FIELDS)
SYNC_INST, SYNC_ACK, DEBUG, INFO, STATISTICS, PING, ECHO, RELOAD = range(1, 9)
PROCESSED = 0
RESENDS = 600


def message(src, dst, data=b"", flags=0, app_ver=1, seq=0, rpc_status=0, version=1, qos=0, length=None):
    """@src and @dst are (application, node)."""
    length = HEADER.size + len(data) if length is None else length
    return HEADER.pack(version, 0, flags, qos, length, src[1], dst[1], src[0], dst[0], app_ver, seq,
                       rpc_status) + data


def header(data):
    return Header(*HEADER.unpack(data[:HEADER.size]))


def body(data):
    return data[HEADER.size:]


def tlv(kind, value=b"", length=None):
    item = struct.pack(">HH", len(value) + 4 if length is None else length, kind) + value
    return item + b"\0" * (-len(item) % 4)


def sync(src, dst, seq, pid, server=1, resume=0, kind=SYNC_INST):
    value = struct.pack(">IIIII", seq, pid, server, resume, RESENDS)
    return message(src, dst, tlv(kind, value), SYNC)


Sync = collections.namedtuple("Sync", "length kind seq pid server resume resends")


def sync_fields(data):
    return Sync(*struct.unpack(">HHIIIII", body(data)))


def is_sync(kind, src):
    """Is it a sync (or its acknowledgement) of application @src?"""
    return lambda data: len(data) == 60 and data[2] == SYNC and body(data)[2:4] == struct.pack(">H", kind) \
        and header(data).src_app == src


class Peer:
    """An application made by hand from a raw socket: @me is (application, node)."""

    def __init__(self, raw, me, pid=4711):
        self.raw, self.me, self.pid = raw, me, pid
        self.sock = raw.bind(*me)

    def send(self, data, to):
        return self.raw.send(self.sock, to[0], to[1], data)

    def receive(self, condition=lambda data: True, timeout=5):
        return self.raw.message(self.sock, condition, timeout)

    def join(self, to, server=1):
        """The handshake with @to, who has seen our name. Gives its sync and its acknowledgement."""
        theirs = self.receive(is_sync(SYNC_INST, to[0]))
        self.send(sync(self.me, to, sync_fields(theirs).seq, self.pid, server, 0, SYNC_ACK), to)
        self.send(sync(self.me, to, 77, self.pid, server), to)
        return theirs, self.receive(is_sync(SYNC_ACK, to[0]))

    def statistics(self, app, node):
        """The text with which an application answers the daemon, as which this peer must have been made."""
        seq = 1000
        self.send(message(self.me, (app, node), tlv(STATISTICS), MNG | REQUEST, seq=seq), (app, node))
        return body(self.receive(lambda d: header(d).seq == seq and header(d).src_app == app))
