#!/usr/bin/env python3
"""sdvrecord, with a plain socket as its camera.

    record.py SDVMAKE SDV2AVI AVICHECK DATA_DIR SDVRECORD
"""
import contextlib
import json
import os
import random
import resource
import shutil
import signal
import socket
import struct
import subprocess
import sys
import time
from pathlib import Path

from checks import AVICHECK, DATA, KEY, SDV2AVI, TONE, expect, go_through, make, pictures, run as run_tool

SDVRECORD = Path(sys.argv[5]).resolve()
START = "20260309-140559"
TIMEOUT = 30


class Run:
    """A recorder in a directory of its own; at the end it has ended by itself or is made to."""

    def __init__(self, *options, out="out", env={}, preexec_fn=None):
        self.out = Path(out)
        self.out.mkdir(exist_ok=True)
        where = [] if "--connect" in options else ["--listen", "127.0.0.1:0"]
        self.process = subprocess.Popen(
            [SDVRECORD, *where, "--out", out, *options], stdout=subprocess.PIPE,
            stderr=open(out + ".log", "w"), text=True, preexec_fn=preexec_fn, env={**os.environ, **env})
        if "--json" in options:
            self.port = int(self.event("started").get("listen", ":0").split(":")[1])
        elif where:
            line = self.process.stdout.readline().split()
            assert line[:2] == ["listening", "on"], f"first line: {line}, {self.log()}"
            self.port = int(line[2].split(":")[1])

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

    def event(self, name):
        """The next one of this name; every line is an object, whatever the library had to say."""
        for line in self.process.stdout:
            event = json.loads(line)
            if event["event"] == name:
                return event
        raise AssertionError(f"no event {name}: {self.log()}")

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
        return sum(pictures(path) for path in self.out.glob("*.avi"))


def recording(*options, sound=TONE):
    """What comes over the wire, and the AVI file that it is."""
    make("a.sdv", "--start", "2026-03-09 14:05:59", *options, sound=sound)
    with open("a.sdv", "r+b") as file:  # a camera that names no audio format: the usual one is meant
        os.pwrite(file.fileno(), bytes(6), 74)
    run_tool(SDV2AVI, "--overwrite", "a.sdv", *options)
    return Path("a.sdv").read_bytes(), Path("a.avi").read_bytes()


def odd_pieces():
    for options, env in ((), {}), (("--key", KEY), {"SDV_KEY": KEY}):
        stream, avi = recording(*options)
        with Run("--once", out=f"out{len(options)}", env=env) as run, run.connect() as camera:
            camera.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            pieces = random.Random(1)
            at = 0
            while at < len(stream):
                size = pieces.choice((1, 7, 31, 88, 1460, 50_001))
                at += camera.send(stream[at : at + size])
            camera.shutdown(socket.SHUT_WR)
            run.end(0, [START + ".avi"])
            assert (run.out / f"{START}.avi").read_bytes() == avi, "another AVI file"


def one_at_a_time():
    """And that one to the last byte, although it sends faster than is read in one go."""
    stream, avi = recording()
    with Run("--once") as run, run.connect() as camera:
        camera.sendall(stream[:1000])
        with run.connect() as second:
            assert second.recv(1) == b"", "the second camera is not sent away"
        camera.sendall(stream[1000:] + 40 * stream[88:])
        part = run.out / run.names()[0]
        run.until("all of it", lambda: part.stat().st_size > 40 * len(avi))
        camera.close()
        run.end(0)
        assert run.log().count("refused") == 1 and run.pictures() == 4100, run.log()


def rotation():
    stream, _ = recording()
    with Run("--once", "--max-size", "20K") as run:
        run.send(stream)
        run.end(0)
        assert f"{START}-2.avi" in run.names(), run.names()
        assert run.pictures() == 100, f"{run.pictures()} pictures"
        for path in run.out.iterdir():
            avi = path.read_bytes()
            assert path.stat().st_blocks * 512 < len(avi) + 65536, f"{path.name} holds room that it does not need"
            entries = struct.iter_unpack("<4sIII", avi[avi.rfind(b"idx1") + 8 :])
            assert next(e for e in entries if e[0] == b"00dc")[1] == 0x10, f"{path.name} begins without a key frame"


def names():
    stream, _ = recording()
    with Run() as run:
        (run.out / f"{START}.avi").write_bytes(b"older")
        for number in 2, 3:
            run.send(stream)
            run.until("a numbered name", lambda: f"{START}-{number}.avi" in run.names())
        run.process.send_signal(signal.SIGINT)
        run.end(0, [f"{START}-2.avi", f"{START}-3.avi", f"{START}.avi"])
        assert (run.out / f"{START}.avi").read_bytes() == b"older", "the older file was harmed"


