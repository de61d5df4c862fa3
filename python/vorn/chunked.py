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
# output is its input.
MERGES = {"stats": StatisticsMerge()}


# ---- operators whose output depends on the whole image: figures merged before the output ----

def _finite_range(core):
    values = core[np.isfinite(core)] if core.dtype.kind == "f" else core
    if values.size == 0:
        return [math.inf, -math.inf]
    return [float(values.min()), float(values.max())]


def _image(core):
    return vorn.ImageObject.from_array(np.ascontiguousarray(core))


class OtsuMerge:
    """otsu: the range of every chunk's input, then the 256-bin histogram of each over the
    merged range (the operator's own binning), summed in chunk order to the whole image's
    threshold, which the output pass gives the operator as its threshold parameter."""

    passes = 2
    sink_only = False

    def applies(self, op):
        return op.getParameterValue("threshold") == ""  # a given threshold is chunk-local

    def partial(self, step, op, core, box, state):
        if step == 0:
            return _finite_range(core)
        return vorn.OtsuThreshold.histogram(_image(core), *state)

    def combine(self, step, partials, state):
        if step == 0:
            return [min(p[0] for p in partials), max(p[1] for p in partials)]
        counts = np.sum(np.array(partials, dtype=np.float64), axis=0)
        return vorn.OtsuThreshold.thresholdOf(list(counts), *state)

    def fixed(self, state, index):
        return state

    def prepare(self, op, value):
        op.setParameterValue("threshold", repr(float(value)))

    def output(self, op, core, value):
        raise AssertionError("otsu runs in the pipeline")  # sink_only is False


def _planes(labels):
    """The first and last plane of each axis of a chunk's labels."""
    return [(np.take(labels, 0, axis), np.take(labels, -1, axis)) for axis in range(labels.ndim)]


def _local_labels(op, core):
    """The chunk's own components, numbered 1, 2, ... by vorn's labelling."""
    label = vorn.ConnectedComponents()
    label.setParameterValue("connectivity", op.getParameterValue("connectivity"))
    source = _Source(_image(core))
    label.getInputPort(0).connectTo(source.getOutputPort(0))
    label.update()
    return np.asarray(label.getOutputPort(0).getData()).astype(np.int64)


def _roots(total, a, b):
    """Union-find over the pairs (a, b) of ids 0..total: each id's smallest connected id."""
    root = np.arange(total + 1)
    while a.size and not np.array_equal(root[a], root[b]):
        low = np.minimum(root[a], root[b])
        np.minimum.at(root, root[a], low)
        np.minimum.at(root, root[b], low)
        while True:  # every id straight to its root
            jumped = root[root]
            if np.array_equal(jumped, root):
                break
            root = jumped
    return root


def _shifts(ndim, full):
    """Offsets within a plane of the neighbours across it: itself, or every diagonal too."""
    return itertools.product((-1, 0, 1), repeat=ndim) if full else [(0,) * ndim]


def _pairs(low, high, full):
    """The labelled pixel pairs neighbouring across two adjacent planes."""
    for shift in _shifts(low.ndim, full):
        a = tuple(slice(max(0, -s), n - max(0, s)) for s, n in zip(shift, low.shape))
        b = tuple(slice(max(0, s), n - max(0, -s)) for s, n in zip(shift, low.shape))
        x, y = low[a], high[b]
        both = (x > 0) & (y > 0)
        yield x[both], y[both]


def _plane_at(partials, offsets, axis, boundary, side, shape):
    """The plane of global ids on one side of a chunk boundary, from every chunk touching it."""
    plane = np.zeros(shape[:axis] + shape[axis + 1:], np.int64)
    for chunk, p in enumerate(partials):
        start, stop = p["core"][axis]
        if (stop if side else start) == boundary:
            labels = p["planes"][axis][side]
            place = tuple(slice(a, b) for k, (a, b) in enumerate(p["core"]) if k != axis)
            plane[place] = np.where(labels > 0, labels + offsets[chunk], 0)
    return plane


