#!/usr/bin/env python3
"""sdvrecord, with a plain socket as its camera.

    record.py SDVMAKE SDV2AVI AVICHECK DATA_DIR SDVRECORD SHIM
"""
import contextlib
import json
import os
import random
import re
import resource
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time
from errno import EOPNOTSUPP
from pathlib import Path

from checks import AVICHECK, DATA, KEY, SDV2AVI, TONE, expect, go_through, make, pictures, run as run_tool

SDVRECORD, SHIM = [Path(path).resolve() for path in sys.argv[5:7]]
START = "20260309-140559"
TIMEOUT = 30


class Run(subprocess.Popen):
    """A recorder in a directory of its own; at the end it has ended by itself or is made to."""

    def __init__(self, *options, out="out", env={}, log=None, **more):
        self.out = Path(out)
        self.out.mkdir(exist_ok=True)
        where = [] if "--connect" in options else ["--listen", "127.0.0.1:0"]
        super().__init__([SDVRECORD, *where, "--out", out, *options], stdout=subprocess.PIPE, text=True,
                         stderr=log or open(out + ".log", "w"), env={**os.environ, **env}, **more)
        patience = threading.Timer(4 * TIMEOUT, self.kill)  # of whoever reads what it says
        patience.daemon = True
        patience.start()
        first = str(self.event("started")) if "--json" in options else self.stdout.readline()
        address = re.search(r"(?:listening on |'listen': '|'connect': ')\w[\w.]*:(\d+)", first)
        assert address, f"first line: {first}, {self.log()}"
        self.port = int(address[1])

    def __exit__(self, *reason):
        self.kill()
        super().__exit__(*reason)

    def connect(self, own="127.0.0.1"):
        return socket.create_connection(("127.0.0.1", self.port), TIMEOUT, (own, 0))

    def refuse(self):
        """Somebody from elsewhere: the camera's own address would be let in once the camera is silent."""
        with self.connect("127.0.0.2") as stranger:
            assert stranger.recv(1) == b"", "a stranger is not sent away"

    def send(self, data):
        with self.connect() as camera, contextlib.suppress(ConnectionError):
            camera.sendall(data)

    def event(self, name):
        """The next one of this name; every line is an object, whatever the library had to say."""
        for line in self.stdout:
            event = json.loads(line)
            if event["event"] == name:
                return event
        raise AssertionError(f"no event {name}: {self.log()}")

    def log(self):
        log = Path(str(self.out) + ".log")
        return log.read_text() if log.exists() else "(nobody reads it)"

    def names(self):
        return sorted(path.name for path in self.out.iterdir())

    def until(self, what, true):
        deadline = time.monotonic() + TIMEOUT
        while not true():
            assert time.monotonic() < deadline, f"waited in vain: {what}; {self.names()}; {self.log()}"
            time.sleep(0.02)

    def written(self, part, least=50_000):
        self.until(f"{least} bytes", lambda: part.exists() and part.stat().st_size > least)

    def stop(self, names=None):
        self.send_signal(signal.SIGTERM)
        self.end(0, names)

    def end(self, code, names=None):
        output = self.communicate(timeout=TIMEOUT)[0]
        expect(f"exit code, {self.log()}", self.returncode, code)
        expect(f"files, {self.log()}", self.names(), self.names() if names is None else names)
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
    pieces = random.Random(1)
    for options, env in ((), {}), (("--key", KEY), {"SDV_KEY": KEY}):
        stream, avi = recording(*options)
        with Run("--once", out=f"out{len(options)}", env=env) as run, run.connect() as camera:
            camera.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            while stream:
                stream = stream[camera.send(stream[: pieces.choice((1, 7, 31, 88, 1460, 50_001))]) :]
            camera.shutdown(socket.SHUT_WR)
            run.end(0, [START + ".avi"])
            assert (run.out / f"{START}.avi").read_bytes() == avi, "another AVI file"


