"""Makes every function of the platform fail, one call a run, and judges what comes of it.

faults.py [--full] [--jobs N] [SCENARIO...]

Each scenario runs once to record how often every function is called, and then once for every pair of a function and the
number of a call: all of them while there are few, else the first, the second, one in the middle and the last (without
--full fewer). A run ends in one of three ways: the host saw an error, and the error is the one that was put in; the
process ended by a fatal error with a text that belongs to the function; everything went on as if nothing had happened.
Anything else (another text, another error, a hang, something left behind, an acknowledged write that is gone) fails.
"""

import argparse
import collections
import concurrent.futures
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

FAULTS, KEYHOST = (os.path.abspath(os.environ[name]) for name in ("ZVX_FAULTS", "KEYHOST"))
FOLDER = tempfile.mkdtemp(prefix="zvx_faults_")
LIMIT = 60  # seconds a run may take on a loaded machine

# The errors that are put in, the first one alone without --full. Steps inside the platform take error numbers of the
# kernel, given here with what may come of them at the host.
ERRORS = collections.defaultdict(lambda: [8])
INSIDE = {
    "object": [12], "handle_value": [24], "map_stacks": [12], "populate": [14], "guard_stack": [12], "pthread_create": [11],
    "eventfd": [24], "epoll_create": [24], "epoll_ctl": [12], "epoll_wait": [4], "io_uring_enter": [16, 11, 12],
    "io_uring_register": [22], "short_transfer": [1], "socket_call": [4, 105], "socket_descriptor": [24],
    "file_call": [4, 5], "request": [12], "messages": [12], "CreateFiberRecycled": [1],
}
ERRORS.update(INSIDE)
SOCKET_CALLS = "accept AcceptEx WSARecv WSASend recv send select bind listen connect getsockname closesocket WSASocketA socket"
ERRORS.update({name: [10055] for name in SOCKET_CALLS.split()})
# What the host may see of them, and of functions that are called on behalf of others.
SEEN = {
    "CallGuarded": {87}, "CloseHandle": {10038}, "epoll_ctl": {8}, "file_call": {1117}, "handle_value": {4, 10024},
    "object": {8, 10055}, "pthread_create": {8, 164}, "request": {8, 10055}, "socket_call": {10055},
    "socket_descriptor": {10024},
}
# The texts with which the library ends the process, by the function whose failure they tell: all that the sources have
# for it, and start-up must meet each of them. {e} is the error, # a number.
NO_THREAD = ["Unable to spawn debugger thread", "Failed to spawn scheduler thread", "Unable to spawn FiberQuantumUpdateThread"]
NO_FIBER = ["Couldn't create FLOG fiber", "Unable to allocate FMAIN fiber"]
NO_FILE = "Unable to create log file the fiber logger"
NO_PORT = "Unable to create the port of scheduler # E[{e}]"
FATAL = {
    "ConvertThreadToFiber": ["Unable to make a fiber of scheduler thread # E[{e}]"],
    "CreateBackingThread": NO_FIBER,
    "CreateEventA": ["COULD NOT CREATE AVOID COMPLETION EVENT"],
    "CreateFileA": [NO_FILE],
    "CreateIoCompletionPort": [NO_PORT],
    "CreateThread": NO_THREAD,
    "DuplicateHandle": ["Unable to allocate FMAIN fiber"],
    "GetModuleHandleA": ["Unable to get a module handle for kernel32.dll"],
    "GetProcessAffinityMask": ["CalcFreq:GetProcessAffinityMask failed={e}",
                               "DetermineSchedThreadMask: Unable to GetProcessAffinityMask E[{e}]"],
    "GetThreadPriority": ["CalcFreq:GetThreadPriority failed={e}"],
    "InitializeSecurityDescriptor": ["Unable to initialize security descrip err={e}"],
    "LocalAlloc": ["Unable to alloc mem for security descrip 20 err={e}"],
    "QueryPerformanceCounter": ["CalcFreq:QueryPerformanceCounter failed={e}"],
    "QueryPerformanceFrequency": ["CalcFreq:QueryPerformanceFrequency failed={e}"],
    "ResumeThread": ["Unable to resume suspended scheduler thread {e}", "Unable to resume suspended timer thread {e}",
                     *NO_FIBER],
    "SetSecurityDescriptorDacl": ["Unable to add null dacl to security descrip err={e}"],
    "SetThreadAffinityMask": [
        "CalcFreq:SetThreadAffinityMask failed={e}", "CalcFreq:restore SetThreadAffinityMask failed={e}",
        "KVTAllocNoSched: SetThreadAffinityMask E[{e}]", "KVTAlloc: Unable to set SetThreadAffinityMask  E[{e}]",
        "KVTAlloc: Unable to restore SetThreadAffinityMask E[{e}]", "Unable to SetProcessAffinityMask E[{e}]",
        "FAlloc: Unable to set SetThreadAffinityMask  E[{e}]", "FAlloc: Unable to restore SetThreadAffinityMask E[{e}]"],
    "SetThreadPriority": ["CalcFreq:restore SetThreadPriority failed={e}", "Unable to Set Priority E[{e}]",
                          "FAlloc: Unable to set priority {e}", "FAlloc: Unable to restore priority {e}"],
    "TlsAlloc": ["Init: more dynamic TLS slots needed 4294967295"],
    "VirtualAllocInRange": ["Fibers: Unable to allocate memory LargePages[#] Error[{e}]"],
    # Steps inside the platform.
    "eventfd": [NO_PORT.format(e=1450)],
    "epoll_create": [NO_PORT.format(e=4)],
    "pthread_create": NO_THREAD,
    "handle_value": [*NO_THREAD, *NO_FIBER, NO_PORT.format(e=4), NO_FILE, "COULD NOT CREATE AVOID COMPLETION EVENT"],
}
# Not in every start-up: which call is the ring log's, and a user thread that needs memory when its node has none.
MORE = {"CreateIoCompletionPort": [NO_FILE],
        "SetThreadPriority": ["KVTAlloc: Unable to set priority {e}", "KVTAlloc: Unable to restore priority {e}"]}