class LabelMerge:
    """label and largest: each chunk labelled on its own; the labels of chunks that touch across
    a face (and, for full connectivity, an edge or a corner) joined over the pixel pairs that
    neighbour across chunk borders, then numbered in memory order of each component's first
    pixel, as the whole image is. Only as a pipeline's last stage: the output of a chunk needs
    every chunk's labels."""

    passes = 1
    sink_only = True

    def __init__(self, largest):
        self.largest = largest

    def applies(self, op):
        return True

    def partial(self, step, op, core, box, state):
        labels = _local_labels(op, core)
        values, first = np.unique(labels.ravel(), return_index=True)
        first = first[values > 0]  # local numbers follow the chunk's memory order, as global
        starts = np.array([c.start for c in box.core])
        return dict(index=box.index, core=[(c.start, c.stop) for c in box.core],
                    count=int(values[-1]), planes=_planes(labels),
                    firsts=np.transpose(np.unravel_index(first, labels.shape)) + starts,
                    sizes=np.bincount(labels.ravel())[1:],
                    full=op.getParameterValue("connectivity") == "full",
                    keep=int(op.getParameterValue("count")) if self.largest else 0)

    def combine(self, step, partials, state):
        ndim = len(partials[0]["core"])
        shape = tuple(max(p["core"][k][1] for p in partials) for k in range(ndim))
        offsets = np.cumsum([0] + [p["count"] for p in partials])
        root = _roots(int(offsets[-1]), *_joins(partials, offsets, shape))
        firsts = np.concatenate([np.ravel_multi_index(p["firsts"].T, shape) if p["count"] else
                                 np.zeros(0, np.int64) for p in partials])
        final, count = _numbered(root, firsts)
        if self.largest:
            sizes = np.concatenate([[0]] + [p["sizes"] for p in partials])
            final = _kept(final, count, sizes, partials[0]["keep"])
        return {p["index"]: final[np.r_[0, offsets[c] + 1:offsets[c + 1] + 1]]
                for c, p in enumerate(partials)}

    def fixed(self, state, index):
        return state[index]

    def prepare(self, op, value):
        pass

    def output(self, op, core, table):
        return table[_local_labels(op, core)].astype(np.uint8 if self.largest else np.float32)


def _joins(partials, offsets, shape):
    """Every pair of global ids whose pixels neighbour across a chunk border."""
    full = partials[0]["full"]
    pairs = [(np.zeros(0, np.int64), np.zeros(0, np.int64))]
    for axis in range(len(shape)):
        for boundary in sorted({p["core"][axis][0] for p in partials} - {0}):
            low = _plane_at(partials, offsets, axis, boundary, 1, shape)
            high = _plane_at(partials, offsets, axis, boundary, 0, shape)
            pairs.extend(_pairs(low, high, full))
    return np.concatenate([a for a, _ in pairs]), np.concatenate([b for _, b in pairs])


def _numbered(root, firsts):
    """Each global id's final label: components numbered by the memory order of their first
    pixel; and how many there are."""
    first = np.full(root.size, np.iinfo(np.int64).max)
    np.minimum.at(first, root[1:], firsts)
    roots = np.unique(root[1:])
    if roots.size > 1 << 24:
        raise ChunkedError(f"label: {roots.size} components; float pixels number at most "
                           f"16777216 exactly")
    number = np.zeros(root.size, np.int64)
    number[roots[np.argsort(first[roots], kind="stable")]] = np.arange(1, roots.size + 1)
    final = number[root]
    final[0] = 0
    return final, int(roots.size)


def _kept(final, count, sizes, keep):
    """1 for the ids of the `keep` largest components (ties to the lower label), else 0."""
    size = np.bincount(final, weights=sizes, minlength=count + 1)[1:]
    order = np.lexsort((np.arange(count), -size))[:keep]
    kept = np.zeros(count + 1, np.int64)
    kept[order + 1] = 1
    return kept[final]


GLOBALS = {"otsu": OtsuMerge(), "label": LabelMerge(False), "largest": LabelMerge(True)}


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
    globals: list = field(default_factory=list)  # (stage name, command) of GLOBALS, upstream first
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
    if command in GLOBALS or (command in MERGES and MERGES[command].passes_through):
        return [0] * ndim  # each reads its chunk alone once the merged figures are given
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
        try:
            return _plan_of(text, ndim)
        except ChunkedError as failure:
            failure.__traceback__ = None  # its frames hold the operators: let them go in here
            raise failure from None


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
        if command in GLOBALS and GLOBALS[command].applies(op):
            if GLOBALS[command].sink_only and name != sink:
                raise ChunkedError(f"{name} ({command}) must be the last stage of a chunked "
                                   f"pipeline: a chunk of its output needs every chunk's")
            plan.globals.append((name, command))
        for feeder in feeders:
            if feeder is None:
                needed = [max(a, b) for a, b in zip(needed, reach)]
            else:
                out_halo[feeder] = [max(a, b) for a, b in zip(out_halo.get(feeder, reach), reach)]
    plan.out_halo = {name: tuple(h) for name, h in out_halo.items()}
    plan.merges.reverse()  # upstream first, as a whole-image run prints them
    plan.globals.reverse()  # each one's figures need those upstream of it fixed
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


