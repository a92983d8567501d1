#!/usr/bin/env python3
"""The tools, with each call that they make of the system failing, cut short or interrupted by a kill in its turn: no
older file is harmed, what bears its final name is whole, what fails says so, and the next run mends it.

    faults.py SDVMAKE SDV2AVI AVICHECK DATA_DIR SDVRECORD SHIM [SCENARIO [FAULT]]
"""
import contextlib
import os
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from errno import EACCES, EAGAIN, EINTR, EINVAL, EIO, EMFILE, ENOSPC, EOPNOTSUPP, EPERM, EWOULDBLOCK
from pathlib import Path

from checks import AVICHECK, DATA, SDV2AVI, TONE, make

SDVRECORD, SHIM = [Path(path).resolve() for path in sys.argv[5:7]]
TIMEOUT = 20
AT_ONCE = 5  # as many calls of a name meet each fault, chosen evenly
WRITES = "write", "pwrite", "pwritev", "fwrite", "fflush", "fclose", "ftruncate", "truncate"
# What may happen to each call. In the second table, what must not change anything.
FAULTS = {"fsync": (EIO, "kill"), "fallocate": (ENOSPC,), "rename": (EACCES,), "renameat2": (EIO, "kill"),
          "flock": (EWOULDBLOCK, EIO), "open": (EMFILE,), "fopen": (EMFILE,), "close": (EIO,), "fclose": (ENOSPC, "kill"),
          "fflush": (ENOSPC,), "fwrite": (ENOSPC, "kill"), "pwritev": (ENOSPC, "kill", "cut500"), "ftruncate": (EIO,),
          "pwrite": (ENOSPC, "kill", "cut30"), "write": (EIO, "kill", "cut60"),
          "read_pipe": (EIO, "kill"), "truncate": (EIO,), "unlink": (EACCES,), "fork": (EAGAIN,), "waitpid": ("kill",),
          "ppoll": ("kill",), "pread": (EIO,), "sync_file_range": (EIO, "kill")}
HARMLESS = {"fallocate": (EOPNOTSUPP,), "renameat2": (EINVAL,), "pwritev": ("short",), "pwrite": ("short", EINTR),
            "write": ("short", EINTR), "read": ("short", EINTR), "read_pipe": ("short", EINTR), "waitpid": (EINTR,),
            "ppoll": (EINTR,), "pread": ("short", EINTR)}


# ---- what is run

def tool(*command, held=False):
    """With standard input held open, or none."""
    def run(env, out, err):
        process = subprocess.Popen(command, stdin=subprocess.PIPE if held else subprocess.DEVNULL, stdout=out, stderr=err,
                                   cwd=env["PWD"], env=env, start_new_session=True)
        if held:
            with contextlib.suppress(BrokenPipeError):
                process.stdin.write(Path(env["PWD"], "a.sdv").read_bytes())
                process.stdin.flush()
                if env["FAULT"] == "orphan":  # its worker has begun to read, and would wait for ever
                    process.kill()
                else:
                    process.stdin.close()
        return process
    return run


def recorder(*options, directory="rec", stream="a.sdv"):
    """It calls a camera that sends all that it has, and goes: what was left of earlier runs is finished then."""
    def run(env, out, err):
        with socket.create_server(("127.0.0.1", 0)) as server, contextlib.suppress(ConnectionError):
            server.settimeout(0.02)
            process = subprocess.Popen([SDVRECORD, "--connect", "127.0.0.1:%d" % server.getsockname()[1], "--once", "--json",
                                        "--out", directory, *options], stdout=out, stderr=err, cwd=env["PWD"], env=env,
                                       start_new_session=True)
            deadline = time.monotonic() + TIMEOUT
            while time.monotonic() < deadline and not os.waitid(os.P_PID, process.pid,
                                                                os.WEXITED | os.WNOHANG | os.WNOWAIT):
                with contextlib.suppress(TimeoutError):
                    camera = server.accept()[0]
                    camera.settimeout(TIMEOUT)
                    with camera:
                        camera.sendall(Path(env["PWD"], stream).read_bytes())
                    break
        return process
    return run


