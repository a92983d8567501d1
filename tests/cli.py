#!/usr/bin/env python3
"""The command lines of sdv2avi, avicheck and sdvmake: what comes out, and how they fail: with one line that names the
cause, nothing lost.

    cli.py SDVMAKE SDV2AVI AVICHECK DATA_DIR FAILING_DISK
"""
import json
import os
import pty
import resource
import signal
import subprocess
import time
from pathlib import Path

from checks import AVICHECK, KEY, OTHER_KEY, SDV2AVI, SDVMAKE, expect, failing_disk, go_through, make, pictures, run

OLD = b"an older file"
UMASK = 0o027
SMALL = {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (65536, 65536))}
CLOSED = {"preexec_fn": lambda: os.close(1)}
DEEP = "d" * 200 + "/" + "e" * 200
# What goes wrong, the exit code, the arguments, a part of the message; more for subprocess.
FAILURES = [
    ("missing input", 1, ["nothing.sdv", "-o", "new.avi"], "nothing.sdv: No such file"),
    ("empty folder", 3, ["dir", "-o", "new.avi"], "no *.sdv in it"),
    ("input is a device", 3, ["/dev/null", "-o", "new.avi"], "no regular file"),
    ("garbage input", 3, ["garbage.sdv", "-o", "new.avi"], "no SDV recording"),
    ("empty input", 3, ["empty.sdv", "-o", "new.avi"], "empty.sdv: is empty"),
    ("header lost", 3, ["cut.sdv", "-o", "new.avi"], "frames: --like GOOD.sdv"),
    ("header like none", 3, ["cut.sdv", "-o", "new.avi", "--like", "garbage.sdv"], "no file header to take"),
    ("header of another mode", 3, ["cut.sdv", "-o", "new.avi", "--like", "mode31.sdv"], "has other frames"),
    ("no frames like it", 3, ["garbage.sdv", "-o", "new.avi", "--like", "plain.sdv"], "no SDV recording"),
    ("like the output", 2, ["cut.sdv", "-o", "plain.sdv", "--overwrite", "--like", "plain.sdv"], "that of --like"),
    ("no key frame", 4, ["headers.sdv", "-o", "new.avi"], "no key frame"),
    ("no whole frame", 4, ["torn.sdv", "-o", "new.avi"], "no whole frame"),
    ("wrong key", 5, ["secret.sdv", "-o", "new.avi", "--key", OTHER_KEY], "key is wrong"),
    ("wrong key, split", 5, ["secret.sdv", "-o", "new.avi", "--key", OTHER_KEY, "--split", "1M"], "key is wrong"),
    ("key with a prefix", 5, ["secret.sdv", "--key", "0x" + KEY], "begins with 0x"),
    ("missing key file", 5, ["secret.sdv", "--key-file", "nokey"], "cannot open the key file"),
    ("missing output directory", 6, ["plain.sdv", "-o", "no/out.avi"], "no/out.avi: No such file"),
    ("output is a device", 6, ["plain.sdv", "-o", "/dev/full", "--overwrite"], "no regular file"),
    ("output is there", 8, ["plain.sdv", "-o", "out.avi"], "out.avi: exists already"),
    ("first part is there", 8, ["plain.sdv", "-o", "old.avi", "--split", "40K"], "old-001.avi: exists already"),
    ("third part is a folder", 6, ["plain.sdv", "-o", "folder.avi", "--split", "40K", "--overwrite"], "Is a directory"),
    ("third part is there", 8, ["plain.sdv", "-o", "part.avi", "--split", "40K"], "part-003.avi: File exists"),
    ("same file by another name", 2, ["plain.sdv", "-o", "link.avi", "--overwrite"], "same file"),
    ("the key file", 2, ["secret.sdv", "-o", "key.txt", "--key-file", "key.txt", "--overwrite"], "the key file"),
    ("standard output", 2, ["plain.sdv", "-o", "-"], "cannot go to standard output"),
    ("standard input without a name", 2, ["-"], "standard input has no name"),
    ("split by nothing", 2, ["plain.sdv", "--split", "700"], "neither a size"),
    ("name too long", 6, ["plain.sdv", "-o", "n" * 252 + ".avi"], "File name too long"),
    # No file of zeros comes out of an input that cannot be read at all, nor behind its header.
    *((f"unreadable from {start} on", 1, ["plain.sdv", "-o", "new.avi", *split], said,
       failing_disk("plain.sdv", (start, 1 << 40))) for split in ([], ["--split", "1M"]) for start, said in
      ((0, "plain.sdv: cannot be read: Input/output"), (88, "162925 bytes at 88 could not be read"))),
    ("disk full", 6, ["plain.sdv", "-o", "out.avi", "--overwrite"], "out.avi: cannot be written: File too", SMALL),
    ("disk full, split", 6, ["plain.sdv", "-o", "new.avi", "--split", "90K"], "cannot be written: File too", SMALL),
]
# What it is, the arguments, the outputs with their pictures; more for subprocess.
SUCCESSES = [
    ("an older file is replaced", ["secret.sdv", "--key", KEY, "-o", "out.avi", "--overwrite"], {"out.avi": 100}),
    ("output named after the input", ["plain.sdv"], {"plain.avi": 100}),
    ("output in a folder", ["plain.sdv", "-o", "dir"], {"dir/plain.avi": 100}),
    ("output named by its start", ["plain.sdv", "-o", "dir", "--start-time"], {"dir/20260309-140559.avi": 100}),
    ("a folder that is to be made", ["plain.sdv", "-o", "made/"], {"made/plain.avi": 100}),
    ("the same for names by start", ["plain.sdv", "-o", "m2", "--start-time"], {"m2/20260309-140559.avi": 100}),
    ("long paths", [DEEP + "/in.sdv"], {DEEP + "/in.avi": 100}),
    ("long paths, split", [DEEP + "/in.sdv", "--split", "1h"], {DEEP + "/in-001.avi": 100}),
    ("the longest name", ["plain.sdv", "-o", "n" * 251 + ".avi"], {"n" * 251 + ".avi": 100}),
    ("split by size", ["plain.sdv", "-o", "s.avi", "--split", "40K"], {f"s-00{n}.avi": 25 for n in (1, 2, 3, 4)}),
    ("split by time", ["plain.sdv", "-o", "t.avi", "--split", "1.5s"], {"t-001.avi": 50, "t-002.avi": 50}),
    ("a mode that is pushed", ["mode31.sdv"], {"mode31.avi": 100}),
    ("one picture", ["one.sdv"], {"one.avi": 1}),
    ("closed standard output", ["plain.sdv", "-o", "c.avi"], {"c.avi": 100}, CLOSED),
]

