"""Images larger than memory: one vorn pipeline run chunk by chunk over Dask.

Each output chunk is one update of the pipeline on that chunk of its inputs widened by the
pipeline's halo (the pixels its operators read beyond a box, summed along the chain), clipped
at the image border, with the chunk as the requested region. The halo holds real neighbouring
pixels and the clipping falls where the image's own border is, the only place where operators
repeat edge pixels, so every chunk equals that box of the whole-image result bit for bit.

    import dask.array as da
    import vorn.chunked
    smooth = vorn.chunked.apply("gaussian sigma=2 ! threshold lower=10", da.from_zarr("in.zarr"))
    vorn.chunked.run("gaussian sigma=2 ! threshold lower=10", "in.zarr", "out.zarr")

The text is vorn-run's pipeline language without read or write: the inputs no stage feeds take
the arrays, in order of appearance. Operators that need their whole input are refused before
any chunk runs, unless MERGES has a merge for their catalog name: stats reports figures merged
from every chunk's, in chunk order. Halos come from vorn.inputHalo alone.

vorn updates hold the GIL and redirect the process's standard output, so the chunks of one
process run one at a time (a lock); parallel runs use worker processes with one thread each.
Dask and zarr are imported only when used.
"""
import contextlib
import importlib
import itertools
import json
import math
import os
import sys
import threading
import time
from dataclasses import dataclass, field

import numpy as np

import vorn

_PACKAGES = {"dask": "python3-dask", "distributed": "python3-distributed", "zarr": "python3-zarr"}
_VORN_DTYPES = (np.dtype(np.uint8), np.dtype(np.int16), np.dtype(np.float32))
# vorn redirects the process's standard output while it works: one thread at a time.
_LOCK = threading.RLock()
_DONE = ".vorn-done"  # beside a destination's chunks: one marker per chunk written whole


class ChunkedError(ValueError):
    """A pipeline, input or destination a chunked run refuses, found before any chunk runs."""


def _need(module):
    try:
        return importlib.import_module(module)
    except ImportError:
        top = module.split(".")[0]
        raise ImportError(f"vorn.chunked needs the Python package {top}: install the Debian "
                          f"package {_PACKAGES[top]}") from None


# ---- merges of the operators that need the whole image ----

def _figure(value):
    return format(value, ".10g")  # as the C++ stream prints it, precision 10


class StatisticsMerge:
    """stats: per chunk count, min, max, sum, mean and squared deviations, merged in chunk order
    as the whole image's figures (Chan's pairwise update of the deviations)."""

    passes_through = True  # its output is its input: the chunks' data is not changed

    def partial(self, core):
        op = vorn.StatisticsOperator()
        op.silence()
        source = _Source(vorn.ImageObject.from_array(np.ascontiguousarray(core)))
        op.getInputPort(0).connectTo(source.getOutputPort(0))
        op.update()
        s = op.getStatistics()
        return [s.count, s.min, s.max, s.sum, s.mean, s.stddev * s.stddev * s.count]

    def combine(self, partials):
        nan = float("nan")
        counted = [p for p in partials if p[0] > 0]
        count = sum(p[0] for p in counted)
        if count == 0:
            return dict(count=0, min=nan, max=nan, mean=nan, stddev=nan, sum=0.0)
        sums = [p[3] for p in counted]
        total = math.fsum(sums) if all(map(math.isfinite, sums)) else sum(sums)
        mean = total / count
        stddev = nan
        if math.isfinite(mean):
            spread = math.fsum(p[5] + p[0] * (p[4] - mean) ** 2 for p in counted)
            stddev = math.sqrt(spread / count)
        return dict(count=count, min=min(p[1] for p in counted), max=max(p[2] for p in counted),
                    mean=mean, stddev=stddev, sum=total)

    def report(self, name, whole):
        return (f"{name}: count={whole['count']} min={_figure(whole['min'])} "
                f"max={_figure(whole['max'])} mean={_figure(whole['mean'])} "
                f"stddev={_figure(whole['stddev'])} sum={_figure(whole['sum'])}")


