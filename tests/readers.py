#!/usr/bin/env python3
"""Recordings made of known material, converted, and read back by readers that are not ours.

    readers.py SDVMAKE SDV2AVI AVI_VERIFY DATA_DIR
"""
import itertools
import struct
import subprocess
import sys
import tempfile
from pathlib import Path

KEY = "00112233445566778899aabbccddeeff"
AUDIO = {
    "video only": None,
    "A-law": ("tone.alaw", "alaw"),
    "mu-law": ("tone.ulaw", "mulaw"),
    "AAC 16000 Hz": ("tone16k.aac", "aac"),
    "AAC 48000 Hz": ("tone48k.aac", "aac"),
}


def expect(what, found, wanted):
    if found != wanted:
        short = [v if len(repr(v)) < 120 else f"{len(v)} of them" for v in (found, wanted)]
        raise AssertionError(f"{what}: {short[0]}, not {short[1]}")


def run(*command):
    """What a command writes. It must succeed and keep silent on standard error."""
    done = subprocess.run([str(c) for c in command], capture_output=True, timeout=120)
    complaint = (done.stderr or done.stdout).decode(errors="replace").strip()
    assert not done.returncode and not done.stderr, f"{command[0]} ends with {done.returncode}: {complaint[:300]}"
    return done.stdout


def ffmpeg(source, *arguments):
    return run("ffmpeg", "-v", "error", "-nostdin", "-xerror", "-i", source, *arguments, "-")


def adts_frames(data):
    count = at = 0
    while at + 7 <= len(data):
        at += (data[at + 3] & 3) << 11 | data[at + 4] << 3 | data[at + 5] >> 5
        count += 1
    return count


def index_positions(data):
    """Where the index says the chunks' data begin, by stream."""
    movi = 212 if data[212 + 8 : 212 + 12] == b"movi" else 316
    size = struct.unpack_from("<I", data, movi + 4)[0]
    at = movi + 8 + size
    expect("index id", data[at : at + 4], b"idx1")
    positions = {b"00dc": [], b"01wb": []}
    for entry in range(at + 8, len(data), 16):
        chunk, _, offset, _ = struct.unpack_from("<4sIII", data, entry)
        positions[chunk].append(movi + 8 + offset + 8)
    return positions[b"00dc"], positions[b"01wb"]


def packets(avi, stream):
    lines = run("ffprobe", "-v", "error", "-fflags", "+ignidx", "-select_streams", stream, "-show_packets",
                "-show_entries", "packet=pos", "-of", "csv=p=0", avi)
    return [int(word) for word in lines.decode().replace(",", " ").split()]


def check_video(avi, video, work):
    copied = ffmpeg(avi, "-map", "0:v", "-c", "copy", "-f", "data")
    expect("video copied by ffmpeg", copied, video)
    frames = run("ffprobe", "-v", "error", "-count_frames", "-select_streams", "v", "-show_entries",
                 "stream=nb_read_frames", "-of", "csv=p=0", avi)
    expect("decoded pictures", int(frames.split()[0].strip(b",")), 100)
    demuxed = work / "demuxed.h264"
    run("gst-launch-1.0", "-q", "filesrc", f"location={avi}", "!", "avidemux", "name=d", "d.video_0", "!",
        "filesink", f"location={demuxed}")
    expect("video demuxed by GStreamer", demuxed.read_bytes(), video)


def check_audio(avi, audio):
    """The number of audio chunks that must be there."""
    data = audio.read_bytes()
    if audio.suffix != ".aac":
        expect("audio copied by ffmpeg", ffmpeg(avi, "-map", "0:a", "-c", "copy", "-f", "data"), data)
        return len(data) // 320
    samples = ("-map", "0:a", "-c:a", "pcm_s16le", "-f", "s16le")
    expect("decoded audio", ffmpeg(avi, *samples), ffmpeg(audio, *samples))
    return adts_frames(data)


def check_case(tools, data, audio, key, work):
    recording, avi, video = work / "case.sdv", work / "case.avi", data / "clip.h264"
    keys = ["--key", KEY] if key else []
    sound = ["--audio", data / audio[0], "--audio-code", audio[1]] if audio else []
    run(tools[0], video, *sound, *keys, "-o", recording)
    run(tools[1], recording, "-o", avi, *keys)
    run(tools[2], avi)

    ffmpeg(avi, "-f", "null")
    check_video(avi, video.read_bytes(), work)
    wanted = [100] + ([check_audio(avi, data / audio[0])] if audio else [])
    for stream, positions in zip("va", index_positions(avi.read_bytes())):
        found = packets(avi, stream)
        expect(f"packets of stream {stream}", found, positions)
        expect(f"number of packets of stream {stream}", len(found), wanted.pop(0) if wanted else 0)


def main():
    tools, data = [Path(a).resolve() for a in sys.argv[1:4]], Path(sys.argv[4])
    failed = 0
    for name, key in itertools.product(AUDIO, (False, True)):
        title = f"{name}, {'encrypted' if key else 'plain'}"
        with tempfile.TemporaryDirectory() as work:
            try:
                check_case(tools, data, AUDIO[name], key, Path(work))
                print(f"ok      {title}")
            except (AssertionError, subprocess.TimeoutExpired) as reason:
                failed += 1
                print(f"FAILED  {title}: {reason}")
    return f"{failed} failed" if failed else 0


if __name__ == "__main__":
    sys.exit(main())