def _compute(plan, blocks, box, spacing, origin, fixed=None, step=None):
    """The pipeline on `blocks` (the inputs over box.region); the output over box.core and the
    merges' figures. Without a box: the whole of the blocks, nothing requested. `fixed` holds
    the merged figures of GLOBALS stages for this chunk; with `step` (stage name, pass, figures
    merged so far) the chunk's partial figures for that stage are returned instead."""
    with _LOCK, vorn.capture_output():  # the operators also go within: they print when destroyed
        return _update(plan, blocks, box, spacing, origin, fixed or {}, step)


def _connect(plan, blocks, spacing, origin):
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
    return pipeline, ops, sources


def _input_core(op, core):
    """The stage's input over the chunk, its feeder updated."""
    op.getInputPort(0).getConnection().getParent().update()
    return np.asarray(op.getInputPort(0).getData())[core]


def _update(plan, blocks, box, spacing, origin, fixed, step):
    pipeline, ops, sources = _connect(plan, blocks, spacing, origin)
    core = (slice(None),) * plan.ndim
    if box is not None:
        core = box.core_in_region()
        for name, halo in plan.out_halo.items():
            ops[name].setRequestedRegionOfInterest(0, _roi(core, halo, blocks[0].shape))
    for op in ops.values():
        if isinstance(op, vorn.StatisticsOperator):
            op.silence()
    commands = dict(plan.globals)
    for name, value in fixed.items():
        GLOBALS[commands[name]].prepare(ops[name], value)
    if step is not None:
        name, k, state = step
        return GLOBALS[commands[name]].partial(k, ops[name], _input_core(ops[name], core), box,
                                               state)
    sink = ops[plan.sink]
    if plan.sink in fixed and GLOBALS[commands[plan.sink]].sink_only:
        output = GLOBALS[commands[plan.sink]].output(sink, _input_core(sink, core),
                                                     fixed[plan.sink])
    else:
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


def _blocks(plan, assembly, inputs):
    shape = tuple(r.stop - r.start for r in assembly.box.region)
    blocks = []
    for chunks in inputs:
        block = np.empty(shape, chunks[0].dtype)
        for chunk, (inside, into) in zip(chunks, assembly.places):
            block[into] = chunk[inside]
        blocks.append(block)
    return blocks


def _apply_chunk(plan, assembly, merged, *inputs):
    origin = _shifted(assembly.origin, assembly.spacing, assembly.box.region, plan.ndim)
    return _compute(plan, _blocks(plan, assembly, inputs), assembly.box, assembly.spacing, origin,
                    _fixed(plan, merged or {}, assembly.box.index))[0]


def _apply_partial(plan, assembly, step, merged, state, *inputs):
    origin = _shifted(assembly.origin, assembly.spacing, assembly.box.region, plan.ndim)
    return _compute(plan, _blocks(plan, assembly, inputs), assembly.box, assembly.spacing, origin,
                    _fixed(plan, merged or {}, assembly.box.index), step.at(state))


class _Step:
    """A pass over the chunks for a GLOBALS stage (a plain object: Dask passes it untouched)."""

    def __init__(self, stage, index):
        self.stage, self.index = stage, index

    def at(self, state):
        return self.stage, self.index, state


def _combine(plan, step, state, partials):
    return GLOBALS[dict(plan.globals)[step.stage]].combine(step.index, partials, state)


def _merge_into(merged, step, state):
    return dict(merged or {}, **{step.stage: state})


def _fixed(plan, merged, index):
    """What each GLOBALS stage needs of its merged figures for the chunk at `index`."""
    commands = dict(plan.globals)
    return {stage: GLOBALS[commands[stage]].fixed(state, index) for stage, state in merged.items()}


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
    boxes = [(box, list(_pieces(box, arrays[0].chunks)))
             for box in _boxes(arrays[0].shape, arrays[0].chunks, plan.halo)]

    def task(function, box, pieces, *args):
        keys = [[(a.name,) + index for index, _, _ in pieces] for a in arrays]
        return (function, plan, _Assembly(box, pieces, spacing, origin), *args, *keys)

    merged = None  # the key of the merged figures of the GLOBALS stages so far
    for stage, command in plan.globals:
        state = None
        for k in range(GLOBALS[command].passes):
            step = _Step(stage, k)
            partials = [f"{name}-{stage}-{k}-" + "-".join(map(str, box.index)) for box, _ in boxes]
            for key, (box, pieces) in zip(partials, boxes):
                layer[key] = task(_apply_partial, box, pieces, step, merged, state)
            layer[f"{name}-{stage}-{k}"] = (_combine, plan, step, state, partials)
            state = f"{name}-{stage}-{k}"
        layer[f"{name}-{stage}"] = (_merge_into, merged, step, state)
        merged = f"{name}-{stage}"
    for box, pieces in boxes:
        layer[(name,) + box.index] = task(_apply_chunk, box, pieces, merged)
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
    storage: dict = field(default_factory=dict)  # the Zarr array's compressor, for the output

    def piece(self, region):
        return (self.path, region) if self.array is None else np.array(self.array[region])


