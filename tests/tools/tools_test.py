"""Drives zvxctl and the gdb script against hosts in child processes: tools_test.py CASE.

Each case is a process of its own with a folder of its own. Every wait has a limit. Exit code 77: the machine does not
allow the case, with the reason on the output.
"""

import json
import mmap
import os
import re
import resource
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

ZVXCTL, HOST, KEYHOST = os.environ["ZVXCTL"], os.environ["PARKED_HOST"], os.environ["KEYHOST"]
LIBRARY, SCRIPT = os.environ["ZVX_LIBRARY"], os.environ["ZVX_GDB"]
FOLDER = tempfile.mkdtemp(prefix="zvx_tools_")
CHILDREN = []

# What every mode of the host has: tag, state, what it waits for, the function where it is parked.
PARKED = [
    ("ZZZ", "TIMED_WAIT", "sleep <= 3600000 ms", "SleepsForLong"),
    ("PMON", "TIMED_WAIT", "post", "AwaitsAPost"),
    ("SHAD", "TIMED_WAIT", "post <= 3600000 ms", "AwaitsAPostInTime"),
    ("OWN", "TIMED_WAIT", "sleep <= 3600000 ms", "OwnsTheSection"),
    ("CRIT", "TIMED_WAIT", "critical section", "AwaitsTheSection"),
    ("OBJ", "TIMED_WAIT", "object", "AwaitsAnObject"),
    ("NET", "IO_WAIT", "socket accept", "AwaitsAClient"),
]


def check(condition, what):
    if not condition:
        raise AssertionError(what)


# A case's own: the event that asks for dumps is one for all hosts of a name, and whoever hears it first takes it back.
SID = f"T{os.getpid()}"


def start(program, ready="ready", schedulers=2, env=None, **options):
    """A child that has said that it is ready."""
    settings = {"ZVX_FIBERS_Schedulers": str(schedulers), "ZVX_FIBERS_PortWaitMs": "20", "ZORVEX_SID": SID}
    child = subprocess.Popen(program, cwd=FOLDER, stdout=subprocess.PIPE, env={**os.environ, **settings, **(env or {})}, **options)
    CHILDREN.append(child)
    for line in child.stdout:
        if ready in line.decode():
            time.sleep(0.1)
            return child, line.decode()
    raise AssertionError(f"{program} ended with {child.wait()} before it was ready")