# A merge: partial(core of its input) -> JSON-able figures of one chunk; combine(list in chunk
# order) -> the whole image's; report(name, whole) -> its line. passes_through: the operator's
# output is its input. One that changes the data (otsu's threshold, label's numbers) will also
# need a second pass over the chunks with the combined figures, which run() does not have yet.
MERGES = {"stats": StatisticsMerge()}
_NOT_YET = {"otsu": "its histogram", "label": "labels across chunk borders",
            "largest": "labels across chunk borders"}


# ---- the plan: the text's graph, halos and output type, made once before any chunk ----

class _Source(vorn.ProcessObject):
    """An image made elsewhere, handed out as this operator's output."""

    def __init__(self, image):
        super().__init__()
        self.setName("chunk")
        self.addOutput("ImageObject")
        self.getOutputPort(0).setData(image)

    def generateData(self):
        pass  # the image was set when the source was made


@dataclass
class _Plan:
    text: str
    ndim: int
    sink: str = ""
    open_inputs: list = field(default_factory=list)  # (stage name, input index)
    out_halo: dict = field(default_factory=dict)  # stage name -> halo of its output, NumPy order
    merges: list = field(default_factory=list)  # (stage name, command) of stages with a merge
    halo: tuple = ()  # NumPy order: pixels read beyond an output chunk on each side
    dtype: object = None  # of the output


def _feeders(op):
    """The name of the stage feeding each input of `op`, None for an open input."""
    names = []
    for index in range(op.getNumberOfInputPorts()):
        connection = op.getInputPort(index).getConnection()
        names.append(None if connection is None else connection.getParent().getName())
    return names


def _stage_halo(op, command, ndim):
    halo = vorn.inputHalo(op, ndim)
    if halo is not None:
        return list(reversed(halo))
    if command in MERGES and MERGES[command].passes_through:
        return [0] * ndim
    if command in _NOT_YET:
        raise ChunkedError(f"{op.getName()} ({command}) needs the whole image and chunked runs "
                           f"cannot merge {_NOT_YET[command]} yet")
    raise ChunkedError(f"{op.getName()} ({command}) needs its whole input: it cannot run chunk "
                       f"by chunk")


def _graph(text):
    pipeline = vorn.TextPipeline.buildOpen(text)
    ops, commands = pipeline.operators(), pipeline.commands()
    for op, command in zip(ops, commands):
        if op.getNumberOfInputPorts() == 0 or op.getNumberOfOutputPorts() == 0:
            raise ChunkedError(f"{op.getName()} ({command}): chunked pipelines take arrays and "
                               f"give an array; leave out read and write")
    stages = {op.getName(): (op, command, _feeders(op)) for op, command in zip(ops, commands)}
    fed = {name for _, _, feeders in stages.values() for name in feeders if name}
    sinks = [name for name in stages if name not in fed]
    if len(sinks) != 1:
        raise ChunkedError(f"a chunked pipeline has one output; this one has {len(sinks)}: "
                           + ", ".join(sinks))
    opens = [(op.getName(), index) for op, index in pipeline.openInputs()]
    return stages, sinks[0], opens


def _order(stages, sink):
    """The stages from `sink` upstream, each after every stage it feeds."""
    consumers = {name: 0 for name in stages}
    for _, _, feeders in stages.values():
        for name in filter(None, feeders):
            consumers[name] += 1
    order, ready = [], [sink]
    while ready:
        name = ready.pop()
        order.append(name)
        for feeder in filter(None, stages[name][2]):
            consumers[feeder] -= 1
            if consumers[feeder] == 0:
                ready.append(feeder)
    return order


def _plan(text, ndim):
    with _LOCK, vorn.capture_output():  # the operators print when destroyed
        return _plan_of(text, ndim)


def _plan_of(text, ndim):
    stages, sink, opens = _graph(text)
    plan = _Plan(text=text, ndim=ndim, sink=sink, open_inputs=opens)
    out_halo = {sink: [0] * ndim}
    needed = [0] * ndim
    for name in _order(stages, sink):
        op, command, feeders = stages[name]
        reach = [a + b for a, b in zip(out_halo[name], _stage_halo(op, command, ndim))]
        if command in MERGES:
            plan.merges.append((name, command))
        for feeder in feeders:
            if feeder is None:
                needed = [max(a, b) for a, b in zip(needed, reach)]
            else:
                out_halo[feeder] = [max(a, b) for a, b in zip(out_halo.get(feeder, reach), reach)]
    plan.out_halo = {name: tuple(h) for name, h in out_halo.items()}
    plan.merges.reverse()  # upstream first, as a whole-image run prints them
    plan.halo = tuple(needed)
    return plan


