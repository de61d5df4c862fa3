import math
import os
import signal
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import vorn
from vorn import chunked

da = pytest.importorskip("dask.array")
zarr = pytest.importorskip("zarr")


def image(shape, dtype, seed=0):
    values = np.random.default_rng(seed).uniform(-50, 300, shape)
    info = np.iinfo(dtype) if np.dtype(dtype).kind in "iu" else None
    return (np.clip(values, info.min, info.max) if info else values).astype(dtype)


@pytest.mark.parametrize("text, halo", [
    ("threshold lower=1", (0, 0, 0)),
    ("gaussian sigma=2", (8, 8, 8)),
    ("gaussian sigma=1,2,3", (12, 8, 4)),  # vorn's axis 0 is NumPy's last
    ("gaussian sigma=1 ! cast type=short ! gaussian sigma=2", (12, 12, 12)),
    ("gaussian sigma=1 as=a ; gaussian sigma=3 ! mask in1=a", (12, 12, 12)),
    ("gaussian sigma=1 ! stats ! gaussian sigma=0.5", (6, 6, 6)),
])
def test_halo_sums_along_the_chain(text, halo):
    assert chunked.halo(text, 3) == halo


# Chunks that do not divide the image, and chunks thinner than the halo (8 for sigma 2).
IDENTITY = [
    ("gaussian sigma=2", [np.uint8], (21, 30, 17), (7, 11, 5)),
    ("gaussian sigma=1.5,0,3", [np.int16], (19, 23, 26), (3, 10, 9)),
    ("gaussian sigma=2", [np.float32], (40, 37), (16, 3)),
    ("cast type=uchar", [np.float32], (13, 14, 15), (4, 5, 6)),
    ("cast type=short ! threshold lower=20 upper=200 inside=7", [np.float32], (13, 14), (5, 4)),
    ("gaussian sigma=1 ! gaussian sigma=2 ! threshold lower=50", [np.int16], (24, 25, 26),
     (9, 8, 11)),
    ("gaussian sigma=2 ! cast type=uchar ! mask", [np.float32, np.uint8], (22, 18, 19), (6, 7, 8)),
    ("mask ! gaussian sigma=0.7 ! stats ! cast type=short", [np.uint8, np.uint8], (17, 31), (5, 6)),
]


@pytest.mark.parametrize("text, dtypes, shape, chunks", IDENTITY)
def test_chunks_equal_the_whole_image(text, dtypes, shape, chunks):
    arrays = [image(shape, d, seed) for seed, d in enumerate(dtypes)]
    whole, _ = chunked.compute(text, arrays)
    result = chunked.apply(text, [da.from_array(a, chunks=chunks) for a in arrays]).compute()
    assert result.dtype == whole.dtype
    np.testing.assert_array_equal(result, whole)


def structured(shape, dtype, kind, seed=0):
    """sparse: 40% of the pixels non-zero, in clusters that cross chunks; odd: NaN and
    infinities among the values; flat: one value."""
    rng = np.random.default_rng(seed)
    pixels = image(shape, dtype, seed)
    if kind == "sparse":
        pixels[rng.uniform(size=shape) > 0.4] = 0
    elif kind == "odd":
        pixels.flat[rng.integers(0, pixels.size, 5)] = [np.nan, np.inf, -np.inf, np.nan, np.inf]
    elif kind == "flat":
        pixels[...] = 7
    return pixels


