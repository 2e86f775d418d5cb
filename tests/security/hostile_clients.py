"""Clients of the server who mean harm: hostile_clients.py KEYHOST, on the back end of ZVXKVT_IO.

Each case is one kind of harm against one server with small limits. Afterwards, and while it goes on, somebody else is
served, and the server's memory has not grown by more than its limits allow. Every wait has a limit.
"""

import os
import random
import re
import resource
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

PATIENCE = 60
MAX_BUFFERS = 8 << 20
SEED = int(os.environ.get("ZVX_SEED", "7"))


def check(condition, what):
    if not condition:
        raise AssertionError(what)


def request(*words):
    words = [word if isinstance(word, bytes) else str(word).encode() for word in words]
    return b"*%d\r\n" % len(words) + b"".join(b"$%d\r\n%s\r\n" % (len(word), word) for word in words)


class Server:
    def __init__(self, program, folder):
        command = [program, "--port", "0", "--dir", folder, "--segment", "16777216", "--max-value", "2097152", "--max-buffers", str(MAX_BUFFERS),
                   "--max-sessions", "600", "--send-timeout", "3", "--request-timeout", "3", "--schedulers", "2"]
        environment = dict(os.environ, ZVX_FIBERS_QuantumLengthMs="30")  # a time in which some hundred requests are done
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True, env=environment)
        self.port = None
        for line in self.process.stdout:
            ready = re.search(r"ready on [^:]*:(\d+),", line)
            if ready:
                self.port = int(ready.group(1))
                break
        check(self.port, "the server is ready")
        self.witness = self.connect()
        self.ask()

    def connect(self, receive_buffer=None):
        client = socket.socket()
        if receive_buffer:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        client.settimeout(PATIENCE)
        client.connect(("127.0.0.1", self.port))
        return client

    def ask(self, data=request("PING"), want=b"+PONG\r\n"):
        """Somebody else is served."""
        self.witness.sendall(data)
        got = receive(self.witness, len(want))
        check(got == want, f"the witness got {got!r}")

    def figure(self, name):
        self.witness.sendall(request("INFO"))
        got = b""
        while b"\r\n" not in got or len(got) < int(got[1:].split(b"\r\n")[0]) + got.index(b"\r\n") + 4:
            got += self.witness.recv(65536)
        return int(re.search(rf"\n{name}:(\d+)", got.decode()).group(1))

    def resident(self):
        return int(re.search(r"VmRSS:\s+(\d+)", open(f"/proc/{self.process.pid}/status").read()).group(1)) << 10

    def alone(self):
        until = time.monotonic() + PATIENCE
        while self.figure("connected_clients") != 1:
            check(time.monotonic() < until, "sessions of clients that are gone stay")
            time.sleep(0.05)
        check(self.figure("query_buffer_bytes") == 0, "buffers of sessions that are gone stay counted")


def receive(client, size):
    got = b""
    while len(got) < size:
        more = client.recv(1 << 20)
        check(more, "the connection has ended")
        got += more
    return got


def rest(client):
    """What comes until the server ends the connection."""
    got = b""
    try:
        while more := client.recv(65536):
            got += more
    except ConnectionError:
        pass
    return got


def push(client, data, most):
    """Sends until nobody takes it any more."""
    client.settimeout(0.5)
    sent = 0
    try:
        while sent < most:
            sent += client.send(data)
    except (TimeoutError, ConnectionError):
        pass
    client.settimeout(PATIENCE)
    return sent


# ---- The harm, each with how many bytes of memory it may cost ----------------------------------------


def announced_but_never_sent(server):
    """Lengths that are only announced get no memory."""
    clients = [server.connect() for _ in range(400)]
    for client in clients:
        client.sendall(b"*3\r\n$3\r\nSET\r\n$1\r\nk\r\n$2097152\r\nx")
    server.ask()
    yield 16 << 20


def half_requests(server):
    """Those that are not complete share a limit."""
    clients = [server.connect() for _ in range(60)]
    refused = 0
    for client in clients:
        push(client, b"*3\r\n$3\r\nSET\r\n$1\r\nk\r\n$2000000\r\n" + b"x" * 1000000, 1)
    server.ask()
    yield MAX_BUFFERS + (16 << 20)
    for client in clients:
        refused += b"too many large requests" in rest(client)
    check(refused > 30, f"{refused} of 60 were refused")