def halo(text, ndim):
    """Pixels the pipeline `text` reads beyond an output chunk on each side of each axis, NumPy
    axis order: each operator's inputHalo, summed along the chain."""
    return _plan(text, ndim).halo


def _vorn_dtype(dtype, which):
    dtype = np.dtype(dtype)
    if dtype == np.uint16:
        return np.dtype(np.float32)  # as the file readers do
    if dtype not in _VORN_DTYPES:
        raise ChunkedError(f"{which}: pixel type {dtype} is not one vorn has (uint8, int16, "
                           f"float32; uint16 is read as float32)")
    return dtype


def _prepare(text, shapes, dtypes):
    """The plan for inputs of these shapes and types, or a clear refusal; runs the pipeline once
    on one pixel per input, which checks every parameter and gives the output type."""
    if not shapes:
        raise ChunkedError("no input array given")
    if any(shape != shapes[0] for shape in shapes):
        raise ChunkedError(f"inputs of different shapes: {', '.join(map(str, shapes))}")
    if not shapes[0] or 0 in shapes[0]:
        raise ChunkedError(f"an input of shape {shapes[0]} has no pixels")
    dtypes = [_vorn_dtype(d, f"input {k}") for k, d in enumerate(dtypes)]
    plan = _plan(text, len(shapes[0]))
    if len(plan.open_inputs) != len(dtypes):
        wanted = ", ".join(f"{name} input {index}" for name, index in plan.open_inputs)
        raise ChunkedError(f"the pipeline reads {len(plan.open_inputs)} array(s) ({wanted}), "
                           f"{len(dtypes)} given")
    probe = [np.zeros((1,) * plan.ndim, d) for d in dtypes]
    plan.dtype = _compute(plan, probe, None, None, None)[0].dtype
    return plan


# ---- one chunk ----



@dataclass
class _Box:
    """An output chunk: `core` of the image, computed from `region` (core plus halo, clipped)."""
    index: tuple
    core: tuple  # slices of the image
    region: tuple  # slices of the image

    def core_in_region(self):
        return tuple(slice(c.start - r.start, c.stop - r.start)
                     for c, r in zip(self.core, self.region))


def _boxes(shape, chunks, plan_halo):
    """Every output chunk, in C order of the chunk grid; `chunks` as dask gives them."""
    bounds = [np.cumsum((0,) + tuple(c)) for c in chunks]
    for index in itertools.product(*(range(len(c)) for c in chunks)):
        core = tuple(slice(int(b[i]), int(b[i + 1])) for b, i in zip(bounds, index))
        region = tuple(slice(max(0, c.start - h), min(n, c.stop + h))
                       for c, h, n in zip(core, plan_halo, shape))
        yield _Box(index, core, region)


def _roi(core, halo, shape):
    """The requested region of a stage whose output must hold `core` widened by `halo` (block
    coordinates, NumPy order), clipped to the block, as a vorn box."""
    start = [max(0, c.start - h) for c, h in zip(core, halo)]
    stop = [min(n, c.stop + h) for c, h, n in zip(core, halo, shape)]
    size = [b - a for a, b in zip(start, stop)]
    return vorn.BoxRoi(vorn.Box(size[::-1], start[::-1]))


def _compute(plan, blocks, box, spacing, origin):
    """The pipeline on `blocks` (the inputs over box.region); the output over box.core and the
    merges' figures. Without a box: the whole of the blocks, nothing requested."""
    with _LOCK, vorn.capture_output():  # the operators also go within: they print when destroyed
        return _update(plan, blocks, box, spacing, origin)


