# The mDNS responder on the wire, seen from the peer namespace.
#
# A test-only executable runs one responder on the namespace's interface; the
# tests listen and query from the other end of the veth pair, as another host
# would, and decode every packet with dnspython (python3-dnspython).
import collections
import os
import socket
import struct
import subprocess
import time

import pytest
import dns.exception
import dns.flags
import dns.message
import dns.name
import dns.rdata
import dns.rdataclass
import dns.rdatatype

from dms_client import in_peer_namespace, multicast_socket

GROUP = "224.0.0.251"
PORT = 5353
ADDR = os.environ.get("DMS_NETNS_ADDR", "10.77.0.1")
PEER_ADDR = os.environ.get("DMS_NETNS_PEER_ADDR", "10.77.0.2")
CACHE_FLUSH = 0x8000

Record = collections.namedtuple("Record", "name type cache_flush ttl rdata")
Packet = collections.namedtuple("Packet", "id flags counts answers additional raw")


def decode(raw):
    # Walks the sections; dnspython decodes each name and record data in class
    # IN (it does not know the cache-flush bit, which is split off here).
    ident, flags, *counts = struct.unpack_from("!6H", raw)
    offset = 12
    for _ in range(counts[0]):
        _, used = dns.name.from_wire(raw, offset)
        offset += used + 4
    records = []
    for _ in range(sum(counts[1:])):
        name, used = dns.name.from_wire(raw, offset)
        offset += used
        rtype, rclass, ttl, length = struct.unpack_from("!HHIH", raw, offset)
        offset += 10
        assert rclass & ~CACHE_FLUSH == dns.rdataclass.IN
        rdata = dns.rdata.from_wire(dns.rdataclass.IN, rtype, raw, offset, length)
        offset += length
        records.append(Record(name.to_text(), rtype, bool(rclass & CACHE_FLUSH), ttl, rdata))
    assert offset == len(raw), "bytes after the last record"
    return Packet(ident, flags, counts, records[:counts[1]], records[counts[1] + counts[2]:], raw)


def next_announcement(sock, host, timeout=5.0):
    # The next response whose first answer is the A record of host.local, or
    # None once `timeout` seconds have passed.
    deadline = time.monotonic() + timeout
    owner = f"{host}.local."
    while (left := deadline - time.monotonic()) > 0:
        sock.settimeout(left)
        try:
            raw = sock.recv(65536)
        except socket.timeout:
            return None
        # Only our packets are decoded strictly: responses without questions
        # whose first owner is the host name.
        if len(raw) < 12 or not raw[2] & 0x80 or raw[4:6] != b"\0\0":
            continue
        try:
            first, _ = dns.name.from_wire(raw, 12)
        except dns.exception.DNSException:
            continue
        if first.to_text() == owner and (packet := decode(raw)).answers and packet.answers[0].type == dns.rdatatype.A:
            return packet
    return None


@pytest.fixture
def responder(process):
    # Runs mdns_test_responder: responder(host, *services, address=ADDR), each
    # service (instance, type, port, text).
    def start(host, *services, address=ADDR):
        proc = process("mdns_test_responder", host, address, *(field for service in services for field in service))
        assert proc.popen.stdout.readline() == b"ready\n", proc.stop()
        return proc
    return start


@pytest.fixture
def peer():
    # A socket of the peer host on the mDNS group and port.
    with in_peer_namespace(lambda: multicast_socket(GROUP, PORT, PEER_ADDR)) as sock:
        yield sock


def query(name, rtype, response=False):
    message = dns.message.make_query(name, rtype)
    message.id = 0
    if response:
        message.flags |= dns.flags.QR
    return message.to_wire()


def test_announcement_carries_host_and_service_records(responder, peer):
    responder("box", ("Box Media", "_http._tcp", 8200, "path=/\nversion=1"), ("Box Files", "_smb._tcp", 445, ""))
    packet = next_announcement(peer, "box")
    assert packet is not None, "no announcement within 5 s of start"
    # Each record: owner, type, class (with the cache-flush bit but on PTR
    # records), TTL 120 s, data; later names reach "local" (offset 16) by pointers.
    assert packet.raw == bytes.fromhex(
        "0000 8400 0000 0007 0000 0003"  # a response: no questions, 7 answers, 3 additional records
        "03 626f78 05 6c6f63616c 00 0001 8001 00000078 0004 0a4d0001"  # box.local A 10.77.0.1
        "05 5f68747470 04 5f746370 c010 000c 0001 00000078 000c 09 426f78204d65646961 c025"  # PTR Box Media
        "c03c 0021 8001 00000078 0008 0000 0000 2008 c00c"  # SRV port 8200 on box.local
        "c03c 0010 8001 00000078 0011 06 706174683d2f 09 76657273696f6e3d31"  # TXT path=/ version=1
        "04 5f736d62 04 5f746370 c010 000c 0001 00000078 000c 09 426f782046696c6573 c079"  # PTR Box Files
        "c08f 0021 8001 00000078 0008 0000 0000 01bd c00c"  # SRV port 445
        "c08f 0010 8001 00000078 0001 00"  # an empty TXT
        "c00c 002f 8001 00000078 0005 c00c 000140"  # NSEC: box.local has only A
        "c03c 002f 8001 00000078 0009 c03c 00050000800040"  # NSEC: each service has TXT and SRV
        "c08f 002f 8001 00000078 0009 c08f 00050000800040")


