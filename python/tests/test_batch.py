"""A folder of generated images through one pipeline, in this process and on a local cluster of
two worker processes: the outputs must be the same, byte for byte."""
import filecmp

import numpy as np
import pytest

import vorn
from vorn.batch import run_batch

PIPELINE = "read file={input} ! gaussian sigma=1.5 ! stats ! cast type=uchar ! write file={output}"


@pytest.fixture(scope="module")
def images(tmp_path_factory):
    folder = tmp_path_factory.mktemp("in")
    paths = []
    rng = np.random.default_rng(7)
    for k in range(6):
        path = folder / f"image{k}.png"
        pixels = rng.integers(0, 256, (40, 50), dtype=np.uint8)
        vorn.writeImageFile(vorn.ImageObject.from_array(pixels), str(path))
        paths.append(str(path))
    broken = folder / "broken.png"
    broken.write_bytes(b"not an image")
    return paths + [str(broken)]


def test_batch_on_a_local_cluster_matches_one_process(images, tmp_path):
    distributed = pytest.importorskip("distributed")
    alone = run_batch(PIPELINE, images, str(tmp_path / "alone"))
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=None) as cluster, \
            distributed.Client(cluster) as client:
        spread = run_batch(PIPELINE, images, str(tmp_path / "spread"), client)
    assert [r.report for r in spread] == [r.report for r in alone]
    good = [r for r in spread if not r.error]
    assert len(good) == 6 and all("count=2000" in r.report for r in good)
    for mine, theirs in zip(alone[:6], spread[:6]):
        assert filecmp.cmp(mine.output, theirs.output, shallow=False)
    assert "broken.png" in spread[6].error and spread[6].output == ""