# The priority and affinity of a thread that asks for its own handle for the first time need an object.
FATAL["object"] = [*NO_THREAD, *NO_FIBER, NO_PORT.format(e=8), NO_FILE, "COULD NOT CREATE AVOID COMPLETION EVENT",
                   *(text.format(e=8) for name in ("SetThreadAffinityMask", "SetThreadPriority") for text in FATAL[name])]
# Functions whose every call in start-up is tried: the same failure ends the process in several places.
ENDING = {"CreateThread", "ResumeThread", "SetThreadAffinityMask", "SetThreadPriority", "QueryPerformanceCounter",
          "GetProcessAffinityMask", "CreateBackingThread", "CreateIoCompletionPort", "DuplicateHandle"}
MET = set()


class Failed(Exception):
    pass


class Gone(Failed):
    """The server takes no connections: it has ended, or it is broken."""


def counts(path):
    """What the recorder wrote: function -> (calls, failed)."""
    found = {}
    with open(path, "rb") as file:
        data = file.read()
    for name, calls, failed in struct.iter_unpack("48sII", data):
        name = name.rstrip(b"\0").decode()
        if name:
            found[name] = (calls, failed)
    return found


def host(folder, scenario, points):
    """A run of faults_host: (outcome, detail)."""
    env = dict(os.environ)
    words = [FAULTS, scenario, folder]
    if scenario == "startup":
        env["ZVXKVT_FAIL"] = points
    else:
        words.append(points)
    try:
        done = subprocess.run(words, cwd=folder, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=LIMIT)
    except subprocess.TimeoutExpired as late:
        raise Failed(f"hangs: {(late.stdout or b'').decode(errors='replace')[-300:]}")
    text = done.stdout.decode(errors="replace")
    killed = re.search(r"ZORVEX KILLED: (.*?)\s*\(see ", text, re.S)
    if done.returncode == 1 and killed:
        return "fatal", killed[1]
    refused = re.findall(r"^refused (\S+) (\d+)$", text, re.M)
    whole = re.search(r"^whole (\S+)$", text, re.M)
    if done.returncode != 0 or not whole:
        raise Failed(f"ended with {done.returncode}: {text[-600:]}")
    if points.count(":") == 1 and os.environ.get("ZVXKVT_IO", whole[1]) != whole[1]:
        print(f"{os.environ['ZVXKVT_IO']} is refused here")
        sys.exit(77)
    return ("error", [int(error) for _, error in refused]) if refused else ("survived", None)