def test_only_a_pointer_query_for_a_service_type_triggers_a_packet(responder, peer):
    responder("quiet", ("Quiet", "_quiet._tcp", 80, "a=1"))
    assert next_announcement(peer, "quiet") is not None
    for wire in (query("quiet.local.", "A"),
                 query("Quiet._quiet._tcp.local.", "SRV"),
                 query("_quiet._tcp.local.", "ANY"),
                 query("_other._tcp.local.", "PTR"),
                 query("_quiet._udp.local.", "PTR"),
                 query("_quiet._tcp.local.", "PTR", response=True)):
        peer.sendto(wire, (GROUP, PORT))
    assert next_announcement(peer, "quiet", timeout=2.0) is None

    # A second question whose name ends in a pointer into the first one.
    compressed = (struct.pack("!6H", 0, 0, 2, 0, 0, 0)
                  + b"\x06_dummy\x04_udp\x05local\x00" + struct.pack("!HH", 1, 1)
                  + b"\x06_quiet\x04_tcp\xc0\x18" + struct.pack("!HH", 12, 1))
    for wire in (query("_quiet._tcp.local.", "PTR"), compressed):
        sent = time.monotonic()
        peer.sendto(wire, (GROUP, PORT))
        packet = next_announcement(peer, "quiet", timeout=3.0)
        assert packet is not None, "a matching PTR query went unanswered"
        assert time.monotonic() - sent < 3.0 and packet.answers[1].name == "_quiet._tcp.local."


def test_stop_sends_the_packet_again_with_every_ttl_zero(responder, peer):
    proc = responder("bye", ("Bye", "_bye._tcp", 7000, "k=v"))
    hello = next_announcement(peer, "bye")
    assert hello is not None and proc.stop() == ("", 0)
    goodbye = next_announcement(peer, "bye", timeout=5.0)
    assert goodbye is not None, "no goodbye packet"
    records = goodbye.answers + goodbye.additional
    assert len(records) == 6 and records == [record._replace(ttl=0) for record in hello.answers + hello.additional]


def test_stop_is_prompt_after_the_interface_lost_its_address(responder, peer):
    # Responders are deleted when addresses change; the loop-back wake-up
    # cannot reach the thread then, and the stop must not wait for the next
    # 30-second poll.
    extra = "10.77.0.3"
    subprocess.run(["ip", "addr", "add", f"{extra}/24", "dev", "dms0"], check=True)
    try:
        proc = responder("gone", ("Gone", "_gone._tcp", 9, "x"), address=extra)
        # Past the first announcement the thread waits 30 s for input.
        assert next_announcement(peer, "gone") is not None
    finally:
        subprocess.run(["ip", "addr", "del", f"{extra}/24", "dev", "dms0"], check=True)
    assert proc.stop(timeout=10.0) == ("", 0)


def test_device_thread_runs_a_responder_per_interface(process, peer):
    # A UPnP device that lists a service: its interface check starts a
    # responder on dms0 named after the hardware address, advertising the bound
    # HTTP port, and closing the device sends the goodbye.
    device = process("mdns_test_device")
    port = device.wait_port()
    mac = open("/sys/class/net/dms0/address").read().strip().upper().replace(":", "-")
    packet = next_announcement(peer, mac, timeout=15.0)
    assert packet is not None, "no announcement after the first interface check"
    a, ptr, srv, txt = packet.answers
    assert (a.ttl, a.rdata.address, ptr.name, srv.rdata.port, srv.rdata.target.to_text(), txt.rdata.strings) == \
        (120, ADDR, "_upnp-test._tcp.local.", port, f"{mac}.local.", (b"path=/Device",))
    assert device.stop() == ("", 0)
    goodbye = next_announcement(peer, mac, timeout=5.0)
    assert goodbye is not None and {r.ttl for r in goodbye.answers + goodbye.additional} == {0}