def _update(plan, blocks, box, spacing, origin):
    pipeline = vorn.TextPipeline.buildOpen(plan.text)
    ops = {op.getName(): op for op in pipeline.operators()}
    sources = []
    for (name, index), block in zip(plan.open_inputs, blocks):
        block = np.ascontiguousarray(block, dtype=_vorn_dtype(block.dtype, name))
        image = vorn.ImageObject.from_array(block)
        if spacing is not None:
            image.spacing = tuple(float(s) for s in spacing[::-1])
        if origin is not None:
            image.origin = tuple(float(o) for o in origin[::-1])
        sources.append(_Source(image))
        ops[name].getInputPort(index).connectTo(sources[-1].getOutputPort(0))
    core = (slice(None),) * plan.ndim
    if box is not None:
        core = box.core_in_region()
        for name, halo in plan.out_halo.items():
            ops[name].setRequestedRegionOfInterest(0, _roi(core, halo, blocks[0].shape))
    for op in ops.values():
        if isinstance(op, vorn.StatisticsOperator):
            op.silence()
    sink = ops[plan.sink]
    sink.update()
    output = np.array(np.asarray(sink.getOutputPort(0).getData())[core])
    figures = [MERGES[command].partial(np.asarray(ops[name].getInputPort(0).getData())[core])
               for name, command in plan.merges]
    return output, figures


def _shifted(origin, spacing, region, ndim):
    """The origin of a block starting at region's start."""
    if origin is None and spacing is None:
        return None
    origin = origin if origin is not None else (0.0,) * ndim
    spacing = spacing if spacing is not None else (1.0,) * ndim
    return tuple(o + r.start * s for o, r, s in zip(origin, region, spacing))


def compute(text, arrays, *, spacing=None, origin=None):
    """The pipeline on whole NumPy arrays in this process, nothing requested: the reference a
    chunked run equals. Returns the output array and the merged operators' lines."""
    arrays = [np.asarray(a) for a in (arrays if isinstance(arrays, (list, tuple)) else [arrays])]
    plan = _prepare(text, [a.shape for a in arrays], [a.dtype for a in arrays])
    output, figures = _compute(plan, arrays, None, spacing, origin)
    return output, _reports(plan, [figures])


def _reports(plan, figures):
    """The merged operators' lines, from every chunk's figures in chunk order."""
    lines = []
    for k, (name, command) in enumerate(plan.merges):
        merge = MERGES[command]
        lines.append(merge.report(name, merge.combine([f[k] for f in figures])))
    return lines


# ---- dask arrays ----

def _pieces(box, chunks):
    """The input chunks box.region overlaps: their index, and the slices of each within its chunk
    and within the region."""
    per_axis = []
    for r, sizes in zip(box.region, chunks):
        bounds = np.cumsum((0,) + tuple(sizes))
        first = int(np.searchsorted(bounds, r.start, side="right")) - 1
        last = int(np.searchsorted(bounds, r.stop, side="left"))
        axis = []
        for i in range(first, last):
            a, b = max(r.start, int(bounds[i])), min(r.stop, int(bounds[i + 1]))
            axis.append((i, slice(a - int(bounds[i]), b - int(bounds[i])),
                         slice(a - r.start, b - r.start)))
        per_axis.append(axis)
    for combination in itertools.product(*per_axis):
        yield (tuple(c[0] for c in combination), tuple(c[1] for c in combination),
               tuple(c[2] for c in combination))


class _Assembly:
    """Where each piece of a block goes (a plain object: Dask passes it through untouched)."""

    def __init__(self, box, pieces, spacing, origin):
        self.box, self.spacing, self.origin = box, spacing, origin
        self.places = [(inside, into) for _, inside, into in pieces]


def _apply_chunk(plan, assembly, *inputs):
    shape = tuple(r.stop - r.start for r in assembly.box.region)
    blocks = []
    for chunks in inputs:
        block = np.empty(shape, chunks[0].dtype)
        for chunk, (inside, into) in zip(chunks, assembly.places):
            block[into] = chunk[inside]
        blocks.append(block)
    origin = _shifted(assembly.origin, assembly.spacing, assembly.box.region, plan.ndim)
    return _compute(plan, blocks, assembly.box, assembly.spacing, origin)[0]


def _dask_inputs(arrays):
    da = _need("dask.array")
    arrays = list(arrays) if isinstance(arrays, (list, tuple)) else [arrays]
    for k, a in enumerate(arrays):
        if not isinstance(a, da.Array):
            raise ChunkedError(f"input {k} is a {type(a).__name__}, not a dask array")
    if any(a.chunks != arrays[0].chunks for a in arrays if a.shape == arrays[0].shape):
        raise ChunkedError("inputs of different chunks: "
                           + ", ".join(str(a.chunksize) for a in arrays))
    return arrays