def judge(scenario, function, error, outcome, detail):
    """The outcome, when what was seen belongs to what was put in: numbers of errors, or texts that tell the reason."""
    seen = {error, *SEEN.get(function, ())}
    reasons = [REASONS.get(number, f"error {number}") for number in seen]
    if outcome == "error":
        for what in detail:
            if what not in seen and not any(reason in str(what) for reason in reasons):
                raise Failed(f"the host saw error {what}")
    if outcome == "fatal":
        if scenario == "fatal" and detail == "the end of the test 7":
            return "survived"
        for text in [*FATAL.get(function, ()), *MORE.get(function, ())]:
            if re.fullmatch(re.escape(text.format(e=error)).replace(r"\#", r"\d+"), detail):
                MET.add((scenario, function, text))
                return outcome
        raise Failed(f"ended with the text '{detail}'")
    return outcome


def one(scenario, function, nth, error):
    folder = tempfile.mkdtemp(dir=FOLDER)
    record = folder + "/counts"
    try:
        outcome, detail = RUN[scenario](folder, scenario, f"record:{record},{function}:{nth}:{error}")
        if counts(record).get(function, (0, 0))[1] == 0:
            return "missed", None
        return judge(scenario, function, error, outcome, detail), None
    except Failed as failed:
        return "FAILED", f"{scenario}: {function}:{nth}:{error} {failed}"
    finally:
        shutil.rmtree(folder, ignore_errors=True)


