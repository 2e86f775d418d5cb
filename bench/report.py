"""From values to ratios, verdicts, tables and the check against recorded ratios.

A ratio is ours divided by the peer's, turned so that above 1 we lose, and taken within one round: programs take turns
within a round, so that both saw the same machine. The median over the rounds counts.
"""
import json
import math
import re
import statistics

from rows import OURS, ROWS

# The column of an implementation; those without stand in "others" with their names.
COLUMNS = ["State Threads", "Boost", "Go", "pthreads", "others", "floor"]
COLUMN_OF = {"state threads": "State Threads", "boost": "Boost", "boost guarded": "Boost", "boost pooled": "Boost",
             "asio": "Boost", "go": "Go", "pthreads": "pthreads", "futex": "pthreads", "pread": "pthreads",
             "nanosleep": "pthreads"}
TOLERANCE = 1.15  # what a ratio may be worse than the recorded one, and how far rounds may be apart


def number(given):
    if given == 0:
        return "0"
    return f"{given:,.0f}" if abs(given) >= 1000 else f"{given:.3g}"


class Results:
    """What the rounds gave: values[(name, impl)][round] and unit and direction of each name."""

    def __init__(self):
        self.values, self.units, self.better = {}, {}, {}

    def add(self, round_number, line):
        key = line["name"], line["impl"]
        self.values.setdefault(key, {})[round_number] = line["median"]
        self.units[line["name"]], self.better[line["name"]] = line["unit"], line["better"]

    def peers(self, row):
        return [impl for name, impl in self.values if name == row.peer and impl != OURS]

    def ratios(self, row, impl):
        """One a round that has both, in ascending order. `impl` may be a number."""
        found = []
        theirs = self.values.get((row.peer, impl), {})
        for round_number, ours in self.values.get((row.ours, OURS), {}).items():
            other = impl if isinstance(impl, float) else theirs.get(round_number)
            if other is None:
                continue
            above, below = (ours, other) if self.better[row.ours] == "lower" else (other, ours)
            # An idle process may use nothing, and a difference of memory may vanish.
            found.append(above / below if above > 0 and below > 0 else 1.0 if above <= 0 and below <= 0
                         else math.inf if above > 0 else 0.0)
        return sorted(found)

    def recordable(self):
        """The median ratio of each row to each peer."""
        found = {}
        for row in ROWS:
            for impl in self.peers(row):
                ratios = self.ratios(row, impl)
                if ratios and 0 < statistics.median(ratios) < math.inf:
                    found[f"{row.title} | {impl}"] = round(statistics.median(ratios), 3)
        return found


def apart(ratios):
    return len(ratios) > 1 and ratios[-1] > ratios[0] * TOLERANCE


def verdict(results, row):
    """Who is ahead, by name, and how far the floor is."""
    # Nobody is ahead of a floor that is nothing else.
    peers = [impl for impl in results.peers(row) if impl != row.floor or impl in COLUMN_OF]
    ratios = {impl: results.ratios(row, impl) for impl in peers}
    lost = [impl for impl in peers if ratios[impl] and statistics.median(ratios[impl]) > 1]
    open_ = [impl for impl in peers if ratios[impl] and ratios[impl][0] < 1 < ratios[impl][-1]]
    words = ["lost to " + ", ".join(lost)] if lost else ["won"] if peers else []
    if open_:
        words.append("not resolved against " + ", ".join(open_))
    floor = results.ratios(row, row.floor) if row.floor is not None else []
    if floor:
        middle = statistics.median(floor)
        words.append("within 10 % of the floor" if middle <= 1.1 else f"the floor is {middle:.2f} times better")
    return "; ".join(words), bool(lost)


def table(results, rows):
    """The lines of the table, the number of rows lost, and the rows that have no value of ours."""
    lines = ["| work | unit | ours | rounds | " + " | ".join(COLUMNS) + " | |", "|---|---|---|---|" + "---|" * (len(COLUMNS) + 1)]
    lost, missing = 0, []
    for row in rows:
        ours = results.values.get((row.ours, OURS))
        if not ours:
            missing.append(row.title)
            continue
        cells = {column: [] for column in COLUMNS}
        if isinstance(row.floor, float):
            cells["floor"].append(number(row.floor))
        for impl in results.peers(row):
            theirs = number(statistics.median(results.values[(row.peer, impl)].values()))
            ratios = results.ratios(row, impl)
            ratio = f" ({statistics.median(ratios):.2f})" if ratios and 0 < statistics.median(ratios) < math.inf else ""
            column = COLUMN_OF.get(impl, "floor" if impl == row.floor else "others")
            named = "" if impl in ("state threads", "boost", "go", "pthreads") else impl.replace("boost ", "") + " "
            cells[column].append(named + theirs + ratio)
            if impl == row.floor and column != "floor":
                cells["floor"].append("the same")
        middle = statistics.median(ours.values())
        spread = f"{min(ours.values()) / middle * 100 - 100:+.0f} {max(ours.values()) / middle * 100 - 100:+.0f} %" \
            if middle and len(ours) > 1 else "-"
        word, is_lost = verdict(results, row)
        lost += is_lost
        lines.append(f"| {row.title} | {results.units[row.ours]} | {number(middle)} | {spread} | "
                     + " | ".join("; ".join(cells[c]) or "-" for c in COLUMNS) + f" | {word} |")
    lines.append("")
    lines.append(f"{len(rows)} rows, {lost} lost" + (f", without a value: {', '.join(missing)}" if missing else "") + ".")
    return lines, lost, missing


def fallen(results, rows, recorded):
    """(row, impl, ratio, recorded ratio, whether rounds disagree) where ours fell behind what is recorded."""
    found = []
    for row in rows:
        for impl in results.peers(row):
            before, ratios = recorded.get(f"{row.title} | {impl}"), results.ratios(row, impl)
            if before is not None and ratios and statistics.median(ratios) > before * TOLERANCE:
                found.append((row, impl, statistics.median(ratios), before, apart(ratios)))
    return found


def unseen(results, rows, recorded):
    """What is recorded for these rows and was not measured now: a row that fails must not pass by being absent."""
    have = results.recordable()
    titles = {row.title for row in rows}
    return [key for key in recorded if key.split(" | ")[0] in titles and key not in have]


def load_recorded(name):
    with open(name, encoding="utf-8") as file:
        return json.load(file)


def replace_block(name, marker, lines):
    """The lines between `<!-- marker: begin -->` and `<!-- marker: end -->` of a document are generated."""
    with open(name, encoding="utf-8") as file:
        text = file.read()
    begin, end = f"<!-- {marker}: begin -->", f"<!-- {marker}: end -->"
    if not re.search(re.escape(begin) + ".*" + re.escape(end), text, re.S):
        raise SystemExit(f"{name} has no block {marker}")
    head, rest = text.split(begin, 1)
    with open(name, "w", encoding="utf-8") as file:
        file.write(head + begin + "\n" + "\n".join(lines) + "\n" + end + rest.split(end, 1)[1])
