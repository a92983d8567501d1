#!/usr/bin/env python3
"""Recordings made of known material, converted, and read back by readers that are not ours.

    readers.py SDVMAKE SDV2AVI AVICHECK DATA_DIR
"""
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


def demux(avi, pad):
    """By the index: this reader goes where it says."""
    read("gst-launch-1.0", "-q", "filesrc", f"location={avi}", "!", "avidemux", "name=d", f"d.{pad}", "!",
         "filesink", "location=demuxed")
    return Path("demuxed").read_bytes()


def check_video(avi, video):
    expect("video copied by ffmpeg", ffmpeg(avi, "-map", "0:v", "-c", "copy", "-f", "data"), video)
    frames = read("ffprobe", "-v", "error", "-count_frames", "-select_streams", "v", "-show_entries",
                  "stream=nb_read_frames", "-of", "csv=p=0", avi)
    expect("decoded pictures", int(frames.split()[0].strip(b",")), 100)
    expect("video demuxed by GStreamer", demux(avi, "video_0"), video)


def check_audio(avi, audio):
    if audio.suffix == ".aac":
        samples = ("-map", "0:a", "-c:a", "pcm_s16le", "-f", "s16le")
        expect("decoded audio", ffmpeg(avi, *samples), ffmpeg(audio, *samples))
    else:
        expect("audio copied by ffmpeg", ffmpeg(avi, "-map", "0:a", "-c", "copy", "-f", "data"), audio.read_bytes())
        expect("audio demuxed by GStreamer", demux(avi, "audio_0"), audio.read_bytes())


def check_case(audio, *keys):
    avi = Path("case.avi")
    make("case.sdv", *keys, sound=audio)
    expect("complaints", run(SDV2AVI, "case.sdv", *keys).stderr, "")
    expect("pictures", pictures(avi), 100)
    ffmpeg(avi, "-f", "null")
    check_video(avi, (DATA / "clip.h264").read_bytes())
    if audio:
        check_audio(avi, DATA / audio[0])


if __name__ == "__main__":
    go_through([(f"{name}, {'encrypted' if keys else 'plain'}", check_case, audio, *keys)
                for name, audio in AUDIO.items() for keys in ((), ("--key", KEY))])
