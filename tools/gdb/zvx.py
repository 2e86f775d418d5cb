"""Commands of gdb for a process, or a core file, that runs on libzvxkvt.

    zvx threads             every user thread: number, tag, state, what it waits for, scheduler
    zvx sched               every scheduler: its kernel thread, its queues, what it runs
    zvx bt TAG|N|all [DEPTH]  the stack of the user threads with that tag, or number, or of all
    zvx gcore FILE          gcore, with the stacks of user threads, which gcore leaves out on newer kernels

Load it with `source zvx.py`. It needs no debug information of the library: it reads the table zvx_inspect, which the
library exports for tools. Nothing of the process is changed, no register is written, nothing is called, so it works the
same on a core file.
"""

import re
import struct

import gdb
import gdb.unwinder

LAYOUT = 1
MOST_THREADS = 1000000
GLOBAL, FIELD, RECORD, CONSTANT = 1, 2, 3, 4
REGISTERS = ("r15", "r14", "r13", "r12", "rbx", "rbp", "rip")


class NotThere(gdb.GdbError):
    pass


def memory(address, size):
    return bytes(gdb.selected_inferior().read_memory(address, size))


def text(address, most=64):
    """Up to the zero; what is not printable as a question mark."""
    out = b""
    while len(out) < most:
        try:
            piece = memory(address + len(out), min(16, most - len(out)))
        except gdb.MemoryError:
            break
        end = piece.find(b"\0")
        out += piece if end < 0 else piece[:end]
        if end >= 0:
            break
    return "".join(chr(c) if 0x20 <= c < 0x7F else "?" for c in out)


class Library:
    """The table of the library in the selected inferior."""

    def __init__(self):
        try:
            at = int(gdb.parse_and_eval("(unsigned long)&zvx_inspect"))
        except gdb.error:
            raise NotThere("zvx: the program does not use libzvxkvt, or it is not loaded yet") from None
        try:
            magic, layout, rows, row_bytes, head_bytes, version = struct.unpack("<8sIIII32s", memory(at, 56))
        except gdb.MemoryError:
            raise NotThere("zvx: the library's table cannot be read: there is no process") from None
        if magic != b"ZVXTABLE":
            raise NotThere("zvx: the program has not been started, or the core file lacks the library's data")
        self.version = version.split(b"\0")[0].decode()
        if layout != LAYOUT:
            raise NotThere(f"zvx: version {self.version} of the library has table layout {layout}, this script reads {LAYOUT}")
        self.rows = {}
        table = memory(at + head_bytes, rows * row_bytes)
        for i in range(rows):
            name, kind, size, number = struct.unpack_from("<40sIIQ", table, i * row_bytes)
            self.rows[name.split(b"\0")[0].decode()] = (kind, size, number)
        self.names = {}
        for name, (kind, _, number) in self.rows.items():
            if kind == CONSTANT:
                prefix, _, rest = name.partition("_")
                self.names[prefix, number] = rest
        if not self.word("OptionFlags") & self.number("su_FiberMode"):
            raise NotThere("zvx: the library has not been initialised, or runs without user threads")

    def number(self, name):
        if name not in self.rows:
            raise NotThere(f"zvx: version {self.version} of the library does not tell where {name} is")
        return self.rows[name][2]

    def name(self, prefix, number):
        return self.names.get((prefix, number), str(number))

    def word(self, name):
        """A global of at most eight bytes."""
        _, size, address = self.rows[name]
        return int.from_bytes(memory(address, size), "little")

    def field(self, record, data, name):
        _, size, offset = self.rows[f"{record}.{name}"]
        return int.from_bytes(data[offset : offset + size], "little")

    def read(self, record, address):
        return memory(address, self.number(record))

    def schedulers(self):
        _, size, address = self.rows["gSchedulers"]
        for (at,) in struct.iter_unpack("<Q", memory(address, size)):
            if at != 0:
                scheduler = Scheduler(self, at)
                if scheduler.running:
                    yield scheduler


