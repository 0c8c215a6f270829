#!/usr/bin/env python3
"""Writes the seed corpus of the fuzz targets (tests/fuzz/corpus/<target>/). Each seed is a
small program in the target's input format; the fuzzers grow their own corpus from these."""
import os
import struct
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))


def pick(v):
    return bytes([v >> 8, v & 255])


# --- c_interface: ops are pick(16): 0-1 Initial, 2-8 SelectFrames, 9-12 AddImage, 13-15 other.
def initial(slot=0, size=0, nulls=2, x=0, y=50):
    ok = size not in (3, 4, 5) and nulls > 1  # a refused Initial reads no camera position
    return pick(0) + pick(slot) + pick(size) + bytes([1]) + pick(90) + pick(nulls) + \
        (pick(x) + pick(y) if ok else b"")


def select(slot=0, handle=2, size=9, dx=40, dy=4, nulls=10):
    return pick(2) + pick(slot) + pick(handle) + pick(size) + pick(3) + pick(dx) + pick(dy) + pick(nulls)


def select_raw(slot=0, size=9, raw=b"\x10\x80\xf0\x33"):
    return pick(2) + pick(slot) + pick(2) + pick(size) + pick(0) + raw.ljust(64, b"\x00") + pick(10)


def add(slot=0, handle=2, shape=0, nulls=10):
    return pick(9) + pick(slot) + pick(handle) + pick(shape) + pick(nulls)


def other(what, slot=0, handle=2, arg=b""):
    return pick(13) + pick(slot) + pick(handle) + pick(what) + arg


def c_interface():
    seeds = {}
    seeds["steady_right"] = initial() + b"".join(select() + add() for _ in range(22)) + \
        other(1, arg=b"\x01") + other(2, arg=pick(5))
    seeds["steady_left"] = initial(x=190) + b"".join(select(dx=0) + add() for _ in range(22))
    seeds["down"] = initial(y=0) + b"".join(select(dx=20, dy=8) + add(shape=1) for _ in range(20))
    seeds["misuse"] = (select() + add() + other(0) + other(1, arg=b"\x01") + initial() +
                       add() + other(1, arg=b"\x00") + other(2, arg=pick(5)) + other(2, arg=pick(5)) +
                       select(handle=0) + add(handle=0) + other(0, handle=0) + other(2, handle=0, arg=pick(5)) +
                       initial(slot=1) + select(slot=1, handle=1) + other(2, slot=1, arg=pick(5)))
    seeds["bad_frames"] = initial() + b"".join(select(size=s) + add() for s in range(4)) + \
        select(nulls=0) + select(nulls=1) + select(nulls=2) + select(nulls=3) + select() + add()
    seeds["bad_canvases"] = initial() + select() + add() + b"".join(
        select() + add(shape=s) for s in (2, 3, 4, 5, 6, 1)) + add(nulls=0) + add(nulls=2) + add(nulls=3)
    seeds["raw_frames"] = initial() + b"".join(select_raw(raw=bytes([i * 37 % 256, i, 255 - i])) + add()
                                               for i in range(8))
    seeds["inner_params"] = initial() + other(3, arg=bytes([1]) + pick(32768) + pick(32768)) + \
        b"".join(select() + add() for _ in range(6)) + other(3, arg=bytes([1]) + pick(32770) + pick(0)) + \
        b"".join(select() + add() for _ in range(6)) + other(4) + other(5)
    seeds["small_init"] = initial(size=3) + initial(size=4) + initial(size=5) + initial(nulls=0) + \
        initial(nulls=1) + initial(size=1) + initial(slot=0, size=2) + select()
    # The extension's calls (other(5) -> pick(9)) after a few merged frames: JPEG to a file and
    # to memory, the last error into a short buffer, an option, canvas sizes, Camera2 frames,
    # a log level around a frame, the platform log for a moment, the preview (fits, a stride short,
    # no buffer), the verdict.
    def ext(what, arg=b""):
        return other(5, arg=pick(what) + arg)
    seeds["extension"] = initial() + b"".join(select() + add() for _ in range(10)) + \
        ext(1, bytes([1]) + pick(92)) + ext(2, pick(5) + pick(62)) + ext(3, pick(18) + bytes([1])) + \
        ext(4, pick(3) + pick(32769)) + ext(5, pick(5) + pick(1380) + pick(820) + pick(2) + bytes([1])) + \
        ext(5, pick(5) + pick(1380) + pick(820) + pick(4) + bytes([0]) + pick(20)) + \
        ext(6, pick(68) + pick(44) + pick(6) + pick(3) + pick(10) + bytes([1]) + b"\x40" * 32 + pick(3)) + \
        ext(6, pick(68) + pick(44) + pick(2) + pick(2) + pick(6) + bytes([0]) + b"\x40" * 32 + pick(3)) + \
        ext(7, pick(7) + select()) + ext(8) + ext(0) + ext(3, pick(300) + bytes([0])) + \
        ext(12, pick(304) + pick(104) + pick(8) + pick(5)) + ext(12, pick(1004) + pick(54) + pick(0) + pick(5)) + \
        ext(12, pick(64) + pick(24) + pick(4) + pick(0)) + ext(10, bytes([1, 1]) + pick(50))
    # Photo information (ext 11: three strings as length, bytes and a not-null pick; the time in
    # 50-day steps and ms, a not-raw pick, the zone, a not-null pick), then a save with it.
    def text(t):
        b = t.encode() + b"\0"
        return pick(len(b)) + b + pick(1)
    seeds["photo_info"] = initial() + b"".join(select() + add() for _ in range(10)) + \
        ext(11, text("Zolt") + text("Pano One") + text("Sweep") + pick(409) + pick(250) + pick(1) +
            pick(1330) + pick(1)) + ext(1, bytes([1]) + pick(92)) + \
        ext(11, text("x" * 70) + text("\u00e9") + text("") + pick(0) + pick(0) + pick(0) + pick(0) +
            b"\xff" * 8 + pick(0) + pick(1))
    return seeds


