import shutil
import zlib

import numpy as np

import vorn
from conftest import ArraySource


def decode_png(data):
    """The grey pixels of a PNG written with filter type 0, by hand."""
    assert data[:8] == b"\x89PNG\r\n\x1a\n"
    width, height = int.from_bytes(data[16:20], "big"), int.from_bytes(data[20:24], "big")
    start = data.index(b"IDAT") + 4
    length = int.from_bytes(data[start - 8 : start - 4], "big")
    rows = np.frombuffer(zlib.decompress(data[start : start + length]), np.uint8)
    return rows.reshape(height, width + 1)[:, 1:]


def test_a_plane_shows_stretched_to_eight_bits():
    image = vorn.ImageObject.from_array(np.array([[0, 1], [2, np.nan]], np.float32), copy=True)
    np.testing.assert_array_equal(decode_png(image._repr_png_()), [[0, 128], [255, 0]])


def test_a_volume_shows_its_three_middle_slices_side_by_side():
    volume = np.arange(2 * 3 * 4, dtype=np.int16).reshape(2, 3, 4)
    shown = decode_png(vorn.ImageObject.from_array(volume, copy=True)._repr_png_())
    assert shown.shape == (3, 4 + 2 + 4 + 2 + 3)
    np.testing.assert_array_equal(shown[:, :4], np.rint((volume[1] - 0) * 255.0 / 23))


def test_an_operator_shows_the_graph_upstream(quiet):
    source = ArraySource(np.zeros((2, 2), np.float32))
    flip = vorn.FlipOperator()
    flip.setInputPort(0, source.getOutputPort(0))
    assert "ArraySource" in flip._repr_markdown_() and "FlipOperator" in flip._repr_markdown_()
    svg = flip._repr_svg_()
    assert (svg is None) == (shutil.which("dot") is None)
    assert svg is None or "<svg" in svg


def test_intensity_and_geometry_classes_run_from_python(quiet):
    array = np.arange(24, dtype=np.float32).reshape(2, 3, 4)
    first, second = ArraySource(array), ArraySource(array + 1)
    ratio = vorn.MathOperator(2)
    ratio.setParameterValue("op", "div")
    ratio.setInputPort(0, first.getOutputPort(0))
    ratio.setInputPort(1, second.getOutputPort(0))
    permute = vorn.PermuteAxes()
    permute.setParameterValue("order", "2,0,1")
    permute.setInputPort(0, ratio.getOutputPort(0))
    permute.update()
    expected = np.transpose(array / (array + 1), (1, 2, 0))
    np.testing.assert_array_equal(np.asarray(permute.getOutputPort(0).getData()), expected)
