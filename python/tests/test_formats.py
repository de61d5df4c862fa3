"""Files written by the Python libraries users know (tifffile, nibabel, Pillow) read by vorn: the
same pixels, in NumPy's axis order, with the same spacing; and pydicom's compressed test files
read as their uncompressed twins or as pydicom decodes them."""
import os

import numpy as np
import pytest

import vorn

tifffile = pytest.importorskip("tifffile")
nib = pytest.importorskip("nibabel")
Image = pytest.importorskip("PIL.Image")
pydicom = pytest.importorskip("pydicom")

RAMP = np.arange(24).reshape(2, 3, 4)
SMOOTH = np.add.outer(np.arange(48) * 2, np.arange(64) * 2).astype(np.uint8)  # JPEG's best case
COLOUR = np.stack([SMOOTH, 255 - SMOOTH, SMOOTH // 2], axis=-1)


def luma(rgb):
    rgb = rgb.astype(float)
    return np.floor((299 * rgb[..., 0] + 587 * rgb[..., 1] + 114 * rgb[..., 2] + 500) / 1000)


def nifti(kind, array, zooms):
    def write(path):
        image = kind(array, np.diag(list(zooms) + [1.0]))
        image.header.set_zooms(zooms)
        nib.save(image, path)
    return write


def tiff(array, **options):
    return lambda path: tifffile.imwrite(path, array, **options)


def pillow_jpeg(array, mode):
    return lambda path: Image.fromarray(array).convert(mode).save(
        path, compression="tiff_jpeg", quality=90, dpi=(254, 127))


# name, writer, the array it holds, vorn's spacing in mm (axis 0 first), largest difference
CASES = [
    ("u16-inch.tif", tiff(RAMP[0].astype(np.uint16) * 2000, resolution=(4.0, 2.0)), RAMP[0] * 2000, (6.35, 12.7), 0),
    ("u8-cm.tif", tiff(RAMP[0].astype(np.uint8), resolution=(4.0, 2.0), resolutionunit="CENTIMETER"), RAMP[0], (2.5, 5), 0),
    ("i32-zlib.tif", tiff(RAMP.astype(np.int32) - 12, compression="zlib", photometric="minisblack"), RAMP - 12, (1, 1, 1), 0),
    ("f64-tiled.tif", tiff(RAMP[0].astype(np.float64) / 8, tile=(16, 16), resolution=(4.0, 2.0), resolutionunit="NONE"), RAMP[0] / 8, (0.25, 0.5), 0),
    ("u8-big.tif", tiff(RAMP.astype(np.uint8), bigtiff=True, photometric="minisblack"), RAMP, (1, 1, 1), 0),
    ("gray-jpeg.tif", pillow_jpeg(SMOOTH, "L"), SMOOTH, (0.1, 0.2), 3),
    ("rgb-jpeg.tif", pillow_jpeg(COLOUR, "RGB"), luma(COLOUR), (0.1, 0.2), 3),
    ("ycbcr-jpeg.tif", pillow_jpeg(COLOUR, "YCbCr"), luma(COLOUR), (0.1, 0.2), 3),
    ("s16.nii.gz", nifti(nib.Nifti1Image, RAMP.astype(np.int16), (0.5, 2.0, 3.0)), RAMP, (0.5, 2.0, 3.0), 0),
    ("f32-2.nii", nifti(nib.Nifti2Image, RAMP.astype(np.float32) / 4, (1.5, 1.0, 0.25)), RAMP / 4, (1.5, 1.0, 0.25), 0),
]


@pytest.mark.parametrize("name, write, expected, spacing, tolerance", CASES, ids=[c[0] for c in CASES])
def test_reads_what_the_python_libraries_write(tmp_path, name, write, expected, spacing, tolerance):
    path = str(tmp_path / name)
    write(path)
    image = vorn.readImageFile(path)
    pixels = np.asarray(image)
    if name.endswith(".nii") or name.endswith(".nii.gz"):
        pixels = pixels.transpose()  # nibabel's arrays are indexed (x, y, z)
    np.testing.assert_allclose(pixels, expected, rtol=0, atol=tolerance)
    assert list(image.spacing) == pytest.approx(spacing)


DICOM_FILES = "/usr/lib/python3/dist-packages/pydicom/data/test_files"


def pydicom_pixels(name):
    """What pydicom decodes, rescaled, colour as vorn's luma (YBR's is its Y)."""
    from pydicom.pixel_data_handlers.util import apply_modality_lut
    ds = pydicom.dcmread(os.path.join(DICOM_FILES, name))
    pixels = apply_modality_lut(ds.pixel_array, ds).astype(float)
    if ds.SamplesPerPixel == 3:
        pixels = pixels[..., 0] if ds.PhotometricInterpretation.startswith("YBR") else luma(pixels)
    return pixels


# file, the file whose pixels pydicom decodes as the reference, largest difference
DICOM_CASES = [
    ("MR_small_RLE.dcm", "MR_small.dcm", 0),
    ("rtdose_rle.dcm", "rtdose.dcm", 0),  # uint32 frames: FLOAT
    ("SC_rgb_rle_16bit_2frame.dcm", "SC_rgb_rle_16bit_2frame.dcm", 0),
    ("MR_small_jpeg_ls_lossless.dcm", "MR_small.dcm", 0),
    ("MR_small_jp2klossless.dcm", "MR_small.dcm", 0),
    ("SC_rgb_jpeg_gdcm.dcm", "SC_rgb_rle.dcm", 0),  # JPEG lossless, process 14
    ("SC_rgb_gdcm_KY.dcm", "SC_rgb_rle.dcm", 0),  # JPEG 2000 of a lossless quality
    ("SC_rgb_jpeg_dcmtk.dcm", "SC_rgb_rle.dcm", 1),  # JPEG baseline, YBR_FULL
    ("SC_rgb_dcmtk_+eb+cr.dcm", "SC_rgb_rle.dcm", 1),  # JPEG baseline, RGB
    ("SC_rgb_dcmtk_+eb+cy+s2.dcm", "SC_rgb_rle.dcm", 1),  # JPEG baseline, YBR_FULL_422
    ("JPEG2000.dcm", "JPEG2000.dcm", 0),  # JPEG 2000, lossy
    ("693_J2KI.dcm", "693_J2KI.dcm", 0),  # JPEG 2000, lossy, 14 of 16 bits, signed
]


@pytest.mark.parametrize("name, reference, tolerance", DICOM_CASES, ids=[c[0] for c in DICOM_CASES])
def test_reads_compressed_dicom_as_pydicom_does(name, reference, tolerance):
    image = vorn.readImageFile(os.path.join(DICOM_FILES, name))
    np.testing.assert_allclose(np.asarray(image), pydicom_pixels(reference), rtol=0, atol=tolerance)


def test_reads_12_bit_lossy_jpeg_dicom():
    """pydicom cannot decode it; the two values a viewer shows there, as pydicom's tests keep them."""
    pixels = np.asarray(vorn.readImageFile(os.path.join(DICOM_FILES, "JPEG-lossy.dcm")))
    assert pixels.shape == (1024, 256)
    assert (pixels[420, 140], pixels[230, 120]) == (244, 95)


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
