#!/usr/bin/env python3
"""sdvrecord, with a plain socket as its camera.

    record.py SDVMAKE SDV2AVI AVI_VERIFY DATA_DIR SDVRECORD
"""
import contextlib
import os
import random
import resource
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
from pathlib import Path

START, KEY = "20260309-140559", "00112233445566778899aabbccddeeff"
TIMEOUT = 30


def small_files():
    resource.setrlimit(resource.RLIMIT_FSIZE, (150_000, 150_000))


class Run:
    """A recorder in a directory of its own; at the end it has ended by itself or is made to."""

    def __init__(self, tools, out, *options, env={}, preexec_fn=None):
        self.tools, self.out = tools, out
        out.mkdir(exist_ok=True)
        self.process = subprocess.Popen(
            [tools.record, "--listen", "127.0.0.1:0", "--out", out, *options], stdout=subprocess.PIPE,
            stderr=open(str(out) + ".log", "w"), text=True, preexec_fn=preexec_fn, env={**os.environ, **env})
        where = self.process.stdout.readline().split()
        assert where[:2] == ["listening", "on"], f"first line: {where}, {self.log()}"
        self.port = int(where[2].split(":")[1])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), timeout=TIMEOUT)

    def send(self, data):
        with self.connect() as camera, contextlib.suppress(ConnectionError):
            camera.sendall(data)

    def log(self):
        return Path(str(self.out) + ".log").read_text()

    def names(self):
        return sorted(path.name for path in self.out.iterdir())

    def until(self, what, true):
        deadline = time.monotonic() + TIMEOUT
        while not true():
            assert time.monotonic() < deadline, f"waited in vain: {what}; {self.names()}; {self.log()}"
            time.sleep(0.02)

    def end(self, code, names=None):
        output = self.process.communicate(timeout=TIMEOUT)[0]
        assert self.process.returncode == code, f"exit code {self.process.returncode}: {self.log()}"
        assert names is None or self.names() == names, f"{self.names()} instead of {names}: {self.log()}"
        assert "140217" not in output and "ftell" not in output, "markers of the library"

    def pictures(self):
        """Of all files that are there, which must be sound, each."""
        count = 0
        for path in self.out.glob("*.avi"):
            checked = subprocess.run([self.tools.verify, path], capture_output=True, text=True, timeout=TIMEOUT)
            assert checked.returncode == 0 and not checked.stdout, f"{path.name}: {checked.stdout}"
            count += struct.unpack_from("<I", path.read_bytes(), 48)[0]
        return count


class Tools:
    def __init__(self, arguments):
        self.make, self.convert, self.verify, self.data, self.record = [Path(a).resolve() for a in arguments]

    def recording(self, work, *options):
        """What comes over the wire, and the AVI file that it is."""
        subprocess.run([self.make, self.data / "clip.h264", "--audio", self.data / "tone.ulaw", "--audio-code",
                        "mulaw", "-o", work / "a.sdv", *options], check=True, capture_output=True)
        with open(work / "a.sdv", "r+b") as file:  # a camera that names no audio format: the usual one is meant
            os.pwrite(file.fileno(), bytes(6), 74)
        keys = options[-2:] if "--key" in options else []
        subprocess.run([self.convert, work / "a.sdv", "-o", work / "a.avi", *keys], check=True, capture_output=True)
        return (work / "a.sdv").read_bytes(), (work / "a.avi").read_bytes()


def odd_pieces(tools, work):
    for options, env in ((), {}), (("--key", KEY), {"SDV_KEY": KEY}):
        stream, avi = tools.recording(work, "--start", "2026-03-09 14:05:59", *options)
        with Run(tools, work / f"out{len(options)}", "--once", env=env) as run, run.connect() as camera:
            camera.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            pieces = random.Random(1)
            at = 0
            while at < len(stream):
                size = pieces.choice((1, 7, 31, 88, 1460, 50_001))
                at += camera.send(stream[at : at + size])
            camera.shutdown(socket.SHUT_WR)
            run.end(0, [START + ".avi"])
            assert (run.out / f"{START}.avi").read_bytes() == avi, "another AVI file"


def one_at_a_time(tools, work):
    """And that one to the last byte, although it sends faster than is read in one go."""
    stream, avi = tools.recording(work)
    with Run(tools, work / "out", "--once") as run, run.connect() as camera:
        camera.sendall(stream[:1000])
        with run.connect() as second:
            assert second.recv(1) == b"", "the second camera is not sent away"
        camera.sendall(stream[1000:] + 40 * stream[88:])
        part = run.out / run.names()[0]
        run.until("all of it", lambda: part.stat().st_size > 40 * len(avi))
        camera.close()
        run.end(0)
        assert run.log().count("refused") == 1 and run.pictures() == 4100, run.log()