class Fiber:
    def __init__(self, library, at, scheduler):
        self.source, self.at, self.scheduler = library, at, scheduler
        self.data = library.read("Fiber", at)
        self.serial = self.field("ShellSerial")
        self.state = self.field("State")
        self.flags = self.field("Flags")
        self.thread_id = self.field("OsThreadId")
        tag = self.field("Tag")
        self.tag = text(tag, 32) if tag else "?"

    def field(self, name):
        return self.source.field("Fiber", self.data, name)

    def has(self, flag):
        return self.flags & self.source.number(flag) != 0

    def is_valid(self):
        """Its operations name it."""
        ops = self.source.number("Fiber.OwnOvs")
        owner = ops + self.source.number("FIBEROVERLAPPED.Fiber")
        return struct.unpack_from("<Q", self.data, owner)[0] == self.at

    def on_processor(self):
        return self.scheduler.current == self.field("OsFiber")

    def state_text(self):
        return self.source.name("FSTATE", self.state)

    def waits_for(self):
        library = self.source
        if self.state == library.number("FSTATE_IO_WAIT"):
            return self.operation()
        if self.state != library.number("FSTATE_TIMED_WAIT"):
            return "-"
        if self.has("FIBER_POST_WAIT"):
            section = self.field("PostWaitMask") & library.number("POST_SECTION")
            what = "critical section" if section else "post"
        elif self.has("FIBER_SLICE_FILED"):
            return "object (polled)"
        elif self.has("FIBER_OBJECT_WAIT"):
            what = "object"
        elif self.has("FIBER_POLL_OWN_OVS"):
            what = f"own operations ({self.field('PendingApcIos')})"
        else:
            what = "sleep"
        limit = self.field("WaitTimeoutMs")
        return what if limit == 0xFFFFFFFF else f"{what} <= {limit} ms"

    def operation(self):
        library = self.source
        ov = self.field("IoWaitOv") or self.field("CurOv")
        try:
            data = library.read("FIBEROVERLAPPED", ov - library.number("FIBEROVERLAPPED.Ov"))
        except gdb.MemoryError:
            return "operation"
        code = library.name("OP", library.field("FIBEROVERLAPPED", data, "OpArg"))
        handle = library.field("FIBEROVERLAPPED", data, "OsHandle")
        return f"{code.lower().replace('_', ' ')} h={handle:x}"

    def saved_registers(self):
        """Of a parked fiber: name to value, and rsp as its caller will find it."""
        library = self.source
        context = library.read("FiberContext", self.field("OsFiber"))
        top = library.field("FiberContext", context, "StackPointer")
        if not library.field("FiberContext", context, "StackLow") <= top < library.field("FiberContext", context, "StackHigh"):
            raise NotThere("zvx: the saved stack pointer is not on the thread's stack")
        frame = struct.unpack("<8H", memory(library.number("zvx_switch_frame"), 16))
        saved = {name: struct.unpack("<Q", memory(top + offset, 8))[0] for name, offset in zip(REGISTERS, frame)}
        saved["rsp"] = top + frame[7]
        return saved

    def title(self):
        return (
            f"{self.tag} #{self.serial}, thread x{self.thread_id:X}, scheduler {self.scheduler.index}: "
            f"{self.state_text()}, {self.waits_for()}"
        )