def apply(text, arrays, *, spacing=None, origin=None):
    """The pipeline `text` over one dask array or a list of them (same shape and chunks), as a
    lazy dask array of the same chunks with the pipeline's output type. stats and other merged
    operators pass their data through here; run() reports their figures."""
    arrays = _dask_inputs(arrays)
    plan = _prepare(text, [a.shape for a in arrays], [a.dtype for a in arrays])
    spacing = _axes(spacing, plan.ndim, "spacing", "apply")
    origin = _axes(origin, plan.ndim, "origin", "apply")
    HighLevelGraph = _need("dask.highlevelgraph").HighLevelGraph
    tokenize = _need("dask.base").tokenize
    name = "vorn-chunked-" + tokenize(text, spacing, origin, *[a.name for a in arrays])
    layer = {}
    for box in _boxes(arrays[0].shape, arrays[0].chunks, plan.halo):
        pieces = list(_pieces(box, arrays[0].chunks))
        keys = [[(a.name,) + index for index, _, _ in pieces] for a in arrays]
        layer[(name,) + box.index] = (_apply_chunk, plan, _Assembly(box, pieces, spacing, origin),
                                      *keys)
    graph = HighLevelGraph.from_collections(name, layer, dependencies=arrays)
    return _need("dask.array").Array(graph, name, arrays[0].chunks, dtype=plan.dtype)


# ---- Zarr on disk ----

@dataclass
class _Input:
    """A source image: a Zarr array read region by region where the chunk runs, or a file vorn
    reads, held whole (it fits in memory, since vorn reads it whole)."""
    shape: tuple
    dtype: object
    chunks: tuple  # the chunk shape
    spacing: tuple = None
    origin: tuple = None
    path: str = ""  # of the Zarr array
    array: object = None  # the file's pixels

    def piece(self, region):
        return (self.path, region) if self.array is None else np.array(self.array[region])


def _read(piece):
    if isinstance(piece, np.ndarray):
        return piece
    path, region = piece
    return _need("zarr").open(path, mode="r")[region]


def _axes(values, ndim, what, where):
    if values is None:
        return None
    values = tuple(float(v) for v in values)
    if len(values) != ndim:
        raise ChunkedError(f"{where}: {what} has {len(values)} values for {ndim} axes")
    return values


def _open_input(source, chunks):
    zarr = _need("zarr")
    path = os.fspath(source)
    if not os.path.exists(path):
        raise ChunkedError(f"{path}: no such file or Zarr array")
    if os.path.isdir(path):
        try:
            array = zarr.open(path, mode="r")
        except Exception as failure:
            raise ChunkedError(f"{path}: not a Zarr array ({failure})") from None
        if not hasattr(array, "chunks"):
            raise ChunkedError(f"{path}: a Zarr group, not an array")
        attrs = array.attrs.asdict()
        return _Input(array.shape, array.dtype, tuple(chunks or array.chunks),
                      _axes(attrs.get("spacing"), array.ndim, "spacing", path),
                      _axes(attrs.get("origin"), array.ndim, "origin", path), path=path)
    image = vorn.readImageFile(path)
    pixels = np.asarray(image)
    return _Input(pixels.shape, pixels.dtype, tuple(chunks or (128,) * pixels.ndim),
                  tuple(image.spacing[::-1]), tuple(image.origin[::-1]), array=pixels)


def _check_chunks(chunks, ndim):
    if len(chunks) != ndim or any(int(c) < 1 for c in chunks):
        raise ChunkedError(f"chunks {tuple(chunks)}: one whole number >= 1 per axis ({ndim}) "
                           f"needed")
    return tuple(int(c) for c in chunks)


def _marker(destination, index):
    return os.path.join(destination, _DONE, ".".join(map(str, index)))


