"""The rows of the comparison, and the programs that measure them.

ROWS is the one table definition: what a row is called, the name that our case has in the programs' output, the name that
the peers' cases have, and the floor. JOBS is what is run to fill it; a job is run when a row that it serves is wanted.
Every value is a dictionary: name, impl, unit, better ("lower" or "higher"), median.
"""
import json, os, random, re, shutil, signal, socket, subprocess, tempfile, time
from collections import namedtuple

OURS = "zvxkvt"

# floor: the name of an implementation, or a number that nothing can be below (above, where more is better).
Row = namedtuple("Row", "title ours peer floor more", defaults=(None, False))

ROWS = [
    Row("yield, 2 threads", "yield/2", "yield/2", "bare switch"),
    Row("yield, 100 threads", "yield/100", "yield/100", "bare switch"),
    Row("yield, 10,000 threads", "yield/10000", "yield/10000", "bare switch"),
    Row("post and wait, one scheduler", "post_wait", "post_wait", "two switches"),
    Row("post and wait, two processors, both idle", "message/post/port_wait_100", "message/post", "cache line"),
    Row("post and wait, two processors, both busy", "message/post_busy/port_wait_1", "message/post", "cache line"),
    Row("lock + unlock, uncontended", "lock/1", "lock/1", "one CAS"),
    Row("lock + unlock, second scheduler", "lock/1/schedulers_2", "lock/1", "one CAS"),
    Row("create, run, end (peers: and join), 100", "create/100", "create/100"),
    Row("create + wait on the handle, 100", "create_wait/100", "create/100"),
    Row("memory of a parked thread", "park/resident", "park/resident", 4.0),
    Row("two active among 1,000 parked, against none", "parked/1000", "parked/1000", 1.0),
    Row("two active among 10,000 parked, against none", "parked/10000", "parked/10000", 1.0),
    Row("GET, 50 connections, server CPU", "get/50/cpu", "get/50/cpu", "bare ring"),
    Row("GET, 50 connections, rate", "get/50/rate", "get/50/rate", "bare ring"),
    Row("8 KiB commits, 16 writers", "commit/16", "commit/16", "one writer"),
    Row("8 KiB commits, 64 writers", "commit/64", "commit/64", "one writer"),
    Row("cached 8 KiB read", "read_cached/random", "read_cached/random", "pread"),
    Row("direct 8 KiB reads, 1 outstanding", "read_direct/1", "read_direct/1"),
    Row("direct 8 KiB reads, 16 outstanding", "read_direct/16", "read_direct/16"),
    Row("direct 8 KiB reads, 64 outstanding", "read_direct/64", "read_direct/64"),
    Row("1,000 idle connections", "idle_sessions/1000", "idle_sessions/1000"),
    # Those that only --all and --rows run.
    Row("yield, 100 threads, two schedulers", "yield/100/schedulers_2", "yield/100", "bare switch", True),
    Row("create, run, end (peers: and join), 1", "create/1", "create/1", None, True),
    Row("create + wait on the handle, 1", "create_wait/1", "create/1", None, True),
    Row("wait on an ended thread", "wait_ended", "wait_ended", None, True),
    Row("page tables of a parked thread", "park/page_tables", "park/page_tables", None, True),
    Row("kernel threads with 10,000 parked", "park/kernel_threads", "park/kernel_threads", None, True),
    Row("sleep of 11 ms, late by", "sleep/11/port_wait_100", "sleep/11", None, True),
    Row("sleeps of 1 to 20 ms, late by", "sleep/1-20/port_wait_100", "sleep/1-20", None, True),
    Row("resume, waiting scheduler", "message/resume/port_wait_100", "message/resume", None, True),
    Row("resume, busy scheduler", "message/resume_busy/port_wait_1", "message/resume", None, True),
    Row("cached 8 KiB read, sequential", "read_cached/sequential", "read_cached/sequential", "pread", True),
    Row("GET, 50 connections, pipeline 16, server CPU", "get/50/16/cpu", "get/50/16/cpu", "bare ring", True),
    Row("GET, 2,000 connections, server CPU", "get/2000/cpu", "get/2000/cpu", "bare ring", True),
    Row("durable SET, 64 connections, rate", "set/64/rate", "set/64/rate", None, True),
    Row("durable SET, 64 connections, server CPU", "set/64/cpu", "set/64/cpu", None, True),
    Row("idle process, two schedulers, 1 ms waits", "idle/port_wait_1", "idle/port_wait_1", "bare rings", True),
    Row("idle process, two schedulers, 100 ms waits", "idle/port_wait_100", "idle/port_wait_100", "bare rings", True),
]