class Scheduler:
    def __init__(self, library, at):
        self.source, self.at = library, at
        self.data = library.read("Scheduler", at)
        self.index = self.field("Index")
        self.thread_id = self.field("OsThreadId")
        self.running = self.field("Running") != 0
        self.init_fiber = self.field("InitFiber")
        block = self.field("Os")
        self.current = self.pointer(block + library.number("ThreadBlock.Current")) if block else 0
        self.fiber_data = self.pointer(block + library.number("ThreadBlock.FiberData")) if block else 0

    def field(self, name):
        return self.source.field("Scheduler", self.data, name)

    @staticmethod
    def pointer(address):
        return struct.unpack("<Q", memory(address, 8))[0]

    def count(self, name, index=0):
        library = self.source
        at = library.number(f"Scheduler.{name}") + index * library.number("ListHead") + library.number("ListHead.Count")
        return struct.unpack_from("<I", self.data, at)[0]

    def runnable(self):
        return self.count("ReadyList") + self.count("LatchSleepers") + sum(self.count("RunQueues", i) for i in range(6))

    def walk(self, head, link, seen):
        """The fibers of a list. The process is stopped, so a list that does not close is damaged; it ends there."""
        offset = self.source.number(f"Fiber.{link}")
        at = self.pointer(head)
        while at != head and at not in seen and len(seen) < MOST_THREADS:
            seen.add(at)
            try:
                fiber = Fiber(self.source, at - offset, self)
                if not fiber.is_valid():
                    break
                at = self.pointer(at)
            except gdb.MemoryError:
                break
            yield fiber

    def fibers(self):
        library = self.source
        for fiber in self.walk(self.at + library.number("Scheduler.AllFibers"), "SchedFibersLink", set()):
            yield fiber
        # Those that have not run yet are in a queue only.
        heads = [self.at + library.number("Scheduler.ReadyList")]
        heads += [self.at + library.number("Scheduler.RunQueues") + i * library.number("ListHead") for i in range(6)]
        for head in heads:
            for fiber in self.walk(head, "RunLink", set()):
                if not fiber.has("FIBER_STARTED"):
                    yield fiber

    def kernel_thread(self):
        for thread in gdb.selected_inferior().threads():
            if self.thread_id in thread.ptid[1:]:
                return thread
        return None

    def now(self):
        if self.field("BlockedInPort"):
            return "waits in its port"
        if self.fiber_data in (0, self.init_fiber):
            return "idle"
        fiber = Fiber(self.source, self.fiber_data, self)
        if fiber.state == self.source.number("FSTATE_RUNNING"):
            return f"runs {fiber.tag} #{fiber.serial}"
        return f"idle, on the stack of {fiber.tag} #{fiber.serial}"


class FrameId:
    def __init__(self, sp, pc):
        self.sp, self.pc = sp, pc


class ParkedCaller(gdb.unwinder.Unwinder):
    """While it is installed, a parked fiber is the caller of the selected thread's innermost frame.

    No register of the thread is written, which a core file would not allow. The innermost frame gets an identity below
    the fiber's stack, because gdb ends a stack whose frames do not go upward.
    """

    def __init__(self, saved, sp, pc):
        super().__init__("zvx-parked")
        self.saved, self.sp, self.pc = saved, sp, pc

    def __call__(self, pending):
        if int(pending.read_register("rsp")) & (2**64 - 1) != self.sp or int(pending.read_register("rip")) != self.pc:
            return None
        info = pending.create_unwind_info(FrameId(gdb.Value(self.saved["rsp"] - 256), gdb.Value(self.pc)))
        for name, value in self.saved.items():
            info.add_saved_register(name, gdb.Value(value).cast(pending.read_register(name).type))
        return info


class kept_selection:
    """The thread and frame that are selected afterwards are those of before."""

    def __enter__(self):
        self.thread = gdb.selected_thread()
        try:
            self.level = gdb.selected_frame().level()
        except gdb.error:
            self.level = 0

    def __exit__(self, *_):
        if self.thread is not None and self.thread.is_valid():
            self.thread.switch()
            if self.level:
                gdb.execute(f"frame {self.level}", to_string=True)


def backtrace_of_thread(depth):
    return gdb.execute(f"bt {depth}" if depth else "bt", to_string=True)


