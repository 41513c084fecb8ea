#!/usr/bin/env python3
"""An HTTPS server for one misbehaving download, on 127.0.0.1 only.

    stream_server.py MODE PORT CERT KEY LIFETIME

MODE endless: answers 200 without a length and sends random bytes at
              2 MiB/s for as long as the client reads.
MODE stall:   answers 200 with a length of 1 GiB, sends 1 MiB, then holds
              the connection open without sending another byte.
The server ends by itself after LIFETIME seconds, whatever happens.
"""
import os
import socket
import ssl
import sys
import threading
import time

RATE = 2 * 1048576
CHUNK = 64 * 1024


def serve(connection, mode, deadline):
    request = b""
    while b"\r\n\r\n" not in request and time.monotonic() < deadline:
        data = connection.recv(4096)
        if not data:
            return
        request += data
    if mode == "endless":
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Type: application/zip\r\nConnection: close\r\n\r\n")
        block = os.urandom(CHUNK)
        started = time.monotonic()
        sent = 0
        while time.monotonic() < deadline:
            connection.sendall(block)
            sent += len(block)
            ahead = sent / RATE - (time.monotonic() - started)
            if ahead > 0:
                time.sleep(ahead)
    else:
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Type: application/zip\r\n"
                           b"Content-Length: 1073741824\r\nConnection: close\r\n\r\n")
        connection.sendall(os.urandom(1048576))
        while time.monotonic() < deadline:
            time.sleep(0.5)


def main():
    mode, port, cert, key, lifetime = sys.argv[1], int(sys.argv[2]), sys.argv[3], sys.argv[4], float(sys.argv[5])
    deadline = time.monotonic() + lifetime
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(cert, key)
    listener = socket.create_server(("127.0.0.1", port))
    listener.settimeout(0.5)
    print("listening", flush=True)
    while time.monotonic() < deadline:
        try:
            raw, _ = listener.accept()
        except socket.timeout:
            continue
        try:
            connection = context.wrap_socket(raw, server_side=True)
        except (ssl.SSLError, OSError):
            raw.close()
            continue

        def run(c=connection):
            try:
                serve(c, mode, deadline)
            except OSError:
                pass
            finally:
                c.close()

        threading.Thread(target=run, daemon=True).start()
    listener.close()


if __name__ == "__main__":
    main()
