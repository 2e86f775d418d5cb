#!/usr/bin/env python3
"""bench/servers.py - the server of host/ beside redis-server and a bare ring server, on loopback, in one run.

  servers.py --build FOLDER [--rounds N] [--seconds S] [--only REGEX] [--dir FOLDER]

Cases: get/C/P (C connections, pipeline P): requests a second and processor time of the server a request; set_always/C:
durable writes; idle/N: processor share of N idle sessions; parked/N: round trips of two active connections beside N idle
ones, and resident memory a session. The server has the first processor (durable writes: any), redis-benchmark the last one; idle runs alone.
Programs take turns within a round; the table has medians and the ratio to ours. Needs redis-server and redis-benchmark
in the path; what is missing is left out and said.
"""
import argparse, os, re, shutil, signal, socket, statistics, subprocess, sys, tempfile, time

TICK = os.sysconf("SC_CLK_TCK")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def processor_seconds(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def resident_kib(pid):
    with open(f"/proc/{pid}/status") as f:
        values = dict(line.split(":", 1) for line in f if line.startswith(("VmRSS", "VmPTE")))
    return sum(int(v.split()[0]) for v in values.values())


class Server:
    def __init__(self, name, command, processors):
        self.name, self.port = name, free_port()
        self.dir = tempfile.mkdtemp(prefix="bench-", dir=options.dir)
        words = [w.format(port=self.port, dir=self.dir) for w in command]
        if processors:
            words = ["taskset", "-c", processors] + words
        self.process = subprocess.Popen(words, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.pid = self.process.pid
        for _ in range(600):
            try:
                socket.create_connection(("127.0.0.1", self.port), 1).close()
                return
            except OSError:
                time.sleep(0.05)
        sys.exit(f"{name} did not start")

    def stop(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()
        shutil.rmtree(self.dir, ignore_errors=True)


def redis_benchmark(server, kind, connections, pipeline, requests):
    command = ["taskset", "-c", last, "redis-benchmark", "-p", str(server.port), "-t", kind, "-c", str(connections),
               "-P", str(pipeline), "-n", str(requests), "-d", "64", "-r", "10000", "--csv"]
    before, start = processor_seconds(server.pid), time.monotonic()
    text = subprocess.run(command, capture_output=True, text=True, timeout=300).stdout
    took, cpu = time.monotonic() - start, processor_seconds(server.pid) - before
    rates = re.findall(r'^"[A-Z]+","([\d.]+)"', text, re.M)
    if not rates:
        return None
    return float(rates[0]), cpu / requests * 1e6, took


def fitted(server, kind, connections, pipeline):
    """As many requests as take the wanted time."""
    probe = redis_benchmark(server, kind, connections, pipeline, 4000 if kind == "set" else 20000)
    if probe is None:
        return None
    return redis_benchmark(server, kind, connections, pipeline, max(4000, int(probe[0] * options.seconds)))


def round_trips(port, seconds):
    """PING over two connections, one after the other."""
    a, b = (socket.create_connection(("127.0.0.1", port)) for _ in range(2))
    for s in (a, b):
        s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    count, end = 0, time.monotonic() + seconds
    while time.monotonic() < end:
        for s in (a, b):
            s.sendall(b"*1\r\n$4\r\nPING\r\n")
            s.recv(64)
        count += 2
    a.close(), b.close()
    return count / seconds


def parked(server, counts):
    idle, result, base = [], {}, resident_kib(server.pid)
    for count in counts:
        while len(idle) < count:
            idle.append(socket.create_connection(("127.0.0.1", server.port)))
        time.sleep(1)
        trips = round_trips(server.port, options.seconds)
        memory = (resident_kib(server.pid) - base) / count if count else 0
        result[count] = (trips, memory)
    for s in idle:
        s.close()
    return result


def idle_share(server, count):
    idle = [socket.create_connection(("127.0.0.1", server.port)) for _ in range(count)]
    time.sleep(2)
    before = processor_seconds(server.pid)
    time.sleep(10)
    share = (processor_seconds(server.pid) - before) / 10 * 100
    for s in idle:
        s.close()
    return share


parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
parser.add_argument("--build", required=True)
parser.add_argument("--rounds", type=int, default=3)
parser.add_argument("--seconds", type=float, default=3)
parser.add_argument("--only", default=".")
parser.add_argument("--dir", default=None)
parser.add_argument("--schedulers", default="1")
options = parser.parse_args()

processors = sorted(os.sched_getaffinity(0))
first, last = str(processors[0]), str(processors[-1])
import resource
hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))

host = [f"{options.build}/host/keyhost", "--port", "{port}", "--dir", "{dir}", "--schedulers", options.schedulers,
        "--max-sessions", "20000"]
redis = ["redis-server", "--port", "{port}", "--dir", "{dir}", "--save", "", "--maxclients", "30000"]
memory = {
    "ours": host + ["--durability", "no"],
    "ours, threads": host + ["--durability", "no", "--threads"],
    "redis": redis,
    "bare ring": [f"{options.build}/bench/ring_server", "{port}"],
}
durable = {
    "ours": host + ["--durability", "always"],
    "ours, threads": host + ["--durability", "always", "--threads"],
    "redis": redis + ["--appendonly", "yes", "--appendfsync", "always"],
}
results = {}  # case -> name -> list of values


def note(case, name, value):
    results.setdefault(case, {}).setdefault(name, []).append(value)


def wanted(case):
    return re.search(options.only, case)


def each(programs, processors, body):
    for name, command in programs.items():
        if shutil.which(command[0]) is None:
            continue
        server = Server(name, command, processors)
        try:
            body(name, server)
        finally:
            server.stop()


for number in range(options.rounds):
    print(f"== round {number + 1} of {options.rounds}", file=sys.stderr)
    for connections in (50, 2000):
        for pipeline in (1, 16):
            case = f"get/{connections}/{pipeline}"
            if not wanted(case):
                continue

            def get(name, server):
                redis_benchmark(server, "set", 50, 16, 20000)
                got = fitted(server, "get", connections, pipeline)
                if got:
                    note(case + " requests/s", name, got[0])
                    note(case + " us CPU/request", name, got[1])
            each(memory, first, get)
    for connections in (1, 64):
        case = f"set_always/{connections}"
        if wanted(case):
            def put(name, server):
                got = fitted(server, "set", connections, 1)
                if got:
                    note(case + " requests/s", name, got[0])
                    note(case + " us CPU/request", name, got[1])
            each(durable, None, put)  # what makes a write durable may run on any processor
    if wanted("parked"):
        def park(name, server):
            found = parked(server, [0, 10, 1000, 10000])
            for count, (trips, kib) in found.items():
                note(f"parked/{count} round trips/s", name, trips)
            note("parked/10000 against none", name, found[10000][0] / found[0][0])
            note("parked/10000 KiB a session", name, found[10000][1])
        each({k: v for k, v in memory.items() if k not in ("ours, threads",)}, first, park)
    if wanted("idle"):
        each(memory, None, lambda name, server: note("idle/1000 % of a processor", name, idle_share(server, 1000)))

print(f"\n{time.strftime('%Y-%m-%d')}, {len(processors)} processors, Linux {os.uname().release}, {options.rounds} rounds, "
      f"load {os.getloadavg()[0]:.1f} at the end")
print("| case | " + " | ".join(memory) + " | ratio to ours |")
print("|---|" + "---|" * (len(memory) + 1))
for case, values in results.items():
    medians = {name: statistics.median(v) for name, v in values.items()}
    cells = [f"{medians[n]:,.4g}" if n in medians else "-" for n in memory]
    ours = medians.get("ours")
    ratios = [f"{n} {medians[n] / ours:.2f}" for n in memory if n in medians and n != "ours" and ours]
    print(f"| {case} | " + " | ".join(cells) + " | " + ", ".join(ratios) + " |")