def _run_chunk(plan, destination, box, pieces, spacing, origin):
    """Computes one chunk, writes it, then its marker with its figures; returns the figures."""
    blocks = [_read(piece) for piece in pieces]
    output, figures = _compute(plan, blocks, box, spacing,
                               _shifted(origin, spacing, box.region, plan.ndim))
    _need("zarr").open(destination, mode="r+")[box.core] = output
    marker = _marker(destination, box.index)
    with open(marker + ".tmp", "w") as file:
        json.dump(figures, file)
    os.replace(marker + ".tmp", marker)  # the chunk counts as written only now
    return figures


def _settings(text, first, chunks, dtype):
    return {"text": text, "shape": list(first.shape), "chunks": list(chunks),
            "dtype": np.dtype(dtype).str}


def _open_destination(destination, text, first, chunks, plan, resume):
    zarr = _need("zarr")
    settings = _settings(text, first, chunks, plan.dtype)
    if os.path.exists(destination):
        if not resume:
            raise ChunkedError(f"{destination} exists: remove it, or pass resume=True to finish "
                               f"the run that made it")
        try:
            made = zarr.open(destination, mode="r").attrs.get("vorn_chunked")
        except Exception:
            made = None
        if made != settings:
            raise ChunkedError(f"{destination} was not made by this pipeline on this source with "
                               f"these chunks: it cannot be resumed")
        return
    array = zarr.open(destination, mode="w-", shape=first.shape, chunks=chunks, dtype=plan.dtype)
    array.attrs.update({"vorn_chunked": settings,
                        "spacing": list(first.spacing or (1.0,) * plan.ndim),
                        "origin": list(first.origin or (0.0,) * plan.ndim)})
    os.makedirs(os.path.join(destination, _DONE))


@dataclass
class RunResult:
    chunks: int  # in the output
    computed: int  # by this run (fewer when resumed)
    seconds: float
    bytes: int  # of the source pixels
    report: list  # the merged operators' lines

    def summary(self):
        rate = self.bytes / 1e6 / self.seconds if self.seconds > 0 else float("inf")
        return (f"{self.chunks} chunks ({self.computed} computed) in {self.seconds:.2f} s, "
                f"{rate:.1f} MB/s")


def _prepare_run(text, source, destination, chunks, resume):
    sources = [source] if isinstance(source, (str, os.PathLike)) else list(source)
    inputs = [_open_input(s, chunks) for s in sources]
    first = inputs[0]
    plan = _prepare(text, [i.shape for i in inputs], [i.dtype for i in inputs])
    chunks = _check_chunks(first.chunks, plan.ndim)
    if any(i.chunks != chunks for i in inputs):
        raise ChunkedError("inputs of different chunks: "
                           + ", ".join(str(i.chunks) for i in inputs))
    destination = os.fspath(destination)
    _open_destination(destination, text, first, chunks, plan, resume)
    grid = tuple(tuple(min(c, n - s) for s in range(0, n, c)) for n, c in zip(first.shape, chunks))
    return plan, inputs, destination, list(_boxes(first.shape, grid, plan.halo))


def _tasks(plan, inputs, destination, boxes):
    first = inputs[0]
    for box in boxes:
        if not os.path.exists(_marker(destination, box.index)):
            yield box, (plan, destination, box, [i.piece(box.region) for i in inputs],
                        first.spacing, first.origin)


def _run_local(tasks, progress):
    dask = _need("dask")
    jobs = [dask.delayed(_run_chunk, pure=False)(*args) for _, args in tasks]
    if progress:
        with _need("dask.diagnostics").ProgressBar(out=sys.stdout):
            dask.compute(*jobs, scheduler="threads")
    else:
        dask.compute(*jobs, scheduler="threads")


def _run_distributed(tasks, client, progress):
    distributed = _need("distributed")
    futures = [client.submit(_run_chunk, *args, pure=False) for _, args in tasks]
    for done, future in enumerate(distributed.as_completed(futures), 1):
        future.result()  # a failed chunk stops the run
        if progress:
            _bar(done, len(futures))
    if progress and futures:
        sys.stdout.write("\n")


def _bar(done, total, width=40):
    filled = width * done // total
    sys.stdout.write(f"\r[{'#' * filled}{' ' * (width - filled)}] {done}/{total} chunks")
    sys.stdout.flush()