def cut_short():
    """Inside a frame: by the camera, by a signal, by silence."""
    stream, _ = recording()
    part = [f"{START}.avi.part"]
    for what in "close", signal.SIGTERM, "silence":
        with Run("--idle", "1", *["--once"] * isinstance(what, str), out=str(what)) as run:
            with run.connect() as camera:
                camera.sendall(stream[: len(stream) // 2])
                run.until("a part file", lambda: run.names() == part and (run.out / part[0]).stat().st_size > 50_000)
                if what == "close":
                    camera.close()
                elif what != "silence":
                    run.process.send_signal(what)
                run.end(0, [f"{START}.avi"])
            assert 30 < run.pictures() < 70, f"{what}: {run.pictures()} pictures"


def calling():
    """The recorder calls the camera: until it is there, and again when it is lost or says nothing sensible."""
    stream, avi = recording()
    with socket.socket() as server:
        server.bind(("127.0.0.1", 0))
        peer = "localhost:%d" % server.getsockname()[1]
        with Run("--connect", peer, "--json", "--preview") as run:
            assert [run.event("unreachable")["next_call"] for _ in range(3)] == [1, 2, 4]
            server.listen()
            server.settimeout(TIMEOUT)
            for data, frames, reason in (b"\x55" * 4096, 0, "no SDV recording"), *2 * [(stream, 100, "ended")]:
                with server.accept()[0] as camera, contextlib.suppress(ConnectionError):
                    expect("peer", run.event("connected")["peer"], peer)
                    camera.sendall(data)
                    status = {"bytes": 0 if frames else len(data)}
                    while status["bytes"] < len(data):
                        status = run.event("status")
                    assert not frames or (status["frames"], status["dropped"]) == (frames, 0), status
                lost = run.event("lost")
                assert lost["peer"] == peer and reason in lost["reason"], lost
                if frames:
                    file = run.event("file")
                    expect("file", (file["pictures"], file["bytes"], file["report"]["frames_recorded"]),
                           (frames, len(avi), frames))
            run.process.send_signal(signal.SIGTERM)
            assert run.event("stopped")["files"] == 2
            run.end(0, [f"{START}-2.avi", f"{START}.avi"])
            assert run.pictures() == 200, run.log()


def next_file():
    """A new file at a key frame: when asked for, and by time."""
    stream, _ = recording()
    for what, options in (signal.SIGHUP, []), ("time", ["--max-time", "1s"]):
        with Run("--once", "--preview", *options, out=f"out{what}") as run, run.connect() as camera:
            camera.sendall(stream[: len(stream) // 2])
            run.until("pictures", lambda: " frames" in run.process.stdout.readline())
            if what == signal.SIGHUP:
                run.process.send_signal(what)
                for _ in range(2):  # seconds, for the signal to arrive
                    assert " frames" in run.process.stdout.readline()
            else:
                time.sleep(1)
            camera.sendall(stream[len(stream) // 2 :])
            camera.shutdown(socket.SHUT_WR)
            run.end(0)
            assert len(run.names()) == 2 and run.pictures() == 100, f"{what}: {run.names()}"


def killed():
    """What a killed run left is finished by the next one; the files of a run that lives are its own."""
    for sound in TONE, None:
        stream, _ = recording(sound=sound)
        out = Path(f"out{sound}")
        part = out / f"{START}.avi.part"
        with Run(out=str(out)) as run, run.connect() as camera:
            camera.sendall(stream[: len(stream) // 2])
            run.until("pictures", lambda: part.exists() and part.stat().st_size > 50_000)
            with Run(out=str(out)) as other:
                other.process.send_signal(signal.SIGTERM)
                other.end(0, [part.name])
            assert "being written" in run_tool(AVICHECK, "--repair", part, code=1).stderr
            run.process.kill()
            run.process.wait()
        (out / "20260101-000000.avi.part").touch()
        (out / "20260102-000000.avi.part").write_bytes(b"no AVI file")
        with Run("--json", out=str(out)) as run:
            run.process.send_signal(signal.SIGTERM)
            run.end(0, ["20260102-000000.avi.part", part.stem])
            assert 30 < run.pictures() < 70, f"{run.pictures()} pictures"


def full_disk():
    stream, _ = recording()
    small = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (150_000, 150_000))
    os.mkdir("disk")
    mount = ["mount", "-t", "tmpfs", "-o", "size=160k", "tmpfs", "disk"]
    mounted = os.geteuid() == 0 and subprocess.run(mount, capture_output=True).returncode == 0
    try:
        for out, limit in [("limit", small)] + [("disk", None)] * mounted:
            with Run(out=out, preexec_fn=limit) as run:
                run.send(stream)
                run.end(6, [f"{START}.avi"])
                assert "no room" in run.log() and 20 < run.pictures() < 100, f"{run.pictures()}, {run.log()}"
    finally:
        if mounted:
            run_tool("umount", "disk")


def nothing():
    """Nothing to record is no success, and leaves nothing behind. The key is in no message."""
    stream, _ = recording("--key", KEY)
    for data, key, code in ((b"\x55" * 4096, KEY, 3), (stream[:88], KEY, 1), (stream, KEY[::-1], 5),
                            (stream, "", 5), (b"", KEY, 1)):
        with Run("--once", env={"SDV_KEY": key}) as run:
            run.send(data)
            run.end(code, [])
            assert KEY not in run.log() and KEY[::-1] not in run.log()


def unit():
    """The example of a unit is one that systemd understands."""
    if not shutil.which("systemd-analyze"):
        return
    text = (DATA.parents[1] / "examples" / "sdvrecord.service").read_text()
    Path("sdvrecord.service").write_text(text.replace("/usr/bin/sdvrecord", str(SDVRECORD)))
    assert "sdvrecord" not in run_tool("systemd-analyze", "verify", "./sdvrecord.service").stderr


if __name__ == "__main__":
    go_through((check.__name__, check) for check in (odd_pieces, one_at_a_time, rotation, names, cut_short, calling,
                                                     next_file, killed, full_disk, nothing, unit))
