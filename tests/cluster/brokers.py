"""Three brokers on loopback that form a cluster, with their files in a folder."""
import json
import os
import socket
import ssl
import subprocess
import time
import urllib.request


class Failure(Exception):
    pass


def await_that(condition, what, seconds=60):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise Failure(f"{seconds} seconds have passed, and still not: {what}")
        time.sleep(0.02)


def free_ports(count):
    sockets = [socket.socket() for _ in range(count)]
    for each in sockets:
        each.bind(("127.0.0.1", 0))
    ports = [each.getsockname()[1] for each in sockets]
    for each in sockets:
        each.close()
    return ports


class Brokers:
    names = ("one", "two", "three")

    def __init__(self, folder, certificate=None):
        """With a certificate, a PEM file that has its key too, clients must speak TLS."""
        self.folder = folder
        self.tls = ["--tls", "--tlscert", certificate, "--tlskey", certificate] if certificate else []
        ports = free_ports(9)
        self.ports = dict(zip(self.names, ports))
        self.routes = dict(zip(self.names, ports[3:]))
        self.monitors = dict(zip(self.names, ports[6:]))
        self.running = {}
        for name in self.names:
            self.start(name)

    def start(self, name):
        with open(os.path.join(self.folder, name + ".log"), "ab") as log:
            self.running[name] = subprocess.Popen(
                ["nats-server", "-a", "127.0.0.1", "-p", str(self.ports[name]), "-n", name, "-js",
                 "-sd", os.path.join(self.folder, name), "-m", str(self.monitors[name]), "--cluster_name", "trial",
                 "--cluster", f"nats://127.0.0.1:{self.routes[name]}",
                 "--routes", ",".join(f"nats://127.0.0.1:{port}" for port in self.routes.values()), *self.tls],
                stdout=log, stderr=log)

    def kill(self, name):
        process = self.running.pop(name)
        process.kill()
        process.wait()

    def stop(self):
        for name in list(self.running):
            self.kill(name)

    def url(self, stream):
        return "nats://" + ",".join(f"127.0.0.1:{port}" for port in self.ports.values()) + "/" + stream

    def ask(self, name, path):
        try:
            with urllib.request.urlopen(f"http://127.0.0.1:{self.monitors[name]}/{path}", timeout=2) as answer:
                return json.load(answer)
        except OSError:
            return {}

    def is_ready(self):
        """All run, and the cluster has a leader that sees the others."""
        for name in self.running:
            meta = self.ask(name, "jsz").get("meta_cluster") or {}
            others = meta.get("replicas") or []
            if len(others) == 2 and all(each.get("current") and not each.get("offline") for each in others):
                return len(self.running) == 3
        return False

    def streams(self):
        """What a running broker knows of each stream."""
        for name in self.running:
            accounts = self.ask(name, "jsz?accounts=true&streams=true&config=true").get("account_details") or []
            found = {each["name"]: each for account in accounts for each in account.get("stream_detail") or []}
            if found:
                return found
        return {}

    def leader(self, stream):
        """None if it has none at present."""
        name = (self.streams().get(stream, {}).get("cluster") or {}).get("leader")
        return name if name in self.running else None

    def publish(self, subject, text):
        """Puts a message into a stream that no server has made."""
        with socket.create_connection(("127.0.0.1", next(iter(self.ports.values()))), timeout=5) as link:
            if self.tls:
                link.recv(4096)  # its greeting; then it waits for TLS
                link = ssl._create_unverified_context().wrap_socket(link)
            link.sendall(f"CONNECT {{}}\r\nPUB {subject} {len(text)}\r\n{text}\r\nPING\r\n".encode())
            received = b""
            while b"PONG" not in received:
                piece = link.recv(4096)
                if not piece:
                    raise Failure("a broker has closed the connection")
                received += piece