# Operators whose output depends on the whole image: otsu's merged histogram, label's joined
# components; chunks that do not divide the image, diagonal joins for full connectivity.
GLOBAL = [
    ("otsu", np.uint8, "noise", (21, 30, 17), (7, 11, 5)),
    ("otsu", np.float32, "odd", (40, 37), (16, 3)),
    ("otsu", np.int16, "flat", (9, 10), (4, 3)),
    ("otsu threshold=100", np.float32, "noise", (9, 10), (4, 3)),
    ("gaussian sigma=1 ! otsu ! gaussian sigma=1 ! otsu", np.int16, "noise", (19, 23, 26),
     (3, 10, 9)),
    ("label", np.uint8, "sparse", (21, 30, 17), (7, 11, 5)),
    ("label connectivity=full", np.float32, "sparse", (19, 23, 26), (3, 10, 9)),
    ("label connectivity=full", np.int16, "sparse", (40, 37), (16, 3)),
    ("label", np.float32, "sparse", (40, 37), (7, 7)),
    ("label connectivity=full", np.uint8, "sparse", (50,), (7,)),
    ("gaussian sigma=1 ! otsu ! label", np.float32, "noise", (24, 25, 26), (9, 8, 11)),
    ("largest count=3", np.int16, "sparse", (21, 30, 17), (7, 11, 5)),
    ("largest count=2 connectivity=full", np.uint8, "sparse", (40, 37), (16, 3)),
    ("largest count=40", np.float32, "sparse", (40, 37), (16, 3)),  # the cut falls in a tie
    ("stats ! threshold lower=100 ! largest count=500", np.float32, "noise", (24, 25), (5, 6)),
]


@pytest.mark.parametrize("text, dtype, kind, shape, chunks", GLOBAL)
def test_merged_operators_equal_the_whole_image(text, dtype, kind, shape, chunks):
    pixels = structured(shape, dtype, kind)
    whole, _ = chunked.compute(text, pixels)
    result = chunked.apply(text, da.from_array(pixels, chunks=chunks)).compute()
    assert result.dtype == whole.dtype
    np.testing.assert_array_equal(result, whole)


def test_uint16_reads_as_float32():
    pixels = image((12, 13), np.uint16)
    result = chunked.apply("gaussian sigma=1", da.from_array(pixels, chunks=5)).compute()
    np.testing.assert_array_equal(result, chunked.compute("gaussian sigma=1",
                                                          pixels.astype(np.float32))[0])


def save(path, pixels, chunks, **options):
    array = zarr.open(str(path), mode="w", shape=pixels.shape, chunks=chunks, dtype=pixels.dtype,
                      **options)
    array[...] = pixels
    array.attrs.update(spacing=[0.5, 1.0, 2.0], origin=[1.0, 2.0, 3.0])
    return str(path)


def test_stats_merge_matches_the_whole_image(tmp_path):
    pixels = image((30, 22, 19), np.float32)
    text = "gaussian sigma=1.5 as=smooth ! stats as=figures ! threshold lower=100"
    source = save(tmp_path / "in.zarr", pixels, (8, 9, 7), compressor=None)  # read mapped
    result = chunked.run(text, source, tmp_path / "out.zarr")
    smoothed, _ = chunked.compute("gaussian sigma=1.5", pixels)
    op, source = vorn.StatisticsOperator(), chunked._Source(vorn.ImageObject.from_array(smoothed))
    with vorn.capture_output():
        op.getInputPort(0).connectTo(source.getOutputPort(0))
        op.update()
    whole = op.getStatistics()
    fields = dict(word.split("=") for word in result.report[0].split()[1:])
    assert result.report[0].startswith("figures: count=")
    assert (int(fields["count"]), float(fields["min"]), float(fields["max"])) == \
        (whole.count, float(f"{whole.min:.10g}"), float(f"{whole.max:.10g}"))
    merged = chunked.MERGES["stats"].combine(
        [chunked.StatisticsMerge().partial(smoothed[i:i + 8]) for i in range(0, 30, 8)])
    assert (merged["count"], merged["min"], merged["max"]) == (whole.count, whole.min, whole.max)
    for name in ("sum", "mean", "stddev"):
        assert math.isclose(merged[name], getattr(whole, name), rel_tol=1e-12)
    out = zarr.open(str(tmp_path / "out.zarr"), mode="r")
    assert out.chunks == (8, 9, 7) and out.attrs["spacing"] == [0.5, 1.0, 2.0]
    assert out.compressor is None  # stored as the source is
    np.testing.assert_array_equal(out[...], chunked.compute(text, pixels)[0])


