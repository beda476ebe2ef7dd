"""NATS servers with JetStream on loopback, and networks to them that can be cut. Used by scripts that test or show replicas."""
import os
import signal
import socket
import subprocess

SERVER = "/usr/sbin/nats-server"
FORWARDER = "/usr/bin/socat"


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def urls_of(ports):
    return ",".join(f"nats://127.0.0.1:{port}" for port in ports)


def server_command(i, ports, routes, folder):
    """Of server i of a cluster, or of a single one."""
    command = [SERVER, "-js", "-a", "127.0.0.1", "-p", str(ports[i]), "-sd", f"{folder}.{i}", "-n", f"server{i}"]
    if len(ports) > 1:
        command += ["--cluster", routes[i], "--cluster_name", "loopback", "--routes", ",".join(routes), "--no_advertise"]
    return command


def forwarder_command(port, to):
    return [FORWARDER, f"TCP-LISTEN:{port},bind=127.0.0.1,reuseaddr,fork", f"TCP:127.0.0.1:{to}"]


class Servers:
    """One NATS server, or several in a cluster. Clients learn no other addresses than they were given."""

    def __init__(self, folder, count):
        self.folder = folder
        self.ports = [free_port() for _ in range(count)]
        self.routes = [f"nats://127.0.0.1:{free_port()}" for _ in range(count)]
        self.urls = urls_of(self.ports)
        self.processes = [None] * count
        self.start()

    def start(self):
        """Starts those that do not run."""
        for i, process in enumerate(self.processes):
            if process:
                continue
            command = server_command(i, self.ports, self.routes, self.folder)
            self.processes[i] = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                                 start_new_session=True)

    def kill(self, i):
        self.processes[i].kill()
        self.processes[i].wait()
        self.processes[i] = None

    def kill_all(self):
        for i, process in enumerate(self.processes):
            if process:
                self.kill(i)


class Network:
    """The network from one client to servers. While it is cut, nothing passes; what was sent arrives when it is whole."""

    def __init__(self, ports):
        self.ports = [free_port() for _ in ports]
        self.urls = urls_of(self.ports)
        self.forwarders = [
            subprocess.Popen(forwarder_command(port, to), stderr=subprocess.DEVNULL, start_new_session=True)
            for port, to in zip(self.ports, ports)]

    def signal(self, number):
        for forwarder in self.forwarders:  # each is a group: a connection is a process of its own
            os.killpg(forwarder.pid, number)

    def cut(self):
        self.signal(signal.SIGSTOP)

    def heal(self):
        self.signal(signal.SIGCONT)

    def end(self):
        self.signal(signal.SIGKILL)
        for forwarder in self.forwarders:
            forwarder.wait()
