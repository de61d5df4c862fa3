import traceback

import numpy as np
import pytest

import vorn
from conftest import ArraySource


class Failing(vorn.ProcessObject):
    def __init__(self):
        super().__init__()
        self.setName("Failing")
        self.addOutput("ImageObject")

    def generateData(self):
        raise ValueError("no pixels today")


def test_python_exception_comes_back_through_update(quiet):
    with pytest.raises(vorn.UpdateError) as caught:
        Failing().update()
    assert isinstance(caught.value, RuntimeError)
    assert "Operator Failing has caught an exception" in str(caught.value)
    cause = caught.value.__cause__
    assert isinstance(cause, ValueError)
    frames = traceback.extract_tb(cause.__traceback__)
    assert frames[-1].name == "generateData"


def test_engine_failures_are_update_errors(quiet):
    reader = vorn.ImageFileReader()
    reader.setParameterValue("file", "/nonexistent/image.png")
    with pytest.raises(vorn.UpdateError, match="no such file"):
        reader.update()
    unconnected = vorn.GaussianSmoothing()
    with pytest.raises(vorn.UpdateError, match="has no data"):
        unconnected.update()


def test_file_errors_name_the_file(tmp_path):
    broken = tmp_path / "broken.png"
    broken.write_bytes(b"\x89PNG\r\n\x1a\n garbage")
    with pytest.raises(vorn.ImageFileError, match="broken.png"):
        vorn.readImageFile(str(broken))
    with pytest.raises(OSError):  # ImageFileError is an OSError
        vorn.writeImageFile(vorn.ImageObject.from_array(np.zeros(4, np.uint8)),
                            str(tmp_path / "out.unknown"))