RECORD = recorder("--max-size", "40K", stream="late.sdv")  # audio joins behind the first frames
RESTART = recorder(stream=os.devnull)
# What is run; what runs after it, if another; which of the older files it may change.
SCENARIOS = {
    "one": (tool(SDV2AVI, "a.sdv", "-o", "old.avi", "--overwrite"), None, ("old.avi",)),
    "stream": (tool(SDV2AVI, "-", "-o", "new.avi", held=True), None, ()),
    "parts": (tool(SDV2AVI, "a.sdv", "-o", "new.avi", "--split", "40K"), None, ()),
    "older part": (tool(SDV2AVI, "a.sdv", "-o", "part.avi", "--split", "40K"), None, ()),
    "folder": (tool(SDV2AVI, "in", "-o", "out", "-j2"), None, ()),
    "repair": (tool(AVICHECK, "--repair", "torn.avi"), None, ("torn.avi",)),
    "repaired copy": (tool(AVICHECK, "--repair", "torn.avi", "-o", "new.avi"), None, ()),
    "record": (RECORD, RESTART, ()),
    "recover": (recorder(directory="out", stream=os.devnull), None,
                ("out/20260101-000000.avi.part", "out/20260102-000000.avi.part")),
}


def prepare(at):
    """Inputs and older files of all scenarios."""
    os.chdir(at)
    make("a.sdv", "--start", "2026-03-09 14:05:59")
    make("late.sdv", "--start", "2026-03-09 14:05:59", sound=None)
    sound = Path("a.sdv").read_bytes()
    Path("late.sdv").write_bytes(sound[:88] + Path("late.sdv").read_bytes()[88:5000] + sound[88:])
    for path in "in", "out", "rec":
        os.mkdir(path)
    for name in "abc":
        shutil.copy("a.sdv", f"in/{name}.sdv")
    for path in "old.avi", "part-003.avi", "out/b.avi", "rec/20260309-140559.avi":
        Path(path).write_bytes(b"an older file")
    os.mkdir("killed")
    shutil.copy("a.sdv", "killed")
    os.mkdir("killed/rec")
    run(recorder("--max-size", "40K"), Path("killed"), "pwritev:30:kill")
    (part,) = Path("killed/rec").iterdir()
    for path in "torn.avi", "linked.avi", "out/20260101-000000.avi.part":
        shutil.copy(part, path)
    Path("out/20260102-000000.avi.part").touch()
    os.symlink("../linked.avi", "out/20260103-000000.avi.part")
    shutil.rmtree("killed")


# ---- what came of it

def contents(at):
    return {str(path.relative_to(at)): os.readlink(path) if path.is_symlink() else path.read_bytes()
            for path in at.rglob("*") if not path.is_dir() or path.is_symlink()}


def run(start, at, fault=""):
    """The exit code, what was said (but when, and to which port), what was printed, and the calls."""
    log = at.parent / (at.name + ".log")
    env = {**os.environ, "PWD": str(at), "LD_PRELOAD": str(SHIM), "FAULT_LOG": str(log), "FAULT": fault}
    said, sink = tempfile.TemporaryFile(), tempfile.TemporaryFile()
    where, _, what = fault.partition(":")
    if where == "limit":
        env["FAULT_LIMIT"] = what
    gone, theirs = os.pipe()
    os.close(gone)
    out, err = [{"full": full, "gone": theirs}[what] if where == name else usual for full in [open("/dev/full", "w")]
                for name, usual in (("stdout", sink), ("stderr", said))]
    process = start(env, out, err)
    os.close(theirs)
    pidfd = os.pidfd_open(process.pid)
    ended = select.select([pidfd], [], [], TIMEOUT)[0]
    os.close(pidfd)
    if not ended:
        os.killpg(process.pid, signal.SIGKILL)
    code = process.wait()
    assert ended, "it does not end"
    deadline = time.monotonic() + 3
    with contextlib.suppress(ProcessLookupError):
        while os.killpg(process.pid, 0) is None:
            if time.monotonic() > deadline:
                os.killpg(process.pid, signal.SIGKILL)
                raise AssertionError("a process is left that nobody waits for")
            time.sleep(0.005)
    texts = []
    for file in said, sink:
        file.seek(0)
        texts.append(re.sub(r"(?m)^[-\d]+ [:\d]+ |127.0.0.1:\d+", "", file.read().decode(errors="replace")))
    calls = [line.split("\t") for line in log.read_text(errors="replace").splitlines()] if log.exists() else []
    log.unlink(missing_ok=True)
    return code, *texts, calls