def one_at_a_time():
    """And that one to the last byte, although it sends faster than is read in one go; then the next. Nobody reads."""
    stream, avi = recording()
    files = [f"{START}-2.avi", f"{START}.avi"]
    with Run("--json") as run:
        unread = os.open(f"/proc/self/fd/{run.stdout.fileno()}", os.O_WRONLY | os.O_NONBLOCK)
        os.write(unread, bytes(1 << 20))
        os.close(unread)
        with run.connect() as camera:
            camera.sendall(stream[:50])
            run.refuse()
            camera.sendall(stream[50:] + 40 * stream[88:])
            run.written(run.out / f"{START}.avi.part", 40 * len(avi))
        run.until("the file", lambda: run.names() == files[1:])
        run.send(stream)
        run.until("another file", lambda: run.names() == files)
        with run.connect() as camera:  # whose file is another's when it is to get its name
            camera.sendall(stream[:100_000])
            run.written(run.out / f"{START}-3.avi.part")
            Path("stranger").write_bytes(b"another's")
            os.replace("stranger", run.out / f"{START}-3.avi.part")
            run.send_signal(signal.SIGINT)
            run.end(6, sorted([*files, f"{START}-3.avi.part"]))
        assert run.log().count("refused") == 1 and run.pictures() == 4200, run.log()