def parked_backtrace(fiber, depth):
    saved = fiber.saved_registers()
    frame = gdb.newest_frame()
    sp = int(frame.read_register("rsp")) & (2**64 - 1)
    pc = int(frame.read_register("rip"))
    unwinder = ParkedCaller(saved, sp, pc)
    gdb.unwinder.register_unwinder(None, unwinder, replace=True)
    try:
        gdb.invalidate_cached_frames()
        # What is inlined into the thread's own frame comes before the fiber's.
        skip = 0
        frame = gdb.newest_frame()
        while frame is not None and int(frame.read_register("rip")) != saved["rip"]:
            frame, skip = frame.older(), skip + 1
        if frame is None:
            return "  (gdb cannot unwind from here)\n"
        lines = gdb.execute(f"bt {depth + skip}" if depth else "bt", to_string=True).splitlines(keepends=True)
    finally:
        remove_unwinder(unwinder)
        gdb.invalidate_cached_frames()
    out, shown = [], False
    for line in lines:
        match = re.match(r"#(\d+)(\s+)", line)
        if match:
            shown = int(match.group(1)) >= skip
            if shown:
                level = f"#{int(match.group(1)) - skip}"
                line = level.ljust(len(match.group(0).rstrip())) + match.group(2) + line[match.end() :]
        if shown or not match and out:
            out.append(line)
    return "".join(out)


def remove_unwinder(unwinder):
    gdb.frame_unwinders = [other for other in gdb.frame_unwinders if other is not unwinder]


def backtrace(fiber, depth):
    with kept_selection():
        if fiber.on_processor():
            thread = fiber.scheduler.kernel_thread()
            if thread is None:
                return f"  (the kernel thread {fiber.scheduler.thread_id} is not there)\n"
            thread.switch()
            return backtrace_of_thread(depth)
        if not fiber.has("FIBER_STARTED"):
            routine = gdb.execute(f"info symbol {fiber.field('StartRoutine')}", to_string=True).strip()
            return f"  has not run yet; begins at {routine}\n"
        return parked_backtrace(fiber, depth)


def table(heads, rows):
    """The last column takes the rest; numbers go to the right."""
    rows = [[str(cell) for cell in row] for row in rows]
    widths = [max([len(head)] + [len(row[i]) for row in rows]) for i, head in enumerate(heads)]
    right = [bool(rows) and all(row[i].replace("-", "0").isdigit() for row in rows) for i in range(len(heads))]
    for row in [heads] + rows:
        cells = [cell.rjust(width) if r else cell.ljust(width) for cell, width, r in zip(row, widths, right)]
        gdb.write("  ".join(cells).rstrip() + "\n")


class ZvxPrefix(gdb.Command):
    """User threads and schedulers of libzvxkvt: zvx threads, zvx sched, zvx bt, zvx gcore."""

    def __init__(self):
        super().__init__("zvx", gdb.COMMAND_STACK, prefix=True)


class ZvxThreads(gdb.Command):
    """zvx threads - every user thread: number, tag, state, what it waits for, scheduler. A star: on the processor."""

    def __init__(self):
        super().__init__("zvx threads", gdb.COMMAND_STACK)

    def invoke(self, argument, from_tty):
        rows = []
        for scheduler in Library().schedulers():
            for f in scheduler.fibers():
                mark = "*" if f.at == scheduler.fiber_data and f.state_text() == "RUNNING" else ""
                rows.append([f"{mark}{f.serial}", f.tag, f"x{f.thread_id:X}", scheduler.index, f.state_text(), f.waits_for()])
        table(["N", "TAG", "THREAD", "SCHED", "STATE", "WAITS FOR"], rows)


class ZvxSched(gdb.Command):
    """zvx sched - every scheduler: its kernel thread and gdb's number of it, its queues, what it runs."""

    def __init__(self):
        super().__init__("zvx sched", gdb.COMMAND_STACK)

    def invoke(self, argument, from_tty):
        rows = []
        for s in Library().schedulers():
            thread = s.kernel_thread()
            rows.append(
                [s.index, s.thread_id, thread.num if thread else "-", s.field("FiberCount"), s.runnable()]
                + [s.count(name) for name in ("TimedWaiters", "InfiniteWaiters", "IoWaiters", "SuspendedFibers")]
                + [s.field("SwitchCount"), s.now()]
            )
        table(["SCHED", "TID", "GDB", "THREADS", "RUNNABLE", "TIMED", "INFIN.", "I/O", "SUSP.", "SWITCHES", "NOW"], rows)


