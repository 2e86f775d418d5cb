"""What the linker was told, as it is in the files: hardening.py FILE...

In every build: no stack that code runs on, no segment that is both written and run, addresses that differ from run to
run. In optimised builds without a sanitizer also: relocations that are read-only before the program starts, stack
canaries, and checked copies wherever the C library has them and the compiler could not do without.
"""

import os
import re
import subprocess
import sys


def readelf(*words):
    return subprocess.run(["readelf", "-W", *words], capture_output=True, text=True, check=True).stdout


optimised = os.environ["ZVX_BUILD_TYPE"] in ("Release", "RelWithDebInfo", "MinSizeRel") and not os.environ["ZVX_SANITIZE"]
faults = []
for path in sys.argv[1:]:
    name = os.path.basename(path)
    segments, dynamic, symbols = readelf("-l", path), readelf("-d", path), readelf("--dyn-syms", path)

    def check(good, what):
        if not good:
            faults.append(f"{name}: {what}")

    flags = {kind: re.sub(r"\s", "", rights) for kind, rights in re.findall(r"^ +(GNU_STACK|GNU_RELRO)(?: +0x[0-9a-f]+){5} ([RWE ]+?) +0x", segments, re.M)}
    loads = re.findall(r"^ +LOAD(?: +0x[0-9a-f]+){5} ([RWE ]+?) +0x", segments, re.M)
    check(flags.get("GNU_STACK") == "RW", f"the stack is {flags.get('GNU_STACK')}")
    check(loads and not any("W" in rights and "E" in rights for rights in loads), f"segments are {loads}")
    check("GNU_RELRO" in flags, "no relocation is read-only")
    check("Type:" in readelf("-h", path) and "DYN" in readelf("-h", path), "its addresses are fixed")
    check("TEXTREL" not in dynamic, "its code is relocated")
    check(re.search(r"FLAGS.*NOW", dynamic) if optimised else True, "relocations are written while it runs")
    check("__stack_chk_fail" in symbols if optimised else True, "no stack canaries")
    # zvxctl formats with a library of its own and may have nothing left to check.
    check("_chk@" in symbols.replace("__stack_chk", "") if optimised and name != "zvxctl" else True, "no checked copies")
    print(f"{name}: {flags}, {len(loads)} segments, {'optimised' if optimised else 'not optimised'}")
print("\n".join(faults))
sys.exit(1 if faults or len(sys.argv) < 3 else 0)