def pipelines_that_nobody_reads(server):
    """However large the answers are, pieces of them are in memory."""
    server.ask(request("SET", "big", b"v" * 2000000), b"+OK\r\n")
    clients = [server.connect(4096) for _ in range(20)]
    for client in clients[:10]:
        push(client, request("GET", "big") * 200, 8 << 20)
    # One request with an answer of two gigabytes.
    for client in clients[10:]:
        client.sendall(request("MGET", *["big"] * 1000))
    server.ask()
    yield 20 * (128 << 10) + (8 << 20)
    for client in clients:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
    time.sleep(6)  # the limit of a send, and the monitor's look
    check(server.figure("sessions_cleaned") >= 20, "who does not read is cut off")


def a_byte_now_and_then(server):
    """A request that never ends, however busy its sender is: its time runs from its first byte."""
    clients = [server.connect() for _ in range(50)]
    data = request("SET", "k", b"x" * 2000)
    for client in clients:
        client.setblocking(False)
    alive, begin = dict(enumerate(clients)), time.monotonic()
    for at in range(len(data)):
        for number, client in list(alive.items()):
            try:
                client.send(data[at : at + 1])
            except ConnectionError:
                del alive[number]
        if not alive or time.monotonic() - begin > PATIENCE:
            break
        time.sleep(0.2)
    check(not alive, f"{len(alive)} of 50 were still waited for after {time.monotonic() - begin:.0f} seconds")
    yield 8 << 20


def not_to_blame(server):
    """A server that was stopped for longer than any limit is not kept waiting by its clients."""
    client, data = server.connect(), request("PING")
    client.sendall(data[:9])
    server.ask()
    server.process.send_signal(signal.SIGSTOP)
    time.sleep(6)
    server.process.send_signal(signal.SIGCONT)
    time.sleep(0.5)
    client.sendall(data[9:])
    check(client.recv(100) == b"+PONG\r\n", "who was in the middle of a request goes on")
    yield 8 << 20


def more_than_there_is_room_for(server):
    clients, refused = [], 0
    for _ in range(900):
        clients.append(server.connect())
    for client in clients:
        try:
            client.sendall(request("PING"))
            refused += client.recv(100) != b"+PONG\r\n"
        except ConnectionError:
            refused += 1
    check(refused == 900 - 599, f"{refused} of 900 were refused, with one of 600 places taken")
    server.ask()
    yield 32 << 20


def nonsense(server):
    """Whatever comes is answered, or answered with an error and the end; nothing hangs and nothing else is touched."""
    source = random.Random(SEED)
    whole = [request("SET", "n", "v"), request("GET", "n"), b"GET n\r\n", request("MGET", "n", "n"), request("PING") * 3]
    for number in range(400):
        data = bytearray(source.choice(whole))
        for _ in range(source.randrange(1, 4)):
            at, way = source.randrange(len(data)), source.random()
            if way < 0.4:
                data[at] = source.randrange(256)
            elif way < 0.7:
                data[at:at] = source.choice([b"\r\n", b"$-1\r\n", b"*0\r\n", b"*-1\r\n", b"99999999999", b"\0", b"$", b"*"])
            elif len(data) > 1:
                del data[at : at + source.randrange(1, 6)]
            if not data:
                data = bytearray(b"\n")
        client = server.connect()
        client.sendall(bytes(data))
        client.shutdown(socket.SHUT_WR)
        got = rest(client)
        check(not got or got[:1] in b"+-:$*", f"seed {SEED}, number {number}: {bytes(data)!r} gave {got!r}")
        if b"Protocol error" in got:
            check(re.search(rb"-ERR Protocol error: [^\r\n]*\r\n$", got), f"nothing follows a protocol error: {got!r}")
        client.close()
    server.ask()
    yield 8 << 20


