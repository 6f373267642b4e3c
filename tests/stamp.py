"""A sender and a reflector of STAMP, written from RFC 8762 alone, to talk to those of the agent:

    stamp.py send SOURCE DESTINATION COUNT INTERVAL [KEY]
    stamp.py reflect ADDRESS [KEY]

A sender prints a JSON object at the end; a reflector, which keeps state, answers until it is killed.
"""
import hashlib
import hmac
import json
import random
import socket
import struct
import sys
import time

PORT = 862
IP_RECVTTL = 12  # of linux/in.h; the module socket has no name for it
# Sequence number, timestamp, error estimate, session id; then, of a reflector, when it received, the
# sender's first three fields, and the TTL. MBZ are the x (4.2.1, 4.2.2, 4.3.1, 4.3.2).
SENDER = {False: struct.Struct(">IQHH28x"), True: struct.Struct(">I12xQHH68x")}
REFLECTOR = {False: struct.Struct(">IQHHQIQH2xB3x"), True: struct.Struct(">I12xQHH4xQ8xI12xQH6xB15x")}
ESTIMATE = 1  # not synchronised, NTP format, the smallest error


def now():
    """As an NTP timestamp."""
    seconds, rest = divmod(time.time_ns(), 10**9)
    return (seconds + 2208988800 & 0xffffffff) << 32 | (rest << 32) // 10**9


def signed(packet, key):
    """HMAC-SHA-256 over the first six blocks, truncated to 128 bits (4.4)."""
    return packet + hmac.new(key, packet, hashlib.sha256).digest()[:16] if key else packet


def proper(packet, form, key):
    """Whether a packet has the size and signature of its form, and zeros where it has to."""
    plain = packet[:form.size]
    return len(packet) == (112 if key else 44) and packet == signed(form.pack(*form.unpack(plain)), key)


def open_socket(address, port):
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    sock = socket.socket(family, socket.SOCK_DGRAM)
    if family == socket.AF_INET:
        sock.setsockopt(socket.IPPROTO_IP, socket.IP_TTL, 255)
        sock.setsockopt(socket.IPPROTO_IP, IP_RECVTTL, 1)
    else:
        sock.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_UNICAST_HOPS, 255)
        sock.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_RECVHOPLIMIT, 1)
    sock.bind((address, port))
    return sock


def reflect(address, key):
    sock, sessions = open_socket(address, PORT), {}
    while True:
        packet, control, _, peer = sock.recvmsg(2048, 256)
        received = now()
        if not proper(packet, SENDER[bool(key)], key):
            continue
        sequence, timestamp, estimate, session = SENDER[bool(key)].unpack(packet[:96 if key else 44])
        ttl = next((struct.unpack("i", data)[0] for _, _, data in control), 0)
        own = sessions[peer, session] = sessions.get((peer, session), -1) + 1
        time.sleep(0.01)  # which is not part of the round trip
        answer = REFLECTOR[bool(key)].pack(own, now(), ESTIMATE, session, received, sequence,
                                           timestamp, estimate, ttl)
        sock.sendto(signed(answer, key), peer)


def send(source, destination, count, interval, key):
    """What came of the probes: whether answers are as the standard says, and how many came."""
    sock = open_socket(source, 0)
    sock.settimeout(0.5)
    session, sent, faults, answered = random.randrange(1, 0xffff), {}, set(), []
    for sequence in range(count):
        sent[sequence] = now()
        packet = SENDER[bool(key)].pack(sequence, sent[sequence], ESTIMATE, session)
        sock.sendto(signed(packet, key), (destination, PORT))
        time.sleep(interval)  # between probes, as asked for
        try:
            answer, _, _, peer = sock.recvmsg(2048, 256)
        except TimeoutError:
            continue
        if not proper(answer, REFLECTOR[bool(key)], key):
            faults.add("size, zeros or signature")
            continue
        own, timestamp, estimate, echoed, received, of, stamp, of_estimate, ttl = \
            REFLECTOR[bool(key)].unpack(answer[:96 if key else 44])
        answered.append(own)
        for what, right in (("port", peer[1] == PORT), ("session", echoed == session),
                            ("error estimate", of_estimate == ESTIMATE and estimate & 0xff != 0),
                            ("sequence", of == sequence), ("timestamp", stamp == sent[sequence]),
                            ("TTL", 250 <= ttl <= 255),
                            ("order of times", sent[sequence] <= received <= timestamp <= now())):
            if not right:
                faults.add(what)
    print(json.dumps({"answered": len(answered), "faults": sorted(faults),
                      "consecutive": answered == list(range(len(answered)))}))


def main():
    role, *rest = sys.argv[1:]
    if role == "reflect":
        reflect(rest[0], rest[1].encode() if rest[1:] else b"")
    else:
        send(rest[0], rest[1], int(rest[2]), float(rest[3]), rest[4].encode() if rest[4:] else b"")


if __name__ == "__main__":
    main()
