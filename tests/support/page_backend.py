"""A backend written from docs/mqtt.md alone: it shares nothing with vlm-backend, so that the page is put to the test.

It stores each envelope once as a line of JSON, and answers each with its result and its messageId.
"""
import base64
import json
import os
import threading
import time
from pathlib import Path

import paho.mqtt.client as mqtt
import zstandard
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties


class PageBackend:
    """Works on a thread of its own until end(). `ports` are of brokers that know the same messages.

    `results` are those of the first envelopes; after these, and for repeats, the result is 0. Answers come
    once nothing has for `answer_after` seconds.
    """

    def __init__(self, ports, prefix, store, configuration, dictionaries=(), protocol=mqtt.MQTTv5, results=()):
        self.received = []  # (number in the spool or None, messageId, encoding), of all that came
        self.most_unanswered = 0
        self.faults = []
        self.answer_after = 0.0
        self._ports, self._prefix, self._store = list(ports), prefix, Path(store)
        self._configuration = Path(configuration)
        self._results = list(results)
        read = [zstandard.ZstdCompressionDict(Path(file).read_bytes()) for file in dictionaries]
        self._dictionaries = {dictionary.dict_id(): dictionary for dictionary in read}
        self._known = set()
        self._permitted = []
        self._ticket = 0
        self._due = []  # what to publish
        self._due_at = 0.0
        self._ended = False
        self._is_v5 = protocol == mqtt.MQTTv5
        session = {} if self._is_v5 else {"clean_session": False}
        self._client = mqtt.Client("page-backend", protocol=protocol, **session)
        self._client.on_connect = self._subscribe
        self._client.on_message = self._take
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def end(self):
        self._ended = True
        self._thread.join()

    def _run(self):
        turn = 0
        options = {"keepalive": 5}
        if self._is_v5:
            # A session that lasts: what comes while this is away is kept for it.
            options.update(clean_start=False, properties=Properties(PacketTypes.CONNECT))
            options["properties"].SessionExpiryInterval = 3600
        while not self._ended:
            try:
                self._client.connect("127.0.0.1", self._ports[turn % len(self._ports)], **options)
                while not self._ended and self._client.loop(0.02) == mqtt.MQTT_ERR_SUCCESS:
                    self._answer_what_is_due()
            except OSError:
                pass
            turn += 1
            time.sleep(0.1)
        self._client.disconnect()

    def _subscribe(self, client, *_):
        client.subscribe([(f"{self._prefix}/{topic}", 1) for topic in ("status", "config/request", "data/#")])

    def _take(self, _client, _data, message):
        topic = message.topic[len(self._prefix) + 1:]
        try:
            if topic == "status":
                self._take_presence(json.loads(message.payload))
            elif topic == "config/request":
                body = base64.b64encode(self._configuration.read_bytes()).decode()
                self._publish("config/response", [{"recordId": self._configuration.name, "recordBody": body}])
            else:
                self._take_envelope(topic, message)
        except Exception as fault:  # pylint: disable=broad-except
            self.faults.append(f"{message.topic}: {fault!r}")

    def _take_presence(self, presence):
        if presence["state"] == "online":
            self._permitted = presence["offeredDataTypes"]
            self._ticket += 1
            self._answer(0)

    def _take_envelope(self, topic, message):
        # MQTT 5 has in user properties what 3.1.1 has in the topic.
        _, *notes = topic.split("/")
        notes = dict(zip(("encoding", "spool"), notes))
        notes.update(getattr(message.properties, "UserProperty", ()) if self._is_v5 else ())
        encoding = notes.get("encoding", "plain")
        envelope = json.loads(self._text(encoding, message.payload))
        identifier = envelope["messageId"]
        self.received.append((int(notes["spool"]) if "spool" in notes else None, identifier, encoding))
        result = self._results.pop(0) if self._results else 0
        if result == 0 and identifier not in self._known:
            with open(self._store, "a") as store:
                store.write(json.dumps(envelope) + "\n")
                store.flush()
                os.fsync(store.fileno())
            self._known.add(identifier)
        self._due.append((result, identifier))
        self._due_at = time.monotonic() + self.answer_after
        self.most_unanswered = max(self.most_unanswered, len(self._due))
        self._answer_what_is_due()

    def _text(self, encoding, payload):
        if encoding == "plain":
            return payload
        dictionary = self._dictionaries.get(zstandard.get_frame_parameters(payload).dict_id)
        return zstandard.ZstdDecompressor(dict_data=dictionary).decompress(payload)

    def _answer_what_is_due(self):
        while self._due and self._due_at <= time.monotonic():
            result, identifier = self._due.pop(0)
            self._answer(result, identifier)
            if result != 0:
                self._answer(0)

    def _answer(self, result, identifier=None):
        control = {"eventTicket": f"page-{self._ticket}", "permittedDataType": self._permitted,
                   "backendChannelControl": 0, "dataDeliveryResult": result}
        self._publish("mastercontrol", {**control, "messageId": identifier} if identifier else control)

    def _publish(self, topic, message):
        self._client.publish(f"{self._prefix}/{topic}", json.dumps(message), qos=1)