def prepare():
    os.umask(UMASK)
    for name, options in {"plain": ["--start", "2026-03-09 14:05:59"], "secret": ["--key", KEY],
                          "mode31": ["--mode", "31"], "damaged": ["--garbage", "3"],
                          "missing": ["--drop", "5"]}.items():
        make(f"{name}.sdv", *options)
    make("silent.sdv", sound=None)
    plain, secret, silent, missing = (Path(f"{name}.sdv").read_bytes() for name in
                                      ("plain", "secret", "silent", "missing"))
    second = 88 + int.from_bytes(plain[92:96], "little")
    long = 0xFF000  # of a frame that would take all behind it along
    swallow = plain[:second + 4] + long.to_bytes(4, "little") + plain[second + 8:second + 20]
    swallow += (long - 32).to_bytes(4, "little") + bytes(2) + plain[second + 26:]
    for path in "dir", "tree/in", DEEP, "folder-003.avi":
        Path(path).mkdir(parents=True)
    for path, data in {"one.sdv": plain[:second], "headers.sdv": plain[:88],
                       "zeros.sdv": plain[: second + 12] + bytes(4) + plain[second + 16 :],
                       "empty.sdv": b"", "cut.sdv": plain[88:], "over.sdv": b"\x55" * 88 + plain[88:],
                       "torn.sdv": plain[:200], "garbage.sdv": b"\x55" * 4096, "out.avi": OLD,
                       "key.txt": KEY.encode(), "old-001.avi": OLD, "part-003.avi": OLD, "folder-001.avi": OLD, DEEP + "/in.sdv": plain,
                       "tree/in/plain.sdv": plain, "tree/top.SDV": plain,
                       "half.sdv": plain + secret[88:], "late.sdv": silent + plain[88:],
                       "swallow.sdv": swallow, "leading.sdv": missing[:88] + missing[second:], "tree/in/secret.sdv": secret}.items():
        Path(path).write_bytes(data)
    os.symlink("plain.sdv", "link.avi")
    # A second of work and more: frames, and then a hole to search for more of them.
    Path("long.sdv").write_bytes(plain)
    os.truncate("long.sdv", 1 << 31)
    os.symlink("long.sdv", "longer.sdv")


