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

    def _is_whole(self):
        """Whether each stream has a leader, and all others have what it contains."""
        names, whole = set(), set()
        for node, ports in enumerate(self._ports):
            try:
                with urllib.request.urlopen(f"http://127.0.0.1:{ports['monitor']}/jsz?streams=true", timeout=5) as answer:
                    accounts = json.load(answer).get("account_details") or []
            except OSError:
                return False
            for stream in (stream for account in accounts for stream in account.get("stream_detail") or []):
                names.add(stream["name"])
                replicas = stream["cluster"].get("replicas", ())
                others = sum(replica["current"] and not replica.get("offline") for replica in replicas)
                if stream["cluster"].get("leader") == f"node{node}" and others == NODES - 1:
                    whole.add(stream["name"])
        return names == whole

    def wait_until_whole(self):
        """All nodes live, and each stream is on all of them. A node's own health is too strict: it counts consumers of
        connections that are no more."""
        wait_until(self._is_whole, "a whole cluster", 60, 0.1)
