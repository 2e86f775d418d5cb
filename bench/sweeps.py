"""What a single number does not tell: cost against the number of parked threads, latency against load."""
import resource
import statistics

from charts import COLORS, Panel, Series
from report import number
from rows import DURABLE, OURS, SERVERS, Program, Server, installed

# ---- Parked threads --------------------------------------------------------------------------------------------

PARKED_CASES = (
    ("yield_parked", "A yield of two active threads, the others wait for ever"),
    ("timed_parked", "Post and wait with a time-out, the others wait with one"),
    ("event_parked", "Set an event and wait for one, the others wait for events"),
)
PARKED_PEERS = {"boost_peer": "boost", "st_peer": "state threads", "go_peer": "go", "native_peer": "pthreads"}
MOST_KERNEL_THREADS = 10000


def ours_named(schedulers):
    return OURS if schedulers == 1 else f"{OURS}, {schedulers}"


def parked_programs(case, count):
    """(line of the chart, program) for a number of parked threads."""
    for schedulers in (1, 2, 4):
        if count >= schedulers:
            yield ours_named(schedulers), Program([], "sched_bench", ["--case", case, "--threads", str(count // schedulers),
                                                  "--schedulers", str(schedulers)], pinned=schedulers == 1)
    for program, name in PARKED_PEERS.items():
        if program != "native_peer" or count <= MOST_KERNEL_THREADS:
            yield name, Program([], program, ["--case", case, "--threads", str(count)])


def echo_servers():
    for schedulers in (1, 2, 4):
        yield ours_named(schedulers), SERVERS[OURS] + ["--schedulers", str(schedulers)], schedulers == 1
    for name, command in SERVERS.items():
        if not name.startswith(OURS):
            yield name, command, True


def parked(context, rounds, keep, say):
    """Table and panels: ns or us an operation, by the number of parked threads."""
    context.warn = say  # what cannot have so many is left out of the picture
    counts = (1, 100, 1000) if context.quick else (1, 10, 100, 1000, 10000, 30000)
    room = resource.getrlimit(resource.RLIMIT_NOFILE)[0] - 200  # descriptors of a server or the client
    found = {}  # (case, line, count) -> one value a round

    def note(case, line, count, value):
        found.setdefault((case, line, count), []).append(value)
        keep({"case": case, "line": line, "parked": count, "value": value})

    for n in range(rounds):
        say(f"round {n + 1} of {rounds}")
        for count in counts:
            for case, _ in PARKED_CASES:
                for line, program in parked_programs(case, count):
                    for result in program.run(context):
                        note(case, line, count, result["median"])
            connections = min(count, room)
            for line, command, pinned in echo_servers():
                if not installed(command, context):
                    continue
                if line == "pthreads" and connections > MOST_KERNEL_THREADS:
                    continue
                try:
                    with Server(context, command, context.first if pinned else None) as server:
                        load = server.load(kind="ping", connections=2, idle=connections)
                        if load:
                            note("echo_parked", line, connections, load["p50"])
                except (RuntimeError, OSError) as error:
                    say(str(error))

    panels, lines = [], ["| case | line | " + " | ".join(f"{c:,}" for c in counts) + " |",
                         "|---|---|" + "---|" * len(counts)]
    cases = PARKED_CASES + (("echo_parked", "Round trip of two active connections, the others are silent"),)
    for case, title in cases:
        series = []
        for line in dict.fromkeys(key[1] for key in found if key[0] == case):
            points = [(key[2], statistics.median(v)) for key, v in found.items() if key[:2] == (case, line)]
            label = line if line != OURS else f"{OURS}, 1 scheduler"
            label += " schedulers" if line in (ours_named(2), ours_named(4)) else ""
            series.append(Series(label, COLORS[line], "", points))
            at = {c: y for c in counts for x, y in points if x == (min(c, room) if case == "echo_parked" else c)}
            lines.append(f"| {case} | {label} | " + " | ".join(number(at[c]) if c in at else "-" for c in counts) + " |")
        unit = "us, median" if case == "echo_parked" else "ns an operation"
        panels.append(Panel(title, "parked connections" if case == "echo_parked" else "parked threads", unit, True, True,
                            series))
    if room < counts[-1]:
        lines += ["", f"The limit of descriptors ends the connections at {room:,}; that is in the last column."]
    return lines + ["", "Nanoseconds, but echo_parked: microseconds, the median round trip."], panels


# ---- Latency against load ----------------------------------------------------------------------------------------

PERCENTILES = (("p50", ""), ("p99", "6 3"), ("p99.9", "2 3"))
CONNECTIONS = 50


def latency(context, rounds, keep, say):
    """Table and panels: each server's highest rate, and its latencies at parts of it and of the lowest highest one."""
    shares = (50, 90) if context.quick else (10, 20, 30, 40, 50, 60, 70, 80, 90, 95)
    panels = []
    lines = ["| request | server | highest rate | load | rate asked | reached | p50, us | p99 | p99.9 | max |",
             "|---|---|---|---|---|---|---|---|---|---|"]
    for kind, title, servers, pinned in (("get", "GET", {k: SERVERS[k] for k in DURABLE}, True),
                                         ("set", "durable SET", DURABLE, False)):
        # What makes a write durable may run on any processor; a GET is served by the first one.
        servers = {k: v for k, v in servers.items() if installed(v, context)}
        highest, found = {}, {}  # (server, load) -> one result a round
        for n in range(rounds):
            say(f"{title}, round {n + 1} of {rounds}")
            for name, command in servers.items():
                with Server(context, command, context.first if pinned else None) as server:
                    best = server.load(kind=kind, connections=CONNECTIONS, fill=1)
                    if best:
                        highest.setdefault(name, []).append(best["reached"])
            if len(highest) != len(servers):
                raise SystemExit("bench: a server gave no highest rate")
            top = {name: statistics.median(rates) for name, rates in highest.items()}
            common = min(top.values())
            loads = {name: [(f"{share} %", rate * share / 100) for share in shares] +
                     [(f"{share} % of the lowest", common * share / 100) for share in (50, 90)] for name, rate in top.items()}
            for place in range(len(shares) + 2):
                for name, command in servers.items():  # in turns
                    with Server(context, command, context.first if pinned else None) as server:
                        load, rate = loads[name][place]
                        result = server.load(kind=kind, connections=CONNECTIONS, fill=1, rate=round(rate))
                        if result:
                            found.setdefault((name, load), []).append(result)
                            keep({"kind": kind, "server": name, "load": load, **result})

        def middle(name, load, key):
            return statistics.median(result[key] for result in found[(name, load)])

        series = []
        for name in servers:
            for load in ("50 %", "90 %", "50 % of the lowest", "90 % of the lowest"):
                if (name, load) in found:
                    cells = [number(middle(name, load, k)) for k in ("asked", "reached", "p50", "p99", "p99.9", "max")]
                    lines.append(f"| {title} | {name} | {number(statistics.median(highest[name]))} | {load} | "
                                 + " | ".join(cells) + " |")
            for key, dash in PERCENTILES:
                points = [(middle(name, f"{share} %", "asked") / 1000, middle(name, f"{share} %", key))
                          for share in shares if (name, f"{share} %") in found]
                series.append(Series(f"{name} {key}", COLORS[name], dash, points))
        panels.append(Panel(f"{title}, {CONNECTIONS} connections", "thousand requests a second, at intended times",
                            "latency, us", False, True, series))
    return lines + ["", "Latency counts from the time at which a request was to be sent."], panels
