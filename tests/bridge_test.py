#!/usr/bin/env python3
"""qvcl-bridge, from outside: local sockets whose messages are made and read here, sides that are
killed, stopped and started again.   bridge_test.py PROGRAM"""
import os
import random
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

PROGRAM = None
HEADER = struct.Struct("=IIII")
VERSION = 0x00010001


def message(number, size=0):
    payload = struct.pack("=I", number) + bytes(size)
    return HEADER.pack(16 + len(payload), VERSION, 0, number & 0xFF) + payload


class Daemon(threading.Thread):
    """A server at a path; keeps the numbers of the messages in the order of their coming."""

    def __init__(self, path):
        super().__init__(daemon=True)
        if os.path.exists(path):
            os.unlink(path)
        self.server = socket.socket(socket.AF_UNIX)
        self.server.bind(path)
        self.server.listen()
        self.got, self.slow, self.wrong = [], 0, 0
        self.connection = None
        self.start()

    def run(self):
        while True:
            try:
                self.connection = self.server.accept()[0]
            except OSError:
                return
            stream = self.connection.makefile("rb")
            while header := stream.read(16):
                length, version, _, kind = HEADER.unpack(header)
                payload = stream.read(length - 16)
                number = struct.unpack_from("=I", payload)[0]
                self.wrong += version != VERSION or kind != number & 0xFF
                self.got.append(number)
                time.sleep(self.slow)


class BridgeTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        with socket.create_server(("127.0.0.1", 0)) as probe:
            self.endpoint = "tcp://127.0.0.1:%d" % probe.getsockname()[1]
        self.daemon = Daemon(self.path("to"))
        self.clients = []

    def path(self, name):
        return os.path.join(self.folder.name, name)

    def bridge(self, side, *options):
        """Starts a side; its socket is `from` or `to`."""
        process = subprocess.Popen([PROGRAM, side, self.path(side), self.endpoint, *options],
                                   stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def client(self):
        def connect():
            one = socket.socket(socket.AF_UNIX)
            one.settimeout(30)  # rather than for ever, when nothing moves
            self.clients.append(one)
            one.connect(self.path("from"))
            return one
        for _ in range(200):
            try:
                return connect()
            except OSError:
                time.sleep(0.02)
        self.fail("the bridge does not listen")

    def wait_for(self, what, seconds=20):
        end = time.monotonic() + seconds
        while not what():
            if time.monotonic() > end:
                self.fail("waited in vain; %d came" % len(self.daemon.got))
            time.sleep(0.02)

    def stop(self, process):
        process.send_signal(signal.SIGTERM)
        text = process.communicate(timeout=20)[1]
        return process.returncode, [int(n) for n in re.findall(r"\d+", text)], text

    def expect(self, count):
        """All numbers once; `got` may come from several senders, each in order."""
        self.wait_for(lambda: len(self.daemon.got) >= count)
        time.sleep(0.3)
        self.assertEqual(self.daemon.got, list(range(count)))
        self.assertEqual(self.daemon.wrong, 0)

    def test_carries_in_order_whatever_the_network_does(self):
        """A proxy between them breaks the connection again and again; both sides run on."""
        receiver = self.bridge("to")
        target = self.endpoint
        proxy = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(proxy.close)
        self.endpoint = "tcp://127.0.0.1:%d" % proxy.getsockname()[1]
        sender = self.bridge("from")
        dice = random.Random(7)
        broken = 0

        def pump(source, sink, bytes_left):
            try:
                while bytes_left > 0 and (data := source.recv(65536)):
                    bytes_left -= len(data)
                    sink.sendall(data)
            except OSError:
                pass
            source.close()
            sink.close()

        def serve():
            nonlocal broken
            while True:
                try:
                    near = proxy.accept()[0]
                except OSError:
                    return
                host, port = target[6:].split(":")
                try:
                    far = socket.create_connection((host, int(port)))
                except OSError:  # it is not up yet
                    near.close()
                    continue
                back = threading.Thread(target=pump, args=(far, near, 1 << 40), daemon=True)
                back.start()
                pump(near, far, dice.randrange(1000, 400000) if broken < 8 else 1 << 40)
                for end in (near, far):
                    end.close()
                broken += 1

        threading.Thread(target=serve, daemon=True).start()
        client = self.client()
        for number in range(20000):
            client.sendall(message(number, 50 + number % 100))
        self.wait_for(lambda: len(self.daemon.got) >= 20000, 30)
        self.expect(20000)
        self.assertGreater(broken, 3)
        status, (accepted, delivered, left), _ = self.stop(sender)
        self.assertEqual((status, accepted, delivered, left), (0, 20000, 20000, 0))
        status, (delivered, left, doubled, refused), _ = self.stop(receiver)
        self.assertEqual((status, delivered, left, refused), (0, 20000, 0, 0))

    def test_full_queue_stops_the_client_and_nothing_is_lost(self):
        sender = self.bridge("from", "--queue=10")
        client = self.client()
        client.settimeout(1)
        with self.assertRaises(TimeoutError):
            for sent in range(5000):  # ten, and what the socket holds; whole, for they are small
                client.sendall(message(sent))
        receiver = self.bridge("to", "--queue=5")
        self.daemon.slow = 0.001
        self.wait_for(lambda: len(self.daemon.got) >= sent)
        self.expect(sent)
        self.assertEqual(self.stop(sender)[0], 0)
        self.assertEqual(self.stop(receiver)[0], 0)

    def test_receiver_is_killed_and_started_again(self):
        """None is lost; only what was not yet acknowledged may come twice."""
        receiver = self.bridge("to")
        sender = self.bridge("from", "--queue=100")
        client = self.client()
        for number in range(6000):
            if number in (1000, 2500, 4000):
                receiver.kill()
                receiver.wait()
                receiver = self.bridge("to")
            client.sendall(message(number))
        self.wait_for(lambda: 5999 in self.daemon.got)
        self.assertEqual(sorted(set(self.daemon.got)), list(range(6000)))
        self.assertLessEqual(len(self.daemon.got), 6000 + 3 * 100)
        self.assertEqual(self.stop(sender)[0], 0)

    def test_local_daemon_that_goes_and_comes(self):
        """What was not written to it waits for the next one."""
        receiver = self.bridge("to")
        sender = self.bridge("from")
        client = self.client()
        client.sendall(message(0))
        self.expect(1)
        self.daemon.server.close()
        self.daemon.connection.shutdown(socket.SHUT_RDWR)
        time.sleep(0.2)
        for number in range(500):
            client.sendall(message(number))
        self.daemon = Daemon(self.path("to"))
        self.expect(500)
        self.assertEqual(self.stop(receiver)[0], 0)
        self.assertEqual(self.stop(sender)[0], 0)

    def test_says_what_it_could_not_deliver(self):
        sender = self.bridge("from", "--linger=1")
        client = self.client()
        for number in range(7):
            client.sendall(message(number))
        client.sendall(HEADER.pack(8, VERSION, 0, 0))  # no message: only this client is dropped
        self.assertEqual(client.recv(1), b"")
        status, (accepted, delivered, left), text = self.stop(sender)
        self.assertEqual((status, accepted, delivered, left), (1, 7, 0, 7), text)
        self.assertFalse(os.path.exists(self.path("from")))

    def test_others_at_the_port_do_no_harm(self):
        receiver = self.bridge("to")
        port = int(self.endpoint.rsplit(":", 1)[1])

        def is_up():
            try:
                socket.create_connection(("127.0.0.1", port)).close()
                return True
            except OSError:
                return False

        self.wait_for(is_up)
        dice = random.Random(3)
        for _ in range(20):
            with socket.create_connection(("127.0.0.1", port)) as stranger:
                stranger.sendall(dice.randbytes(2000))
        sender = self.bridge("from")
        client = self.client()
        for number in range(100):
            client.sendall(message(number))
        self.expect(100)
        self.assertEqual(self.stop(sender)[0], 0)
        self.assertEqual(self.stop(receiver)[0], 0)


if __name__ == "__main__":
    PROGRAM = sys.argv.pop(1)
    unittest.main(warnings="ignore")  # sockets are closed by the end of their test
