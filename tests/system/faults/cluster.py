"""A cluster of three brokers on the loopback: nats-server, whose MQTT 3.1.1 keeps messages on three replicas."""
import os
import urllib.error
import urllib.request
from pathlib import Path

from processes import free_tcp_port, wait_until

NODES = 3


class Cluster:
    """`start_peer(name, *command)` starts a process."""

    def __init__(self, folder, start_peer):
        self._folder, self._start_peer = folder, start_peer
        self._ports = [{use: free_tcp_port() for use in ("clients", "mqtt", "routes", "monitor")} for _ in range(NODES)]
        self.nodes = [None] * NODES
        routes = ", ".join(f'"nats://127.0.0.1:{ports["routes"]}"' for ports in self._ports)
        for node, ports in enumerate(self._ports):
            Path(self._configuration(node)).write_text(
                f'server_name: node{node}\nlisten: "127.0.0.1:{ports["clients"]}"\nhttp: "127.0.0.1:{ports["monitor"]}"\n'
                f'max_payload: 8388608\njetstream {{ store_dir: "{folder}/store{node}" }}\n'
                f'mqtt {{ listen: "127.0.0.1:{ports["mqtt"]}", stream_replicas: {NODES} }}\n'
                f'cluster {{ name: faults, listen: "127.0.0.1:{ports["routes"]}", routes: [{routes}] }}\n')
            self.start(node)
        self.wait_until_healthy()

    def _configuration(self, node):
        return os.path.join(self._folder, f"node{node}.conf")

    def start(self, node):
        self.nodes[node] = self._start_peer(f"node{node}", "nats-server", "-c", self._configuration(node))

    def kill(self, node):
        self.nodes[node].kill()
        self.nodes[node].wait()

    def mqtt_ports(self):
        return [ports["mqtt"] for ports in self._ports]

    def _trouble(self, node):
        try:
            with urllib.request.urlopen(f"http://127.0.0.1:{self._ports[node]['monitor']}/healthz", timeout=5):
                return None
        except urllib.error.HTTPError as error:
            return f"node{node}: {error.read().decode()}"
        except OSError as error:
            return f"node{node}: {error}"

    def wait_until_healthy(self):
        """All nodes live, and have all that the others have."""
        troubles = lambda: [trouble for node in range(NODES) if (trouble := self._trouble(node))]  # noqa: E731
        wait_until(lambda: not troubles(), lambda: f"a healthy cluster: {troubles()}", 60, 0.1)