def contents():
    return {path: None if path.is_dir() else path.stat().st_size for path in Path(".").rglob("*")}


def check_failure(code, arguments, message, more={}):
    before = contents()
    done = run(SDV2AVI, *arguments, code=code, **more)
    assert not done.stdout and done.stderr.startswith("sdv2avi: ") and done.stderr.count("\n") == 1, done
    assert message in done.stderr, done
    assert contents() == before, "files came or went"
    for older in "out.avi", "folder-001.avi":
        assert Path(older).read_bytes() == OLD, f"the older {older} was harmed"


def check_files(outputs):
    start = time.mktime((2026, 3, 9, 14, 5, 59, 0, 0, -1))
    for name, wanted in outputs.items():
        status = os.stat(name)
        expect(f"pictures and mode of {name}", (pictures(Path(name)), status.st_mode & 0o777), (wanted, 0o666 & ~UMASK))
        if "plain" in name or name in ("s-001.avi", "s-003.avi"):
            expect(f"time of {name}", status.st_mtime, start + 2 * (name == "s-003.avi"))


def check_success(arguments, outputs, more={}):
    before = contents()
    done = run(SDV2AVI, *arguments, **more)
    first, *others = outputs
    name, count = first + "".join(f" to {last}" for last in others[-1:]), sum(outputs.values())
    expect("what is said", done.stdout + done.stderr, "" if more else f"{name}: {count} picture{'s' * (count != 1)}\n")
    made = {part for path in map(Path, outputs) for part in (path, path.parent)}
    expect("files", {Path("."), *contents()}, {Path("."), *before, *made})
    check_files(outputs)