def cut_short():
    """Inside a frame: by the camera, by a signal, by silence."""
    stream, _ = recording()
    for what, *options in ("close", "--once"), ("signal",), ("silence", "--once", "--idle", "2"):
        with Run(*options, out=what) as run, run.connect() as camera:
            camera.sendall(stream[: len(stream) // 2])
            part = run.out / f"{START}.avi.part"
            if what != "silence":
                run.written(part)
                camera.close() if what == "close" else run.send_signal(signal.SIGTERM)
            run.end(0, [part.stem])
            assert 30 < run.pictures() < 70, f"{what}: {run.pictures()} pictures"


def calling():
    """The recorder calls the camera: until it is there, and again when it is lost or says nothing sensible."""
    stream, avi = recording()
    with socket.socket() as server:
        server.bind(("127.0.0.1", 0))
        peer = "localhost:%d" % server.getsockname()[1]
        with Run("--connect", peer, "--json", "--preview") as run:
            (run.out / f"{START}.avi").write_bytes(b"older")
            assert [run.event("unreachable")["next_call"] for _ in range(2)] == [1, 2]
            server.listen()
            server.settimeout(TIMEOUT)
            for data, frames, reason in (b"\x55" * 4096, 0, "no SDV recording"), *2 * [(stream, 100, "ended")]:
                with server.accept()[0] as camera, contextlib.suppress(ConnectionError):
                    expect("peer", run.event("connected")["peer"], peer)
                    camera.sendall(data)
                    status = {"bytes": 0, "frames": 0, "dropped": 0}
                    while frames and status["bytes"] < len(data):
                        status = run.event("status")
                    expect("status", (status["frames"], status["dropped"]), (frames, 0))
                lost = run.event("lost")
                assert lost["peer"] == peer and reason in lost["reason"], lost
                if frames:
                    file = run.event("file")
                    expect("file", (file["pictures"], file["bytes"], file["report"]["frames_recorded"]),
                           (frames, len(avi), frames))
            server.close()
            assert run.event("unreachable")["next_call"] < 8, "the pause stays long"
            run.send_signal(signal.SIGTERM)
            assert run.event("stopped")["files"] == 2
            run.end(0)
            assert {path.name: path.read_bytes() for path in run.out.iterdir()} == {
                f"{START}.avi": b"older", f"{START}-2.avi": avi, f"{START}-3.avi": avi}, run.names()


def next_file():
    """A new file at a key frame: when asked for, by time and by size. None keeps room that it does not need."""
    stream, _ = recording()
    for what, files, *options in ("signal", 2), ("time", 2, "--max-time", "1s"), ("size", 4, "--max-size", "20K"):
        with Run("--once", "--preview", *options, out=what) as run, run.connect() as camera:
            camera.sendall(stream[: len(stream) // 2])
            if what != "size":
                run.until("pictures", lambda: " frames" in run.stdout.readline())
                run.send_signal(signal.SIGHUP if what == "signal" else 0)
                for _ in range(2):  # seconds, for the signal to arrive, or the time to pass
                    assert " frames" in run.stdout.readline()
            camera.sendall(stream[len(stream) // 2 :])
            camera.shutdown(socket.SHUT_WR)
            run.end(0)
            expect(f"pictures, {what}", run.pictures(), 100)
            made = len(run.names())  # a busy machine may take seconds for the rest, too
            assert made == files or what == "time" and made > files, f"{what}: {run.names()}"
            assert all(file.st_blocks * 512 < file.st_size + 65536 for file in map(os.stat, run.out.iterdir())), what


def every_event():
    """Hundreds of files that get their names at the end are told to a reader who goes on reading, and so is the end."""
    stream, _ = recording(sound=None)
    with Run("--json", "--once", "--max-size", "1") as run:
        run.send(stream + 99 * stream[88:])
        events = [json.loads(line)["event"] for line in run.stdout]
        expect("events", (events.count("file"), events[-1]), (400, "stopped"))
        run.end(0)


def killed():
    """What a killed run left is finished by the next one; the files of a run that lives beside are its own."""
    silent, sound = recording(sound=None)[0], recording()[0]
    late = sound[:88] + silent[88:5000] + sound[88:]  # audio that joins behind the first frames
    for what, stream in ("sound", sound), ("silent", silent), ("late", late):
        out = f"out-{what}"
        part, live = [Path(out) / f"{START}{number}.avi.part" for number in ("", "-2")]
        with Run(out=out) as run, run.connect() as camera, Run(out=out) as beside, beside.connect() as second:
            for path, peer in (part, camera), (live, second):
                peer.sendall(stream[: len(stream) // 2])
                run.written(path)
            assert "being written" in run_tool(AVICHECK, "--repair", part, code=1).stderr
            run.kill()
            run.wait()
            part.with_name("20260101-000000.avi.part").touch()
            part.with_name("20260102-000000.avi.part").write_bytes(b"no AVI file")
            with Run("--json", out=out) as run:
                assert "no chunks" in run.event("not_repaired")["what"]
                expect("repaired", run.event("repaired")["path"], str(part)[:-5])
                run.stop(["20260102-000000.avi.part", live.name, part.stem])
            second.sendall(stream[len(stream) // 2 :])
            second.shutdown(socket.SHUT_WR)
            beside.until("its file", lambda: not live.exists())
            assert 130 < run.pictures() < 170, f"{run.pictures()} pictures"
            assert (b"01wb" in part.with_name(part.stem).read_bytes()) == (what != "silent"), what


def long_repair():
    """The camera does not wait for it, nor does SIGTERM; --once ends behind it. A hole takes minutes to read."""
    stream, _ = recording(sound=None)
    with Run() as run, run.connect() as camera:
        camera.sendall(stream[: len(stream) // 2])
        part = run.out / f"{START}.avi.part"
        run.written(part)
        run.kill()
    size = part.stat().st_size
    for what, once in ("a signal", []), ("the end", ["--once"]):
        os.truncate(part, 1 << 40)
        with Run("--json", *once) as run:
            run.send(stream)
            run.event("lost")
            locks, inode = Path("/proc/locks"), f":{part.stat().st_ino} "
            run.until("that it is at it", lambda: inode in locks.read_text())
            run.until("that it waits", lambda: not once or "still being finished" in run.log())
            run.send_signal(signal.SIGTERM)
            expect(what, "interrupted" in run.event("not_repaired")["what"], True)
            run.end(0)
        os.truncate(part, size)
    shutil.copy("a.avi", part.with_name(part.stem))  # somebody else's
    with Run("--once") as run:
        run.send(stream)
        run.end(0, [f"{START}{number}.avi" for number in ("-2", "-3", "-4", "-5", "")])
        assert 430 < run.pictures() < 470, f"{run.pictures()} pictures"


def little_memory():
    """Chunks of no length are 8 bytes in the file, and millions of them are held nowhere."""
    key = b"\0\0\0\1\x65"
    Path("a.avi.part").write_bytes(bytes(224) + b"00dc" + len(key).to_bytes(4, "little") + key + b"0" + 3_000_000 * b"00dc\0\0\0\0")
    known = "--width", "352", "--height", "288", "--rate", "25"
    for options in ("--repair", *known), ():
        limit = lambda: resource.setrlimit(resource.RLIMIT_AS, (40 << 20, 40 << 20))
        assert "3000001 pictures" in run_tool(AVICHECK, *options, "a.avi.part", preexec_fn=limit).stdout


def send_on(run, stream, true):
    """A camera that goes on until something is the case."""
    with run.connect() as camera:
        camera.sendall(stream[:88])
        def go_on():
            camera.sendall(stream[88:])
            time.sleep(0.1)
            return true()
        run.until("the recorder's answer", go_on)
        return camera.getsockname()[1]


def failing_disk():
    """A write fails in the middle of a frame: the camera stays, the file is finished, another one begun in time."""
    stream, _ = recording()
    room = resource.RLIM_INFINITY
    with Run("--json", "--preview") as run:
        part = run.out / f"{START}.avi.part"
        names, stage = lambda: [name for name in run.names() if name.endswith(".avi")], []
        takes = lambda most: resource.prlimit(run.pid, resource.RLIMIT_FSIZE, (most, room))

        def next_stage():
            size = part.stat().st_size if part.exists() else 0
            if not stage and size > 100_000:
                takes(size + 1000)
                stage.append("refused")
            elif stage == ["refused"] and "cannot be finished" in run.log():
                assert names() == [] and part.exists(), run.names()
                assert "being written" in run_tool(AVICHECK, "--repair", part, code=1).stderr
                takes(room)
                stage.append("taken")
            return len(stage) == 2 and "recording goes on" in run.log() and len(names()) == 1

        send_on(run, stream, next_stage)
        run.send_signal(signal.SIGTERM)
        told = {(event := json.loads(line))["event"]: event for line in reversed(list(run.stdout))}
        assert "File too large" in told["stalled"]["reason"], told
        lost = told["resumed"]["not_written"]
        assert lost > 10 and lost == told["lost"]["not_written"], told
        assert told["not_finished"]["path"] == str(part) and told["stopped"]["exit_code"] == 0, told
        run.end(0)
        expect("files", (names(), len(names())), (run.names(), 2))
        assert run.pictures() > 100, run.names()


def full_disk():
    """What is there is finished; the recorder waits for room, and ends with 6 as long as there is none."""
    stream, _ = recording()
    small = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (150_000, 150_000))
    with Run("--once", out="limit", preexec_fn=small) as run:
        run.send(stream)
        run.end(6, [f"{START}.avi"])
        assert "no room" in run.log() and 20 < run.pictures() < 100, f"{run.pictures()}, {run.log()}"
    os.mkdir("disk")
    mount = ["mount", "-t", "tmpfs", "-o", "size=8M", "tmpfs", "disk"]
    if os.geteuid() != 0 or subprocess.run(mount, capture_output=True).returncode:
        return
    with contextlib.ExitStack() as at_end:
        at_end.callback(run_tool, "umount", "disk")
        for env in {}, {"LD_PRELOAD": str(SHIM), "FAULT": f"fallocate:*:{EOPNOTSUPP}"}:
            Path("disk/other").write_bytes(bytes((8 << 20) - (1184 << 10)))
            with Run(out="disk", env=env) as run:
                send_on(run, stream, lambda: "no room" in run.log() and f"{START}.avi" in run.names())
                assert [name for name in run.names() if name.endswith("part")] == [], run.names()
                Path("disk/other").unlink()
                send_on(run, stream, lambda: "recording goes on" in run.log())
                run.stop()
                assert run.pictures() > 20, run.names()
            for path in run.out.iterdir():
                path.unlink()


def messages_unread():
    """Nobody reads standard error, and strangers knock: the recording goes on, and ends when it is to."""
    stream, avi = recording()
    reader, writer = os.pipe()
    os.write(writer, bytes(65536))
    with Run("--json", log=writer) as run, run.connect() as camera:
        camera.sendall(stream[:50])
        run.event("connected")
        for _ in range(900):
            run.refuse()
        camera.sendall(stream[50:])
        camera.shutdown(socket.SHUT_WR)
        run.until("its file", lambda: run.names() == [f"{START}.avi"])
        run.send_signal(signal.SIGTERM)
        events = [json.loads(line) for line in run.stdout]
        refused = [event["count"] for event in events if event["event"] == "refused"]
        assert sum(refused) == 900 and len(refused) < 20 and events[-1]["event"] == "stopped", events
        run.end(0, [f"{START}.avi"])
    assert (run.out / f"{START}.avi").read_bytes() == avi
    os.close(writer)
    os.close(reader)


def place():
    """Who keeps the place without frames loses it, and at once to the same camera; a slow one keeps it."""
    stream, avi = recording()
    with Run("--idle", "2") as run, run.connect() as slow:
        slow.sendall(stream[:100])
        for at in range(100, 5000, 700):  # the first frame, at a kilobyte a second and a little more
            time.sleep(0.5)
            slow.sendall(stream[at : at + 700])
        assert "has gone" not in run.log(), run.log()
        def is_sent_away():
            with contextlib.suppress(ConnectionError):
                slow.sendall(b"x")
            return "no frame for 2 s" in run.log()
        run.until("the end of its patience", is_sent_away)
    with Run() as run, run.connect() as dead:
        dead.sendall(stream[:1000])
        run.until("a camera", lambda: "is connected" in run.log())
        time.sleep(2.1)
        run.refuse()
        run.send(stream)
        run.until("its file", lambda: run.names() == [f"{START}.avi"])
        assert "called anew" in run.log() and run.log().count("refused") == 1, run.log()


def nothing():
    """Nothing to record is no success, and leaves nothing behind. The key is in no message."""
    stream, _ = recording("--key", KEY)
    for data, key, code in ((b"\x55" * 4096, KEY, 3), (stream[:88], KEY, 1), (stream, KEY[::-1], 5),
                            (stream, "", 5), (b"", KEY, 1)):
        with Run("--once", env={"SDV_KEY": key}) as run:
            run.send(data)
            run.end(code, [])
            assert KEY not in run.log() and KEY[::-1] not in run.log()
    for options in ("--out", "-"), ("--out", "out", "--key-file", "-"):
        assert "standard input" in run_tool(SDVRECORD, "--listen", "127.0.0.1:0", *options, code=2).stderr


def left_out():
    """What is in no file is told, with its cause, while the camera is there, and in the sums. No file but ours is touched."""
    (plain, avi), (secret, _) = recording(), recording("--key", KEY)
    frames, enciphered = ([stream[at:end] for at, end in bounds(stream)] for stream in (plain, secret))
    head, others = plain[:88], [frame for frame in frames if frame[8]]
    mixed = b"".join(b if a[8] else a for a, b in zip(enciphered, frames))  # key frames without a key, the others plain
    for name in "dbg", "log_2020-01-01":
        Path(name).touch()
    for what, key, data, lost, skipped, code in (
            ("no key", "", secret, {"no_key": 100}, 0, 5), ("wrong key", KEY[::-1], secret, {"wrong_key": 100}, 0, 5),
            ("no key frame", "", head + b"".join(others), {"no_key_frame": len(others)}, 0, 4),
            ("key frames without a key", "", head + mixed, {"no_key": 100 - len(others), "no_key_frame": len(others)}, 0, 5),
            ("garbage", "", head + bytes(4096 + 31), {"garbage": 0}, 4096, 1),
            ("late", "", head + b"".join(others[:9]) + plain[88:], {"no_key_frame": 9}, 0, 0),
            ("files", "", plain + secret[88:] + b"".join(frames), {"no_key": 100}, 0, 0)):
        with Run("--json", "--preview", "--once", "--max-size", "20K", out=what, env={"SDV_KEY": key}) as run:
            events = []

            def until(name, least=0):
                while not (events and events[-1]["event"] == name and events[-1].get("bytes", 0) >= least):
                    events.append(json.loads(next(run.stdout)))
                return events[-1]

            with run.connect() as camera:
                camera.sendall(data)
                until("dropping")
                status = until("status", len(data))
                camera.shutdown(socket.SHUT_WR)
                gone, end = until("lost"), until("stopped")
            told = [event for event in events if event["event"] == "dropping"]
            sums = {event["code"]: sum(e["frames"] for e in told if e["code"] == event["code"]) for event in told}
            expect(what, sums, lost)
            assert all(event["reason"] and event["bytes"] > 99 * event["frames"] for event in told), told
            for sums in status, gone:
                counts = {name: count for name, count in sums["dropped_by_cause"].items() if count}
                expect(f"{what}, {sums}", (counts, sums["bytes_skipped"]), ({} if skipped else lost, skipped))
            assert status["seconds_without_frame"] >= 0 and status["disk_free"] > 0 and gone["code"] == "peer_closed"
            expect(what, (end["exit_code"], end["code"]), (code, next(iter(lost)) if code else None))
            run.end(code)
            expect(what, run.pictures(), {"late": 100, "files": 200}.get(what, 0))
    expect("logs", [*Path().glob("log_*")], [Path("log_2020-01-01")])


def bounds(stream):
    """Where each frame of a stream begins and ends."""
    at = 88
    while at < len(stream):
        yield at, (at := at + int.from_bytes(stream[at + 4 : at + 8], "little"))


def unit():
    """The example of a unit is one that systemd understands."""
    if shutil.which("systemd-analyze"):
        text = (DATA.parents[1] / "examples" / "sdvrecord.service").read_text()
        Path("sdvrecord.service").write_text(text.replace("/usr/bin/sdvrecord", str(SDVRECORD)))
        assert "sdvrecord" not in run_tool("systemd-analyze", "verify", "./sdvrecord.service").stderr


if __name__ == "__main__":
    go_through((check.__name__, check) for check in (odd_pieces, one_at_a_time, cut_short, calling, next_file,
                                                     every_event, killed, long_repair, little_memory, failing_disk,
                                                     full_disk, messages_unread, place, nothing, left_out, unit))
