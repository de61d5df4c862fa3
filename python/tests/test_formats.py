"""Files written by the Python libraries users know (tifffile, nibabel) read by vorn: the same
pixels, in NumPy's axis order, with the same spacing."""
import numpy as np
import pytest

import vorn

tifffile = pytest.importorskip("tifffile")
nib = pytest.importorskip("nibabel")

RAMP = np.arange(24).reshape(2, 3, 4)


def nifti(kind, array, zooms):
    def write(path):
        image = kind(array, np.diag(list(zooms) + [1.0]))
        image.header.set_zooms(zooms)
        nib.save(image, path)
    return write


def tiff(array, **options):
    return lambda path: tifffile.imwrite(path, array, **options)


# name, writer, the array it holds, vorn's spacing (axis 0 first)
CASES = [
    ("u16.tif", tiff(RAMP[0].astype(np.uint16) * 2000, resolution=(4.0, 2.0)), RAMP[0] * 2000, (0.25, 0.5)),
    ("i32-zlib.tif", tiff(RAMP.astype(np.int32) - 12, compression="zlib", photometric="minisblack"), RAMP - 12, (1, 1, 1)),
    ("f64-tiled.tif", tiff(RAMP[0].astype(np.float64) / 8, tile=(16, 16)), RAMP[0] / 8, (1, 1)),
    ("u8-big.tif", tiff(RAMP.astype(np.uint8), bigtiff=True, photometric="minisblack"), RAMP, (1, 1, 1)),
    ("s16.nii.gz", nifti(nib.Nifti1Image, RAMP.astype(np.int16), (0.5, 2.0, 3.0)), RAMP, (0.5, 2.0, 3.0)),
    ("f32-2.nii", nifti(nib.Nifti2Image, RAMP.astype(np.float32) / 4, (1.5, 1.0, 0.25)), RAMP / 4, (1.5, 1.0, 0.25)),
]


@pytest.mark.parametrize("name, write, expected, spacing", CASES, ids=[c[0] for c in CASES])
def test_reads_what_the_python_libraries_write(tmp_path, name, write, expected, spacing):
    path = str(tmp_path / name)
    write(path)
    image = vorn.readImageFile(path)
    pixels = np.asarray(image)
    if name.endswith(".nii") or name.endswith(".nii.gz"):
        pixels = pixels.transpose()  # nibabel's arrays are indexed (x, y, z)
    np.testing.assert_array_equal(pixels, expected)
    assert list(image.spacing) == pytest.approx(spacing)
