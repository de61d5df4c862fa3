import numpy as np
import pytest

import vorn


def test_images_are_numpy_views_without_copies(chain):
    source, scale = chain
    scale.update()
    image = scale.getOutputPort(0).getData()
    view = np.asarray(image)
    assert view.shape == (3, 4) and view.dtype == np.float32
    assert view.ctypes.data == image.address  # the image's own buffer
    view[0, 0] = 99
    assert np.asarray(image)[0, 0] == 99


def test_views_keep_the_image_alive(chain):
    source, scale = chain
    scale.update()
    view = np.asarray(scale.getOutputPort(0).getData())
    scale.getOutputPort(0).setData(vorn.ImageObject())  # the port lets go of the image
    del source, scale
    assert view.sum() == np.arange(12).sum() * 2


@pytest.mark.parametrize("dtype", [np.uint8, np.int16, np.float32])
def test_from_array_borrows_the_array(dtype):
    array = np.arange(24, dtype=dtype).reshape(2, 3, 4)
    image = vorn.ImageObject.from_array(array)
    assert image.address == array.ctypes.data and not image.getManageItsBuffer()
    assert image.getBufferedRegion().size == [4, 3, 2]
    del array  # the image keeps it alive
    assert np.asarray(image)[1, 2, 3] == 23
    image.spacing = (0.5, 1.0, 2.0)
    assert image.spacing == (0.5, 1.0, 2.0)


def test_from_array_refuses_what_it_cannot_borrow():
    with pytest.raises(TypeError, match="float64"):
        vorn.ImageObject.from_array(np.zeros((2, 2)))
    with pytest.raises(TypeError, match="contiguous"):
        vorn.ImageObject.from_array(np.zeros((4, 4), np.float32)[:, ::2])
    copied = vorn.ImageObject.from_array(np.ones((2, 2)), copy=True)
    assert np.asarray(copied).dtype == np.float32


def test_restrict_to_mask_in_place():
    pixels = np.full((4, 4), 7, np.int16)
    mask = np.zeros((4, 4), np.uint8)
    mask[1:3, 1:3] = 1
    with vorn.capture_output():
        vorn.restrictImageToRoi(vorn.ImageObject.from_array(pixels),
                                vorn.ImageObject.from_array(mask))
    assert pixels.sum() == 4 * 7