class Context:
    """Where the programs are, how long they may measure, and which processors they get."""

    def __init__(self, build, folder, quick, warn):
        self.build, self.bin, self.quick, self.warn = build, f"{build}/bench", quick, warn
        self.folder = folder or build
        self.data = f"{self.folder}/zvxkvt-bench.data"
        self.megabytes = 64 if quick else 512
        self.seconds = 0.5 if quick else 2.5
        self.idle = 1 if quick else 4
        self.fast = ["--repetitions", "3", "--repetition-ms", "10"] if quick else \
                    ["--repetitions", "15", "--repetition-ms", "40"]
        processors = sorted(os.sched_getaffinity(0))
        self.first, self.last = str(processors[0]), str(processors[-1])
        self.round = 0

    def fill(self):
        """A file of holes would be read without the disk."""
        with open(self.data, "wb") as file:
            for _ in range(self.megabytes):
                file.write(os.urandom(1 << 20))
            os.fsync(file.fileno())

    def run(self, command, timeout=120):
        """The JSON objects that a program prints a line each; what fails is told and leaves a hole in the table."""
        if shutil.which(command[0]) is None:
            return []
        try:
            done = subprocess.run(command, capture_output=True, text=True, timeout=timeout, stdin=subprocess.DEVNULL)
        except subprocess.TimeoutExpired:
            self.warn(f"{' '.join(command)} took more than {timeout} s")
            return []
        if done.returncode != 0:
            self.warn(f"{' '.join(command)} ended with {done.returncode}: {done.stderr.strip()[-200:]}")
        return [json.loads(line) for line in done.stdout.splitlines() if line.startswith("{")]

    def pinned(self, command, processor=None):
        """One scheduler is bound to its processor; a peer that may run away from other load would be compared with one
        that may not, so both have one and the same."""
        return ["taskset", "-c", processor or self.last] + command


def value(name, impl, unit, better, median):
    return {"name": name, "impl": impl, "unit": unit, "better": better, "median": median}


# ---- Programs of bench/ ------------------------------------------------------------------------------------

class Program:
    """`names` are the cases that it prints; with `rename` they get other ones, a name of what they stand for, and a factor."""

    def __init__(self, names, program, arguments, pinned=True, fast=True, timed=False, rename=None):
        self.names, self.program, self.arguments = names, program, arguments
        self.pinned, self.fast, self.timed, self.rename = pinned, fast, timed, rename

    def run(self, context):
        command = [f"{context.bin}/{self.program}"] + [a.format(data=context.data) for a in self.arguments]
        if shutil.which(command[0]) is None:
            return []
        if self.fast:
            command += context.fast
        if self.timed:
            command += ["--seconds", str(context.seconds)]
        lines = context.run(context.pinned(command) if self.pinned else command)
        for line in lines if self.rename else []:
            line["name"], line["impl"], factor = self.rename
            line["median"] *= factor
        return lines


def cases(names, programs, case, *arguments, **options):
    return [Program(names, program, ["--case", case, *arguments], **options) for program in programs]


class Fio:
    def __init__(self, depth):
        self.names, self.depth = [f"read_direct/{depth}"], depth

    def run(self, context):
        # On the same processor as ours: a virtual disk may serve one of them twice as fast as another.
        command = context.pinned(["fio", "--name=peer", f"--filename={context.data}", "--readonly", "--ioengine=io_uring",
                                  f"--iodepth={self.depth}", "--direct=1", "--bs=8k", "--rw=randread", "--time_based",
                                  f"--runtime={context.seconds}", f"--size={context.megabytes}M", "--output-format=json"])
        if shutil.which("fio") is None:
            return []
        done = subprocess.run(command, capture_output=True, text=True, timeout=120, stdin=subprocess.DEVNULL)
        if done.returncode != 0:
            context.warn(f"fio failed: {done.stderr.strip()[-200:]}")
            return []
        read = json.loads(done.stdout[done.stdout.index("{"):])["jobs"][0]["read"]
        return [value(self.names[0], "fio", "reads/s", "higher", read["iops"])]


# ---- Servers -------------------------------------------------------------------------------------------------

KEYHOST = ["{build}/host/keyhost", "--port", "{port}", "--dir", "{dir}", "--max-sessions", "40000"]
REDIS = ["redis-server", "--port", "{port}", "--dir", "{dir}", "--save", "", "--maxclients", "40000"]
SERVERS = {
    OURS: KEYHOST + ["--durability", "no"],
    "state threads": ["{build}/bench/st_peer", "--case", "serve", "--port", "{port}"],
    "asio": ["{build}/bench/asio_server", "{port}"],
    "go": ["{build}/bench/go_peer", "-case", "serve", "-port", "{port}"],
    "pthreads": ["{build}/bench/native_peer", "--case", "serve", "--port", "{port}"],
    "redis": REDIS,
    "bare ring": ["{build}/bench/ring_server", "{port}"],
    "zvxkvt, threads": KEYHOST + ["--durability", "no", "--threads"],
}
DURABLE = {
    OURS: KEYHOST + ["--durability", "always"],
    "redis": REDIS + ["--appendonly", "yes", "--appendfsync", "always"],
    "zvxkvt, threads": KEYHOST + ["--durability", "always", "--threads"],
}


