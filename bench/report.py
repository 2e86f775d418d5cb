#!/usr/bin/env python3
"""Reads what the benchmark programs print: a table of ours beside the peers, or two runs beside each other.

    report.py table RESULTS             every row with the peers and the ratio ours / peer (above 1 we lose)
    report.py compare OLD NEW [PERCENT] what changed by more than PERCENT (25) between two runs
    report.py fio NAME < OUTPUT         turns fio's JSON output into one line of results

RESULTS has one JSON object a line and one set of lines a round; programs ran interleaved, so a ratio is taken
within a round and the median over the rounds is what counts.
"""
import json
import signal
import statistics
import sys

OURS = "zvxkvt"

# Section, the name of our case, the name that the peers' lines have.
ROWS = [
    ("Yield", "yield/2", "yield/2"),
    ("Yield", "yield/100", "yield/100"),
    ("Yield", "yield/10000", "yield/10000"),
    ("Yield", "yield/100/schedulers_2", "yield/100"),
    ("Create, run and end (peers: with their join)", "create/1", "create/1"),
    ("Create, run and end (peers: with their join)", "create/100", "create/100"),
    ("Create, run, end and wait on the handle", "create_wait/1", "create/1"),
    ("Create, run, end and wait on the handle", "create_wait/100", "create/100"),
    ("Wait on the handle of an ended thread", "wait_ended", "wait_ended"),
    ("Sleep", "sleep/11", "sleep/11"),
    ("Sleep", "sleep/11/port_wait_100", "sleep/11"),
    ("Sleep", "sleep/1-20", "sleep/1-20"),
    ("Sleep", "sleep/1-20/port_wait_100", "sleep/1-20"),
    ("Messages between schedulers", "message/post/port_wait_1", "message/post"),
    ("Messages between schedulers", "message/post/port_wait_100", "message/post"),
    ("Messages between schedulers", "message/post_busy/port_wait_1", "message/post"),
    ("Messages between schedulers", "message/resume/port_wait_1", "message/resume"),
    ("Messages between schedulers", "message/resume/port_wait_100", "message/resume"),
    ("Messages between schedulers", "message/resume_busy/port_wait_1", "message/resume"),
    ("8 KiB reads", "read_cached/random", "read_cached/random"),
    ("8 KiB reads", "read_cached/sequential", "read_cached/sequential"),
    ("8 KiB reads", "read_direct/1", "read_direct/1"),
    ("8 KiB reads", "read_direct/16", "read_direct/16"),
    ("8 KiB reads", "read_direct/64", "read_direct/64"),
    ("10,000 parked threads, each", "park/resident", "park/resident"),
    ("10,000 parked threads, each", "park/page_tables", "park/page_tables"),
    ("10,000 parked threads, each", "park/kernel_threads", "park/kernel_threads"),
    ("Idle process, two schedulers", "idle/port_wait_1", "idle/port_wait_1"),
    ("Idle process, two schedulers", "idle/port_wait_100", "idle/port_wait_100"),
]


class Series:
    """One case of one implementation over the rounds."""

    def __init__(self, line):
        self.unit = line["unit"]
        self.better = line["better"]
        self.rounds = {}
        self.cpu = {}
        self.extras = {}

    def add(self, line):
        number_of_round = line.get("round", len(self.rounds))
        self.rounds[number_of_round] = line["median"]
        if "cpu_ns" in line:
            self.cpu[number_of_round] = line["cpu_ns"]
        for key in ("p90", "p99", "cpu_us_per_read"):
            if key in line:
                self.extras.setdefault(key, []).append(line[key])

    def median(self):
        return statistics.median(self.rounds.values())

    def deviation(self):
        middle = self.median()
        return statistics.median(abs(value - middle) for value in self.rounds.values())


def load(name):
    series = {}
    with open(name, encoding="utf-8") as file:
        for text in file:
            if not text.startswith("{"):
                continue
            line = json.loads(text)
            key = (line["name"], line["impl"])
            if key not in series:
                series[key] = Series(line)
            series[key].add(line)
    return series


