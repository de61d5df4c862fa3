"""Draws the pictures of docs/guide.md with vorn itself: pipelines built through the Python
module, written by writeGraphviz and rendered by Graphviz's dot.

Usage: PYTHONPATH=build/release/python /usr/bin/python3 scripts/guide_pictures.py
"""
import pathlib
import subprocess
import tempfile

import numpy as np

import vorn

IMAGES = pathlib.Path(__file__).resolve().parent.parent / "docs" / "images"


def draw(name, roots, sample):
    dot = IMAGES / f"{name}.dot"
    # The sample's temporary path is of no interest.
    dot.write_text(vorn.writeGraphviz(roots).replace(sample, "sample.png"))
    subprocess.run(["dot", "-Tpng", str(dot), "-o", str(IMAGES / f"{name}.png")], check=True)


def named(op, name, **parameters):
    op.setName(name)
    for key, value in parameters.items():
        op.setParameterValue(key, value)
    return op


def invalidation(sample):
    """read -> gaussian -> threshold -> stats, updated, then the sigma changed."""
    read = named(vorn.ImageFileReader(), "read", file=sample)
    smooth = named(vorn.GaussianSmoothing(), "gaussian", sigma="2")
    threshold = named(vorn.BinaryThreshold(), "threshold", lower="120")
    stats = named(vorn.StatisticsOperator(), "stats")
    smooth.getInputPort(0).connectTo(read.getOutputPort(0))
    threshold.getInputPort(0).connectTo(smooth.getOutputPort(0))
    stats.getInputPort(0).connectTo(threshold.getOutputPort(0))
    stats.update()
    draw("updated", [stats], sample)
    smooth.setParameterValue("sigma", "3")
    draw("invalidated", [stats], sample)


def composite(sample):
    """A pipeline "segment" (threshold, then mask) between a reader and statistics."""
    read = named(vorn.ImageFileReader(), "read", file=sample)
    segment = named(vorn.BasePipeline(), "segment")
    threshold = named(vorn.BinaryThreshold(), "threshold", lower="120")
    mask = named(vorn.MaskOperator(), "mask")
    for op in (threshold, mask):
        segment.registerOperator(op)
    segment.addInput("ImageObject")
    segment.addOutput("ImageObject")
    threshold.setInputPort(0, segment.getInputPort(0))
    mask.setInputPort(0, segment.getInputPort(0))
    mask.setInputPort(1, threshold.getOutputPort(0))
    segment.getOutputPort(0).connectTo(mask.getOutputPort(0))
    segment.setInputPort(0, read.getOutputPort(0))
    stats = named(vorn.StatisticsOperator(), "stats")
    stats.getInputPort(0).connectTo(segment.getOutputPort(0))
    stats.update()
    draw("composite", [stats], sample)


def main():
    IMAGES.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as folder, vorn.capture_output():
        sample = str(pathlib.Path(folder) / "sample.png")
        ramp = np.tile(np.arange(256, dtype=np.uint8), (32, 1))
        vorn.writeImageFile(vorn.ImageObject.from_array(ramp), sample)
        invalidation(sample)
        composite(sample)


if __name__ == "__main__":
    main()
