import numpy as np
import pytest

import vorn


class ArraySource(vorn.ProcessObject):
    """Hands out a copy of a NumPy array as its output image."""

    def __init__(self, array):
        super().__init__()
        self.setName("ArraySource")
        self.addOutput("ImageObject")
        self.array = array
        self.runs = 0

    def generateData(self):
        self.runs += 1
        out = self.getOutputPort(0).getData()
        out.Allocate(vorn.PixelType.FLOAT, vorn.Box(list(self.array.shape[::-1])))
        np.asarray(out)[...] = self.array


class Scale(vorn.ProcessObject):
    """Multiplies its input by the parameter `factor`, in NumPy, on the output's own buffer."""

    def __init__(self):
        super().__init__()
        self.setName("Scale")
        self.addInput("ImageObject")
        self.addOutput("ImageObject")
        self.addParameter("factor", "2")
        self.runs = 0

    def generateData(self):
        self.runs += 1
        out = self.getOutputPort(0).getData()
        out.import_(self.getInputPort(0).getData(), self)
        np.asarray(out)[...] *= float(self.getParameterValue("factor"))


@pytest.fixture
def quiet():
    with vorn.capture_output() as capture:
        yield capture


@pytest.fixture
def chain(quiet):
    source = ArraySource(np.arange(12, dtype=np.float32).reshape(3, 4))
    scale = Scale()
    scale.getInputPort(0).connectTo(source.getOutputPort(0))
    return source, scale