# --- sweep_dir: leave-out mask, options, meta \n~~~\n truth \n~~~\n gyro \n~~~\n, frames length
# (4 bytes) and pattern.
def sweep(meta, truth, gyro, length, pattern=b"\x80", leave=0, options=0):
    return bytes([leave, options]) + meta.encode() + b"\n~~~\n" + truth.encode() + b"\n~~~\n" + \
        gyro.encode() + b"\n~~~\n" + struct.pack("<I", length) + pattern


TRUTH_HEAD = "frame,t_ns,x,y,dx,dy,yaw,pitch,roll,gain,phase\n"


def truth_rows(n):
    return TRUTH_HEAD + "".join(f"{k},{k * 33333333},{k * 10.5},0.25,10.5,0,0.01,0,0,1,sweep\n" for k in range(n))


GYRO = "t_ns,wx,wy,wz\n0,0.1,0.2,0.3\n16666666,0.1,-0.2,0.3\n33333333,0,0,0\n"


def sweep_dir():
    fb = 642 * 642 * 3 // 2
    meta2 = '{"width": 642, "height": 642, "frames": 2, "fps": 30, "move_direction": 1}'
    return {
        "whole": sweep(meta2, truth_rows(2), GYRO, 2 * fb, b"\x10\x90\x80\x70"),
        "truncated": sweep(meta2, truth_rows(2), GYRO, 2 * fb - 1000),
        "small_upscaled": sweep('{"width": 320, "height": 240, "frames": 1, "fps": 25}',
                                truth_rows(1), GYRO, 320 * 240 * 3 // 2, b"\x33\x99", options=1),
        "odd_sides": sweep('{"width": 643, "height": 645, "frames": 1, "fps": 30}', truth_rows(1), GYRO,
                           643 * 645 * 3 // 2),
        "bad_json": sweep('{"width": "wide", "frames": [1]', truth_rows(1), GYRO, 0),
        "bad_csv": sweep(meta2, TRUTH_HEAD + "0,x,1,2\n1,2,3,4,5,6,7,8,9,1e999\n", "t_ns,wx\n12\n", fb),
        "missing_files": sweep(meta2, truth_rows(2), GYRO, 2 * fb, leave=0b1010),
        "skip_frames": sweep(meta2, truth_rows(2), GYRO, 2 * fb, options=0b01110),
    }


# --- image_folder: options byte, then files: extension byte + bytes, separated by \n~~~\n.
def ppm(w, h, seed=1):
    return b"P6\n%d %d\n255\n" % (w, h) + bytes((seed * i * 7) % 256 for i in range(w * h * 3))


def pgm(w, h):
    return b"P5\n%d %d\n255\n" % (w, h) + bytes((i * 13) % 256 for i in range(w * h))


def bmp(w, h):
    row = (w * 3 + 3) & ~3
    pixels = b"".join(bytes((x * 5 + y * 3) % 256 for x in range(w * 3)).ljust(row, b"\0") for y in range(h))
    header = b"BM" + struct.pack("<IHHI", 54 + len(pixels), 0, 0, 54)
    info = struct.pack("<IiiHHIIiiII", 40, w, h, 1, 24, 0, len(pixels), 2835, 2835, 0, 0)
    return header + info + pixels


def png(w, h):
    raw = b"".join(b"\0" + bytes((x * 9 + y) % 256 for x in range(w * 3)) for y in range(h))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, 2, 0, 0, 0)) + \
        chunk(b"IDAT", zlib.compress(raw)) + chunk(b"IEND", b"")


def folder(options, files):
    return bytes([options]) + b"\n~~~\n".join(bytes([ext]) + data for ext, data in files)


def recording(options, csv, files):
    return bytes([options]) + csv + b"\n~~~\n" + folder(options, files)[1:]


def image_folder():
    return {
        "png_upscaled": folder(1, [(0, png(8, 6)), (0, png(8, 6))]),
        "bmp_upscaled": folder(1, [(1, bmp(6, 4)), (1, bmp(6, 4))]),
        "ppm_sizes_change": folder(1, [(2, ppm(4, 4)), (2, ppm(6, 4))]),
        "pgm_small_refused": folder(0, [(3, pgm(5, 3))]),
        "not_images": folder(1, [(7, b"hello"), (0, b"\x89PNG broken")]),
        "skip_first": folder(0b111, [(2, ppm(3, 2, 3)), (2, ppm(3, 2, 5)), (2, ppm(3, 2, 7))]),
        # Recordings (bit 6): frames.csv, then the images for frames/; bit 5 reads luma only.
        "recording": recording(1 | 32 | 64, b"frame,t_ns\n0,1000\n1,34000\n",
                               [(0, png(8, 6)), (0, png(8, 6))]),
        "recording_short_csv": recording(1 | 64, b"frame,t_ns\n0,99999999999999\n",
                                         [(2, ppm(4, 4)), (2, ppm(4, 4))]),
    }


for target, seeds in (("c_interface", c_interface()), ("sweep_dir", sweep_dir()),
                      ("image_folder", image_folder())):
    d = os.path.join(HERE, "corpus", target)
    os.makedirs(d, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(d, name), "wb") as f:
            f.write(data)
