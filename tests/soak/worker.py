"""A client process of the soak run: worker.py PORT FOLDER NAME CPU.

Speaks RESP over connections of its own in several tasks at once, each with keys that nobody else writes, and checks every
reply against what it knows. What it knows survives it: an intent goes to the task's journal before the request is sent,
an acknowledgement after its reply was read, so that the process may be killed at any point and its successor, or the
check at the end, knows which values each key may have. CPU is the share of a processor that it may use.

Lines on the output: "done N" now and then, "wrong TEXT" for a reply that is wrong or lost.
"""

import asyncio
import os
import random
import signal
import sys
import time

KEYS = 40  # of each task
PATIENCE = 90  # seconds for a reply, on a machine that has more to do
SETTLE = 15  # seconds after which a session whose client was killed has run what it had received


def value_of(key, version):
    """What a key has at a version; None: it is not there."""
    if version % 13 == 0:
        return None
    mark = f"{key}={version};"
    size = (20, 200, 2000, 9000)[(version * 7 + len(key)) % 4]
    return (mark * (size // len(mark) + 1)).encode()[:size]


class Model:
    """What is known of a task's keys: the acknowledged version of each, and versions that may have come after it."""

    def __init__(self, path):
        self.path, self.acked, self.open = path, {}, {}
        if os.path.exists(path):
            for line in open(path):
                words = line.split()
                if len(words) != 3 or not line.endswith("\n"):
                    continue  # cut by the end of its writer: nothing was sent after it
                kind, key, version = words[0], words[1], int(words[2])
                if kind == "I":
                    self.open.setdefault(key, []).append(version)
                else:
                    self.acked[key] = version
                    self.open[key] = [v for v in self.open.get(key, []) if v > version]
        self.open = {key: versions for key, versions in self.open.items() if versions}
        self.file = None

    def begin(self):
        """Takes the journal over, shortened to what it says."""
        lines = [f"A {key} {version}\n" for key, version in self.acked.items()]
        lines += [f"I {key} {version}\n" for key, versions in self.open.items() for version in versions]
        with open(self.path + ".new", "w") as file:
            file.write("".join(lines))
        os.rename(self.path + ".new", self.path)
        if self.file is not None:
            os.close(self.file)
        self.file = os.open(self.path, os.O_WRONLY | os.O_APPEND)
        self.size = 0

    def note(self, kind, pairs):
        text = "".join(f"{kind} {key} {version}\n" for key, version in pairs).encode()
        if text:
            os.write(self.file, text)
            self.size += len(text)

    def intend(self, pairs):
        self.note("I", pairs)
        for key, version in pairs:
            self.open.setdefault(key, []).append(version)

    def acknowledge(self, pairs):
        self.note("A", pairs)
        for key, version in pairs:
            self.acked[key] = version
            left = [v for v in self.open.get(key, []) if v > version]
            if left:
                self.open[key] = left
            else:
                self.open.pop(key, None)
        if self.size > 1 << 20:
            self.begin()

    def version(self, key):
        return self.acked.get(key, 0)

    def possible(self, key):
        return [self.version(key), *self.open.get(key, [])]


class Lost(Exception):
    pass


def encode(*words):
    out = [b"*%d\r\n" % len(words)]
    for word in words:
        word = word if isinstance(word, bytes) else str(word).encode()
        out.append(b"$%d\r\n%s\r\n" % (len(word), word))
    return b"".join(out)


class Connection:
    async def open(self, port, receive_buffer=None):
        import socket

        plain = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if receive_buffer is not None:
            plain.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        plain.setblocking(False)
        await asyncio.wait_for(asyncio.get_running_loop().sock_connect(plain, ("127.0.0.1", port)), PATIENCE)
        limit = 65536 if receive_buffer is None else 4096
        self.reader, self.writer = await asyncio.open_connection(sock=plain, limit=limit)
        return self

    def send(self, data):
        self.writer.write(data)

    async def reply(self):
        """One reply: bytes, None, an int, or "+OK" and the like; errors as "-..."."""
        try:
            line = await asyncio.wait_for(self.reader.readline(), PATIENCE)
            if not line.endswith(b"\r\n"):
                raise Lost(f"the connection ended at {line!r}")
            kind, rest = line[:1], line[1:-2]
            if kind == b"$":
                size = int(rest)
                if size < 0:
                    return None
                data = await asyncio.wait_for(self.reader.readexactly(size + 2), PATIENCE)
                if data[-2:] != b"\r\n":
                    raise Lost(f"a value of {size} bytes without an end")
                return data[:-2]
            return int(rest) if kind == b":" else line[:-2].decode()
        except (asyncio.TimeoutError, asyncio.IncompleteReadError, OSError, ValueError) as error:
            raise Lost(f"{type(error).__name__} {error}") from None

    async def ended(self):
        """Whether the server ends the connection, whatever it says before."""
        try:
            while await asyncio.wait_for(self.reader.read(65536), PATIENCE):
                pass
            return True
        except asyncio.TimeoutError:
            return False
        except OSError:
            return True

    def close(self, reset=False):
        if reset:
            self.writer.transport.abort()
        else:
            self.writer.close()


class Worker:
    def __init__(self, port, folder, name, cpu):
        self.port, self.folder, self.name, self.cpu = port, folder, name, cpu
        self.pace, self.done, self.stop, self.models = 1.0, 0, False, {}

    def say(self, text):
        sys.stdout.write(text.replace("\n", " ") + "\n")
        sys.stdout.flush()

    def wrong(self, text):
        self.say(f"wrong {self.name}: {text[:300]}")

    async def pause(self, seconds):
        """Random, longer when the process uses more than its share."""
        until = time.monotonic() + random.uniform(0.5, 1.5) * seconds * self.pace
        while not self.stop and time.monotonic() < until:
            await asyncio.sleep(min(1.0, max(0.0, until - time.monotonic())))

    async def govern(self):
        used, at, said = time.process_time(), time.monotonic(), 0.0
        while not self.stop:
            await asyncio.sleep(1)
            now, cpu = time.monotonic(), time.process_time()
            share = (cpu - used) / (now - at)
            self.pace = min(50.0, max(0.2, self.pace * (1.15 if share > self.cpu else 0.92)))
            used, at = cpu, now
            if now - said > 5:
                self.say(f"done {self.done}")
                said, self.done = now, 0

    async def resolve(self, model):
        """Keys with more than one possible version: after a while the server says which it is."""
        if not model.open:
            return
        keys = list(model.open)
        await asyncio.sleep(SETTLE)
        connection = await Connection().open(self.port)
        for key in keys:
            connection.send(encode("GET", key))
            got = await connection.reply()
            matching = [v for v in model.possible(key) if value_of(key, v) == got]
            if not matching:
                self.wrong(f"{key} is {got!r:.80}, may be {model.possible(key)}")
                matching = [max(model.possible(key))]
            # Of two versions without a value the newer one is as good.
            version = max(matching)
            model.open.pop(key)
            model.acknowledge([(key, version)])
            self.done += 1
        connection.close()

    async def batch(self, connection, model, prefix, count, send=None):
        """So many requests at once, and their replies."""
        expected, changes, data, local = [], [], [], {}
        for _ in range(count):
            key = f"{prefix}{random.randrange(KEYS)}"
            version = local.get(key, model.version(key))
            if random.random() < 0.5:
                data.append(encode("GET", key))
                expected.append((value_of(key, version), None))
                continue
            new = version + 1
            value = value_of(key, new)
            if value is None:
                data.append(encode("DEL", key))
                expected.append((int(value_of(key, version) is not None), (key, new)))
            else:
                data.append(encode("SET", key, value))
                expected.append(("+OK", (key, new)))
            local[key] = new
            changes.append((key, new))
        model.intend(changes)
        await (send or self.send_whole)(connection, b"".join(data))
        # A reply at a time: what was acknowledged before the process ends is known to have been.
        good = []
        for number, (want, change) in enumerate(expected):
            got = await connection.reply()
            if got != want:
                self.wrong(f"request {number} of {count} of {prefix}: {got!r:.80} instead of {want!r:.80}")
            self.done += 1
            if change is not None:
                good.append(change)
        model.acknowledge(good)

    async def send_whole(self, connection, data):
        connection.send(data)

    async def send_halves(self, connection, data):
        """The request in two or three parts with a pause between them."""
        cuts = sorted(random.randrange(1, len(data)) for _ in range(2))
        for begin, end in zip([0, *cuts], [*cuts, len(data)]):
            connection.send(data[begin:end])
            await asyncio.sleep(random.uniform(0.02, 0.3))

    # ---- What the tasks do, over and over ------------------------------------------------------------

    async def steady(self, model, prefix):
        """One connection for a minute or so."""
        connection = await Connection().open(self.port)
        until = time.monotonic() + random.uniform(20, 90)
        while not self.stop and time.monotonic() < until:
            await self.batch(connection, model, prefix, 1)
            await self.pause(0.05)
        connection.close(random.random() < 0.3)

    async def churn(self, model, prefix):
        connection = await Connection().open(self.port)
        await self.batch(connection, model, prefix, random.randrange(1, 4))
        connection.close(random.random() < 0.3)
        await self.pause(0.1)

    async def pipeline(self, model, prefix):
        connection = await Connection().open(self.port)
        for _ in range(5):
            await self.batch(connection, model, prefix, random.randrange(10, 60))
            await self.pause(0.5)
        connection.close()

    async def slow(self, model, prefix):
        """A small window, and a reader that takes its time; now and then one that goes away, or never reads."""
        keys = [f"{prefix}{i}" for i in range(KEYS)]
        connection = await Connection().open(self.port, 4096)
        way = random.random()
        if way < 0.6:
            for _ in range(4):
                for key in keys:
                    connection.send(encode("GET", key))
            for _ in range(4):
                for key in keys:
                    got = await connection.reply()
                    if got != value_of(key, model.version(key)):
                        self.wrong(f"slowly {key}: {got!r:.80} at {model.version(key)}")
                    self.done += 1
                    if random.random() < 0.1:
                        await asyncio.sleep(0.3)
            await self.batch(connection, model, prefix, 4)
        else:
            for _ in range(1000):
                connection.send(encode("GET", random.choice(keys)))
            await asyncio.sleep(random.uniform(0, 3))
            if way > 0.95:  # the server gives up first
                connection.writer.transport.pause_reading()
                for _ in range(35):
                    if not self.stop:
                        await asyncio.sleep(1)
        connection.close(random.random() < 0.5)
        await self.pause(0.5)

    async def half(self, model, prefix):
        connection = await Connection().open(self.port)
        way = random.random()
        if way < 0.5:
            await self.batch(connection, model, prefix, random.randrange(1, 6), self.send_halves)
        else:
            # Never finished, so never in effect: the next batch would see it.
            key = f"{prefix}{random.randrange(KEYS)}"
            data = encode("SET", key, b"half" * random.randrange(1, 3000))
            connection.send(data[: random.randrange(1, len(data))])
            await asyncio.sleep(random.uniform(0, 0.5))
            if way > 0.95 and not await connection.ended():
                self.wrong("half a request was not ended by the server")
        connection.close(random.random() < 0.5)
        await self.pause(0.3)

    async def nonsense(self, model, prefix):
        connection = await Connection().open(self.port)
        await self.batch(connection, model, prefix, 1)
        connection.send(random.choice([b"*1\r\n+PING\r\n", b"get \"a\r\n", b"*1\r\n$-3\r\n", b"*99999999\r\n", b"*2\r\n$3\r\nGET\r\n$999999999999\r\n"]))
        if not await connection.ended():
            self.wrong("nonsense was not ended by the server")
        connection.close()
        await self.pause(1)

    async def idle(self, model, prefix):
        connections = [await Connection().open(self.port) for _ in range(8)]
        until = time.monotonic() + random.uniform(5, 60)
        while not self.stop and time.monotonic() < until:
            await asyncio.sleep(0.5)
        for connection in connections:
            await self.batch(connection, model, prefix, 1)
            connection.close()

    async def task(self, kind, number):
        prefix = f"{self.name}.{kind}{number}."
        model = Model(os.path.join(self.folder, f"{self.name}.{kind}{number}.journal"))
        model.begin()
        while not self.stop:
            try:
                await self.resolve(model)
                await getattr(self, kind)(model, prefix)
            except (Lost, OSError, asyncio.TimeoutError) as error:
                self.wrong(f"{kind}: a reply is lost: {type(error).__name__} {error}")
                await asyncio.sleep(1)

    async def run(self):
        loop = asyncio.get_running_loop()

        def stop():
            self.stop = True

        loop.add_signal_handler(signal.SIGTERM, stop)
        kinds = ["steady"] * 4 + ["churn", "pipeline", "slow", "half", "nonsense", "idle"]
        await asyncio.gather(self.govern(), *(self.task(kind, number) for number, kind in enumerate(kinds)))
        self.say(f"done {self.done}")


if __name__ == "__main__":
    asyncio.run(Worker(int(sys.argv[1]), sys.argv[2], sys.argv[3], float(sys.argv[4])).run())