def count_markers(destination):
    return len(os.listdir(os.path.join(destination, chunked._DONE)))


def test_resume_computes_only_what_is_missing(tmp_path, monkeypatch):
    pixels = image((24, 20, 16), np.int16)
    source, destination = save(tmp_path / "in.zarr", pixels, (6, 5, 4)), str(tmp_path / "out.zarr")
    text = "gaussian sigma=1 ! stats"
    real, calls = chunked._compute, []

    def failing(*args):
        calls.append(1)
        if len(calls) > 20:
            raise RuntimeError("stopped")
        return real(*args)

    monkeypatch.setattr(chunked, "_compute", failing)
    with pytest.raises(RuntimeError, match="stopped"):
        chunked.run(text, source, destination)
    monkeypatch.setattr(chunked, "_compute", real)
    time.sleep(0.5)  # chunks past their computation when the run failed finish writing
    written = count_markers(destination)
    assert 0 < written < 64
    result = chunked.run(text, source, destination, resume=True)
    assert (result.chunks, result.computed) == (64, 64 - written)
    np.testing.assert_array_equal(zarr.open(destination, mode="r")[...],
                                  chunked.compute(text, pixels)[0])
    assert result.report == chunked.run(text, source, str(tmp_path / "again.zarr")).report


def test_a_killed_worker_does_not_change_the_result(tmp_path):
    distributed = pytest.importorskip("distributed")
    pixels = image((64, 64, 64), np.float32)
    source = save(tmp_path / "in.zarr", pixels, (16, 16, 16))
    destination = str(tmp_path / "out.zarr")
    text = "gaussian sigma=2 ! otsu ! label"  # the merges' passes run on the workers too
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=None) as cluster, \
            distributed.Client(cluster) as client:
        pids = list(client.run(os.getpid).values())
        killed = []

        def kill_when_started():
            while not os.path.isdir(os.path.join(destination, chunked._DONE)) or \
                    count_markers(destination) < 10:
                time.sleep(0.01)
            killed.append(count_markers(destination))
            os.kill(pids[0], signal.SIGKILL)

        killer = threading.Thread(target=kill_when_started, daemon=True)
        killer.start()
        result = chunked.run(text, source, destination, client=client)
        killer.join(5)
    assert killed and killed[0] < result.chunks == 64
    np.testing.assert_array_equal(zarr.open(destination, mode="r")[...],
                                  chunked.compute(text, pixels)[0])


def dask_inputs(*specs):
    return [da.from_array(np.zeros(shape, dtype), chunks=c) for shape, dtype, c in specs]


REFUSED = [
    ("gaussian ! nosuch", [((8, 8), np.uint8, 4)], vorn.PipelineTextError, "unknown operator"),
    ("gaussian sigma=-1", [((8, 8), np.uint8, 4)], Exception, "sigma.*negative"),
    ("threshold inside=300", [((8, 8), np.uint8, 4)], Exception, "inside"),
    ("read file=a.png ! gaussian", [((8, 8), np.uint8, 4)], chunked.ChunkedError, "leave out read"),
    ("mask", [((8, 8), np.uint8, 4), ((8, 9), np.uint8, 4)], chunked.ChunkedError, "shapes"),
    ("mask", [((8, 8), np.uint8, 4), ((8, 8), np.uint8, 3)], chunked.ChunkedError, "chunks"),
    ("mask", [((8, 8), np.uint8, 4)], chunked.ChunkedError, "2 array"),
    ("gaussian", [((8, 8), np.int32, 4)], chunked.ChunkedError, "int32"),
    ("gaussian", [((8, 8), np.float64, 4)], chunked.ChunkedError, "float64"),
    ("gaussian as=g ; @g ! cast ; @g ! threshold", [((8, 8), np.uint8, 4)], chunked.ChunkedError,
     "one output"),
    ("label ! cast type=short", [((8, 8), np.uint8, 4)], chunked.ChunkedError,
     r"label \(label\) must be the last stage"),
    ("largest count=0", [((8, 8), np.uint8, 4)], Exception, "count"),
    ("otsu threshold=x", [((8, 8), np.uint8, 4)], Exception, "threshold"),
    ("fill", [((8, 8), np.uint8, 4)], chunked.ChunkedError, r"fill \(fill\) needs its whole"),
    ("crop start=1", [((8, 8), np.uint8, 4)], chunked.ChunkedError, r"crop \(crop\) needs"),
]