def _read(piece):
    if isinstance(piece, np.ndarray):
        return piece
    path, region = piece
    array = _need("zarr").open(path, mode="r")
    mapped = _mapped(array, region)
    return array[region] if mapped is None else mapped


def _mapped(array, region):
    """The region of an array stored as plain chunk files (no compressor or filter, C order, in
    a folder), read through a mapping of each file: only the pages the region covers are read,
    where zarr reads every chunk the halo touches whole, up to 27 of them for one 3-d block.
    None for any other array."""
    store = array.store
    if (array.compressor is not None or array.filters or array.order != "C"
            or not isinstance(store, _need("zarr").storage.DirectoryStore)):
        return None
    grid = [tuple(min(c, n - s) for s in range(0, n, c)) for n, c in zip(array.shape, array.chunks)]
    block = np.empty(tuple(r.stop - r.start for r in region), array.dtype)
    for index, inside, into in _pieces(_Box((), region, region), grid):
        file = os.path.join(store.path, array._chunk_key(index))
        if not os.path.isfile(file):
            return None  # a chunk never written holds the fill value: zarr knows it
        block[into] = np.memmap(file, array.dtype, "r", shape=array.chunks)[inside]
    return block


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
                      _axes(attrs.get("origin"), array.ndim, "origin", path), path=path,
                      storage={"compressor": array.compressor})
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


def _run_chunk(plan, destination, box, pieces, spacing, origin, fixed):
    """Computes one chunk, writes it, then its marker with its figures; returns the figures."""
    blocks = [_read(piece) for piece in pieces]
    output, figures = _compute(plan, blocks, box, spacing,
                               _shifted(origin, spacing, box.region, plan.ndim), fixed)
    _need("zarr").open(destination, mode="r+")[box.core] = output
    marker = _marker(destination, box.index)
    with open(marker + ".tmp", "w") as file:
        json.dump(figures, file)
    os.replace(marker + ".tmp", marker)  # the chunk counts as written only now
    return figures


def _partial_chunk(plan, box, pieces, spacing, origin, fixed, step):
    blocks = [_read(piece) for piece in pieces]
    return _compute(plan, blocks, box, spacing, _shifted(origin, spacing, box.region, plan.ndim),
                    fixed, step)


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
    # Stored as the source is: plain chunk files from plain ones, zarr's default from a file.
    array = zarr.open(destination, mode="w-", shape=first.shape, chunks=chunks, dtype=plan.dtype,
                      **first.storage)
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


def _execute(calls, client, progress):
    """Runs (function, *args) calls on the local scheduler or the client's workers; their
    results in order. The first failure stops the run."""
    if client is None:
        dask = _need("dask")
        jobs = [dask.delayed(call[0], pure=False)(*call[1:]) for call in calls]
        with (_need("dask.diagnostics").ProgressBar(out=sys.stdout) if progress
              else contextlib.nullcontext()):
            return list(dask.compute(*jobs, scheduler="threads"))
    futures = [client.submit(*call, pure=False) for call in calls]
    for done, future in enumerate(_need("distributed").as_completed(futures), 1):
        future.result()
        if progress:
            _bar(done, len(futures))
    if progress and futures:
        sys.stdout.write("\n")
    return [future.result() for future in futures]


def _merged(plan, inputs, boxes, client, progress):
    """The merged figures of every GLOBALS stage, one pass over the chunks after another."""
    first, merged = inputs[0], {}
    for stage, command in plan.globals:
        state = None
        for k in range(GLOBALS[command].passes):
            calls = [(_partial_chunk, plan, box, [i.piece(box.region) for i in inputs],
                      first.spacing, first.origin, _fixed(plan, merged, box.index),
                      (stage, k, state)) for box in boxes]
            state = GLOBALS[command].combine(k, _execute(calls, client, progress), state)
        merged[stage] = state
    return merged


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
    merged = _merged(plan, inputs, boxes, client, progress)
    first = inputs[0]
    calls = [(_run_chunk, plan, destination, box, [i.piece(box.region) for i in inputs],
              first.spacing, first.origin, _fixed(plan, merged, box.index))
             for box in boxes if not os.path.exists(_marker(destination, box.index))]
    _execute(calls, client, progress)
    figures = []
    for box in boxes:
        with open(_marker(destination, box.index)) as file:
            figures.append(json.load(file))
    seconds = time.perf_counter() - start
    size = sum(int(np.prod(i.shape)) * np.dtype(i.dtype).itemsize for i in inputs)
    return RunResult(len(boxes), len(calls), seconds, size, _reports(plan, figures))


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