def free_port():
    """Below those that the kernel gives to the clients' ends of connections."""
    for port in random.sample(range(20000, 32000), 100):
        with socket.socket() as s:
            try:
                s.bind(("127.0.0.1", port))
                return port
            except OSError:
                continue
    raise RuntimeError("no free port")


class Server:
    """A running server with a folder of its own; `processor` null lets it run anywhere. Use in a with statement."""

    def __init__(self, context, command, processor):
        self.port = free_port()
        self.context = context
        self.dir = tempfile.mkdtemp(prefix="bench-", dir=context.folder)
        words = [w.format(build=context.build, port=self.port, dir=self.dir) for w in command]
        if processor is not None:
            words = context.pinned(words, processor)
        self.log = open(f"{self.dir}/output", "w+")
        self.process = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log)
        for _ in range(600):
            if self.process.poll() is not None:
                break
            try:
                socket.create_connection(("127.0.0.1", self.port), 1).close()
                return
            except OSError:
                time.sleep(0.05)
        self.log.seek(0)
        reason = self.log.read()[-200:].strip()
        self.stop()
        raise RuntimeError(f"{words} did not start: {reason}")

    def stop(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()
        self.log.close()
        shutil.rmtree(self.dir, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def cpu_seconds(self):
        return time.clock_gettime((~self.process.pid << 3) | 2)  # the process's own clock, in nanoseconds

    def load(self, **arguments):
        """What bench/load measured; null when it failed."""
        command = [f"{self.context.bin}/load", "--port", str(self.port), "--pid", str(self.process.pid)]
        arguments.setdefault("seconds", self.context.seconds)
        for name, given in arguments.items():
            command += ["--" + name.replace("_", "-"), str(given)]
        lines = self.context.run(self.context.pinned(command), 300)
        return lines[0] if lines else None


def installed(command, context):
    return shutil.which(command[0].format(build=context.build)) is not None


class ServerJob:
    """Starts a server for `measure(server)`, which yields (name, unit, better, value)."""

    def __init__(self, names, impl, command, measure, pinned=True):
        self.names, self.impl, self.command, self.measure, self.pinned = names, impl, command, measure, pinned

    def run(self, context):
        if not installed(self.command, context):
            return []
        try:
            with Server(context, self.command, context.first if self.pinned else None) as server:
                return [value(name, self.impl, unit, better, number)
                        for name, unit, better, number in self.measure(server)]
        except (RuntimeError, OSError) as error:
            context.warn(str(error))
            return []


def requests(name, kind, connections, pipeline=1):
    def measure(server):
        found = server.load(kind=kind, connections=connections, pipeline=pipeline, fill=1)
        if found:
            yield f"{name}/rate", "requests/s", "higher", found["reached"]
            yield f"{name}/cpu", "us", "lower", found["cpu_us"]
    return measure


def active_among_parked(server):
    """Round trips a second of two connections, beside so many that wait, against beside none."""
    alone = server.load(kind="ping", connections=2)
    for count in (1000, 10000):
        among = server.load(kind="ping", connections=2, idle=count)
        if alone and among:
            yield f"parked/{count}", "x", "higher", among["reached"] / alone["reached"]


def idle_share(server):
    idle = [socket.create_connection(("127.0.0.1", server.port)) for _ in range(1000)]
    time.sleep(1)
    before, start = server.cpu_seconds(), time.monotonic()
    time.sleep(server.context.idle)
    share = (server.cpu_seconds() - before) / (time.monotonic() - start) * 100
    for s in idle:
        s.close()
    yield "idle_sessions/1000", "% of a processor", "lower", share


def server_jobs():
    jobs = []
    plain = {impl: command for impl, command in SERVERS.items() if impl != "zvxkvt, threads"}
    for name, connections, pipeline in (("get/50", 50, 1), ("get/50/16", 50, 16), ("get/2000", 2000, 1)):
        for impl, command in plain.items():
            jobs.append(ServerJob([f"{name}/cpu", f"{name}/rate"], impl, command,
                                  requests(name, "get", connections, pipeline)))
    for impl, command in DURABLE.items():
        jobs.append(ServerJob(["set/64/cpu", "set/64/rate"], impl, command, requests("set/64", "set", 64), False))
    for impl, command in plain.items():
        jobs.append(ServerJob(["parked/1000", "parked/10000"], impl, command, active_among_parked))
    for impl, command in plain.items():
        jobs.append(ServerJob(["idle_sessions/1000"], impl, command, idle_share))
    return jobs


# ---- Everything ------------------------------------------------------------------------------------------------

def all_jobs():
    fibers = ("sched_bench", "boost_peer", "st_peer", "go_peer")
    threads = fibers + ("native_peer",)
    jobs = []
    for n in ("2", "100", "10000"):
        # Not 10,000 kernel threads: so many runnable ones stop everything else on the machine.
        jobs += cases([f"yield/{n}"], fibers if n == "10000" else threads, "yield", "--threads", n)
        jobs.append(Program([f"yield/{n}"], "platform_bench", ["--threads", n]))
    jobs += cases(["yield/100/schedulers_2"], ["sched_bench"], "yield", "--threads", "100", "--schedulers", "2",
                  pinned=False)
    jobs += cases(["post_wait"], fibers, "post_wait")
    jobs.append(Program(["post_wait"], "platform_bench", ["--threads", "2"], rename=("post_wait", "two switches", 2)))
    for wait, case in (("100", "post"), ("1", "post_busy")):
        jobs += cases([f"message/{case}/port_wait_{wait}"], ["message_bench"], case, "--schedulers", "2", "--port-wait-ms",
                      wait, pinned=False)
    jobs += cases(["message/post"], ("boost_peer", "go_peer"), "message", pinned=False)
    for case in ("futex", "cache_line"):
        jobs += cases(["message/post"], ["native_peer"], case, pinned=False)
    jobs += cases(["lock/1"], threads, "lock") + cases(["lock/1"], ["native_peer"], "cas")
    jobs += cases(["lock/1/schedulers_2"], ["sched_bench"], "lock", "--schedulers", "2")
    for n in ("100", "1"):
        jobs += cases([f"create/{n}"], threads, "create", "--threads", n)
        for impl in ("boost guarded", "boost pooled"):
            jobs += cases([f"create/{n}"], ["boost_peer"], "create", "--threads", n, "--impl", impl)
        jobs += cases([f"create_wait/{n}"], ["sched_bench"], "create_wait", "--threads", n)
    jobs += cases(["wait_ended"], ("sched_bench", "boost_peer", "st_peer", "native_peer"), "wait_ended", "--threads", "100")
    jobs += cases(["park/resident", "park/page_tables", "park/kernel_threads"],
                  ("process_bench", "boost_peer", "st_peer", "go_peer", "native_peer"), "park", "--threads", "10000",
                  fast=False)
    for n in (16, 64):
        name = f"commit/{n}"
        for program, case in (("file_bench", "commit"), ("native_peer", "commit"), ("native_peer", "commit_floor")):
            jobs += cases([name], [program], case, "--threads", str(n), "--file", "{data}", pinned=False, fast=False,
                          timed=True)
    jobs += cases(["read_cached/random", "read_cached/sequential"], ("file_bench", "native_peer"), "cached", "--file",
                  "{data}")
    for n in (1, 16, 64):
        jobs += cases([f"read_direct/{n}"], ["file_bench"], "direct", "--file", "{data}", "--threads", str(n), fast=False,
                      timed=True)
        jobs.append(Fio(n))
    for n, name in (("11", "sleep/11"), ("0", "sleep/1-20")):
        jobs += cases([f"{name}/port_wait_100"], ["sched_bench"], "sleep", "--threads", n, "--port-wait-ms", "100",
                      fast=False, timed=True)
        jobs += cases([name], ["native_peer"], "sleep", "--threads", n, fast=False, timed=True)
    for wait, case in (("100", "resume"), ("1", "resume_busy")):
        jobs += cases([f"message/{case}/port_wait_{wait}"], ["message_bench"], case, "--schedulers", "2",
                      "--port-wait-ms", wait, pinned=False, fast=False, timed=True)
    jobs += cases(["message/resume"], ["native_peer"], "futex_wake", pinned=False, fast=False, timed=True)
    for wait in ("1", "100"):
        jobs += cases([f"idle/port_wait_{wait}"], ["process_bench"], "idle", "--schedulers", "2", "--port-wait-ms", wait,
                      pinned=False, fast=False, timed=True)
        jobs += cases([f"idle/port_wait_{wait}"], ["native_peer"], "idle", "--port-wait-ms", wait, pinned=False,
                      fast=False, timed=True)
    return jobs + server_jobs()


def selected(expression, everything):
    """The rows whose title or case matches; without an expression the table, with `everything` all of them."""
    if expression is None:
        return [row for row in ROWS if everything or not row.more]
    return [row for row in ROWS if re.search(expression, row.title) or re.search(expression, row.ours)]


def jobs_for(rows):
    wanted = {row.ours for row in rows} | {row.peer for row in rows}
    return [job for job in all_jobs() if wanted & set(job.names)]
