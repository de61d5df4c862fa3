#!/usr/bin/env python3
"""Writes the hand-made hostile files of the corpora: each claims far more memory than its
bytes can hold. tests/operators/HostileFileTest.cpp expects each to be refused, or read,
within a 256 MB address space. Run from anywhere: python3 fuzz/craft_hostile.py"""
import gzip
import os
import random
import struct
import zlib

CORPUS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def chunk(kind, data, length=None):
    size = len(data) if length is None else length
    return struct.pack(">I", size) + kind + data + struct.pack(">I", zlib.crc32(kind + data))


def png_parts():
    """Signature, IHDR and IDAT of a 10 x 10 8-bit RGB image."""
    signature = b"\x89PNG\r\n\x1a\n"
    ihdr = chunk(b"IHDR", struct.pack(">IIBBBBB", 10, 10, 8, 2, 0, 0, 0))
    idat = chunk(b"IDAT", zlib.compress(b"".join(b"\0" + bytes(30) for _ in range(10)), 9))
    return signature, ihdr, idat


def nifti(dims, datatype=2, bitpix=8, vox_offset=352.0):
    header = bytearray(348)
    struct.pack_into("<i", header, 0, 348)
    struct.pack_into("<8h", header, 40, len(dims), *dims, *[1] * (7 - len(dims)))
    struct.pack_into("<hh", header, 70, datatype, bitpix)
    struct.pack_into("<8f", header, 76, *[1.0] * 8)
    struct.pack_into("<f", header, 108, vox_offset)
    header[344:348] = b"n+1\0"
    return bytes(header)


def write(target, name, data):
    with open(os.path.join(CORPUS, target, "hostile-" + name), "wb") as out:
        out.write(data)


def main():
    signature, ihdr, idat = png_parts()
    iend = chunk(b"IEND", b"")
    # 167 bytes: a tEXt chunk before the pixels claims 1,769,340,953 bytes.
    text = struct.pack(">I", 1769340953) + b"tEXt" + b"Comment\0" + b"x" * 81
    write("png_reader", "text-claims-1769340953.png", signature + ihdr + text + idat + iend)
    # 137 bytes: the chunk after the pixels claims 1 GiB.
    late = struct.pack(">I", 1 << 30) + b"zTXt" + b"c\0\0" + b"x" * 68
    write("png_reader", "chunk-after-idat-claims-1gib.png", signature + ihdr + idat + late)
    # A zTXt chunk that inflates 1000-fold, within the file: skipped unread.
    bomb = chunk(b"zTXt", b"c\0\0" + zlib.compress(bytes(4 << 20), 9))
    write("png_reader", "ztxt-inflates-4mib.png", signature + ihdr + bomb + idat + iend)

    four_tb = nifti([32767] * 4, datatype=16, bitpix=32)
    write("nifti_reader", "dims-claim-4tb.nii", four_tb + bytes(4 + 64))
    write("nifti_reader", "vox-offset-1.5e9.nii", nifti([4, 4], vox_offset=1.5e9) + bytes(4 + 16))
    # An extension that claims 2e9 bytes before voxels at byte 364: extensions are skipped.
    extension = b"\1\0\0\0" + struct.pack("<ii", 2000000000, 4) + b"abcd"
    write("nifti_reader", "extension-claims-2gb.nii", nifti([4, 4], vox_offset=364) + extension + bytes(16))

    write("nifti_gz_reader", "dims-claim-4tb.nii.gz", gzip.compress(four_tb + bytes(4 + 64), mtime=0))
    # Claims 983,010 voxels, within what 1.2 kB of deflate could expand to, but the stream
    # holds 1,700 bytes and then stops.
    noise = random.Random(1).randbytes(1000)
    stream = gzip.compress(nifti([32767, 30]) + bytes(4) + noise + bytes(700), mtime=0)
    write("nifti_gz_reader", "gzip-ends-early.nii.gz", stream[:-8])


if __name__ == "__main__":
    main()
