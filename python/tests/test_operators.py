import numpy as np
import pytest

import vorn
from conftest import ArraySource, Scale


def output_array(op):
    return np.asarray(op.getOutputPort(0).getData())


def test_python_operators_update_on_demand(chain, quiet):
    source, scale = chain
    scale.update()
    np.testing.assert_array_equal(output_array(scale), np.arange(12).reshape(3, 4) * 2)
    scale.update()
    assert (source.runs, scale.runs) == (1, 1)  # up to date: nothing reruns
    scale.setParameterValue("factor", "3")
    scale.update()
    assert (source.runs, scale.runs) == (1, 2)  # only what depends on the parameter
    assert "Processing with operator : Scale" in quiet.text


def test_observers_hear_the_events_in_order(chain):
    source, scale = chain
    heard = []

    class Listener(vorn.IObserver):
        def onStartComputingData(self, op):
            heard.append(("start", op.getName()))

        def onValidated(self, op):
            heard.append(("validated", op.getName()))

    scale.attachObserver(Listener())  # kept alive by the operator
    scale.update()
    assert heard == [("start", "Scale"), ("validated", "Scale")]


def test_repercussion_switch_stops_invalidation(chain):
    source, scale = chain
    scale.update()
    previous = vorn.Repercussion.setEnable(False)
    try:
        source.setToInvalidated()
        assert not scale.isInvalidated()
    finally:
        vorn.Repercussion.setEnable(previous)


def test_library_operators_files_and_graph(tmp_path, quiet):
    image = np.zeros((32, 48), np.float32)
    image[8:24, 12:36] = 200
    source = ArraySource(image)
    smooth, threshold, stats = vorn.GaussianSmoothing(), vorn.BinaryThreshold(), \
        vorn.StatisticsOperator()
    smooth.setParameterValue("sigma", "1")
    threshold.setParameterValue("lower", "100")
    smooth.getInputPort(0).connectTo(source.getOutputPort(0))
    threshold.getInputPort(0).connectTo(smooth.getOutputPort(0))
    stats.getInputPort(0).connectTo(threshold.getOutputPort(0))
    stats.update()
    assert stats.getStatistics().count == 32 * 48
    path = str(tmp_path / "mask.png")
    vorn.writeImageFile(threshold.getOutputPort(0).getData(), path)
    np.testing.assert_array_equal(np.asarray(vorn.readImageFile(path)), output_array(threshold))
    dot = vorn.writeGraphviz([stats])
    assert dot.startswith("digraph") and "GaussianSmoothing" in dot


def test_pipeline_text(tmp_path):
    source = tmp_path / "in.png"
    image = vorn.ImageObject.from_array(np.arange(64, dtype=np.uint8).reshape(8, 8))
    vorn.writeImageFile(image, str(source))
    with vorn.capture_output():
        report = vorn.run(f"read file={source} ! stats ! write file={tmp_path / 'out.png'}")
    assert "count=64" in report and (tmp_path / "out.png").exists()
    with pytest.raises(vorn.PipelineTextError):
        vorn.run("read file=x.png ! nosuchoperator")


def test_pipelines_run_python_operators(quiet):
    pipeline = vorn.BasePipeline()
    scale = Scale()
    pipeline.registerOperator(scale)
    assert pipeline.isContainingProcessObject(scale)
    pipeline.unRegisterOperator(scale)
    assert not pipeline.isContainingProcessObject(scale)


def test_filter_and_morphology_classes_are_the_catalog_operators(quiet):
    # A ring with a hole: each class runs under its catalog name and gives what the ring says.
    image = np.zeros((9, 9), np.float32)
    image[2:7, 2:7] = 1
    image[4, 4] = 0
    source = ArraySource(image)
    expected = {"fill": 25, "largest": 24, "erode": 4, "dilate": 49 - 4, "median": 25 - 4}
    for name, cls in [("median", vorn.MedianFilter), ("erode", vorn.Erosion),
                      ("dilate", vorn.Dilation), ("open", vorn.Opening), ("close", vorn.Closing),
                      ("gradient", vorn.GradientMagnitude), ("laplace", vorn.LaplacianOfGaussian),
                      ("label", vorn.ConnectedComponents), ("largest", vorn.LargestComponents),
                      ("fill", vorn.FillHoles), ("distance", vorn.DistanceMap)]:
        op = vorn.createOperator(name)
        assert isinstance(op, cls), name
        op.getInputPort(0).connectTo(source.getOutputPort(0))
        op.update()
        out = output_array(op)
        assert out.shape == image.shape
        if name in expected:
            assert np.count_nonzero(out) == expected[name], name
