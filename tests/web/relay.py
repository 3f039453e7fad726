"""A connection to the demo device that can be cut."""

import socket
import threading


class Relay:
    """Passes on what is sent to a port of its own to another port of this machine."""

    def __init__(self, port):
        self.target = port
        self.connections = []
        self.lock = threading.Lock()
        self.listener = None
        self.port = 0
        self.mend()

    def mend(self):
        """Accepts connections, again on the same port."""
        self.listener = socket.create_server(("127.0.0.1", self.port))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.accept, args=[self.listener], daemon=True).start()

    def cut(self):
        """Breaks all connections, and refuses further ones."""
        self.listener.shutdown(socket.SHUT_RDWR)
        with self.lock:
            for connection in self.connections:
                break_off(connection)
            self.connections = []

    def accept(self, listener):
        with listener:
            while True:
                try:
                    client = listener.accept()[0]
                except OSError:
                    return
                server = socket.create_connection(("127.0.0.1", self.target))
                with self.lock:
                    self.connections += [client, server]
                threading.Thread(target=relay, args=[client, server], daemon=True).start()


def relay(client, server):
    with client, server:
        back = threading.Thread(target=pass_on, args=[server, client], daemon=True)
        back.start()
        pass_on(client, server)
        back.join()


def pass_on(source, sink):
    try:
        while data := source.recv(65536):
            sink.sendall(data)
        sink.shutdown(socket.SHUT_WR)
    except OSError:
        break_off(source)
        break_off(sink)


def break_off(connection):
    try:
        connection.shutdown(socket.SHUT_RDWR)
    except OSError:
        pass  # has ended already