def run(text, source, destination, *, chunks=None, client=None, resume=False, progress=False):
    """Runs `text` on the Zarr array `source` (or a file vorn reads, or a list of them for a
    pipeline with several inputs) into a new Zarr array `destination` with the same chunks (or
    `chunks`) and the source's spacing and origin in its attributes. Each chunk is written by
    the task that computes it, then marked done; resume=True computes only the chunks of an
    unfinished run that are not marked. With a distributed.Client the chunks run on its workers,
    else on the local scheduler. Returns a RunResult; everything it refuses, it refuses before
    writing anything."""
    start = time.perf_counter()
    plan, inputs, destination, boxes = _prepare_run(text, source, destination, chunks, resume)
    tasks = list(_tasks(plan, inputs, destination, boxes))
    if client is None:
        _run_local(tasks, progress)
    else:
        _run_distributed(tasks, client, progress)
    figures = []
    for box in boxes:
        with open(_marker(destination, box.index)) as file:
            figures.append(json.load(file))
    seconds = time.perf_counter() - start
    size = sum(int(np.prod(i.shape)) * np.dtype(i.dtype).itemsize for i in inputs)
    return RunResult(len(boxes), len(tasks), seconds, size, _reports(plan, figures))


# ---- command line ----

def _parse_chunks(text):
    try:
        return tuple(int(c) for c in text.split(","))
    except ValueError:
        raise ChunkedError(f"--chunks {text!r}: whole numbers separated by commas") from None


def main(argv=None):
    import argparse

    parser = argparse.ArgumentParser(
        prog="python3 -m vorn.chunked",
        description="Runs a vorn pipeline (without read and write) chunk by chunk from a Zarr "
                    "array (or an image file) into a new Zarr array.")
    parser.add_argument("text", metavar="TEXT")
    parser.add_argument("source", metavar="SOURCE")
    parser.add_argument("destination", metavar="DESTINATION")
    parser.add_argument("--chunks", help="chunk shape, NumPy axis order (default: the source's)")
    where = parser.add_mutually_exclusive_group()
    where.add_argument("--workers", type=int, help="a local cluster of N worker processes")
    where.add_argument("--scheduler", help="the address of a running Dask scheduler")
    parser.add_argument("--resume", action="store_true", help="finish an interrupted run")
    args = parser.parse_args(argv)
    from vorn import chunked  # this file runs as __main__: workers must find the module's own

    try:
        chunks = _parse_chunks(args.chunks) if args.chunks else None
        with chunked._client(args.workers, args.scheduler) as client:
            result = chunked.run(args.text, args.source, args.destination, chunks=chunks,
                                 client=client, resume=args.resume, progress=sys.stdout.isatty())
    except (ValueError, OSError, RuntimeError) as failure:
        print(f"vorn.chunked: {failure}", file=sys.stderr)
        return 1
    for line in result.report:
        print(line)
    print(result.summary())
    return 0


# Distributed's workers set MALLOC_TRIM_THRESHOLD_, which also stops glibc from raising its mmap
# threshold: every block of a chunk then comes from a fresh mapping and is paid again in page
# faults, several times the chunk's computation. Chunks under 32 MiB come from the heap with this.
_MALLOC = {"MALLOC_MMAP_THRESHOLD_": str(32 << 20), "MALLOC_TRIM_THRESHOLD_": str(64 << 20)}


def local_cluster(workers, memory_limit="auto"):
    """A distributed.LocalCluster for chunked runs: `workers` processes of one thread each (vorn
    updates hold the GIL), their allocator set to reuse a chunk's memory for the next."""
    distributed, dask = _need("distributed"), _need("dask")
    environ = {f"distributed.nanny.pre-spawn-environ.{k}": v for k, v in _MALLOC.items()}
    with dask.config.set(environ):
        return distributed.LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                                        memory_limit=memory_limit, dashboard_address=None)


@contextlib.contextmanager
def _client(workers, scheduler):
    """The client the command line asked for, or None."""
    if workers is None and scheduler is None:
        yield None
        return
    distributed = _need("distributed")
    if scheduler is not None:
        with distributed.Client(scheduler) as client:
            yield client
        return
    with local_cluster(workers) as cluster, distributed.Client(cluster) as client:
        yield client


if __name__ == "__main__":
    sys.exit(main())
