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
    ("no key frame", 4, ["headers.sdv", "-o", "new.avi"], "no key frame"),
    ("no whole frame", 4, ["torn.sdv", "-o", "new.avi"], "no whole frame"),
    ("wrong key", 5, ["secret.sdv", "-o", "new.avi", "--key", OTHER_KEY], "key is wrong"),
    ("wrong key, split", 5, ["secret.sdv", "-o", "new.avi", "--key", OTHER_KEY, "--split", "1M"], "key is wrong"),
    ("key with a prefix", 5, ["secret.sdv", "--key", "0x" + KEY], "begins with 0x"),
    ("missing key file", 5, ["secret.sdv", "--key-file", "nokey"], "cannot open the key file"),
    ("missing output directory", 6, ["plain.sdv", "-o", "no/out.avi"], "no/out.avi: No such file"),
    ("output is a device", 6, ["plain.sdv", "-o", "/dev/full", "--overwrite"], "no regular file"),
    ("output is there", 6, ["plain.sdv", "-o", "out.avi"], "out.avi: exists already"),
    ("first part is there", 6, ["plain.sdv", "-o", "old.avi", "--split", "40K"], "old-001.avi: exists already"),
    ("third part is there", 6, ["plain.sdv", "-o", "part.avi", "--split", "40K"], "part-003.avi: File exists"),
    ("same file by another name", 2, ["plain.sdv", "-o", "link.avi", "--overwrite"], "same file"),
    ("the key file", 2, ["secret.sdv", "-o", "key.txt", "--key-file", "key.txt", "--overwrite"], "the key file"),
    ("one name for two", 2, ["plain.sdv", "tree/in/plain.sdv", "-o", "dir"], "would both become dir/plain.avi"),
    ("one input by two names", 2, ["plain.sdv", "./plain.sdv"], "would both become"),
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
                          "mode31": ["--mode", "31"], "damaged": ["--garbage", "3"]}.items():
        make(f"{name}.sdv", *options)
    plain = Path("plain.sdv").read_bytes()
    second = 88 + int.from_bytes(plain[92:96], "little")
    for path in "dir", "tree/in", DEEP:
        Path(path).mkdir(parents=True)
    for path, data in {"one.sdv": plain[:second], "headers.sdv": plain[:88],
                       "zeros.sdv": plain[: second + 12] + bytes(4) + plain[second + 16 :],
                       "torn.sdv": plain[:200], "garbage.sdv": b"\x55" * 4096, "out.avi": OLD,
                       "key.txt": KEY.encode(), "old-001.avi": OLD, "part-003.avi": OLD, DEEP + "/in.sdv": plain,
                       "tree/in/plain.sdv": plain, "tree/top.SDV": plain,
                       "tree/in/secret.sdv": Path("secret.sdv").read_bytes()}.items():
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
    assert Path("out.avi").read_bytes() == OLD, "the older file was harmed"


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
    expect("sum", [document["summary"][key] for key in ("pictures", "failed")], [300, 1])
    check_files({"new/in/plain.avi": 100, "new/top.avi": 100})
    table = run(*command, "--overwrite", "--key", KEY, code=7).stdout
    assert "4 files: 3 done, 1 damaged, 0 failed" in table and "\x1b" not in table, table
    assert run(*command[:-1], "--quiet", code=6).stdout == "", "not quiet"
    run(SDV2AVI, "plain.sdv", "tree/in/plain.sdv", "-o", "starts", "--start-time")
    expect("names by start", {*os.listdir("starts")}, {f"20260309-140559{n}.avi" for n in ("", "-2")})
    fewer = run(SDV2AVI, "plain.sdv", "-o", "part.avi", "--split", "1.5s", "--overwrite")
    assert "part-003.avi is an older file" in fewer.stderr, "parts of two conversions"


