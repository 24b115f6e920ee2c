"""A client of a broker at 127.0.0.1."""
import threading

import paho.mqtt.client as mqtt

from processes import DEADLINE


class Client:
    """It comes back by itself."""

    def __init__(self, port, name, topics=(), login=None, password=None):
        self.received, self.connected, self.changed = [], None, threading.Condition()
        self.topics = topics
        self.client = mqtt.Client(name, protocol=mqtt.MQTTv5)
        self.client.reconnect_delay_set(1, 1)
        if login:
            self.client.username_pw_set(login, password)
        self.client.on_connect, self.client.on_message = self.on_connect, self.on_message
        self.client.connect_async("127.0.0.1", port, keepalive=5)
        self.client.loop_start()

    def on_connect(self, client, _data, _flags, code, _properties):
        for topic in self.topics:
            client.subscribe(topic, 1)
        with self.changed:
            self.connected = code.value < 0x80
            self.changed.notify_all()

    def on_message(self, _client, _data, message):
        with self.changed:
            self.received.append((message.topic, message.payload.decode()))
            self.changed.notify_all()

    def wait(self, condition):
        with self.changed:
            assert self.changed.wait_for(condition, DEADLINE), self.received

    def publish(self, topic, payload, retain=False):
        self.client.publish(topic, payload, 1, retain)

    def end(self):
        self.client.disconnect()
        self.client.loop_stop()