def run(program, code=0, timeout=25, **options):
    done = subprocess.run(program, cwd=FOLDER, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=timeout, **options)
    check(done.returncode == code, f"{program} gave {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout if code == 0 else done.stderr


def zvxctl(*words, code=0, **options):
    return run([ZVXCTL, *[str(word) for word in words]], code, **options)


def columns(text):
    """Rows of a table by tag, cut where the headings begin or end."""
    lines = text.splitlines()
    rows = {}
    for line in lines[1:]:
        cells = re.split(r"\s{2,}", line.strip())
        rows.setdefault(cells[1], []).append(cells)
    return rows


def check_parked(pid, *more):
    """The rows of zvxctl threads. A stack on which its scheduler idles can be read while that sleeps, which it does most
    of the time; one that changes while it is read is not shown. So each is to be seen where it is once in forty times."""
    for _ in range(40):
        rows = columns(zvxctl("threads", pid))
        if all(tag in rows and rows[tag][0][-1].startswith(place + "+") for tag, _, _, place in (*PARKED, *more)):
            break
    for tag, state, waits, place in (*PARKED, *more):
        check(tag in rows and len(rows[tag]) == 1, f"{tag} is listed {len(rows.get(tag, []))} times")
        row = rows[tag][0]
        check(row[4] == state and row[5].startswith(waits), f"{tag} should be {state}, {waits}: {row}")
        check(row[-1].startswith(place + "+"), f"{tag} should be parked in {place}: {row}")
    return rows


def gdb(arguments, *commands):
    words = ["gdb", "-nx", "-q", "-batch", "-iex", "set auto-load off", "-iex", "set debuginfod enabled off"]
    words += arguments + ["-ex", f"source {SCRIPT}"]
    for command in commands:
        words += ["-ex", command]
    done = subprocess.run(words, cwd=FOLDER, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=50)
    return done.stdout + done.stderr


def check_stacks(text, place_of_main="SleepsForLong"):
    """`zvx bt all`: under each title the function and what called it, down to where the thread began."""
    stacks = {}
    for part in text.split("\n\n"):
        title = re.search(r"^(\w+) #(\d+), thread", part, re.M)
        if title:
            stacks.setdefault(title.group(1), []).append(part[title.start() :])
    for tag, _, _, place in PARKED + [("FMAIN", "", "", place_of_main)]:
        check(len(stacks.get(tag, [])) == 1, f"{len(stacks.get(tag, []))} stacks of {tag} in\n{text}")
        stack = stacks[tag][0]
        frames = re.findall(r"^#(\d+) +(?:0x[0-9a-f]+ in )?([\w:~()<> ]+?) \(", stack, re.M)
        check([int(number) for number, _ in frames] == list(range(len(frames))), f"numbers of frames in\n{stack}")
        names = [name.split("::")[-1] for _, name in frames]
        check(place in names, f"{tag} is parked in {place}:\n{stack}")
        check(any(name.endswith("FiberStart") for name in names[names.index(place) :]), f"the stack of {tag} is cut:\n{stack}")
    return stacks


# ---- zvxctl ------------------------------------------------------------------------------------------


def case_Errors():
    gone = subprocess.Popen(["true"])
    gone.wait()
    check("there is no process" in zvxctl("threads", gone.pid, code=1), "a process that is gone")
    other = subprocess.Popen(["sleep", "60"])
    CHILDREN.append(other)
    check("does not use libzvxkvt" in zvxctl("sched", other.pid, code=1), "a process without the library")
    plain, _ = start([HOST, "plain"])
    check("not initialised" in zvxctl("threads", plain.pid, code=1), "a process that has not initialised the library")
    zvxctl("threads", code=2)
    zvxctl("threads", "no-number", code=2)
    zvxctl("threads", plain.pid, "--sort", "size", code=2)
    zvxctl("nothing", code=2)
    check("zvxctl list" in zvxctl("trace", "--help") and "--follow" in zvxctl("log", "--help"), "help")

    # A library of another layout: the number after the magic word of its table.
    name = next(n for n in os.listdir(os.path.dirname(LIBRARY)) if n.startswith("libzvxkvt.so.") and n.count(".") == 2)
    data = bytearray(open(LIBRARY, "rb").read())
    at = data.find(b"ZVXTABLE\1\0\0\0")
    check(at > 0, "the table in the file")
    data[at + 8] = 99
    open(os.path.join(FOLDER, name), "wb").write(data)
    old, _ = start([HOST, "parked"], env={"LD_LIBRARY_PATH": FOLDER})
    check("table layout 99" in zvxctl("threads", old.pid, code=1), "another layout")
    check(str(old.pid) in zvxctl("list"), "it is listed all the same")

    parked, _ = start([HOST, "parked"])
    check("no scheduler 9" in zvxctl("threads", parked.pid, "--scheduler", 9, code=1), "a scheduler that there is not")
    check("keeps no ring log" in zvxctl("log", parked.pid, code=1), "no ring log")
    check("cannot write" in zvxctl("trace", parked.pid, "--output", "/no/such/file", code=1), "no place for a trace")
    if os.getuid() != 0:
        closed, _ = start([HOST, "closed"])
        check("may not be dumped" in zvxctl("threads", closed.pid, code=1), "a process that may not be read")
        return
    nobody = {"user": 65534, "group": 65534, "extra_groups": []}
    # By a shell, which the other user can always run: below /root nobody else finds the program.
    if subprocess.run(["sh", "-c", '"$0" --help', ZVXCTL], capture_output=True, **nobody).returncode != 0:
        print("another user cannot run zvxctl here: those cases are left out")
        return
    check("belongs to root" in zvxctl("threads", parked.pid, code=1, **nobody), "another user's process")
    closed, _ = start([HOST, "closed"], **nobody)
    check("may not be dumped" in zvxctl("threads", closed.pid, code=1, **nobody), "a process that may not be read")


def case_Tables():
    host, _ = start([HOST, "parked"])
    with open(LIBRARY, "rb") as file, mmap.mmap(file.fileno(), 0, prot=mmap.PROT_READ):
        rows = [line.split() for line in zvxctl("list").splitlines()]
    check(str(os.getpid()) not in [row[0] for row in rows], "who only reads the file of the library does not run on it")
    listed = [row for row in rows if row[0] == str(host.pid)]
    check(len(listed) == 1 and listed[0][2] == SID and listed[0][4:6] == ["2", "8"], f"list: {listed}")
    check_parked(host.pid, ("FMAIN", "TIMED_WAIT", "sleep <= 3600000 ms", "SleepsForLong"))
    tags = [re.split(r"\s{2,}", line.strip())[1] for line in zvxctl("threads", host.pid, "--sort", "tag").splitlines()[1:]]
    check(tags == sorted(tags) and len(tags) == 8, f"sorted by tag: {tags}")
    both = [len(zvxctl("threads", host.pid, "--scheduler", n).splitlines()) - 1 for n in (0, 1)]
    check(min(both) > 0 and sum(both) == 8, f"by scheduler: {both}")
    sched = zvxctl("sched", host.pid).splitlines()
    counts = [re.split(r"\s{2,}", line.strip()) for line in sched[1:]]
    check(sum(int(c[3]) for c in counts) == 8, f"user threads: {sched}")
    usage = dict(line.split() for line in zvxctl("usage", host.pid).splitlines())
    check(usage["user_threads"] == "8" and int(usage["handles"]) >= 8 and usage["records_section"] == "1", f"usage: {usage}")
    check(sum(int(c[6]) for c in counts) == 3 and sum(int(c[7]) for c in counts) == 1, f"infinite waits, operations: {sched}")


def case_Load():
    """Lists that change while they are read: nothing but lines, and the parked ones are always there."""
    host, _ = start([HOST, "load"])
    for _ in range(20):
        rows = check_parked(host.pid)
        check("PING" in rows and "PONG" in rows, f"the busy ones: {sorted(rows)}")
    top = zvxctl("top", host.pid, "-n", 2, "-d", 0.3)
    check(top.count("zvxctl top") == 2 and "\x1b" not in top, "two pictures without control characters")
    first = re.search(r"STATE +WAITS FOR\n +\d+ (\w+)", top)
    check(first and first.group(1) in ("PING", "PONG"), f"the busiest is at the top:\n{top}")

    # Its schedulers and another program on one processor, which is not enough for both.
    one = {min(os.sched_getaffinity(0))}
    for task in os.listdir(f"/proc/{host.pid}/task"):
        os.sched_setaffinity(int(task), one)
    other = subprocess.Popen([sys.executable, "-c", "while True: pass"], preexec_fn=lambda: os.sched_setaffinity(0, one))
    CHILDREN.append(other)
    rows = zvxctl("top", host.pid, "-n", 1, "-d", 2).splitlines()
    at = next(i for i, row in enumerate(rows) if "WAIT%" in row)
    waited = [float(row.split()[rows[at].split().index("WAIT%")]) for row in rows[at + 1:at + 3]]
    check(max(waited) >= 10, f"they wait for the processor: {rows}")


def trace_of(host, name, *words, **options):
    zvxctl("trace", host.pid, "--output", name, *words, **options)
    return json.load(open(os.path.join(FOLDER, name)))


def case_Trace():
    host, _ = start([HOST, "load"])
    # Short: on idle processors the two post each other two million times a second, and all of it is read here. On busy
    # ones a scheduler may not have run for so long.
    for seconds in (0.1, 0.5, 2, 8):
        events = trace_of(host, "a.json", "--seconds", seconds)
        kinds = {kind: [e for e in events if e["ph"] == kind] for kind in "XMisf"}
        runs = [e for e in kinds["X"] if e["pid"] == 1 and e["name"] == "PONG"]
        waits = [e for e in kinds["X"] if e["pid"] == 2 and e["name"] == "TIMER_WAIT"]
        if min(len(runs), len(waits), len(kinds["f"])) > 10:
            break
    check(len(runs) > 10 and len(waits) > 10 and len(kinds["f"]) > 10, {k: len(v) for k, v in kinds.items()})
    check(all(e["dur"] >= 0 and e["ts"] >= 0 for e in kinds["X"]), "times")
    begun = {e["id"]: e["ts"] for e in kinds["s"]}
    check(all(begun[e["id"]] <= e["ts"] for e in kinds["f"]), "an arrow goes from a post to a later run")
    # A run and the next one of the same scheduler do not overlap by more than what is rounded.
    for row in (0, 1):
        at = sorted((e["ts"], e["ts"] + e["dur"]) for e in kinds["X"] if e["pid"] == 1 and e["tid"] == row and e["name"] != "in its port")
        check(all(a[1] <= b[0] + 0.01 for a, b in zip(at, at[1:])), "runs of a scheduler follow each other")

    # One at a time; Ctrl-C leaves a whole file and nothing turned on; a killed one is taken over from.
    for way in (signal.SIGINT, signal.SIGKILL):
        other = subprocess.Popen([ZVXCTL, "trace", str(host.pid), "--seconds", "30", "--output", "b.json"], cwd=FOLDER, stdout=subprocess.DEVNULL)
        CHILDREN.append(other)
        while other.poll() is None and not os.path.exists(os.path.join(FOLDER, "b.json")):
            time.sleep(0.01)
        time.sleep(0.25)
        check("traced already" in zvxctl("trace", host.pid, "--output", "c.json", "--seconds", 0.02, code=1), "a second trace")
        other.send_signal(way)
        check(other.wait(20) == (0 if way == signal.SIGINT else -9), "its end")
        if way == signal.SIGINT:
            check(len(json.load(open(os.path.join(FOLDER, "b.json")))) > 10, "the file of one that was stopped")
            os.remove(os.path.join(FOLDER, "b.json"))
        check(len(trace_of(host, "c.json", "--seconds", 0.02)) > 10, "the next trace")


# ---- gdb ---------------------------------------------------------------------------------------------


def case_Gdb():
    host, _ = start([HOST, "parked"])
    text = gdb(["-p", str(host.pid)], "info registers rip rsp", "thread", "zvx threads", "zvx sched", "zvx bt all", "zvx bt NONE",
               "info registers rip rsp", "thread", "bt 3", "info unwinder")
    check_stacks(text)
    check(re.search(r"^ *\d+ +CRIT +x\w+ +\d +TIMED_WAIT +critical section$", text, re.M), f"zvx threads:\n{text}")
    check(text.count("waits in its port") == 2, f"zvx sched:\n{text}")
    check("there is no user thread NONE" in text, "a tag that there is not")
    # gdb is as it was: same registers, same thread, its own stack, no unwinder of ours.
    check(len(set(re.findall(r"^rip .*$", text, re.M))) == 1 and len(set(re.findall(r"^rsp .*$", text, re.M))) == 1, "registers")
    check(len(set(re.findall(r"^\[Current thread is .*$", text, re.M))) == 1, "the selected thread")
    check("zvx-parked" not in text, "the unwinder is gone")
    check(host.poll() is None and "SleepsForLong" in zvxctl("threads", host.pid), "the process goes on")


def case_GdbHang():
    """The only scheduler never comes back from host code: everything is still to be seen, from outside and in gdb."""
    host, _ = start([HOST, "hang"], schedulers=1)
    time.sleep(0.5)
    rows = check_parked(host.pid)
    check(rows["SPIN"][0][4] == "RUNNING", f"the one that spins: {rows['SPIN']}")
    held = re.search(r"on the processor for (\d+) ms", rows["SPIN"][0][-1])
    check(held and int(held.group(1)) >= 500, f"since when: {rows['SPIN']}")
    check(re.search(r"runs SPIN #\d+ for \d+ ms", zvxctl("sched", host.pid)), "zvxctl sched")
    nothing = zvxctl("trace", host.pid, "--output", "h.json", "--seconds", 0.2)
    check("scheduler 0 recorded nothing" in nothing, nothing)
    text = gdb(["-p", str(host.pid)], "zvx threads", "zvx sched", "zvx bt all")
    stacks = check_stacks(text, "MainRoutine")
    check(re.search(r"NeverYields \(", stacks["SPIN"][0]), f"the stack of the one that spins:\n{stacks['SPIN'][0]}")
    check(re.search(r"\*\d+ +SPIN .* RUNNING", text) and "runs SPIN #" in text, f"zvx threads and sched:\n{text}")


def case_GdbCore():
    host, _ = start([HOST, "parked"])
    text = gdb(["-p", str(host.pid)], f"zvx gcore core.{host.pid}")
    check("with 8 stacks of user threads" in text, text)
    host.kill()
    host.wait()
    text = gdb([HOST, f"core.{host.pid}"], "zvx threads", "zvx bt all", "zvx bt CRIT 2")
    check_stacks(text.rsplit("CRIT #", 1)[0])
    check(text.rsplit("CRIT #", 1)[1].count("\n#") == 2, "a depth")


def case_GdbAbort():
    """The kernel's own core file of a host that died with a scheduler in an endless loop."""
    pattern = open("/proc/sys/kernel/core_pattern").read().strip()
    if pattern.startswith("|") or "/" in pattern:
        print(f"core files go to {pattern} here")
        sys.exit(77)
    resource.setrlimit(resource.RLIMIT_CORE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
    host, _ = start([HOST, "abort"], schedulers=1)
    check(host.wait(20) == -signal.SIGABRT, "the end of the host")
    cores = [name for name in os.listdir(FOLDER) if name.startswith("core")]
    check(len(cores) == 1, f"core files: {cores}")
    text = gdb([HOST, cores[0]], "zvx threads", "zvx sched", "zvx bt all")
    check_stacks(text, "MainRoutine")
    check(re.search(r"SPIN +x\w+ +0 +RUNNING", text), text)


def case_Stripped():
    """As it is delivered: no symbols but those of the loader, in the library and in the host."""
    library = os.path.join(FOLDER, next(n for n in os.listdir(os.path.dirname(LIBRARY)) if n.startswith("libzvxkvt.so.") and n.count(".") == 2))
    host_file = os.path.join(FOLDER, "host")
    for source, target in ((LIBRARY, library), (HOST, host_file)):
        shutil.copy(source, target)
        run(["strip", "--strip-all", target])
    host, _ = start([host_file, "parked"], env={"LD_LIBRARY_PATH": FOLDER})
    rows = columns(zvxctl("threads", host.pid))
    for tag, state, waits, _ in PARKED:
        row = rows[tag][0]
        check(row[4] == state and row[5].startswith(waits) and re.match(r"host\+0x|\(its scheduler", row[-1]), f"{row}")
    # Where the compiler made a jump of the exported function's call, there is no frame with a name.
    where = rows["CRIT"][0][-1]
    optimised = "> EnterCriticalSection" not in where
    check(not optimised or re.search(r"> libzvxkvt.so.3\+0x|\(its scheduler", where), f"the call of the library: {rows['CRIT'][0]}")
    text = gdb(["-p", str(host.pid)], "zvx threads", "zvx bt CRIT")
    check(re.search(r"CRIT +x\w+ +\d +TIMED_WAIT +critical section", text), text)
    check(optimised or re.search(r"^#\d+ .* EnterCriticalSection \(\)", text, re.M), text)


# ---- A server ----------------------------------------------------------------------------------------


def case_Server():
    host, line = start([KEYHOST, "--port", "0", "--dir", "data", "--schedulers", "2", "--segment", "1048576", "--admin-pipe", "tools_test"], "ready on",
                       env={"ZVX_FIBERS_LogToFile": "1"})
    port = int(re.search(r":(\d+),", line).group(1))
    clients = [socket.create_connection(("127.0.0.1", port)) for _ in range(5)]
    for client in clients:
        client.sendall(b"*3\r\n$3\r\nSET\r\n$1\r\na\r\n$1\r\nb\r\n")
        check(client.recv(100) == b"+OK\r\n", "an answer")
    time.sleep(0.3)
    rows = columns(zvxctl("threads", host.pid))
    check(len(rows.get("SHAD", [])) == 5 and "LGWR" in rows and "FLOG" in rows, f"threads: {sorted(rows)}")
    check(all(row[5].startswith("socket receive") for row in rows["SHAD"]), f"sessions: {rows['SHAD']}")
    check(re.match(r"sessions:5\r?\n", zvxctl("admin", "tools_test", "sessions")), "the administrator's pipe")
    check("no pipe" in zvxctl("admin", "no_such_pipe", "info", code=1), "a pipe that there is not")
    follow = subprocess.Popen([ZVXCTL, "log", str(host.pid), "--follow"], stdout=subprocess.PIPE, text=True)
    CHILDREN.append(follow)
    check("sessions" in follow.stdout.readline(), "the ring log")
    dumps = zvxctl("dump", host.pid, "--timeout", 20).splitlines()
    tags = sorted(re.search(r"_fid_(\w+?)_minidump", name).group(1) for name in dumps)
    check(tags.count("SHAD") == 5 and "LGWR" in tags and all(os.path.getsize(os.path.join(FOLDER, d)) > 4096 for d in dumps), f"dumps: {dumps}")
    host.terminate()
    check(host.wait(20) == 0, "the end of the server")
    check(follow.wait(10) == 0, "the log ends with its process")
    check("there is no process" in zvxctl("sched", host.pid, code=1), "after its end")


def may_look_into_others():
    """Whether the kernel lets one process read and trace another, here a brother: in some containers it does not."""
    other = subprocess.Popen(["sleep", "60"])
    CHILDREN.append(other)
    probe = """
import ctypes, sys
pid = int(sys.argv[1])
open(f"/proc/{pid}/mem", "rb").close()
sys.exit(ctypes.CDLL(None).ptrace(16, pid, None, None) != 0)
"""
    return subprocess.run([sys.executable, "-c", probe, str(other.pid)], capture_output=True).returncode == 0


if __name__ == "__main__":
    if not may_look_into_others():
        print("the kernel lets no process look into another")
        CHILDREN[0].kill()
        shutil.rmtree(FOLDER, ignore_errors=True)
        sys.exit(77)
    try:
        globals()["case_" + sys.argv[1]]()
        print("passed")
    finally:
        for process in CHILDREN:
            if process.poll() is None:
                process.kill()
        shutil.rmtree(FOLDER, ignore_errors=True)
