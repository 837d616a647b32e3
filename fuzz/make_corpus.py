#!/usr/bin/env python3
"""Writes the seed inputs of the fuzz targets into fuzz/corpus/<target>/ (run from anywhere).

Each seed is a well-formed request in the target's input layout, so the fuzzers start from
requests the service accepts instead of finding the layouts themselves."""
import os
import struct

ROOT = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    folder = os.path.join(ROOT, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


u8, u16, u32, i32 = (lambda v: struct.pack("<B", v)), (lambda v: struct.pack("<H", v)), \
    (lambda v: struct.pack("<I", v & 0xFFFFFFFF)), (lambda v: struct.pack("<i", v))


# PQ notification: two slot bindings (slot, pqId, capture point), pqId, event, size flag, payload.
def pq_block(active, pq_at, pq_id):
    block = bytearray(208)
    block[0:8] = u16(1920) + u16(1080) + u32(0)
    block[48:54] = u32(5000) + bytes([active, 1])
    for i in range(16):
        block[80 + i * 8:88 + i * 8] = bytes([pq_id if i == pq_at else 9, 0, 0, 0]) + u32(100 + i)
    return bytes(block)


def pq_seed(point, active, pq_at, size_flag=0, blocks=7):
    head = u8(0) + i32(3) + i32(point) + u8(5) + i32(-1) + i32(13) + i32(3) + i32(4) + u8(size_flag)
    return head + b"".join(pq_block(active, pq_at, 3) for _ in range(blocks))


write("pq_notify_fuzzer", "first-point", pq_seed(2, 2, 1))
write("pq_notify_fuzzer", "last-point-full", pq_seed(8, 16, 15))
write("pq_notify_fuzzer", "short", pq_seed(4, 1, 0, blocks=1))

# Completion entries: op, identifier byte (1 = the first slot), then the op's own bytes.
record = u32(2) + u32(0x1000) + u32(0x800) + b"".join(u32(k * 0x2000) + u32(k * 0x2000 + 0x1000)
                                                       for k in range(8)) + u32(0)
live = u8(3) + record + u32(0) + u8(0)  # record, the slot's live counter
write("completion_fuzzer", "set-then-done", u8(0) + u8(1) + u8(1) + u8(6) + u8(1) + live)
write("completion_fuzzer", "start-then-once-done",
      u8(2) + u8(2) + u8(1) + u8(5) + u8(2) + u8(5) + record + u32(1) + u8(5) + u8(2) + u8(0) + u32(7))
write("completion_fuzzer", "replace-close", u8(0) + u8(1) + u8(1) + u8(0) + u8(1) + u8(1) + u8(4) +
      u8(1) + u8(6) + u8(1) + live)

# Device tree: entries of (engine << 7 | property, kind 0 = file, length, bytes), from the
# emulator's tree.
PROPS = ["capability/" + n for n in "CapOSD RWSep TileWidthMax Rotate HMirrorSz CropAlign DSCL USCL"
         .split()] + ["format_support/" + n for n in (
             "YUYV YUYV_10B ARGB8888 ABGR8888 RGBA8888 BGRA8888 ARGB2101010 RGB565 BGR888 NV16 NV61 "
             "NV12 NV21 RZ21S10L RZ21S RZ21S10T RZ21S10R COMPRESS VSD8X2 VSD8X4 ABGR2101010").split()]
tree = os.path.join(ROOT, "..", "emulator", "devicetree")
emulated = b""
for engine in (0, 1):
    for k, prop in enumerate(PROPS):
        path = os.path.join(tree, "dip%d" % engine, prop)
        if os.path.exists(path):
            cell = open(path, "rb").read()
            emulated += u8(engine << 7 | k) + u8(0) + u8(len(cell)) + cell
write("device_tree_fuzzer", "emulated", emulated)
write("device_tree_fuzzer", "odd-nodes", u8(3) + u8(1) + u8(0) + u8(0x80 | 4) + u8(2) + u8(2) +
      b"\x10\x00" + u8(5) + u8(0) + u8(5) + b"\x00\x00\x00\x00\x01" + u8(0) + u8(0) + u8(0))


# Interface records, field by field as interface_fuzzer.cpp decodes them: words as 16 bits,
# enumerations as a byte, formats as a bit number, buffers as an index into its handles.
def capture_info(buf):
    return (u8(0) + u8(0xFF) + u8(0) + u16(1920) + u16(1080) + u8(0) + u8(1) + u16(60) + u16(0) +
            u16(0) * 2 + u16(1920) + u16(1080) + u16(1280) + u16(720) + u16(60) + u8(11) + u16(0) +
            u8(0) + u8(buf) + u8(0) + u8(1) + u8(0))


def frame_info(src_bit, dst_bit, src_buf, dst_buf, angle):
    src = u16(320) + u16(240) + u8(src_bit) + u8(0) + u8(src_buf) + u8(1) + u16(0) + u8(0)
    dst = (u16(40) + u16(30) + u16(200) + u16(150) + u16(320) + u16(240) + u16(0) + u16(angle) +
           u8(dst_bit) + u8(0) + u8(dst_buf) + u8(0) + u8(0))
    return src + dst


def query(src_bit, dst_bit, angle):
    return (u16(320) + u16(240) + u8(src_bit) + u16(240) + u16(320) + u8(dst_bit) + u16(angle) +
            u16(40) + u16(30) + u16(200) + u16(150) + u8(1))


write("interface_fuzzer", "live-once", u8(0) + capture_info(5) + u8(3))
write("interface_fuzzer", "gpu-rgba-turn",
      u8(9) + u8(2) + query(2, 11, 90) + u8(1) + frame_info(2, 11, 6, 7, 90) + u8(3))
write("interface_fuzzer", "dip-memory",
      u8(2) + query(11, 2, 0) + u8(1) + frame_info(11, 2, 5, 5, 0) + u8(3))

# Dumps: op, folder, prefix, format pick, index, stride, width, height, frame bytes.
def dump(op, folder, prefix, pick, stride, width, height, size):
    return (u8(op) + u8(len(folder)) + folder + u8(len(prefix)) + prefix + u8(pick) + u32(1) +
            u32(stride) + u32(width) + u32(height) + bytes(size))


write("gpu_dump_fuzzer", "rgba", dump(1, b"", b"gpu_intput-", 0, 256, 64, 4, 1024))
write("gpu_dump_fuzzer", "nv12-output", dump(3, b"sub", b"", 7, 32, 16, 8, 768))
write("gpu_dump_fuzzer", "long-folder", dump(2, b"d" * 90, b"", 10, 40, 32, 4, 400))
write("gpu_dump_fuzzer", "info-10bit", dump(0, b"", b"", 11, 1280, 1024, 2, 0))
