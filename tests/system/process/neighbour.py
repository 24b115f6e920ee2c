#!/usr/bin/env python3
"""Another SOME/IP stack on this machine: it binds the discovery port at all addresses with reuse, as many do, and
prints the sender of each discovery message that it hears. `neighbour.py PORT`"""
import socket
import sys

with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as port:
    port.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    port.bind(("0.0.0.0", int(sys.argv[1])))
    print("bound", flush=True)
    while True:
        message, (address, _) = port.recvfrom(65536)
        if message[:4] == b"\xff\xff\x81\x00":
            print(address, flush=True)
