#!/usr/bin/env python3
"""Recordings made of known material, converted, and read back by readers that are not ours.

    readers.py SDVMAKE SDV2AVI AVICHECK DATA_DIR
"""
import struct
from pathlib import Path

from checks import DATA, KEY, SDV2AVI, TONE, expect, go_through, make, pictures, run

AUDIO = {"video only": None, "A-law": ("tone.alaw", "alaw"), "mu-law": TONE,
         "AAC 16000 Hz": ("tone16k.aac", "aac"), "AAC 48000 Hz": ("tone48k.aac", "aac")}


def read(*command):
    """What a reader writes, silent on standard error."""
    done = run(*command, text=False)
    expect(f"complaints of {command}", done.stderr, b"")
    return done.stdout


def ffmpeg(source, *arguments):
    return read("ffmpeg", "-v", "error", "-nostdin", "-xerror", "-i", source, *arguments, "-")


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
    lines = read("ffprobe", "-v", "error", "-fflags", "+ignidx", "-select_streams", stream, "-show_packets",
                "-show_entries", "packet=pos", "-of", "csv=p=0", avi)
    return [int(word) for word in lines.decode().replace(",", " ").split()]


def check_video(avi, video):
    expect("video copied by ffmpeg", ffmpeg(avi, "-map", "0:v", "-c", "copy", "-f", "data"), video)
    frames = read("ffprobe", "-v", "error", "-count_frames", "-select_streams", "v", "-show_entries",
                  "stream=nb_read_frames", "-of", "csv=p=0", avi)
    expect("decoded pictures", int(frames.split()[0].strip(b",")), 100)
    read("gst-launch-1.0", "-q", "filesrc", f"location={avi}", "!", "avidemux", "name=d", "d.video_0", "!",
         "filesink", "location=demuxed.h264")
    expect("video demuxed by GStreamer", Path("demuxed.h264").read_bytes(), video)


def check_audio(avi, audio):
    """The number of audio chunks that must be there."""
    data = audio.read_bytes()
    if audio.suffix != ".aac":
        expect("audio copied by ffmpeg", ffmpeg(avi, "-map", "0:a", "-c", "copy", "-f", "data"), data)
        return len(data) // 320
    samples = ("-map", "0:a", "-c:a", "pcm_s16le", "-f", "s16le")
    expect("decoded audio", ffmpeg(avi, *samples), ffmpeg(audio, *samples))
    return adts_frames(data)


def check_case(audio, *keys):
    avi = Path("case.avi")
    make("case.sdv", *keys, sound=audio)
    expect("complaints", run(SDV2AVI, "case.sdv", *keys).stderr, "")
    expect("pictures", pictures(avi), 100)
    ffmpeg(avi, "-f", "null")
    check_video(avi, (DATA / "clip.h264").read_bytes())
    wanted = 100, check_audio(avi, DATA / audio[0]) if audio else 0
    for stream, positions, count in zip("va", index_positions(avi.read_bytes()), wanted):
        expect(f"packets of stream {stream}", packets(avi, stream), positions)
        expect(f"number of packets of stream {stream}", len(positions), count)


if __name__ == "__main__":
    go_through([(f"{name}, {'encrypted' if keys else 'plain'}", check_case, audio, *keys)
                for name, audio in AUDIO.items() for keys in ((), ("--key", KEY))])