def progress_on_a_terminal():
    ours, theirs = pty.openpty()
    running = subprocess.Popen([SDV2AVI, "long.sdv", "-o", "shown.avi"], stdout=theirs, stderr=theirs)
    os.close(theirs)
    shown = b""
    while running.poll() is None:
        shown += os.read(ours, 4096) if b"pictures" not in shown else b""
    os.close(ours)
    assert b"MB/s" in shown and b"left  long.sdv" in shown and b"140217" not in shown, shown


def avicheck():
    """The worst of several files is the exit code; and findings as text, as JSON, and not at all."""
    run(SDV2AVI, "plain.sdv", "-o", "sound.avi")
    sound = Path("sound.avi").read_bytes()
    Path("long.avi").write_bytes(sound + b"x")
    Path("\x1b.avi").write_bytes(sound)
    Path("cut.avi").write_bytes(bytes(328) + sound[328:90000])
    for code, *files in (0, "sound.avi"), (0, "\x1b.avi"), (7, "long.avi"), (7, "cut.avi", "sound.avi"), \
                        (3, "plain.sdv", "none.avi"), (1, "none.avi"):
        for option in [], ["-q"], ["--json"]:
            done = run(AVICHECK, *option, *files, code=code)
            assert not done.stderr and bool(done.stdout) == (option != ["-q"]) and "\x1b" not in done.stdout, done
        told = json.loads(done.stdout)
        expect("files", [one["path"] for one in told if one["sound"] == (not one["findings"])], files)
        assert code or told[0]["streams"][1]["coding"] == "mulaw", told
    for code, file, said, *audio in (1, "cut.avi", ""), (0, "cut.avi", "", "--audio", "mulaw", "-o", "mended.avi"), \
                                    (1, "cut.avi", "", "--audio", "none", "-o", "mended.avi"), \
                                    (2, "cut.avi", "", "--from", "plain.sdv", "-o", "plain.sdv", "--overwrite"), \
                                    (0, "cut.avi", "finished: 55 pictures", "--audio", "mulaw"), \
                                    (0, "cut.avi", "sound already"), (1, "none.avi", "No such file"):
        done = run(AVICHECK, "--repair", file, *audio, code=code)
        assert said in (done.stderr if file == "none.avi" else done.stdout), done
    expect("pictures", pictures(Path("mended.avi")), 55)


def sdvmake():
    """Of an AVI file, and what it does not understand."""
    run(SDV2AVI, "plain.sdv", "-o", "first.avi")
    made = json.loads(run(SDVMAKE, "--from-avi", "first.avi", "-o", "again.sdv", "--json").stdout)
    run(SDVMAKE, "--from-avi", "first.avi", "-o", "again.sdv", code=6)
    expect("what was made", (made["frames"], made["bytes"], made["audio"]), (100, os.stat("again.sdv").st_size, True))
    run(SDV2AVI, "again.sdv")
    assert Path("first.avi").read_bytes() == Path("again.avi").read_bytes(), "another AVI file"
    starts = "2024-02-30 10:00:00", "2024-02-30", "2024-01-01 24:00:00", "0000-00-00 00:00:00"
    for said, *arguments in (*((start, "--from-avi", "first.avi", "--start", start) for start in starts),
                             ("VIDEO or",), ("does not begin with", "first.avi"), ("65535", "--rate", "70000"),
                             ("{aac,alaw,mulaw}", "--audio", "x", "--audio-code", "mp3")):
        assert said in run(SDVMAKE, *arguments, "-o", "no.sdv", code=2).stderr, said
    assert not os.path.exists("no.sdv")


if __name__ == "__main__":
    go_through([(what, check_failure, *rest) for what, *rest in FAILURES]
               + [(what, check_success, *rest) for what, *rest in SUCCESSES]
               + [("SIGTERM", check_signal, signal.SIGTERM, False), ("SIGINT", check_signal, signal.SIGINT, True)]
               + [(f"unreadable: {what}", check_unreadable, *rest) for what, *rest in UNREADABLE]
               + [(check.__name__, check) for check in (
                   parts_together, standard_input, killed, planted_links, key_in_environment,
                   many_at_a_time, progress_on_a_terminal, avicheck, sdvmake)], prepare)