def number(value):
    if value == 0:
        return "0"
    if abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def ratios(ours, peers, better):
    """Ours against the peer's, turned so that above 1 is a loss; one a round that has both."""
    result = []
    for key, value in ours.items():
        if key not in peers:
            continue
        other = peers[key]
        above, below = (value, other) if better == "lower" else (other, value)
        if above <= 0 or below <= 0:
            continue  # a sleep cannot be early; a difference of memory may vanish
        result.append(above / below)
    return sorted(result)


def verdict(found):
    """The word for the table. Rounds that disagree leave it open."""
    if not found:
        return "-", "-"
    middle = statistics.median(found)
    text = f"{middle:.2f} ({found[0]:.2f}-{found[-1]:.2f})"
    word = "won" if middle < 1 else "lost" if middle > 1 else "even"
    if len(found) > 1 and found[0] < 1 < found[-1]:
        word += ", not resolved"
    return text, word


def table(name):
    series = load(name)
    section = None
    lost = missing = 0
    for title, ours_name, peer_name in ROWS:
        ours = series.get((ours_name, OURS))
        peers = [impl for (case, impl) in series if case == peer_name and impl != OURS]
        if ours is None and not peers:
            continue
        if title != section:
            section = title
            print(f"\n{title}\n")
            print("| case | unit | ours | deviation | peer | its median | ratio (range of rounds) | by processor time | |")
            print("|---|---|---|---|---|---|---|---|---|")
        if ours is None:
            print(f"| {ours_name} | | missing | | | | | | |")
            missing += 1
            continue
        own = f"{number(ours.median())} | {number(ours.deviation())}"
        for key, values in ours.extras.items():
            own = own.replace(" |", f" ({key} {number(statistics.median(values))}) |", 1)
        if not peers:
            print(f"| {ours_name} | {ours.unit} | {own} | - | - | - | - | |")
        for impl in peers:
            peer = series[(peer_name, impl)]
            text, word = verdict(ratios(ours.rounds, peer.rounds, ours.better))
            by_cpu = ratios(ours.cpu, peer.cpu, "lower")
            cpu = f"{statistics.median(by_cpu):.2f}" if by_cpu else "-"
            if impl.startswith("bare switch"):
                word = "floor"
            lost += word.startswith("lost")
            print(f"| {ours_name} | {ours.unit} | {own} | {impl} | {number(peer.median())} | {text} | {cpu} | {word} |")
    print(f"\n{lost} rows lost, {missing} missing.")


def compare(old_name, new_name, percent):
    old, new = load(old_name), load(new_name)
    changed = 0
    for key in sorted(set(old) | set(new)):
        if key not in old or key not in new:
            print(f"{key[0]} [{key[1]}]: only in {old_name if key in old else new_name}")
            continue
        before, after = old[key].median(), new[key].median()
        if before == 0:
            continue
        change = (after / before - 1) * 100
        if abs(change) <= percent:
            continue
        changed += 1
        better = (change < 0) == (new[key].better == "lower")
        print(f"{key[0]} [{key[1]}]: {number(before)} -> {number(after)} {new[key].unit}, "
              f"{change:+.0f} % ({'better' if better else 'worse'})")
    print(f"{changed} of {len(set(old) & set(new))} differ by more than {percent:g} %.")


def from_fio(name):
    text = sys.stdin.read()
    job = json.loads(text[text.index("{"):])["jobs"][0]
    read = job["read"]
    seconds = read["runtime"] / 1000
    cpu = (job["usr_cpu"] + job["sys_cpu"]) / 100 * seconds
    line = {"name": name, "impl": "fio", "backend": "io_uring", "schedulers": 1, "iterations": read["total_ios"],
            "repetitions": read.get("iops_samples", 1), "unit": "reads/s", "better": "higher",
            "median": read["iops"], "deviation": read.get("iops_stddev", 0), "min": read.get("iops_min", 0),
            "max": read.get("iops_max", 0), "cpu_us_per_read": cpu * 1e6 / max(1, read["total_ios"])}
    print(json.dumps(line, separators=(",", ":")))


def main(arguments):
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    if len(arguments) == 2 and arguments[0] == "table":
        table(arguments[1])
    elif len(arguments) in (3, 4) and arguments[0] == "compare":
        compare(arguments[1], arguments[2], float(arguments[3]) if len(arguments) == 4 else 25.0)
    elif len(arguments) == 2 and arguments[0] == "fio":
        from_fio(arguments[1])
    else:
        print(__doc__)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
