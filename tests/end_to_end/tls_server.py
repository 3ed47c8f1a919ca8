"""A TLS server that demands a certificate of the demo card's CA and notes its clients."""

import socket
import ssl
import threading

import stack

PAGE = "Welcome, card."


def make_certificate(folder):
    """Makes authority.pem (the server's own CA), server.pem and server.key in the folder."""
    def new(name, *words):
        stack.run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30",
                  "-keyout", f"{name}.key", "-out", f"{name}.pem", *words, cwd=folder)

    new("authority", "-subj", "/CN=Test of TLS")
    new("server", "-subj", "/CN=localhost", "-CA", "authority.pem", "-CAkey", "authority.key",
        "-addext", "basicConstraints=critical,CA:FALSE",
        "-addext", "subjectAltName=DNS:localhost,DNS:HOST,IP:127.0.0.1")


class TlsServer:
    """Serves its page until the process ends. `clients` has the common names of the clients'
    certificates, `refusals` the reasons for refused clients."""

    def __init__(self, folder, client_authority):
        make_certificate(folder)
        self.clients = []
        self.refusals = []
        self._context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self._context.load_cert_chain(folder / "server.pem", folder / "server.key")
        self._context.load_verify_locations(client_authority)
        self._context.verify_mode = ssl.CERT_REQUIRED
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self.url = f"https://localhost:{self.port}/"
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            connection, _ = self._listener.accept()
            threading.Thread(target=self._serve, args=[connection], daemon=True).start()

    def _serve(self, connection):
        try:
            with self._context.wrap_socket(connection, server_side=True) as client:
                client.recv(4096)
                subject = dict(part[0] for part in client.getpeercert()["subject"])
                self.clients.append(subject["commonName"])
                client.sendall(b"HTTP/1.1 200 OK\r\nConnection: close\r\n"
                               b"Content-Type: text/plain\r\nContent-Length: %d\r\n\r\n%s"
                               % (len(PAGE), PAGE.encode()))
        except OSError as error:
            self.refusals.append(str(error))
