"""What the scripts have in common: the tools, running them, making recordings, going through the cases.

    SCRIPT SDVMAKE SDV2AVI AVICHECK DATA_DIR ... [FAILING_DISK]
"""
import os
import subprocess
import sys
import tempfile
from pathlib import Path

SDVMAKE, SDV2AVI, AVICHECK, DATA = [Path(a).resolve() for a in sys.argv[1:5]]
FAILING_DISK = next((Path(a).resolve() for a in sys.argv if "failing_disk" in a), None)
KEY, OTHER_KEY = "00112233445566778899aabbccddeeff", "ff112233445566778899aabbccddeeff"
TONE = ("tone.ulaw", "mulaw")


def expect(what, found, wanted):
    short = [v if len(repr(v)) < 500 else f"{len(v)} of them" for v in (found, wanted)]
    assert found == wanted, f"{what}: {short[0]!r}, not {short[1]!r}"


def run(*command, code=0, text=True, **more):
    """A program that must end with this exit code, and keep the library's own markers to itself."""
    done = subprocess.run(command, capture_output=True, timeout=120, errors="surrogateescape" if text else None, **more)
    expect(f"exit code of {command}: {(done.stderr or done.stdout)[:500]}", done.returncode, code)
    assert not text or "140217" not in done.stdout + done.stderr, f"markers of the library: {done}"
    return done


def make(output, *options, sound=TONE):
    audio = ["--audio", DATA / sound[0], "--audio-code", sound[1]] if sound else []
    run(SDVMAKE, DATA / "clip.h264", *audio, *options, "--overwrite", "-o", output)


def failing_disk(path, *places):
    """For run(): the bytes in these places of the file cannot be read."""
    bad = {"LD_PRELOAD": str(FAILING_DISK), "BAD_FILE": path, "BAD_BYTES": ",".join(f"{a}-{b}" for a, b in places)}
    return {"env": {**os.environ, **bad, "ASAN_OPTIONS": "verify_asan_link_order=0"}}


def pictures(path):
    """Of an AVI file, which must be sound and begin with a key frame."""
    run(AVICHECK, path)
    avi = path.read_bytes()
    assert avi[avi.find(b"00dc", avi.rfind(b"idx1")) + 4] == 0x10, f"{path} begins without a key frame"
    return int.from_bytes(avi[48:52], "little")


def go_through(cases, prepare=lambda: None):
    """The cases are names, checks and their arguments; each has a directory of its own to run in."""
    failed = 0
    for what, check, *arguments in cases:
        with tempfile.TemporaryDirectory() as work:
            os.chdir(work)
            try:
                prepare()
                check(*arguments)
                print(f"ok      {what}", flush=True)
            except (AssertionError, OSError, subprocess.SubprocessError) as reason:
                failed += 1
                print(f"FAILED  {what}: {reason}", flush=True)
    sys.exit(f"{failed} failed" if failed else 0)