def sound(at, path):
    return subprocess.run([AVICHECK, "-q", at / path]).returncode == 0


def pictures(avi):
    """In chunks that came whole; what is no file of ours has none."""
    place, count = next((at for at in (328, 224) if avi[at : at + 4] in (b"00dc", b"01wb")), len(avi)), 0
    while avi[place : place + 4] in (b"00dc", b"01wb"):
        size = int.from_bytes(avi[place + 4 : place + 8], "little")
        count += avi[place : place + 4] == b"00dc" and place + 8 + size <= len(avi)
        place += 8 + size + size % 2
    return count


def sorted_files(files):
    return sorted(file for file in files.values() if isinstance(file, bytes) and file)


def recorded(files):
    return sum(pictures(file) for path, file in files.items() if path.startswith(("out/2", "rec/2"))
               and "0103" not in path and ".quorlin-" not in path)


def check_orders(at, calls, mends, ended):
    """On the disk before it has its name, and the name then; in a repair the headers last, and not without the lock."""
    unsynced, locked, written = set(), set(), set()
    for place, (pid, name, result, offset, path, to) in enumerate(calls):
        path, to = os.path.join(at, path), to and os.path.join(at, to)
        if name == "flock" and result != str(EWOULDBLOCK):  # not every file system has locks
            locked.add(path)
        if result != "ok":
            continue
        if name in WRITES and path.startswith(str(at)):
            mended = os.path.relpath(path, at) in mends
            assert not (mended and name == "pwrite" and offset == "0" and path in unsynced), "headers before the index"
            assert not mended or path in locked or name == "truncate", f"{path} is mended without its lock"
            unsynced.add(path)
        elif name == "fsync":
            unsynced.discard(path)
            written.add(path)
        elif name in ("rename", "renameat2", "link"):
            assert path in written and path not in unsynced, f"{path} has its name before it is on the disk"
            later = [(call[1], os.path.join(at, call[4])) for call in calls[place:] if call[0] == pid]
            synced = ("fsync", os.path.dirname(to)) in later or ("unlink", to) in later
            assert synced or not ended, f"the name {to} is not brought to the disk"


def check(before, base, at, fault, scenario, result):
    start, after, mends = SCENARIOS[scenario]
    code, said, printed, calls = result
    wanted_code, wanted_said, wanted_print, wanted = base
    files = contents(at)
    killed = fault == "orphan" or "kill" in fault or "cut" in fault
    others = fault.endswith(f":{EWOULDBLOCK}")
    if others:  # who clears up holds the temporary file, and removes it; a part is left to who holds it
        files = {path: file for path, file in files.items() if ".quorlin-" not in path}
    # A recording that begins late bears another name.
    whole = sorted_files(files) == sorted_files(wanted) if scenario == "record" else files == wanted
    check_orders(at, calls, mends, not killed and "fsync" not in fault and "open" not in fault)
    for path, old in before.items():
        if path not in mends or path == "old.avi":
            assert files.get(path) in (old, wanted[path] if path in mends else old), f"{path} is harmed"
    for path in set(files) - set(before):
        assert not path.endswith(".avi") or files[path] == wanted.get(path) or sound(at, path), f"{path} is not sound"
    if fault.startswith("harmless ") or (scenario, fault[:3]) == ("record", "std"):
        assert whole and code == wanted_code, f"it is not borne: {code}, {said}"
    if fault == "stdout:full" and scenario not in ("record", "repair", "recover"):
        assert code != 0, "nobody is told, and it exits with 0"
    if scenario == "one" and code == wanted_code and not fault.startswith(("std", "fflush")):
        assert printed == wanted_print, f"it prints {printed}"
    if not whole and not fault.startswith("std"):
        assert killed or said != wanted_said or "unlink" in fault or others, "nothing is said"
        assert code != 0 or scenario == "recover", f"it exits with 0: {said}"
    new = {path for path in files if path not in before and not path.endswith(".avi")}
    if (not killed or fault == "orphan") and "unlink" not in fault and scenario not in ("record", "recover"):
        assert not new, f"left behind: {new}"
    if scenario == "record" and fault.startswith("limit"):
        assert not new, f"room is missing to finish {new}"
    if scenario not in ("record", "recover"):
        for path in set(files) - set(before) - new:
            os.unlink(at / path)
    code, said, _, calls = run(after or start, at)
    again = contents(at)
    if scenario == "record":
        check_orders(at, calls, {path for path in new if path.endswith(".part")}, True)
    if scenario in ("record", "recover"):
        assert recorded(again) == max(recorded(files), recorded(wanted) * (scenario == "recover")), f"pictures lost: {said}"
        for path in set(again) - set(before):
            assert path.endswith(".avi") and sound(at, path) or pictures(again[path]) == 0 or (
                killed and "nothing tells its coding" in said), f"{path} is left: {said}"
    else:
        assert code == wanted_code and again == wanted, f"again: {said}, {set(again) ^ set(wanted)}"


