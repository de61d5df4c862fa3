#!/usr/bin/env python3
"""Writes the hand-made hostile files of the corpora (fuzz/corpus/*/hostile-*), each claiming
far more than its bytes hold; tests/operators/HostileFileTest.cpp reads them."""
import gzip, os, random, struct, zlib

CORPUS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))


def nifti(dims, datatype=2, bitpix=8, vox_offset=352.0):
    header = bytearray(348)
    struct.pack_into("<i", header, 0, 348)
    struct.pack_into("<8h", header, 40, len(dims), *dims, *[1] * (7 - len(dims)))
    struct.pack_into("<3h9f", header, 70, datatype, bitpix, 0, *[1.0] * 8, vox_offset)
    header[344:348] = b"n+1\0"
    return bytes(header)


def write(target, name, data):
    with open(os.path.join(CORPUS, target, "hostile-" + name), "wb") as out:
        out.write(data)


start = b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", 10, 10, 8, 2, 0, 0, 0))
idat = chunk(b"IDAT", zlib.compress(bytes(310), 9))  # 10 rows: filter byte and 30 samples
iend = chunk(b"IEND", b"")
text = struct.pack(">I", 1769340953) + b"tEXtComment\0" + b"x" * 81  # 167 bytes in all
write("png_reader", "text-claims-1769340953.png", start + text + idat + iend)
late = struct.pack(">I", 1 << 30) + b"zTXtc\0\0" + b"x" * 68  # 137 bytes in all
write("png_reader", "chunk-after-idat-claims-1gib.png", start + idat + late)
bomb = chunk(b"zTXt", b"c\0\0" + zlib.compress(bytes(4 << 20), 9))  # inflates 1000-fold
write("png_reader", "ztxt-inflates-4mib.png", start + bomb + idat + iend)

four_tb = nifti([32767] * 4, datatype=16, bitpix=32)
write("nifti_reader", "dims-claim-4tb.nii", four_tb + bytes(4 + 64))
write("nifti_reader", "vox-offset-1.5e9.nii", nifti([4, 4], vox_offset=1.5e9) + bytes(4 + 16))
extension = b"\1\0\0\0" + struct.pack("<ii", 2000000000, 4) + b"abcd"  # claims 2e9 bytes
write("nifti_reader", "extension-claims-2gb.nii", nifti([4, 4], vox_offset=364) + extension + bytes(16))
write("nifti_gz_reader", "dims-claim-4tb.nii.gz", gzip.compress(four_tb + bytes(68), mtime=0))
# 983,010 voxels claimed, within what 1.1 kB of deflate could expand to; the stream holds
# 1,700 bytes of them and stops without its trailer.
noise = random.Random(1).randbytes(1000)
stream = gzip.compress(nifti([32767, 30]) + bytes(4) + noise + bytes(700), mtime=0)
write("nifti_gz_reader", "gzip-ends-early.nii.gz", stream[:-8])
