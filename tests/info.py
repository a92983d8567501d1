#!/usr/bin/env python3
"""What sdvinfo tells of recordings that were made for it, on the command line and on its page.

    info.py SDVMAKE SDV2AVI AVICHECK DATA_DIR SDVINFO FAILING_DISK [CHROMIUM]

With CHROMIUM, the page alone, in that browser.
"""
import functools
import html
import json
import operator
import os
import re
import subprocess
import sys
from collections import Counter
from pathlib import Path

from checks import KEY, OTHER_KEY, expect, failing_disk, go_through, make, run

SDVINFO, CHROMIUM = Path(sys.argv[5]).resolve(), sys.argv[7:]
# The page in a frame of a phone's width, which measures it.
PHONE = """<!doctype html><iframe src="page.html" width="390" height="800" style="border:0"></iframe><p></p><script>
onload = () => {
  const page = document.querySelector("iframe").contentDocument.documentElement;
  document.querySelector("p").textContent = page.clientWidth + " of " + page.scrollWidth;
};</script>"""
UNREADABLE = "cannot be read: the disk or card fails"
ODD_NAME = os.fsdecode(b"</script>\xff & \"odd\".sdv")


def info(*arguments, code=0, **more):
    return run(SDVINFO, *arguments, code=code, **more).stdout


def prepare():
    make("plain.sdv")
    os.mkdir("<")
    make(ODD_NAME, "--drop", "3", "--garbage", "4", "--truncate", "100", "--key", KEY)
    Path("noise.sdv").write_bytes(b"\x55" * 4096)


def at(tree, path):
    return functools.reduce(operator.getitem, path.split("/"), tree)


# ---- the command line

def figures():
    told = json.loads(info("--json", "plain.sdv"))
    wanted = {"frames/found": 100, "frames/recorded": 100, "time/seconds": 4.0, "time/realRate": 25.0,
              "keyFrames/count": 4, "keyFrames/interval": 25.0, "picture/stream": "352 x 288",
              "picture/agrees": True, "audio/coding": "G.711 mu-law", "audio/seconds": 4.0, "audio/drift": 0.0,
              "encryption/keyFits": "nothing encrypted", "damage/list": [], "numbering/missing": 0}
    for path, value in wanted.items():
        expect(path, at(told, path), value)


def frames():
    first, second, third = json.loads(info("--json", "--frames", "plain.sdv", ODD_NAME, "noise.sdv", code=5))
    ends = [88] + [f["offset"] + f["size"] for f in first["frameList"]]
    expect("frames listed", [(f["number"], f["offset"]) for f in first["frameList"]], [*enumerate(ends[:-1], 1)])
    expect("number and end of frames", (len(ends), ends[-1]), (101, first["size"]))
    expect("name", [second["file"], bytes.fromhex(second["file_hex"])],
           [os.fsencode(ODD_NAME).decode(errors="replace"), os.fsencode(ODD_NAME)])
    assert "file_hex" not in first, "the bytes of a name that is text"
    expect("fates", {f["fate"] for f in second["frameList"]}, {"encrypted, without a key"})
    expect("no recording", third["error"], "noise.sdv: is no SDV recording")
    lines = info("--frames", "plain.sdv").splitlines()
    expect("frames in the text", sum(line.endswith("  recorded") for line in lines), 100)


def keys():
    make("other.sdv", "--key", OTHER_KEY)
    Path("both.sdv").write_bytes(Path(ODD_NAME).read_bytes() + Path("other.sdv").read_bytes()[88:])
    for fits, code, name, *key in (("yes", 7, ODD_NAME, "--key", KEY), ("partly", 5, "both.sdv", "--key", KEY),
                                   ("no", 5, ODD_NAME, "--key", OTHER_KEY), ("not given", 5, ODD_NAME)):
        told = json.loads(info("--json", name, *key, code=code))
        expect("the key fits", (at(told, "encryption/keyFits"), told["state"], "key" in told["verdict"]),
               (fits, "lost" if fits == "yes" else "needs_key", fits != "yes"))


def codes():
    keyed = ["--key", KEY]
    files = lambda: {path: path.read_bytes() for path in Path(".").rglob("*.*")}
    before = files()
    for code, arguments in ((3, ["noise.sdv"]), (1, ["missing.sdv"]), (1, ["."]), (5, ["plain.sdv", "--key", "xyz"]),
                            (7, [ODD_NAME, "plain.sdv", *keyed]), (1, [ODD_NAME, "missing.sdv", "noise.sdv"]),
                            (2, ["--report", "a.html", "plain.sdv", "noise.sdv"]),
                            (2, ["--report", "plain.sdv", "plain.sdv", "--overwrite"]),
                            (8, ["--report", "noise.sdv", "plain.sdv"]), (6, ["--report", "no/a.html", "plain.sdv"])):
        info(*arguments, code=code)
    assert files() == before, "files came, went or changed"
    os.symlink("plain.sdv", "\033[31m\x9b.sdv")
    assert not {"\033", "\x9b"} & {*info("\033[31m\x9b.sdv")}, "colour without a terminal"
    Path("headers.sdv").write_bytes(Path("plain.sdv").read_bytes()[:88])
    plain = Path("plain.sdv").read_bytes()
    for name, data, code, said in (("headers.sdv", plain[:88], 4, "no frame in it"),
                                   ("plain.sdv", plain, 0, "nothing lost of 4.0 s; plays"),
                                   ("missing.sdv", plain[:88] + plain[-88000:], 7, "2.0 s of 4.0 s lost; plays; 1 damaged")):
        Path(name).write_bytes(data)
        assert said in info(name, code=code).splitlines()[0], info(name, code=code)


