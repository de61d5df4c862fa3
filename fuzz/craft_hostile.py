#!/usr/bin/env python3
"""Writes the hand-made hostile files of the corpora (fuzz/corpus/*/hostile-*), each claiming
far more than its bytes hold; tests/operators/HostileFileTest.cpp reads them. Also writes the
DICOM reader's two plain seeds, which no Python library at hand writes byte by byte."""
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


LONG_VRS = {b"OB", b"OW", b"SQ", b"UN", b"UT"}


def element(group, number, vr, value, length=None):
    """An explicit-VR little-endian element; `length` overrides the true one."""
    if len(value) % 2:
        value += b"\0" if vr in (b"UI", b"OB") else b" "
    length = len(value) if length is None else length
    if vr in LONG_VRS:
        return struct.pack("<HH2sHI", group, number, vr, 0, length) + value
    return struct.pack("<HH2sH", group, number, vr, length) + value


def implicit(group, number, value, length=None):
    return struct.pack("<HHI", group, number, len(value) if length is None else length) + value


def dicom(elements, syntax=b"1.2.840.10008.1.2.1"):
    meta = element(2, 0x10, b"UI", syntax)
    return bytes(128) + b"DICM" + element(2, 0, b"UL", struct.pack("<I", len(meta))) + meta + b"".join(elements)


def image(rows, columns, bits, pixels, extra=(), vr=element):
    def short(number, value):
        return vr(0x28, number, *((b"US",) if vr is element else ()), struct.pack("<H", value))
    return [vr(0x20, 0xe, *((b"UI",) if vr is element else ()), b"1.2.826.0.1.7.1\0"), *extra,
            short(2, 1), vr(0x28, 4, *((b"CS",) if vr is element else ()), b"MONOCHROME2 "),
            short(0x10, rows), short(0x11, columns), short(0x100, bits), short(0x101, bits),
            short(0x102, bits - 1), short(0x103, 0),
            vr(0x7fe0, 0x10, *((b"OW",) if vr is element else ()), pixels)]


def seed(target, name, data):
    with open(os.path.join(CORPUS, target, name), "wb") as out:
        out.write(data)


geometry = [element(0x20, 0x32, b"DS", b"1\\2\\3"), element(0x20, 0x37, b"DS", b"1\\0\\0\\0\\1\\0"),
            element(0x28, 0x30, b"DS", b"0.5\\0.25"), element(0x28, 0x1052, b"DS", b"-1024"),
            element(0x28, 0x1053, b"DS", b"1")]
seed("dicom_reader", "gray16.dcm", dicom(image(2, 2, 16, struct.pack("<4H", 0, 1, 4095, 7), geometry)))
# Implicit VR: a sequence of undefined length holding one item of undefined length.
nested = implicit(0x8, 0x1140, implicit(0xfffe, 0xe000, implicit(0x8, 0x1150, b"1.2\0"), 0xffffffff)
                  + implicit(0xfffe, 0xe00d, b"") + implicit(0xfffe, 0xe0dd, b""), 0xffffffff)
seed("dicom_reader", "implicit8-sequence.dcm",
     dicom([nested] + image(2, 2, 8, bytes([1, 2, 3, 4]), vr=implicit), b"1.2.840.10008.1.2"))
write("dicom_reader", "element-claims-4gb.dcm",
      dicom([element(0x9, 0x1010, b"OB", bytes(16), length=0xF0000000)]))
write("dicom_reader", "rows-claim-8gb.dcm", dicom(image(65535, 65535, 16, bytes(8))))
item = struct.pack("<HHI", 0xfffe, 0xe000, 0x80000000) + bytes(8)
write("dicom_reader", "item-claims-2gb.dcm", dicom([element(0x8, 0x1140, b"SQ", item, length=0xffffffff)]))
