"""Measures reading and writing each file format in MB/s of pixel bytes, vorn beside the Python
library users know for it (tifffile, nibabel, pydicom) on the same file in the same run. The
pixels are 64 slices of 512 x 512 int16 (32 MiB): a smooth ramp with noise in its low bits, so
that compression has the work of a real scan. Files stay in the page cache (each timing is the
best of REPEATS), so the figures are decoding and copying, not the disk.

Usage: PYTHONPATH=build/release/python /usr/bin/python3 scripts/bench_formats.py [OUT]
(the table is printed, and written to OUT when given)
"""
import datetime
import os
import sys
import tempfile
import time

import nibabel
import numpy as np
import pydicom
import tifffile
from pydicom.dataset import Dataset, FileMetaDataset
from pydicom.uid import ExplicitVRLittleEndian, generate_uid

import vorn

REPEATS = 5
SLICES, ROWS, COLUMNS = 64, 512, 512


def volume():
    z, y, x = np.ogrid[:SLICES, :ROWS, :COLUMNS]
    noise = np.random.default_rng(1).integers(0, 16, (SLICES, ROWS, COLUMNS))
    return (z * 7 + y * 3 + x - 1000 + noise).astype(np.int16)


def best(run):
    times = []
    for _ in range(REPEATS):
        start = time.perf_counter()
        run()
        times.append(time.perf_counter() - start)
    return min(times)


def vorn_image(array):
    return vorn.ImageObject.from_array(array, copy=True)


def raw_header(kind, array):
    """NRRD and MetaImage headers for raw little-endian data, which vorn itself writes compressed."""
    z, y, x = array.shape
    if kind == "nrrd":
        return (f"NRRD0004\ntype: short\ndimension: 3\nsizes: {x} {y} {z}\nendian: little\n"
                "encoding: raw\n\n").encode()
    return (f"ObjectType = Image\nNDims = 3\nDimSize = {x} {y} {z}\nElementType = MET_SHORT\n"
            "BinaryData = True\nBinaryDataByteOrderMSB = False\nElementDataFile = LOCAL\n").encode()


def write_series(folder, array):
    series = generate_uid()
    for k, plane in enumerate(array):
        meta = FileMetaDataset()
        meta.MediaStorageSOPClassUID = "1.2.840.10008.5.1.4.1.1.2"
        meta.MediaStorageSOPInstanceUID = generate_uid()
        meta.TransferSyntaxUID = ExplicitVRLittleEndian
        ds = Dataset()
        ds.file_meta = meta
        ds.SOPClassUID, ds.SOPInstanceUID = meta.MediaStorageSOPClassUID, meta.MediaStorageSOPInstanceUID
        ds.SeriesInstanceUID = series
        ds.ImageOrientationPatient = [1, 0, 0, 0, 1, 0]
        ds.ImagePositionPatient = [0, 0, 2.5 * k]
        ds.PixelSpacing = [0.5, 0.5]
        ds.Rows, ds.Columns, ds.SamplesPerPixel = ROWS, COLUMNS, 1
        ds.PhotometricInterpretation = "MONOCHROME2"
        ds.BitsAllocated, ds.BitsStored, ds.HighBit, ds.PixelRepresentation = 16, 16, 15, 1
        ds.PixelData = plane.tobytes()
        ds.is_little_endian, ds.is_implicit_VR = True, False
        ds.save_as(os.path.join(folder, f"slice{k:03}.dcm"), write_like_original=False)


def pydicom_series(folder):
    slices = [pydicom.dcmread(os.path.join(folder, name)) for name in sorted(os.listdir(folder))]
    slices.sort(key=lambda ds: float(ds.ImagePositionPatient[2]))
    return np.stack([ds.pixel_array for ds in slices])


def measure(folder, array):
    """Rows: format, vorn read and write seconds, library name, its read and write seconds."""
    image = vorn_image(array)
    flat = array.reshape(-1, 65536)  # 256 x 65536: an axis past 32767 makes vorn write NIfTI-2
    flat_image = vorn_image(flat)
    path = lambda name: os.path.join(folder, name)
    tifffile.imwrite(path("raw.tif"), array)
    with open(path("raw.nrrd"), "wb") as out:
        out.write(raw_header("nrrd", array) + array.tobytes())
    with open(path("raw.mha"), "wb") as out:
        out.write(raw_header("mha", array) + array.tobytes())
    os.mkdir(path("series"))
    write_series(path("series"), array)
    nifti2 = nibabel.Nifti2Image(flat.T, np.eye(4))

    def read(name):
        return lambda: vorn.readImageFile(path(name))

    def write(source, name):
        return lambda: vorn.writeImageFile(source, path(name))

    rows = [
        ("TIFF deflate", read("deflate.tif"), write(image, "deflate.tif"), "tifffile",
         lambda: tifffile.imread(path("deflate.tif")),
         lambda: tifffile.imwrite(path("lib.tif"), array, compression="zlib")),
        ("TIFF raw", read("raw.tif"), None, "tifffile", lambda: tifffile.imread(path("raw.tif")),
         lambda: tifffile.imwrite(path("lib.tif"), array)),
        ("NRRD gzip", read("gzip.nrrd"), write(image, "gzip.nrrd"), "", None, None),
        ("NRRD raw", read("raw.nrrd"), None, "", None, None),
        ("MetaImage zlib", read("zlib.mha"), write(image, "zlib.mha"), "", None, None),
        ("MetaImage raw", read("raw.mha"), None, "", None, None),
        ("NIfTI-2 .nii", read("two.nii"), write(flat_image, "two.nii"), "nibabel",
         lambda: np.asarray(nibabel.load(path("two.nii"), mmap=False).dataobj),
         lambda: nibabel.save(nifti2, path("lib.nii"))),
        ("DICOM series, 64 files", read("series"), None, "pydicom",
         lambda: pydicom_series(path("series")), None),
    ]
    results = []
    for name, vorn_read, vorn_write, library, library_read, library_write in rows:
        # Writing first makes the file the reads then time.
        write_time = best(vorn_write) if vorn_write else None
        results.append((name, best(vorn_read), write_time, library,
                        best(library_read) if library_read else None,
                        best(library_write) if library_write else None))
    return results


def main():
    array = volume()
    megabytes = array.nbytes / 1e6
    with tempfile.TemporaryDirectory() as folder:
        results = measure(folder, array)
    rate = lambda seconds: f"{megabytes / seconds:.0f}" if seconds else ""
    load = ", ".join(f"{value:.1f}" for value in os.getloadavg())
    lines = [f"{datetime.date.today()}, load average {load}, 32 MiB int16, best of {REPEATS}",
             "",
             "| format | vorn read MB/s | vorn write MB/s | library | its read MB/s | its write MB/s |",
             "|---|---|---|---|---|---|"]
    for name, vorn_read, vorn_write, library, library_read, library_write in results:
        lines.append(f"| {name} | {rate(vorn_read)} | {rate(vorn_write)} | {library} | "
                     f"{rate(library_read)} | {rate(library_write)} |")
    text = "\n".join(lines)
    print(text)
    if len(sys.argv) > 1:
        with open(sys.argv[1], "w") as out:
            out.write(text + "\n")


if __name__ == "__main__":
    main()
