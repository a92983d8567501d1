#!/usr/bin/env python3
"""How sdv2avi fails: with one line that names the cause, and with nothing lost.

    cli.py SDVMAKE SDV2AVI AVI_VERIFY DATA_DIR
"""
import os
import resource
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

KEY, OTHER_KEY = "00112233445566778899aabbccddeeff", "ff112233445566778899aabbccddeeff"
OLD = b"an older file"
UMASK = 0o027


SMALL = {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (65536, 65536))}
# What goes wrong, the arguments, a part of the message; more for subprocess.
FAILURES = [
    ("missing input", ["nothing.sdv", "-o", "out.avi"], "nothing.sdv: No such file"),
    ("input is a directory", ["dir", "-o", "out.avi"], "no regular file"),
    ("garbage input", ["garbage.sdv", "-o", "out.avi"], "no SDV recording"),
    ("no key frame", ["headers.sdv", "-o", "out.avi"], "no key frame"),
    ("wrong key", ["secret.sdv", "-o", "out.avi", "--key", OTHER_KEY], "key is wrong"),
    ("no key", ["secret.sdv", "-o", "out.avi"], "needs a key"),
    ("key that is no hex text", ["secret.sdv", "-o", "out.avi", "--key", "xyz"], ""),
    ("missing key file", ["secret.sdv", "-o", "out.avi", "--key-file", "nokey"], "cannot open the key file"),
    ("missing output directory", ["plain.sdv", "-o", "no/out.avi"], "No such file"),
    ("output in a file", ["plain.sdv", "-o", "empty.sdv/out.avi"], "Not a directory"),
    ("output is a directory", ["plain.sdv", "-o", "dir"], "is a directory"),
    ("output is a device", ["plain.sdv", "-o", "/dev/full"], "no regular file"),
    ("same file by another name", ["plain.sdv", "-o", "link.avi"], "same file"),
    ("input path too long", ["./" * 140 + "plain.sdv", "-o", "out.avi"], "longer than 259 bytes"),
    ("output path too long", ["plain.sdv", "-o", "./" * 140 + "out.avi"], "longer than 252 bytes"),
    ("disk full", ["plain.sdv", "-o", "out.avi"], "cannot be written", SMALL),
]


def prepare(work, sdvmake, data):
    video = [str(data / "clip.h264"), "--audio", str(data / "tone.ulaw"), "--audio-code", "mulaw"]
    subprocess.run([sdvmake, *video, "-o", work / "plain.sdv"], check=True, capture_output=True)
    subprocess.run([sdvmake, *video, "--key", KEY, "-o", work / "secret.sdv"], check=True, capture_output=True)
    plain = (work / "plain.sdv").read_bytes()
    (work / "headers.sdv").write_bytes(plain[:88])
    (work / "garbage.sdv").write_bytes(b"\x55" * 4096)
    (work / "empty.sdv").write_bytes(b"")
    (work / "out.avi").write_bytes(OLD)
    (work / "dir").mkdir()
    (work / "link.avi").symlink_to("plain.sdv")
    # A second of work and more: frames, and then a hole to search for more of them.
    (work / "long.sdv").write_bytes(plain)
    os.truncate(work / "long.sdv", 1 << 31)


def contents(work):
    return {path: None if path.is_dir() else path.stat().st_size for path in work.iterdir()}


def check_failure(work, sdv2avi, arguments, message, more={}):
    before = contents(work)
    done = subprocess.run([sdv2avi, *arguments], cwd=work, capture_output=True, timeout=60, **more)
    error = done.stderr.decode()
    assert done.returncode == 1, f"exit code {done.returncode}"
    assert done.stdout == b"", f"standard output: {done.stdout}"
    assert error.startswith("sdv2avi: ") and error.count("\n") == 1 and message in error, f"message: {error}"
    assert contents(work) == before, "files came or went"
    assert (work / "out.avi").read_bytes() == OLD, "the older file was harmed"


def check_signal(work, sdv2avi, number):
    before = contents(work)
    running = subprocess.Popen([sdv2avi, "long.sdv", "-o", "out.avi"], cwd=work, stdout=subprocess.PIPE)
    deadline = time.monotonic() + 20
    while not any(path.name.startswith("out.avi.") and path.stat().st_size for path in work.iterdir()):
        assert running.poll() is None and time.monotonic() < deadline, "no temporary file was seen"
    running.send_signal(number)
    assert running.wait(20) == 128 + number, f"exit code {running.returncode}"
    assert running.stdout.read() == b""
    assert contents(work) == before, "files came or went"


def check_success(work, sdv2avi, verify, arguments, output, **more):
    done = subprocess.run([sdv2avi, *arguments], cwd=work, capture_output=True, timeout=60, **more)
    assert done.returncode == 0, done.stderr
    wanted = b"" if more else f"{output}: 100 pictures\n".encode()
    assert done.stdout == wanted and done.stderr == b"", done.stdout + done.stderr
    assert subprocess.run([verify, work / output], capture_output=True).stdout == b""
    assert (work / output).stat().st_mode & 0o777 == 0o666 & ~UMASK


def cases(work, sdv2avi, verify):
    for what, *rest in FAILURES:
        yield what, lambda rest=rest: check_failure(work, sdv2avi, *rest)
    for number in (signal.SIGTERM, signal.SIGINT):
        yield f"{number.name} in mid-run", lambda number=number: check_signal(work, sdv2avi, number)
    keyed = ["secret.sdv", "--key", KEY, "-o", "out.avi"]
    yield "an older file is replaced", lambda: check_success(work, sdv2avi, verify, keyed, "out.avi")
    yield "output named after the input", lambda: check_success(work, sdv2avi, verify, ["plain.sdv"], "plain.avi")
    yield "closed standard output", lambda: check_success(
        work, sdv2avi, verify, ["plain.sdv"], "plain.avi", preexec_fn=lambda: os.close(1))


def main():
    sdvmake, sdv2avi, verify, data = [Path(a).resolve() for a in sys.argv[1:5]]
    failed = 0
    with tempfile.TemporaryDirectory() as name:
        work = Path(name)
        prepare(work, sdvmake, data)
        for what, check in cases(work, sdv2avi, verify):
            try:
                check()
                print(f"ok      {what}")
            except (AssertionError, subprocess.TimeoutExpired) as reason:
                failed += 1
                print(f"FAILED  {what}: {reason}")
    return f"{failed} failed" if failed else 0


if __name__ == "__main__":
    os.umask(UMASK)
    sys.exit(main())
