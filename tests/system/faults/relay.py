"""A network between a vehicle and vlmmaster that loses, doubles, reorders and mutates datagrams.

Each side has a discovery port of its own and sees the other side at an address of the relay: what the vehicle
offers at its event port, vlmmaster finds at the relay's, and the other way round. So all that passes, discovery
and events, goes through here.
"""
import random
import select
import socket
import struct
import threading
import time
from collections import Counter

BROADCAST = "127.255.255.255"
FOR_MASTER, FOR_VEHICLE = "127.0.0.9", "127.0.0.8"  # addresses at which each side sees the other
ENDPOINT_OPTION = 0x04
HOLD_SECONDS = 0.03  # an overtaken datagram waits at most this long


class Relay:
    """Loses `share` of all datagrams, doubles as many, and lets the next one overtake as many; changes bytes of
    `mutated` of them or cuts them."""

    def __init__(self, vehicle_port, master_port, seed, share=0.05, mutated=0.0):
        self.share, self.mutated = share, mutated
        self.counted = Counter()  # by "<events|discovery> <lost|doubled|overtaken|forwarded>"
        self._chance = random.Random(seed)
        self._vehicle_port, self._master_port = vehicle_port, master_port
        self._held = {}  # per direction: the datagram that waits to be overtaken
        self._events = {"vehicle": None, "master": None}  # each side's real endpoint for events
        self._to_master = self._socket(FOR_MASTER, master_port)
        self._to_vehicle = self._socket(FOR_VEHICLE, vehicle_port)
        self._events_to_master = self._socket(FOR_MASTER, 0)
        self._events_to_vehicle = self._socket(FOR_VEHICLE, 0)
        self._handlers = {self._to_master: self._from_master, self._to_vehicle: self._from_vehicle,
                          self._socket(BROADCAST, vehicle_port): self._from_vehicle,
                          self._socket(BROADCAST, master_port): self._from_master,
                          self._events_to_vehicle: self._event}
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def end(self):
        self._ended.set()
        self._thread.join()
        for channel in (*self._handlers, self._events_to_master):
            channel.close()

    @staticmethod
    def _socket(address, port):
        channel = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        for option, value in ((socket.SO_REUSEADDR, 1), (socket.SO_BROADCAST, 1), (socket.SO_RCVBUF, 4 << 20)):
            channel.setsockopt(socket.SOL_SOCKET, option, value)
        channel.bind((address, port))
        return channel

    def _run(self):
        while not self._ended.is_set():
            for channel in select.select(self._handlers, [], [], 0.01)[0]:
                data, (sender, _) = channel.recvfrom(65536)
                if sender not in (FOR_MASTER, FOR_VEHICLE):  # not the relay's own multicasts
                    self._handlers[channel](channel, data)
            now = time.monotonic()
            for way, (due, send) in list(self._held.items()):
                if due <= now:
                    del self._held[way]
                    send()

    def _from_vehicle(self, channel, data):
        told = self._mutate(self._translate(data, "vehicle", self._events_to_master.getsockname()))
        to = (BROADCAST if channel.getsockname()[0] == BROADCAST else "127.0.0.1", self._master_port)
        self._pass("discovery", channel, lambda: self._to_master.sendto(told, to))

    def _from_master(self, channel, data):
        told = self._translate(data, "master", self._events_to_vehicle.getsockname())
        to = (BROADCAST if channel.getsockname()[0] == BROADCAST else "127.0.0.2", self._vehicle_port)
        self._pass("discovery", channel, lambda: self._to_vehicle.sendto(told, to))

    def _event(self, channel, data):
        to = self._events["master"]
        if to:
            data = self._mutate(data)
            self._pass("events", channel, lambda: self._events_to_master.sendto(data, to))

    def _mutate(self, data):
        if self._chance.random() >= self.mutated:
            return data
        self.counted["mutated"] += 1
        data = bytearray(data)
        for _ in range(self._chance.randint(1, 4)):
            # The header and the first lengths decide most; a small step of a length does more than a random one.
            at = self._chance.randrange(min(len(data), self._chance.choice((16, 40, len(data)))))
            data[at] = self._chance.choice((data[at] ^ 1 << self._chance.randrange(8), 0, 0xFF, self._chance.randrange(256)))
        if self._chance.random() < 0.1:
            data = data[:self._chance.randrange(1, len(data) + 1)]
        if self._chance.random() < 0.1:
            data = data + data
        return bytes(data)

    def _translate(self, data, side, replacement):
        """Replaces the sender's event endpoint by the relay's, and remembers it."""
        data = bytearray(data)
        at = 28 + struct.unpack_from(">I", data, 20)[0]  # header, flags, length of the entries, entries, length
        while at + 3 <= len(data):
            length, kind = struct.unpack_from(">HB", data, at)
            if kind == ENDPOINT_OPTION:
                address, port = socket.inet_ntoa(bytes(data[at + 4:at + 8])), struct.unpack_from(">H", data, at + 10)[0]
                self._events[side] = (address, port)
                data[at + 4:at + 8] = socket.inet_aton(replacement[0])
                struct.pack_into(">H", data, at + 10, replacement[1])
            at += 3 + length
        return bytes(data)

    def _pass(self, what, way, send):
        def forward():
            self.counted[f"{what} forwarded"] += 1
            send()

        fate = self._chance.choices(("lost", "overtaken", "doubled", "kept"), [*[self.share] * 3, 1 - 3 * self.share])[0]
        if fate == "overtaken" and way in self._held:
            fate = "kept"
        self.counted[f"{what} {fate}"] += 1
        if fate == "overtaken":
            self._held[way] = (time.monotonic() + HOLD_SECONDS, forward)
        elif fate != "lost":
            for _ in range(2 if fate == "doubled" else 1):
                forward()
            if way in self._held:
                self._held.pop(way)[1]()
