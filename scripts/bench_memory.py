"""Peak resident size of vorn-run pipelines on a 256^3 float NIfTI volume (64 MiB), against the
pixel buffers the pipeline keeps alive; each pipeline also runs on a 1-voxel volume, whose peak
is the program's own size. Writes memory.json into RESULTS_DIR for bench_table.py.

Usage: bench_memory.py VORN_PEAK_MEMORY VORN_RUN RESULTS_DIR
"""
import array
import json
import os
import pathlib
import struct
import subprocess
import sys
import tempfile

MIB = 1 << 20
# pipeline text after "read file=IN !", and the MiB of pixels it keeps alive to the end
PIPELINES = [
    ("write file=OUT", 64),
    ("cast type=short ! write file=OUT", 64 + 32),
    ("gaussian sigma=2 ! write file=OUT", 64 + 64),
]


def write_nifti(path, side):
    header = bytearray(348)
    struct.pack_into("<i", header, 0, 348)
    struct.pack_into("<8h", header, 40, 3, side, side, side, 1, 1, 1, 1)
    struct.pack_into("<2h", header, 70, 16, 32)  # float32
    struct.pack_into("<8f", header, 76, *([1.0] * 8))
    struct.pack_into("<f", header, 108, 352.0)
    header[344:348] = b"n+1\0"
    plane = array.array("f", [float((x * 7 + y * 13) % 255)
                              for y in range(side) for x in range(side)]).tobytes()
    with open(path, "wb") as out:
        out.write(header + bytes(4))
        for _ in range(side):
            out.write(plane)


def main():
    peak_memory, vorn_run, results = sys.argv[1], sys.argv[2], pathlib.Path(sys.argv[3])

    def peak_kib(command):
        done = subprocess.run([peak_memory, *command], capture_output=True, text=True, check=True)
        return int(done.stdout.split()[-1])

    rows = []
    with tempfile.TemporaryDirectory() as folder:
        big, tiny = os.path.join(folder, "big.nii"), os.path.join(folder, "tiny.nii")
        write_nifti(big, 256)
        write_nifti(tiny, 1)
        out = os.path.join(folder, "out.nii")
        for text, live_mib in PIPELINES:
            def run(source):
                words = f"read file={source} ! {text}".replace("OUT", out).split()
                return peak_kib([vorn_run, "-q", *words])
            rows.append({"pipeline": f"read ! {text.replace(' file=OUT', '')}",
                         "peak_kib": run(big), "base_kib": run(tiny), "live_mib": live_mib})
    (results / "memory.json").write_text(json.dumps(rows, indent=1))


if __name__ == "__main__":
    main()