def lost_headers():
    """An empty file, no recording and a lost header are told apart; another recording's header brings the frames."""
    plain = Path("plain.sdv").read_bytes()
    for data, code in (b"", "empty_file"), (b"\x55" * 200, "no_recording"), (plain[88:], "header_lost"), \
                      (b"\x55" * 88 + plain[88:], "header_lost"):
        Path("it.sdv").write_bytes(data)
        expect("code", json.loads(info("--json", "it.sdv", code=3))["code"], code)
        rescued = code == "header_lost"
        told = json.loads(info("--json", "it.sdv", "--like", "plain.sdv", code=7 if rescued else 3))
        expect("frames", at(told, "frames/recorded") if rescued else 0, 100 if rescued else 0)
        expect("damage", told["damage"]["list"] if rescued else [], [])
        expect("date", told["header"]["start"] if rescued else "0000-00-00 00:00:00", "0000-00-00 00:00:00")


def unreadable():
    """What a disk does not give is in the map, within frames and between them; what lies behind it is found."""
    frames = json.loads(info("--json", "--frames", "plain.sdv"))["frameList"]
    bad, kept = (40960, 49152), [f["offset"] for f in frames if not 40960 <= f["offset"] < 49152]
    told = json.loads(info("--json", "--frames", "plain.sdv", code=1, **failing_disk("plain.sdv", bad)))
    expect("frames found", [f["offset"] for f in told["frameList"]], kept)
    behind = min(offset for offset in kept if offset > bad[0])
    torn = max(f["offset"] + f["size"] for f in frames if f["offset"] < bad[0])
    expect("map", [(p["offset"], p["length"], p["cause"], p["framesLost"]) for p in told["damage"]["list"]],
           [(bad[0], torn - bad[0], UNREADABLE, 0), (torn, behind - torn, UNREADABLE, 100 - len(kept))])
    expect("bytes", told["damage"]["unreadable"], bad[1] - bad[0])


# ---- the page

def browse(path):
    """The page as the browser holds it, which must have nothing to complain of."""
    done = subprocess.run([*CHROMIUM, "--headless", "--no-sandbox", "--disable-gpu", "--enable-logging=stderr",
                           "--allow-file-access-from-files", "--virtual-time-budget=3000", "--dump-dom",
                           Path(path).resolve().as_uri()], capture_output=True, timeout=120)
    complaints = [line for line in done.stderr.decode(errors="replace").splitlines() if "CONSOLE" in line]
    expect("console messages", complaints, [])
    return done.stdout.decode()


def value_of(text, like):
    if isinstance(like, bool):
        return text == "true"
    return text or None if like is None or isinstance(like, str) else float(text)


def page():
    told = info("--json", ODD_NAME, "--key", KEY, "--report", "page.html", code=7)
    shown = browse("page.html")
    expect("embedded figures", re.search(r'id="data">(.*?)</script>', shown, re.S)[1].strip(), told.strip())
    tree = json.loads(told)
    facts = {path: html.unescape(text) for path, text in re.findall(r'<data id="(.*?)" value="(.*?)"', shown)}
    wanted = {path: at(tree, path) for path in facts}
    expect("facts", {path: value_of(text, wanted[path]) for path, text in facts.items()}, wanted)
    assert len(facts) > 30, f"only {len(facts)} facts on the page"
    bins = [dict(zip(tree["timeline"]["columns"], row)) for row in tree["timeline"]["bins"]]
    count = lambda column: sum(row[column] > 0 for row in bins)
    expect("bars", Counter(re.findall(r'<rect class="(\w+)" x=', shown)),
           {"key": count("keyFrames"), "audio": count("audioSlots"), "damage": count("damage"),
            "missing": count("missing"), "frame": count("frames") - count("keyFrames") + len(tree["seconds"]["bins"]),
            "hit": count("frames") + len(tree["seconds"]["bins"])})
    expect("rows", Counter(re.findall(r'<tr class="(\w+)"', shown)),
           {"place": tree["damage"]["places"], "jump": tree["numbering"]["gaps"]})
    assert re.search(r"<footer>sdvinfo \S+, \d{4}-\d\d-\d\d \d\d:\d\d \S+</footer>", shown), "no date"
    assert f">{html.escape(tree['verdict'])}</p>" in shown, "no verdict"
    # On a phone nothing lies beside the screen.
    Path("phone.html").write_text(PHONE)
    assert re.search(r"<p>(3\d\d) of \1</p>", browse("phone.html")), "wider than a phone"


if __name__ == "__main__":
    if CHROMIUM and CHROMIUM[0].endswith("NOTFOUND"):
        print("skipped: no chromium to look at the page with")
        sys.exit(77)
    checks = (page,) if CHROMIUM else (figures, frames, keys, codes, lost_headers, unreadable)
    go_through([(check.__name__, check) for check in checks], prepare)
