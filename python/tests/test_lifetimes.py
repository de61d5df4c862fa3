"""Python objects deleted before or after the C++ objects that refer to them."""
import gc
import itertools

import numpy as np
import pytest

import vorn
from conftest import ArraySource, Scale


class Counter(vorn.IObserver):
    def __init__(self):
        super().__init__()
        self.validated = 0

    def onValidated(self, op):
        self.validated += 1


def build():
    source = ArraySource(np.ones((2, 2), np.float32))
    scale = Scale()
    scale.getInputPort(0).connectTo(source.getOutputPort(0))
    pipeline = vorn.BasePipeline()
    pipeline.registerOperator(source)
    pipeline.registerOperator(scale)
    counter = Counter()
    scale.attachObserver(counter)
    image = scale.getOutputPort(0).getData()
    return {"source": source, "scale": scale, "pipeline": pipeline, "counter": counter,
            "image": image}


# Every fifth of the 120 orders: each object is deleted in each position at least once.
@pytest.mark.parametrize("order", list(itertools.permutations(
    ["source", "scale", "pipeline", "counter", "image"]))[::5])
def test_any_deletion_order(order, quiet):
    objects = build()
    scale = objects["scale"]
    scale.update()
    for name in order:
        if name != "scale" and "scale" in objects:
            try:  # works, or finds its source gone with the last Python reference to it
                objects["scale"].update()
            except vorn.UpdateError as error:
                assert "has no data" in str(error)
        del objects[name]
        gc.collect()
    del scale
    gc.collect()


def test_pipeline_keeps_its_python_operators(quiet):
    pipeline = vorn.BasePipeline()
    pipeline.registerOperator(Scale())  # only the pipeline refers to it now
    gc.collect()
    (op,) = pipeline.getOperators()
    assert op.getParameterValue("factor") == "2"  # still the Python operator


def test_detached_observers_are_released(quiet):
    scale, counter = Scale(), Counter()
    scale.attachObserver(counter)
    scale.detachObserver(counter)
    assert not scale.__dict__.get("_vorn_observers")