class ZvxBt(gdb.Command):
    """zvx bt TAG|N|all [DEPTH] - the stacks of the user threads with that tag or number, or of all of them.

    A thread that runs is shown from its scheduler's kernel thread, one that is parked from its saved registers. Nothing
    is selected or changed."""

    def __init__(self):
        super().__init__("zvx bt", gdb.COMMAND_STACK)

    def invoke(self, argument, from_tty):
        words = gdb.string_to_argv(argument)
        if not 1 <= len(words) <= 2 or (len(words) == 2 and not words[1].isdigit()):
            raise gdb.GdbError("Usage: zvx bt TAG|N|all [DEPTH]")
        wanted, depth = words[0], int(words[1]) if len(words) == 2 else 0
        found = False
        for scheduler in Library().schedulers():
            for fiber in scheduler.fibers():
                if wanted not in ("all", fiber.tag, str(fiber.serial), f"#{fiber.serial}"):
                    continue
                found = True
                gdb.write(f"{fiber.title()}\n")
                try:
                    gdb.write(backtrace(fiber, depth))
                except gdb.error as error:
                    gdb.write(f"  ({error})\n")
                gdb.write("\n")
        if not found:
            raise gdb.GdbError(f"zvx: there is no user thread {wanted} (zvx threads lists them)")


class ZvxGcore(gdb.Command):
    """zvx gcore FILE - writes a core file of the live process, with the stacks of its user threads.

    The plain gcore gives up a piece of memory at the first page that it cannot read. On kernels from 6.13 on the guard
    pages between stacks are such pages, and the stacks are missing in its file; here they are put in afterwards. Core
    files that the kernel writes are whole."""

    def __init__(self):
        super().__init__("zvx gcore", gdb.COMMAND_DATA, gdb.COMPLETE_FILENAME)

    def invoke(self, argument, from_tty):
        words = gdb.string_to_argv(argument)
        if len(words) != 1:
            raise gdb.GdbError("Usage: zvx gcore FILE")
        library = Library()
        gdb.execute(f"gcore {words[0]}", to_string=True)
        stacks = 0
        with open(words[0], "r+b") as core:
            segments = self.segments(core)
            for scheduler in library.schedulers():
                for fiber in scheduler.fibers():
                    context_at = fiber.field("OsFiber")
                    context = library.read("FiberContext", context_at)
                    low = library.field("FiberContext", context, "StackLow")
                    top = library.field("FiberContext", context, "StackPointer")
                    high = library.field("FiberContext", context, "StackHigh")
                    if fiber.on_processor():
                        top = self.stack_pointer(scheduler, top)
                    self.put(core, segments, context_at, context)
                    if low <= top < high:
                        # With the red zone below it.
                        start = max(low, top - 128)
                        self.put(core, segments, start, memory(start, high - start))
                        stacks += 1
        gdb.write(f"{words[0]}: a core file with {stacks} stacks of user threads\n")

    @staticmethod
    def stack_pointer(scheduler, otherwise):
        with kept_selection():
            thread = scheduler.kernel_thread()
            if thread is None:
                return otherwise
            thread.switch()
            return int(gdb.newest_frame().read_register("rsp")) & (2**64 - 1)

    @staticmethod
    def segments(core):
        """Of an ELF file of 64 bits: address, bytes and offset of what is loaded."""
        header = core.read(64)
        (table,), (size, count) = struct.unpack_from("<Q", header, 32), struct.unpack_from("<HH", header, 54)
        if count == 0xFFFF:  # too many for the header: the first section has the number
            core.seek(struct.unpack_from("<Q", header, 40)[0] + 44)
            count = struct.unpack("<I", core.read(4))[0]
        core.seek(table)
        found = []
        for _ in range(count):
            kind, _, offset, address, _, file_bytes = struct.unpack_from("<IIQQQQ", core.read(size))
            if kind == 1:
                found.append((address, file_bytes, offset))
        return found

    @staticmethod
    def put(core, segments, address, data):
        for start, size, offset in segments:
            if start <= address and address + len(data) <= start + size:
                core.seek(offset + address - start)
                core.write(data)
                return


ZvxPrefix()
ZvxGcore()
ZvxThreads()
ZvxSched()
ZvxBt()