@pytest.mark.parametrize("text, specs, error, match", REFUSED)
def test_refused_before_anything_runs(text, specs, error, match):
    with pytest.raises(error, match=match):
        chunked.apply(text, dask_inputs(*specs))


def test_whole_image_operators_without_a_merge_are_refused(monkeypatch):
    monkeypatch.delitem(chunked.MERGES, "stats")
    with pytest.raises(chunked.ChunkedError, match=r"stats \(stats\) needs its whole input"):
        chunked.halo("gaussian ! stats", 2)


def test_run_refusals_write_nothing(tmp_path):
    source = save(tmp_path / "in.zarr", image((8, 8, 8), np.float32), 4)
    existing = tmp_path / "out.zarr"
    existing.mkdir()
    (existing / "keep").write_text("mine")
    with pytest.raises(chunked.ChunkedError, match="exists"):
        chunked.run("gaussian", source, existing)
    assert os.listdir(existing) == ["keep"]
    for text in ("gaussian sigma=x", "gaussian ! distance"):
        with pytest.raises(Exception):
            chunked.run(text, source, tmp_path / "new.zarr")
        assert not (tmp_path / "new.zarr").exists()
    with pytest.raises(chunked.ChunkedError, match="not made by this pipeline"):
        chunked.run("gaussian sigma=1", source, existing, resume=True)


def test_command_line(tmp_path):
    source = save(tmp_path / "in.zarr", image((16, 16, 16), np.uint8), 8)
    command = [sys.executable, "-m", "vorn.chunked", "gaussian sigma=1 ! stats", source,
               str(tmp_path / "out.zarr"), "--chunks", "6,16,5"]
    done = subprocess.run(command, capture_output=True, text=True, check=True)
    lines = done.stdout.strip().splitlines()
    assert lines[0].startswith("stats: count=4096 ")
    assert lines[-1].startswith("12 chunks (12 computed) in ") and lines[-1].endswith("MB/s")
    failed = subprocess.run(command, capture_output=True, text=True)
    assert failed.returncode == 1 and "exists" in failed.stderr


def test_imported_lazily_and_names_the_package():
    code = ("import sys; import vorn.chunked as c; assert 'dask' not in sys.modules and "
            "'zarr' not in sys.modules; sys.modules['dask'] = None\n"
            "try: c.apply('gaussian', None)\n"
            "except ImportError as e: print(e)")
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, check=True)
    assert "python3-dask" in done.stdout


def test_a_file_vorn_reads_is_a_source(tmp_path):
    pixels = image((21, 34), np.uint8)
    path = str(tmp_path / "in.png")
    with vorn.capture_output():
        vorn.writeImageFile(vorn.ImageObject.from_array(pixels), path)
    chunked.run("gaussian sigma=1.5", path, tmp_path / "out.zarr", chunks=(5, 7))
    out = zarr.open(str(tmp_path / "out.zarr"), mode="r")
    assert out.chunks == (5, 7) and len(out.attrs["spacing"]) == 2
    np.testing.assert_array_equal(out[...], chunked.compute("gaussian sigma=1.5", pixels)[0])