# ---- going through them

def even(count):
    chosen = min(count, AT_ONCE)
    return sorted({1 + i * (count - 1) // max(chosen - 1, 1) for i in range(chosen)})


def plan(scenario, calls, largest):
    for (name, whats), first in [(row, "harmless ") for row in HARMLESS.items()] + [(row, "") for row in FAULTS.items()]:
        if scenario == "older part" and name not in ("renameat2", "unlink", "fsync"):  # all else is as in "parts"
            continue
        count = sum(call[1] == name for call in calls)
        for what in whats:
            everywhere = what in (EOPNOTSUPP, EINVAL)
            each = (scenario, name) == ("record", "fwrite")  # of headers and index, which no two calls write alike
            for n in ["*"] * bool(count) if everywhere else range(1, count + 1) if each else even(count):
                yield f"{first}{name}:{n}:{what}"
    if any(call[1] == "renameat2" for call in calls):
        yield from (f"renameat2:*:{EINVAL};link:1:{EIO}", f"harmless renameat2:*:{EINVAL};link:*:{EPERM}")
    yield from ("stdout:full", "stdout:gone", "stderr:gone")
    if scenario == "one":  # what a worker has to say
        yield from (f"write:1:cut{size}" for size in range(100, 200, 3))
    if scenario == "stream":
        yield "orphan"
    if scenario in ("one", "parts", "record"):
        yield from (f"limit:{size}" for size in range(largest - 2400, largest, 150))


def try_one(template, scenario, base, fault):
    with tempfile.TemporaryDirectory(dir=MEMORY) as work:
        at = Path(work).resolve() / "at"
        shutil.copytree(template, at, symlinks=True)
        try:
            check(contents(at), base, at, fault, scenario, run(SCENARIOS[scenario][0], at, fault.removeprefix("harmless ")))
        except (AssertionError, OSError, subprocess.SubprocessError) as reason:
            return f"{scenario}, {fault}: {reason!r}"


# Where nothing waits for a disk.
MEMORY = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None


def main(only=None, only_fault=None):
    failed, tried = [], 0
    with tempfile.TemporaryDirectory(dir=MEMORY) as work, ThreadPoolExecutor(4) as pool:  # some runs only wait
        template = Path(work).resolve() / "template"
        template.mkdir()
        prepare(template)
        for scenario in [only] if only else SCENARIOS:
            began = time.monotonic()
            at = template.parent / "base"
            shutil.copytree(template, at, symlinks=True)
            code, said, printed, calls = run(SCENARIOS[scenario][0], at)
            base = code, said, printed, contents(at)
            largest = max(len(file) for path, file in base[3].items() if path.endswith(".avi"))
            faults = [only_fault] if only_fault else ["harmless ", *plan(scenario, calls, largest)]
            shutil.rmtree(at)
            results = [*pool.map(lambda fault: try_one(template, scenario, base, fault), faults)]
            failed += filter(None, results)
            print(f"{scenario}: {len(calls)} calls, {len(faults)} runs, {time.monotonic() - began:.1f} s", flush=True)
    print(*failed, sep="\n")
    sys.exit(f"{len(failed)} failed" if failed else 0)


if __name__ == "__main__":
    main(*sys.argv[7:])