def sample(scenario, function, first, calls, full):
    last = first + calls - 1
    every = scenario == "startup" and function in ENDING
    if calls <= (6 if full or scenario == "session" else 2) or every:
        return range(first, last + 1)
    if full:
        return sorted({first, first + 1, first + calls // 2, last})
    return [first + calls // 2] if scenario in ("commit", "recovery") else [first, last]


# ---- The server -----------------------------------------------------------------------------------------

REASONS = {4: "too many open files", 8: "no memory", 112: "the disk is full"}


class Server:
    """keyhost with its data in FOLDER/data; None for points: no fault."""

    def __init__(self, folder, points=None):
        self.out, self.base = f"{folder}/out.txt", {}
        env = {**os.environ, **({"ZVXKVT_FAIL": points} if points else {})}
        with open(self.out, "wb") as out:
            options = "--port 0 --dir data --segment 1048576 --max-value 65536 --checkpoint 60000"
            self.child = subprocess.Popen([KEYHOST, *options.split()], cwd=folder, env=env, stdin=subprocess.DEVNULL,
                                          stdout=out, stderr=subprocess.STDOUT)
        self.port = None
        end = time.monotonic() + LIMIT
        while self.port is None and self.child.poll() is None:
            found = re.search(r"ready on [0-9.]+:(\d+)", self.text())
            self.port = int(found[1]) if found else None
            if time.monotonic() > end:
                self.kill()
                raise Failed(f"the server does not start: {self.text()[-300:]}")
            time.sleep(0.005)
        if self.port and points:
            self.base = counts(folder + "/counts")

    def text(self):
        with open(self.out, encoding="utf-8", errors="replace") as file:
            return file.read()

    def kill(self):
        self.child.kill()
        self.child.wait()

    def end(self):
        """The outcome of the process: None when it ended as it was told to."""
        if self.child.poll() is None:
            self.child.send_signal(signal.SIGTERM)
        try:
            code = self.child.wait(LIMIT)
        except subprocess.TimeoutExpired:
            self.kill()
            raise Failed("the server does not end") from None
        text = self.text()
        killed = re.search(r"ZORVEX KILLED: (.*?)\s*\(see ", text, re.S)
        if code == 1 and killed:
            return "fatal", killed[1]
        if code == 1 and self.port is None and (refusal := re.search(r"^keyhost: (?!ready|ended|\d+ keys)(.*)$", text, re.M)):
            return "error", [refusal[1]]
        if code != 0:
            raise Failed(f"the server ended with {code}: {text[-300:]}")
        return None


class Client:
    def __init__(self, server):
        try:
            self.socket = socket.create_connection(("127.0.0.1", server.port), LIMIT)
        except OSError:
            raise Gone(f"no connection to the server: {server.text()[-300:]}") from None
        self.file = self.socket.makefile("rb")

    def ask(self, *words):
        """The answer; None when the connection ended."""
        words = [str(word).encode() for word in words]
        try:
            self.socket.sendall(b"*%d\r\n" % len(words) + b"".join(b"$%d\r\n%s\r\n" % (len(word), word) for word in words))
            line = self.file.readline().decode().rstrip("\r\n")
            if line.startswith("$") and line != "$-1":
                return self.file.read(int(line[1:]) + 2)[:-2].decode()
            return line or None
        except TimeoutError:
            raise Failed(f"no answer to {words[0]}") from None
        except OSError:
            return None

    def close(self):
        self.file.close()
        self.socket.close()


def write(server, acknowledged, first, count, seen):
    """Sets keys, several clients at once, so that commits are grouped. Notes what was acknowledged."""
    def writer(number):
        client = Client(server)
        for i in range(first, first + count):
            key, value = f"key{number}_{i % 17}", f"{i}_" + "v" * 700
            answer = client.ask("SET", key, value)
            if answer == "+OK":
                acknowledged[key] = {value}
                continue
            # Not acknowledged: it may be there or not.
            acknowledged.setdefault(key, {"$-1"}).add(value)
            seen.append(answer)
            if answer is None:
                client.close()
                client = Client(server)
            elif not answer.startswith(("-MISCONF", "-ERR no session: ")):
                raise Failed(f"SET gave {answer}")
        client.close()

    with concurrent.futures.ThreadPoolExecutor(3) as pool:
        for done in [pool.submit(writer, number) for number in range(3)]:
            done.result()


def verify(folder, acknowledged):
    """A start without faults shows what was acknowledged."""
    server = Server(folder)
    try:
        if server.port is None:
            raise Failed(f"no restart: {server.text()[-300:]}")
        client = Client(server)
        for key, values in acknowledged.items():
            if (found := client.ask("GET", key)) not in values:
                raise Failed(f"{key} is {found}, acknowledged was one of {[value[:8] for value in values]}")
        client.close()
    finally:
        server.kill()


def checkpointed(server):
    for _ in range(100):
        client = Client(server)
        info = client.ask("INFO")
        client.close()
        found = re.search(r"^checkpoints:(\d+)", info or "", re.M)
        if found and int(found[1]) > 0:
            return True
        time.sleep(0.02)
    return False


def keyhost(folder, acknowledged, points, work):
    """A run of the server with the work that is to be done in it: (outcome, detail)."""
    server, seen = Server(folder, points), []
    try:
        gone = None
        try:
            if server.port is not None:
                work(server, seen)
        except Gone as error:
            gone = error
            time.sleep(1)
        running = server.child.poll() is None
        outcome = server.end()
        if gone and (running or outcome is None):
            raise gone
    finally:
        server.kill()
    verify(folder, acknowledged)
    BASE[threading.get_ident()] = server.base
    # A connection that ended, or a write that was refused because the log was, tells no reason.
    told = [answer for answer in seen if answer is not None and not answer.startswith("-MISCONF")]
    return outcome or (("error", told) if seen else ("survived", None))


def commit(folder, _, points):
    acknowledged = {}

    def work(server, seen):
        write(server, acknowledged, 0, 30, seen)
        checkpointed(server)
        write(server, acknowledged, 30, 10, seen)
        # Whatever happened, it serves.
        client = Client(server)
        if client.ask("PING") is None:
            client.close()
            client = Client(server)
            seen.append(None)
            if client.ask("PING") != "+PONG":
                raise Failed("the server does not answer any more")
        client.close()

    return keyhost(folder, acknowledged, points, work)


def recovery(folder, _, points):
    with TEMPLATE_LOCK:
        if not TEMPLATE:
            TEMPLATE["folder"] = tempfile.mkdtemp(dir=FOLDER)
            TEMPLATE["keys"] = {}
            server = Server(TEMPLATE["folder"])
            write(server, TEMPLATE["keys"], 0, 30, [])
            if not checkpointed(server):
                raise Failed("no checkpoint")
            write(server, TEMPLATE["keys"], 30, 10, [])
            server.kill()
    shutil.copytree(TEMPLATE["folder"] + "/data", folder + "/data")
    return keyhost(folder, TEMPLATE["keys"], points, lambda server, seen: None)


RUN = {"startup": host, "session": host, "exit": host, "fatal": host, "commit": commit, "recovery": recovery}
TEMPLATE, TEMPLATE_LOCK, BASE = {}, threading.Lock(), {}


def recorded(scenario):
    folder = tempfile.mkdtemp(dir=FOLDER)
    record = folder + "/counts"
    outcome, detail = RUN[scenario](folder, scenario, f"record:{record}")
    if judge(scenario, "", 0, outcome, detail) != "survived":
        raise Failed(f"{scenario} without a fault: {outcome} {detail}")
    # A commit begins when the server is ready.
    base = BASE.get(threading.get_ident(), {}) if scenario == "commit" else {}
    found = {name: (base.get(name, (0, 0))[0] + 1, calls) for name, (calls, _) in counts(record).items()}
    return {name: (first, last - first + 1) for name, (first, last) in found.items() if last >= first}


def main():
    options = argparse.ArgumentParser()
    options.add_argument("--full", action="store_true")
    options.add_argument("--jobs", type=int, default=8)
    options.add_argument("scenarios", nargs="*", default=list(RUN))
    options = options.parse_args()
    began = time.monotonic()
    failures, total = [], collections.Counter()
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for scenario in options.scenarios:
            called = recorded(scenario)
            table = collections.defaultdict(collections.Counter)
            again, unmet = set(called), []
            # Threads start beside each other, so a number is not the same call every time: where a place was not met, more
            # tries are made.
            for _ in range(6 if scenario == "startup" else 1):
                work = {}
                for function in again:
                    for error in ERRORS[function] if options.full else ERRORS[function][:1]:
                        for nth in sample(scenario, function, *called[function], options.full):
                            work[pool.submit(one, scenario, function, nth, error)] = function
                for future in concurrent.futures.as_completed(work):
                    outcome, text = future.result()
                    table[work[future]][outcome] += 1
                    if text:
                        failures.append(text)
                unmet = [(function, text) for function, texts in FATAL.items() for text in texts
                         if scenario == "startup" and function not in INSIDE and (scenario, function, text) not in MET]
                again = {function for function, _ in unmet} & set(called)
                if not again:
                    break
            failures += [f"startup: no failure of {function} ended with '{text}'" for function, text in unmet]
            print(f"\n{scenario:32}{'calls':>9}{'injected':>9}{'error':>7}{'fatal':>7}{'survived':>9}{'missed':>7}")
            for function in sorted(table):
                row = table[function]
                total.update(row)
                print(f"  {function:30}{called[function][1]:9}{sum(row.values()) - row['missed']:9}"
                      f"{row['error']:7}{row['fatal']:7}{row['survived']:9}{row['missed']:7}"
                      + ("  FAILED " + str(row["FAILED"]) if row["FAILED"] else ""))
    backend = os.environ.get("ZVXKVT_IO", "the probed back end")
    print(f"\n{sum(total.values())} runs in {time.monotonic() - began:.0f} s on {backend}: {total['error']} errors,"
          f" {total['fatal']} fatal, {total['survived']} survived, {total['missed']} not reached, {len(failures)} failed")
    for text in failures:
        print("FAILED", text)
    shutil.rmtree(FOLDER, ignore_errors=True)
    return 1 if failures else 0


sys.exit(main())
