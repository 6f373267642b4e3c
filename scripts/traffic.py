"""Streams of packets between namespaces of a Lab: UDP at a fixed rate, each packet accounted for,
and TCP as fast as it goes."""
import array
import contextlib
import heapq
import itertools
import select
import socket
import struct
import threading
import time

SO_RCVBUFFORCE = 33  # which the module lacks
header = struct.Struct("!II")  # stream and sequence number
text = b"Everybody on the way can read this. "
payload = (text * 3)[-100:]


def open_socket(lab, name, kind, address, port=0):
    """A socket of a namespace, bound to an address there."""
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    with lab.within(name):
        opened = socket.socket(family, kind)
    opened.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    opened.bind((address, port))
    return opened


class Stream:
    """UDP packets of one flow. Times are those of sending, so that a machine that is slow to
    receive is not taken for a network that is slow to carry."""

    def __init__(self, name, source, target, number, rate):
        self.name, self.source, self.target, self.number = name, source, target, number
        self.ports = source.getsockname()[1], target[1]
        self.interval = 1 / rate
        self.sent = array.array("d")  # when, by sequence number
        self.arrived = bytearray()  # whether, by sequence number
        self.latest = -1  # sequence number that arrived
        self.receiver = None  # namespace in which one arrived last
        self.settled = 0  # packets from this one on may still be under way

    def lost(self, first=0):
        """How many packets from the `first` on, as far as settled, did not arrive."""
        return self.arrived.count(0, first, self.settled)

    def outages(self, first=0):
        """(packets lost, seconds) of each time in which no packet arrived."""
        found = []
        for arrived, run in itertools.groupby(range(first, self.settled),
                                              lambda number: self.arrived[number]):
            if not arrived:
                run = list(run)
                end = min(run[-1] + 1, len(self.sent) - 1)
                found.append((len(run), self.sent[end] - self.sent[run[0]]))
        return found


class Traffic:
    """All UDP streams of a laboratory, sent by one thread and received by another. Ends with its
    context."""

    def __init__(self, lab):
        self.lab = lab
        self.streams, self.receivers = [], {}
        self._due = []  # heap of (when, number of the stream)
        self._lock = threading.Lock()
        self._poll = select.epoll()
        self._ended = threading.Event()
        self._wake = threading.Event()
        self._threads = [threading.Thread(target=each, daemon=True)
                         for each in (self._send, self._receive)]
        for thread in self._threads:
            thread.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._ended.set()
        self._wake.set()
        for thread in self._threads:
            thread.join()
        for each in [*self.receivers.values(), *(stream.source for stream in self.streams)]:
            each.close()
        self._poll.close()

    def listen(self, name, address, port):
        """Receives in a namespace what streams send there."""
        if (name, address, port) in self.receivers:
            return
        receiver = open_socket(self.lab, name, socket.SOCK_DGRAM, address, port)
        receiver.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 1 << 24)
        receiver.setblocking(False)
        self.receivers[name, address, port] = receiver
        self._poll.register(receiver, select.EPOLLIN)

    def stream(self, what, source, target, rate=1000):
        """Starts one: `source` and `target` are (namespace, address), the target with a port."""
        self.listen(*target)
        sender = open_socket(self.lab, source[0], socket.SOCK_DGRAM, source[1])
        with self._lock:
            stream = Stream(what, sender, target[1:], len(self.streams), rate)
            self.streams.append(stream)
            heapq.heappush(self._due, (time.monotonic(), stream.number))
        self._wake.set()
        return stream

    def stop(self):
        """Ends all streams."""
        with self._lock:
            self._due.clear()
        self.settle()

    def settle(self):
        """Waits until it is known of every packet sent so far whether it is lost: a later one of
        its stream has arrived, or none has for a second."""
        goals = {stream: len(stream.sent) for stream in self.streams}

        def under_way():
            return [stream for stream, goal in goals.items() if stream.latest < goal + 5 and
                    stream.arrived.count(0, stream.settled, goal)]

        seen, end = None, 0.0
        while waiting := under_way():
            now = [stream.latest for stream in waiting]
            if now != seen:
                seen, end = now, time.monotonic() + 1
            elif time.monotonic() > end:
                break
            time.sleep(0.01)  # between two looks
        for stream, goal in goals.items():
            stream.settled = goal

    def _send(self):
        while not self._ended.is_set():
            with self._lock:
                now = time.monotonic()
                while self._due and self._due[0][0] <= now:
                    when, number = self._due[0]
                    stream = self.streams[number]
                    # A stream that is late catches up, so that its rate holds.
                    heapq.heapreplace(self._due, (when + stream.interval, number))
                    sequence = len(stream.sent)
                    stream.sent.append(time.monotonic())
                    stream.arrived.append(0)
                    packet = header.pack(number, sequence) + payload
                    with contextlib.suppress(OSError):  # no route, for example: it is lost
                        stream.source.sendto(packet, stream.target)
                    now = time.monotonic()
                pause = self._due[0][0] - now if self._due else None
                self._wake.clear()
            self._wake.wait(pause)

    def _receive(self):
        buffers = {}
        while not self._ended.is_set():
            for descriptor, _ in self._poll.poll(0.1):
                if descriptor not in buffers:
                    buffers = {each.fileno(): (name, each)
                               for (name, *_), each in list(self.receivers.items())}
                name, receiver = buffers[descriptor]
                with contextlib.suppress(BlockingIOError):
                    while True:
                        data = receiver.recv(2048)
                        number, sequence = header.unpack_from(data)
                        stream = self.streams[number]
                        stream.arrived[sequence] = 1
                        stream.latest = max(stream.latest, sequence)
                        stream.receiver = name


class Bulk:
    """One TCP connection that carries as much as it can, from its start until stop()."""

    def __init__(self, lab, source, target):
        listener = open_socket(lab, target[0], socket.SOCK_STREAM, *target[1:])
        listener.listen()
        self.source = open_socket(lab, source[0], socket.SOCK_STREAM, source[1])
        self.source.settimeout(30)
        self.source.connect(target[1:])
        self.sink, _ = listener.accept()
        listener.close()
        self.received = 0  # bytes
        self.ports = self.source.getsockname()[1], target[2]
        self.segment = self.source.getsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG)
        self._ended = threading.Event()
        self._threads = [threading.Thread(target=each, daemon=True)
                         for each in (self._send, self._receive)]
        for thread in self._threads:
            thread.start()

    def _send(self):
        with contextlib.suppress(OSError):
            while not self._ended.is_set():
                self.source.sendall(bytes(1 << 16))
        self.source.shutdown(socket.SHUT_WR)

    def _receive(self):
        while data := self.sink.recv(1 << 16):
            self.received += len(data)

    def stop(self):
        self._ended.set()
        for thread in self._threads:
            thread.join(30)
        self.source.close()
        self.sink.close()
        return self.received