def work_without_end(server):
    """A pattern that nearly matches everywhere in long keys, and a long pipeline: the others of the scheduler are
    answered before the work is done."""
    keys = [b"%03d" % number + b"a" * 100000 for number in range(500)]
    server.ask(b"".join(request("SET", key, "v") for key in keys), b"+OK\r\n" * len(keys))
    clients = [server.connect() for _ in range(8)]

    def others_answered(data, end):
        greedy, got = server.connect(), []
        threads = [threading.Thread(target=greedy.sendall, args=(data,)),
                   threading.Thread(target=lambda: got.append(receive(greedy, len(end))))]
        for thread in threads:
            thread.start()
        turns = 0
        while threads[1].is_alive():
            for client in clients:
                client.sendall(request("PING"))
            for client in clients:
                check(receive(client, 7) == b"+PONG\r\n", "an answer")
            turns += threads[1].is_alive()
        for thread in threads:
            thread.join()
        check(got == [end], f"the answer to {data[:30]!r}")
        return turns > 0

    for data, end in ((request("KEYS", b"*a" * 100 + b"a" * 800 + b"b"), b"*0\r\n"),
                      (request("PING") * 300000, b"+PONG\r\n" * 300000)):
        # On busy processors this process may not have had a turn meanwhile.
        check(any(others_answered(data, end) for _ in range(3)), f"nobody else was answered before {data[:30]!r} was done")
    # The keys themselves, which are more than the memory for requests and answers.
    server.ask(request("KEYS", "*"), b"-ERR too many keys match for the memory of --max-buffers; SCAN asks for fewer\r\n")
    server.ask(request("FLUSHALL"), b"+OK\r\n")
    yield 256 << 20


def keys_named_often(server):
    """One command with as many keys as it may have: the same one, whose time ends meanwhile, and all different."""
    others = [word for number in range(60000) for word in (b"o%d" % number, b"v")]
    commands = (request("DEL", *["k"] * 100000), request("MSET", "k", "a", *others, "k", "b"))
    for turn in range(60):
        client = server.witness
        client.sendall(request("SET", "k", "v", "PX", 1 + turn // 2) + commands[turn % 2])
        got = receive(client, 9 + turn % 2)
        check(got in (b"+OK\r\n:1\r\n", b"+OK\r\n:0\r\n", b"+OK\r\n+OK\r\n"), f"turn {turn}: {got!r}")
    greedy, begin = server.connect(), time.monotonic()
    for first in (0, 1):
        server.ask(request("MSET", *[word for key in range(first, 130000, 2) for word in (key, "v")]), b"+OK\r\n")
    filled = time.monotonic() - begin
    greedy.sendall(request("DEL", *range(130000)))
    time.sleep(0.2)  # until it has begun
    begin = time.monotonic()
    server.ask()
    waited = time.monotonic() - begin
    check(receive(greedy, 9) == b":130000\r\n", "all are deleted")
    check(waited < 1 + filled, f"somebody else waited {waited:.1f} s for a DEL of many keys, which took {filled:.1f} s to set")
    yield 64 << 20
    server.ask(request("FLUSHALL"), b"+OK\r\n")


def main():
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    folder = tempfile.mkdtemp(prefix="zvx_hostile_")
    server = None
    try:
        os.umask(0)
        server = Server(sys.argv[1], os.path.join(folder, "data"))
        check(os.stat(os.path.join(folder, "data")).st_mode & 0o777 == 0o700, "a data folder of the server's making is its user's alone")
        for case in (announced_but_never_sent, half_requests, pipelines_that_nobody_reads, a_byte_now_and_then, not_to_blame,
                     more_than_there_is_room_for, nonsense, work_without_end, keys_named_often):
            before = server.resident()
            course = case(server)
            allowed = next(course)
            grown = server.resident() - before
            print(f"{case.__name__}: {grown >> 10} KiB, {allowed >> 10} allowed", flush=True)
            # Shadow memory counts, too.
            check(os.environ.get("ZVX_SANITIZE") or grown <= allowed, f"{case.__name__}: memory grew by {grown}, {allowed} are allowed")
            for _ in course:
                pass
            course = None
            server.alone()
        server.process.terminate()
        check(server.process.wait(60) == 0, "the server's end")
    finally:
        if server is not None and server.process.poll() is None:
            server.process.kill()
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    main()