def start(*arguments, until, **more):
    """A conversion in a session of its own, which has come so far."""
    running = subprocess.Popen([SDV2AVI, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                               start_new_session=True, **more)
    if "stdin" in more:
        running.stdin.write(Path("plain.sdv").read_bytes())
        running.stdin.flush()
    deadline = time.monotonic() + 20
    while not until(running):
        assert running.poll() is None and time.monotonic() < deadline, "it has not come so far"
    return running


def check_signal(number, to_all):
    before = contents()
    running = start("long.sdv", "longer.sdv", "secret.sdv", "-j2", until=lambda _: sum(
        path.stat().st_size > 0 for path in Path(".").glob("long*.avi.*")) == 2)
    (os.killpg if to_all else os.kill)(running.pid, number)
    told = running.communicate(timeout=20)[0]
    expect("exit code", running.returncode, 128 + number)
    # A worker may end by the signal, and the next one begin, a moment before the signal is seen.
    assert b"0 done, 0 damaged, 2 failed, 1 not begun" in told or b"0 damaged, 3 failed" in told, told
    assert contents() == before, "files came or went"


def killed():
    """What a killed worker leaves goes with it, or with the next run; what another run, or somebody, has stays."""
    for name in "a.avi.quorlin-12345", "a.avi.quorlin-12345G", "a.avi.quorlin-1234567", ".quorlin-123456":
        Path(name).write_bytes(OLD)
    Path("a.quorlin-123456").mkdir()
    os.symlink("out.avi", "b.quorlin-123456")
    before, left = contents(), set()
    found = lambda *_: {*Path(".").glob("live.avi.*")} - left
    endless = lambda: start("-", "-o", "live.avi", stdin=subprocess.PIPE, until=found)
    running = endless()
    os.kill(int(Path(f"/proc/{running.pid}/task/{running.pid}/children").read_text()), signal.SIGKILL)
    assert b"the conversion was ended: Killed" in running.communicate(timeout=20)[1], "another cause"
    assert contents() == before, "files came or went"
    gone = endless()
    os.killpg(gone.pid, signal.SIGKILL)
    gone.communicate(timeout=20)
    left = found()
    assert left, "somebody else tidied up"
    living = endless()
    run(SDV2AVI, "plain.sdv", "-o", "next.avi")
    assert found() and not any(path.exists() for path in left), "not the one whose owner is gone"
    os.killpg(living.pid, signal.SIGTERM)
    living.communicate(timeout=20)
    os.remove("next.avi")
    assert contents() == before, "files came or went"


def planted_links():
    """Where all can write, nobody else's link leads us to a file of ours; the folder's owner's does."""
    if os.geteuid() != 0:
        return print("skipped: links of others can be made by root only")
    for folder, mode, owner, code in (("tmp", 0o1777, 0, 6), ("theirs", 0o1777, 1234, 0), ("open", 0o777, 0, 0)):
        os.mkdir(folder)
        os.symlink("../out.avi", f"{folder}/to.avi")
        os.symlink(f"{folder}/to.avi", f"{folder}.avi")
        os.chown(f"{folder}/to.avi", 1234, 1234, follow_symlinks=False)
        os.chown(folder, owner, owner)
        os.chmod(folder, mode)
        for name in f"{folder}/to.avi", f"{folder}.avi":
            Path("out.avi").write_bytes(OLD)
            done = run(SDV2AVI, "plain.sdv", "-o", name, "--overwrite", code=code)
            expect("the file is harmed", Path("out.avi").read_bytes() != OLD, code == 0)
            assert ("link of another user" in done.stderr) == (code != 0), done


def key_in_environment():
    """Who looks at the process later does not find the key that it was started with."""
    shown = lambda running: Path(f"/proc/{running.pid}/environ").read_bytes()
    hidden = lambda running: KEY.encode() not in shown(running) and b"LAST=one" in shown(running)
    start("-", "-o", "new.avi", env={**os.environ, "SDV_KEY": KEY, "LAST": "one"}, stdin=subprocess.PIPE,
          until=hidden).communicate(timeout=20)


def parts_together():
    """A signal that comes when the first part has its name finds all of them in their places."""
    stream = Path("plain.sdv").read_bytes()
    Path("many.sdv").write_bytes(stream + 39 * stream[88:])
    running = start("many.sdv", "--split", "40K", "--quiet",
                    until=lambda running: os.path.exists("many-001.avi") or running.poll() is not None)
    if running.returncode is None:
        os.killpg(running.pid, signal.SIGINT)
    running.wait(60)
    expect("parts", len([*Path(".").glob("many-*.avi")]), 160)


def standard_input():
    """The same file comes out, whether a recording is converted or pushed, and the same is said of its damage."""
    for name in "plain.sdv", "damaged.sdv":
        made = []
        for source in name, "-":
            with open(name) as file:
                done = run(SDV2AVI, source, "-o", "via.avi", "--overwrite", "--json", stdin=file)
            made.append((json.loads(done.stdout)["files"][0]["report"], Path("via.avi").read_bytes()))
        assert made[0] == made[1], f"{name}: {made[0][0]} and {made[1][0]}"


def lost_header():
    """Without its header, or with noise in its place, a recording gives the same file, also from a pipe."""
    run(SDV2AVI, "plain.sdv", "-o", "whole.avi")
    for name, *bytes_in in ("cut.sdv",), ("over.sdv",), ("-", Path("cut.sdv").read_bytes()), ("-", Path("over.sdv").read_bytes()):
        done = run(SDV2AVI, name, "-o", "saved.avi", "--overwrite", "--like", "plain.sdv", text=False,
                   **({"input": bytes_in[0]} if bytes_in else {}))
        assert b"are taken from plain.sdv" in done.stderr, done
        assert Path("saved.avi").read_bytes() == Path("whole.avi").read_bytes(), f"{name}: another file"
    assert os.stat("saved.avi").st_mtime > os.stat("plain.sdv").st_mtime - 9, "the date of another recording"


# What cannot be read, of which recording, the options.
UNREADABLE = [
    ("in the middle", ((40960, 45056), (98304, 131072)), "plain.sdv"),
    ("the first key frame", ((88, 4096),), "secret.sdv", "--key", KEY),
    ("behind a frame numbered 0", ((40960, 45056),), "zeros.sdv"),
    ("the rest", ((81920, 1 << 40),), "damaged.sdv"),
    ("of a mode that is pushed", ((40960, 45056),), "mode31.sdv"),
    ("split, from standard input", ((40960, 45056),), "plain.sdv", "--split", "1h"),
]


def check_unreadable(bad, name, *options):
    """The same file comes out as of a copy with zeros in these places, and the exit code tells them apart."""
    copy, lost = bytearray(Path(name).read_bytes()), 0
    for a, b in bad:
        lost += len(copy[a:b])
        copy[a:b] = bytes(len(copy[a:b]))
    Path("copy.sdv").write_bytes(copy)
    run(SDV2AVI, "copy.sdv", "-o", "copy.avi", *options)
    with open(name) as file:
        done = run(SDV2AVI, "-" if "--split" in options else name, "-o", "it.avi", "--json", *options, code=1,
                   stdin=file, **failing_disk(name, *bad))
    told = json.loads(done.stdout)["files"][0]
    expect("what is told", [told["report"]["bytes_unreadable"], told["report"]["first_unreadable"], told["exit_code"],
                            told["cause"]], [lost, bad[0][0], 1, None])
    assert f"{lost} bytes " in done.stderr and "could not be read: Input/output error" in done.stderr, done
    made, wanted = (path.read_bytes() for stem in ("it*.avi", "copy*.avi") for path in Path(".").glob(stem))
    assert made == wanted, "another AVI file"


def many_at_a_time():
    Path(os.fsdecode(b"tree/\xff\x1b.sdv")).write_bytes(Path("damaged.sdv").read_bytes())
    command = [SDV2AVI, "-r", "tree", "-o", "new", "-j", "2", "--strict"]
    document = json.loads(run(*command, "--json", code=5).stdout)
    expect("files", {(Path(file["input"]).name, file["status"], file["exit_code"], file["report"]["gaps"],
                      len(file["outputs"]), "needs a key" in str(file["cause"])) for file in document["files"]},
           {("plain.sdv", "done", 0, 0, 1, False), ("top.SDV", "done", 0, 0, 1, False),
            ("secret.sdv", "failed", 5, 0, 0, True), ("\ufffd\x1b.sdv", "damaged", 7, 3, 1, False)})
    expect("names in hex", [bytes.fromhex(file["input_hex"]) for file in document["files"] if "input_hex" in file],
           [b"tree/\xff\x1b.sdv"])
    expect("sum", [document["summary"][key] for key in ("pictures", "failed")], [300, 1])
    check_files({"new/in/plain.avi": 100, "new/top.avi": 100})
    table = run(*command, "--overwrite", "--key", KEY, code=7).stdout
    assert "4 files: 3 done, 1 damaged, 0 failed" in table and "\x1b" not in table, table
    assert run(*command[:-1], "--quiet", code=8).stdout == "", "not quiet"
    run(SDV2AVI, "plain.sdv", "tree/in/plain.sdv", "-o", "starts", "--start-time")
    expect("names by start", {*os.listdir("starts")}, {f"20260309-140559{n}.avi" for n in ("", "-2")})
    fewer = run(SDV2AVI, "plain.sdv", "-o", "part.avi", "--split", "1.5s", "--overwrite")
    assert "part-003.avi is an older file" in fewer.stderr, "parts of two conversions"


def progress_on_a_terminal():
    for terminal in "xterm", "dumb":
        ours, theirs = pty.openpty()
        running = subprocess.Popen([SDV2AVI, "long.sdv", "plain.sdv", "-j1", "-o", terminal + "/"], stdout=theirs,
                                   stderr=theirs, env={**os.environ, "TERM": terminal, "NO_COLOR": "1"})
        os.close(theirs)
        shown = b""
        while running.poll() is None:
            shown += os.read(ours, 4096) if b"total" not in shown else b""
        os.close(ours)
        expect("escape sequences and markers", (b"\x1b" in shown, b"140217" in shown), (terminal != "dumb", False))
        for part in b"MB/s", b"left  long.sdv", b"left  0 of 2 files done":
            expect(part, part in shown, terminal != "dumb")


def losses():
    """What is missing, closed or early: the file is there, and scripts learn what is wrong with it."""
    for name, code, *wanted in (("missing", 7, 5, None, 0), ("leading", 7, 5, None, 0), ("half", 5, 0, "no_key", 0),
                                ("late", 7, 0, None, 4), ("swallow", 7, 1, None, 0)):
        for options in [], ["--split", "1h"]:
            told = json.loads(run(SDV2AVI, f"{name}.sdv", "--strict", "--json", *options, code=code).stdout)["files"][0]
            expect(f"{name}: missing, code, early, files", [told["report"]["frames_missing"], told["code"],
                   told["sound_early_seconds"], len(told["outputs"])], [*wanted, 1])


def what_a_folder_holds():
    """Each thing that is left out is named, and two of one name do not keep the others from being converted."""
    for name, to in ("up", "."), ("gone.sdv", "nowhere"), ("loop.sdv", "loop.sdv"):
        os.symlink(to, f"tree/{name}")
    os.mkfifo("tree/pipe.sdv")
    here = os.getcwd()
    os.chdir("tree")
    for _ in range(17): # longer than paths can be
        os.mkdir("n" * 250)
        os.chdir("n" * 250)
    os.chdir(here)
    told = json.loads(run(SDV2AVI, "-r", "tree", "-o", "new", "--key", KEY, "--json", code=1).stdout)
    expect("notes", [note.split(":")[0] for note in told["notes"]], ["tree/gone.sdv", "tree/pipe.sdv", "tree/up"])
    expect("codes", sorted(str(file["code"]) for file in told["files"]), ["None"] * 3 + ["cannot_read"] * 2)
    told = json.loads(run(SDV2AVI, "plain.sdv", "one.sdv", "tree/in/plain.sdv", "-o", "dir", "--json", code=2).stdout)
    expect("clash", [file["code"] for file in told["files"]], ["name_clash", None, "name_clash"])


def full_disk():
    """The others are not tried."""
    mounted = ["unshare", "-rm", "sh", "-c", 'mount -t tmpfs -o size=200k none dir && exec "$@"', "sh"]
    if subprocess.run([*mounted, "true"], capture_output=True).returncode:
        return print("skipped: no file system can be mounted here")
    done = run(*mounted, SDV2AVI, "-j1", "plain.sdv", "secret.sdv", "missing.sdv", "-o", "dir", "--key", KEY, "--json",
               code=6)
    expect("codes", [file["code"] for file in json.loads(done.stdout)["files"]], [None, "disk_full", "not_started"])
    assert "the disk is full: 1 more file not begun" in done.stderr and done.stderr.count("\n") == 2, done


def private_and_undated():
    stream = bytearray(Path("plain.sdv").read_bytes())
    stream[10:22] = bytes(12)
    Path("own.sdv").write_bytes(stream)
    os.chmod("own.sdv", 0o600)
    os.utime("own.sdv", (1e9, 1e9))
    run(SDV2AVI, "own.sdv", "--split", "40K")
    expect("rights and times", {(os.stat(path).st_mode & 0o777, os.stat(path).st_mtime) for path in
                                Path(".").glob("own-00?.avi")}, {(0o600, 1e9)})


def command_lines():
    """Help fits the terminal, and no file is called - but on purpose."""
    for tool in SDV2AVI, SDVMAKE, AVICHECK:
        said = run(tool, "--help", env={**os.environ, "COLUMNS": "50"}).stdout
        assert max(map(len, said.splitlines())) <= 50, said
    for command in (SDV2AVI, "secret.sdv", "--key-file", "-"), (SDVMAKE, "x", "-o", "-"), (SDVMAKE, "-", "-o", "x"), \
                   (AVICHECK, "-"), (AVICHECK, "--repair", "x", "-o", "-"):
        assert "cannot be used here" in run(*command, code=2).stderr, command


def avicheck():
    """The worst of several files is the exit code; and findings as text, as JSON, and not at all."""
    run(SDV2AVI, "plain.sdv", "-o", "sound.avi")
    sound = Path("sound.avi").read_bytes()
    Path("long.avi").write_bytes(sound + b"x")
    Path("\x1b.avi").write_bytes(sound)
    Path("cut.avi").write_bytes(bytes(328) + sound[328:90000])
    Path("hole.avi").write_bytes(bytes(328) + sound[328:336] + bytes(9) + sound[345:90000])
    os.mkfifo("pipe")
    for bad in (0, 4096), (60000, 160000), (164500, 165000):  # what follows from that is not told
        expect("what is said of an unreadable file", run(AVICHECK, "sound.avi", code=1, **failing_disk("sound.avi", bad)).stdout,
               "sound.avi: the file cannot be read: Input/output error\n")
    for code, *files in (0, "sound.avi"), (0, "\x1b.avi"), (7, "long.avi"), (7, "cut.avi", "sound.avi"), \
                        (3, "plain.sdv", "none.avi"), (1, "none.avi"):
        for option in [], ["-q"], ["--json"]:
            done = run(AVICHECK, *option, *files, code=code)
            assert not done.stderr and bool(done.stdout) == (option != ["-q"]) and "\x1b" not in done.stdout, done
        told = json.loads(done.stdout)
        expect("files", [one["path"] for one in told if one["sound"] == (not one["findings"])], files)
        assert code or told[0]["streams"][1]["coding"] == "mulaw", told
    make("mute.sdv", sound=None)
    run(SDV2AVI, "mute.sdv")
    for name, at, value, code, said in ("sound", 298, 211, 7, "nChannels is 211"), \
                                       ("mute", 36, 1234, 7, "1234: not five times a sample rate"), \
                                       ("mute", 132, 12, 0, "at 12 pictures a second; the video itself says 25"):
        changed = bytearray(Path(name + ".avi").read_bytes())
        changed[at:at + 4 if at < 298 else at + 2] = value.to_bytes(4 if at < 298 else 2, "little")
        Path("changed.avi").write_bytes(changed)
        told = json.loads(run(AVICHECK, "--json", "changed.avi", code=code).stdout)[0]
        expect("code", [one["code"] for one in told["findings"] + told["notes"] if said in one["what"]],
               ["wrong_field" if code else "other_rate"])
    for code, file, said, *audio in (1, "cut.avi", ""), (0, "cut.avi", "", "--audio", "mulaw", "-o", "mended.avi"), \
                                    (1, "cut.avi", "", "--audio", "none"), \
                                    (8, "cut.avi", "", "--audio", "none", "-o", "mended.avi"), \
                                    (2, "cut.avi", "", "--from", "plain.sdv", "-o", "plain.sdv", "--overwrite"), \
                                    (0, "cut.avi", "finished: 55 pictures", "--audio", "mulaw"), \
                                    (0, "cut.avi", "sound already"), (1, "none.avi", "No such file"), \
                                    (1, "cut.avi", "pipe: it is no regular file", "--from", "pipe"), \
                                    (7, "hole.avi", "begins without a start code", "--audio", "mulaw"):
        done = run(AVICHECK, "--repair", file, *audio, code=code)
        assert said in done.stdout + done.stderr, done
    expect("pictures", pictures(Path("mended.avi")), 55)


def sdvmake():
    """Of an AVI file, and what it does not understand."""
    run(SDV2AVI, "plain.sdv", "-o", "first.avi")
    made = json.loads(run(SDVMAKE, "--from-avi", "first.avi", "-o", "again.sdv", "--json").stdout)
    run(SDVMAKE, "--from-avi", "first.avi", "-o", "again.sdv", code=8)
    expect("what was made", (made["frames"], made["bytes"], made["audio"]), (100, os.stat("again.sdv").st_size, True))
    run(SDV2AVI, "again.sdv")
    assert Path("first.avi").read_bytes() == Path("again.avi").read_bytes(), "another AVI file"
    starts = "2024-02-30 10:00:00", "2024-02-30", "2024-01-01 24:00:00", "0000-00-00 00:00:00"
    for said, *arguments in (*((start, "--from-avi", "first.avi", "--start", start) for start in starts),
                             ("VIDEO or",), ("does not begin with", "first.avi"), ("65535", "--rate", "70000"),
                             ("{aac,alaw,mulaw}", "--audio", "x", "--audio-code", "mp3")):
        assert said in run(SDVMAKE, *arguments, "-o", "no.sdv", code=2).stderr, said
    Path("h265.bin").write_bytes(bytes.fromhex("0000000140010c01ffff00000001420101016000000001260180"))
    assert "is H.265 (HEVC)" in run(SDVMAKE, "h265.bin", "-o", "no.sdv", code=2).stderr
    Path("big.h264").touch()
    os.truncate("big.h264", (1 << 30) + 1)
    for name, said in ("/dev/zero", "64.0 MiB"), ("big.h264", "1.0 GiB"):
        assert f"{name}: larger than {said}" in run(SDVMAKE, name, "-o", "no.sdv", code=1).stderr, name
    assert not os.path.exists("no.sdv")


if __name__ == "__main__":
    go_through([(what, check_failure, *rest) for what, *rest in FAILURES]
               + [(what, check_success, *rest) for what, *rest in SUCCESSES]
               + [("SIGTERM", check_signal, signal.SIGTERM, False), ("SIGINT", check_signal, signal.SIGINT, True)]
               + [(f"unreadable: {what}", check_unreadable, *rest) for what, *rest in UNREADABLE]
               + [(check.__name__, check) for check in (
                   parts_together, standard_input, lost_header, killed, planted_links, key_in_environment,
                   many_at_a_time, losses, what_a_folder_holds, full_disk, private_and_undated, command_lines,
                   progress_on_a_terminal, avicheck, sdvmake)], prepare)