def rotation(tools, work):
    stream, _ = tools.recording(work, "--start", "2026-03-09 14:05:59")
    with Run(tools, work / "out", "--once", "--max-size", "20000") as run:
        run.send(stream)
        run.end(0)
        assert f"{START}-2.avi" in run.names(), run.names()
        assert run.pictures() == 100, f"{run.pictures()} pictures"
        for path in run.out.iterdir():
            avi = path.read_bytes()
            assert path.stat().st_blocks * 512 < len(avi) + 65536, f"{path.name} holds room that it does not need"
            entries = struct.iter_unpack("<4sIII", avi[avi.rfind(b"idx1") + 8 :])
            assert next(e for e in entries if e[0] == b"00dc")[1] == 0x10, f"{path.name} begins without a key frame"


def names(tools, work):
    stream, _ = tools.recording(work, "--start", "2026-03-09 14:05:59")
    with Run(tools, work / "out") as run:
        (run.out / f"{START}.avi").write_bytes(b"older")
        for number in 2, 3:
            run.send(stream)
            run.until("a numbered name", lambda: f"{START}-{number}.avi" in run.names())
        run.process.send_signal(signal.SIGINT)
        run.end(0, [f"{START}-2.avi", f"{START}-3.avi", f"{START}.avi"])
        assert (run.out / f"{START}.avi").read_bytes() == b"older", "the older file was harmed"


def cut_short(tools, work):
    """Inside a frame: by the camera, by signals, by silence."""
    stream, _ = tools.recording(work, "--start", "2026-03-09 14:05:59")
    part = [f"{START}.avi.part"]
    for what in "close", signal.SIGTERM, signal.SIGKILL, "silence":
        with Run(tools, work / str(what), "--idle", "1", *["--once"] * isinstance(what, str)) as run:
            with run.connect() as camera:
                camera.sendall(stream[: len(stream) // 2])
                run.until("a part file", lambda: run.names() == part and (run.out / part[0]).stat().st_size > 50_000)
                if what == "close":
                    camera.close()
                elif what != "silence":
                    run.process.send_signal(what)
                run.end(-9 if what == signal.SIGKILL else 0, part if what == signal.SIGKILL else [f"{START}.avi"])
            assert what == signal.SIGKILL or 30 < run.pictures() < 70, f"{what}: {run.pictures()} pictures"


def full_disk(tools, work):
    stream, _ = tools.recording(work, "--start", "2026-03-09 14:05:59")
    disk = work / "disk"
    disk.mkdir()
    mount = ["mount", "-t", "tmpfs", "-o", "size=160k", "tmpfs", disk]
    mounted = os.geteuid() == 0 and subprocess.run(mount, capture_output=True).returncode == 0
    try:
        for out, limit in [(work / "limit", small_files)] + [(disk, None)] * mounted:
            with Run(tools, out, preexec_fn=limit) as run:
                run.send(stream)
                run.end(1, [f"{START}.avi"])
                assert "no room" in run.log() and 20 < run.pictures() < 100, f"{run.pictures()}, {run.log()}"
    finally:
        if mounted:
            subprocess.run(["umount", disk], check=True)


def nothing(tools, work):
    """Nothing to record is no success, and leaves nothing behind. The key is in no message."""
    stream, _ = tools.recording(work, "--key", KEY)
    for data, key in (b"\x55" * 4096, KEY), (stream[:88], KEY), (stream, KEY[::-1]), (b"", KEY):
        with Run(tools, work / "out", "--once", env={"SDV_KEY": key}) as run:
            run.send(data)
            run.end(1, [])
            assert key not in run.log()


def main():
    tools = Tools(sys.argv[1:6])
    failed = 0
    checks = [odd_pieces, one_at_a_time, rotation, names, cut_short, full_disk, nothing]
    for check in checks:
        with tempfile.TemporaryDirectory() as name:
            try:
                check(tools, Path(name))
                print(f"ok      {check.__name__}", flush=True)
            except (AssertionError, OSError, subprocess.SubprocessError) as reason:
                failed += 1
                print(f"FAILED  {check.__name__}: {reason}", flush=True)
    print(f"{len(checks) - failed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
