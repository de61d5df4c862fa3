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


def write_dicom_series(folder, pydicom, slices, spacing):
    """A tilted int16 series, rescaled by 0.5 and -100, written to disk in reverse order."""
    from pydicom.dataset import Dataset, FileMetaDataset
    from pydicom.uid import ExplicitVRLittleEndian, generate_uid
    series = generate_uid()
    normal = np.array([0.0, -0.6, 0.8])  # of the rows (1, 0, 0) and columns (0, 0.8, 0.6)
    for k in range(slices):
        meta = FileMetaDataset()
        meta.MediaStorageSOPClassUID = "1.2.840.10008.5.1.4.1.1.4"
        meta.MediaStorageSOPInstanceUID = generate_uid()
        meta.TransferSyntaxUID = ExplicitVRLittleEndian
        ds = Dataset()
        ds.file_meta = meta
        ds.SOPClassUID, ds.SOPInstanceUID = meta.MediaStorageSOPClassUID, meta.MediaStorageSOPInstanceUID
        ds.SeriesInstanceUID = series
        ds.ImageOrientationPatient = [1, 0, 0, 0, 0.8, 0.6]
        ds.ImagePositionPatient = list(np.array([5.0, 1.0, 2.0]) + k * spacing * normal)
        ds.PixelSpacing = [0.75, 0.5]
        ds.RescaleSlope, ds.RescaleIntercept = 0.5, -100
        ds.Rows, ds.Columns, ds.SamplesPerPixel = 3, 4, 1
        ds.PhotometricInterpretation = "MONOCHROME2"
        ds.BitsAllocated, ds.BitsStored, ds.HighBit, ds.PixelRepresentation = 16, 16, 15, 1
        ds.PixelData = (RAMP[0].astype(np.int16) * (k + 1) - 7).tobytes()
        ds.is_little_endian, ds.is_implicit_VR = True, False
        ds.save_as(str(folder / f"image{slices - k}.dcm"), write_like_original=False)


def test_reads_a_dicom_series_as_pydicom_does(tmp_path):
    pydicom = pytest.importorskip("pydicom")
    write_dicom_series(tmp_path, pydicom, 3, 2.5)
    image = vorn.readImageFile(str(tmp_path))
    by_position = sorted((pydicom.dcmread(str(p)) for p in tmp_path.iterdir()),
                         key=lambda ds: np.dot(ds.ImagePositionPatient, [0, -0.6, 0.8]))
    expected = np.stack([ds.pixel_array * float(ds.RescaleSlope) + float(ds.RescaleIntercept)
                         for ds in by_position])
    np.testing.assert_array_equal(np.asarray(image), expected)
    assert list(image.spacing) == pytest.approx([0.5, 0.75, 2.5])
    assert list(image.origin) == pytest.approx(by_position[0].ImagePositionPatient)
    with pytest.raises(vorn.ImageFileError, match="holds no DICOM series 1.2.3"):
        vorn.readImageFile(str(tmp_path), series="1.2.3")
