"""A cluster of three brokers on the loopback: nats-server, whose MQTT 3.1.1 keeps messages on three replicas."""
import json
import urllib.request
from pathlib import Path

from processes import free_tcp_port, wait_until

NODES = 3


class Cluster:
    """`start_peer(name, *command)` starts a process."""

    def __init__(self, folder, start_peer):
        self._ports = [{use: free_tcp_port() for use in ("clients", "mqtt", "routes", "monitor")} for _ in range(NODES)]
        self.nodes = []
        routes = ", ".join(f'"nats://127.0.0.1:{ports["routes"]}"' for ports in self._ports)
        for node, ports in enumerate(self._ports):
            configuration = Path(folder, f"node{node}.conf")
            configuration.write_text(
                f'server_name: node{node}\nlisten: "127.0.0.1:{ports["clients"]}"\nhttp: "127.0.0.1:{ports["monitor"]}"\n'
                f'max_payload: 8388608\njetstream {{ store_dir: "{folder}/store{node}" }}\n'
                f'mqtt {{ listen: "127.0.0.1:{ports["mqtt"]}", stream_replicas: {NODES} }}\n'
                f'cluster {{ name: faults, listen: "127.0.0.1:{ports["routes"]}", routes: [{routes}] }}\n')
            self.nodes.append(start_peer(f"node{node}", "nats-server", "-c", configuration))
        self.wait_until_whole()

    def mqtt_ports(self):
        return [ports["mqtt"] for ports in self._ports]

    def _led(self, node):
        """Streams that this node leads, and whether all others have what they contain; and the names of all streams."""
        url = f"http://127.0.0.1:{self._ports[node]['monitor']}/jsz?streams=true"
        with urllib.request.urlopen(url, timeout=5) as answer:
            accounts = json.load(answer).get("account_details") or []
        streams = [stream for account in accounts for stream in account.get("stream_detail") or []]
        led = {stream["name"]: stream["cluster"] for stream in streams if stream["cluster"].get("leader") == f"node{node}"}
        return {stream["name"] for stream in streams}, {
            name: sum(replica["current"] and not replica.get("offline") for replica in cluster.get("replicas", ())) == NODES - 1
            for name, cluster in led.items()}

    def _is_whole(self):
        try:
            found = [self._led(node) for node in range(NODES)]
        except OSError:
            return False
        names = set().union(*(names for names, _ in found))
        led = {name: whole for _, led in found for name, whole in led.items()}
        return all(led.get(name) for name in names)

    def wait_until_whole(self):
        """All nodes live, and each stream is on all of them. A node's own health is too strict: it counts consumers of
        connections that are no more."""
        wait_until(self._is_whole, "a whole cluster", 60, 0.1)
