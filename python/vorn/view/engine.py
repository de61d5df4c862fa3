"""The pipeline behind a view: sets parameters, requests the regions one slice needs, updates.

Slices are taken along vorn's axes (axis 0 varies fastest); the slice `index` along `axis` is
`numpy.take(result, index, axis=ndim - 1 - axis)` of the whole-volume result. A 2-D image is a
volume of one slice along axis 2.
"""
import collections
import re
import shlex
import time

import numpy as np

import vorn

from . import reach


class ViewError(ValueError):
    """A request the view refuses, with the reason; nothing was changed."""


class Stage:
    def __init__(self, name, kind, op):
        self.name, self.kind, self.op = name, kind, op


class _Counter(vorn.IObserver):
    """Records which operators computed since the last reset."""

    def __init__(self):
        super().__init__()
        self.names = []

    def onStartComputingData(self, op):
        self.names.append(op.getName())


_SOURCE = "view source"  # a name no label of pipeline text can take


class _Source(vorn.ProcessObject):
    """Hands the viewed image on as it is: nothing to compute, nothing copied."""

    def __init__(self, image):
        super().__init__()
        self.setName(_SOURCE)
        self.addOutput("ImageObject")
        image.setGenerator(self)
        self.getOutputPort(0).setData(image)

    def generateData(self):
        pass


def stage_kinds(text):
    """The catalog name of each stage of pipeline text, in order of appearance."""
    lexer = shlex.shlex(text, posix=True, punctuation_chars="!;")
    lexer.whitespace_split = True
    kinds, first = [], True
    for word in lexer:
        if word in ("!", ";") or set(word) <= set("!;"):
            first = True
        elif first:
            first = False
            if not word.startswith("@"):
                kinds.append(word)
    return kinds


def as_image(source):
    """An ImageObject for a path, a NumPy array or an ImageObject."""
    if isinstance(source, vorn.ImageObject):
        return source
    if isinstance(source, np.ndarray):
        try:
            return vorn.ImageObject.from_array(source)
        except TypeError:
            return vorn.ImageObject.from_array(np.ascontiguousarray(source, np.float32), copy=True)
    return vorn.readImageFile(str(source))


def value_range(pixels):
    """The lowest and highest finite pixel values, (0, 1) without any; a slice at a time, so
    that a large volume is never copied whole."""
    low, high = np.inf, -np.inf
    for part in pixels if pixels.ndim == 3 else [pixels]:
        if part.dtype.kind == "f":
            part = part[np.isfinite(part)]
        if part.size:
            low, high = min(low, part.min()), max(high, part.max())
    return (float(low), float(high)) if low <= high else (0.0, 1.0)


def _describe(error):
    # The operator's own message, without the engine's frame around it.
    text = " ".join(str(error).split())
    text = re.sub(r"^Operator .*? has caught an exception: ", "", text)
    return re.sub(r": iostream error$", "", text)


class SliceEngine:
    """A pipeline of catalog operators on one image, computed a slice at a time."""

    def __init__(self, source, text, cache_bytes=256 << 20):
        self.image = as_image(source)
        self.pixels = np.asarray(self.image)
        if self.pixels.ndim not in (2, 3):
            raise ViewError("the view shows 2-D and 3-D images; this one has %d axes"
                            % self.pixels.ndim)
        self.size = list(self.pixels.shape[::-1])
        self.shape3 = (self.size + [1])[:3]
        self.stages = self._build(text)
        self.cache_bytes = cache_bytes
        self.cache = collections.OrderedDict()
        self.boxes = {}
        self.values = {(s.name, p): s.op.getParameterValue(p)
                       for s in self.stages for p in s.op.getParameterNames()}
        self.range = value_range(self.pixels)

    def _build(self, text):
        kinds = stage_kinds(text)
        if not kinds:
            raise ViewError("the pipeline text has no stage")
        for kind in kinds:
            if kind in ("read", "write"):
                raise ViewError("'%s': the view reads its source itself and writes nothing; "
                                "leave read and write out of the text" % kind)
        try:
            self.pipeline = vorn.TextPipeline.build("read file=unused ! " + text)
        except vorn.PipelineTextError as error:
            raise ViewError(str(error)) from None
        self.pipeline.silence()
        ops = self.pipeline.operators()[1:]
        if len(ops) != len(kinds):
            raise ViewError("could not match the stages of %r" % text)
        self.source = _Source(self.image)
        ops[0].setInputPort(0, self.source.getOutputPort(0))
        self.counter = _Counter()
        for op in ops:
            op.attachObserver(self.counter)
        self.sink = ops[-1]
        return [Stage(op.getName(), kind, op) for op, kind in zip(ops, kinds)]

    # -- requests ------------------------------------------------------------------------

    def stage(self, name):
        for stage in self.stages:
            if stage.name == name:
                return stage
        raise ViewError("no stage named %r (stages: %s)"
                        % (name, ", ".join(s.name for s in self.stages)))

    def check(self, axis, index, changes):
        """Raises ViewError for anything wrong, before anything changes."""
        if not isinstance(axis, int) or not 0 <= axis < 3:
            raise ViewError("axis %r: expected 0, 1 or 2" % (axis,))
        if not isinstance(index, int) or not 0 <= index < self.shape3[axis]:
            raise ViewError("index %r: axis %d has slices 0 to %d"
                            % (index, axis, self.shape3[axis] - 1))
        for (name, parameter), value in changes.items():
            stage = self.stage(name)
            if parameter not in stage.op.getParameterNames():
                raise ViewError("%s has no parameter %r (it has: %s)" % (
                    name, parameter, ", ".join(stage.op.getParameterNames())))
            if not isinstance(value, str):
                raise ViewError("%s.%s: the value must be text" % (name, parameter))

    def slice(self, axis, index, changes=None):
        """The output slice and what it cost, after setting `changes` {(stage, parameter): text}.

        A failed update leaves the parameters as they were and raises ViewError with the
        operator's message."""
        changes = dict(changes or {})
        self.check(axis, index, changes)
        changes = {key: value for key, value in changes.items() if self.values[key] != value}
        if not changes and (axis, index) in self.cache:
            self.cache.move_to_end((axis, index))
            return self.cache[(axis, index)], {"operators": 0, "recomputed": [], "pixels": 0,
                                               "ms": 0.0, "cached": True}
        start = time.perf_counter()
        previous = {key: self.values[key] for key in changes}
        self._set(changes)
        del self.counter.names[:]
        try:
            boxes = self._request(self._box(axis, index))
            with vorn.capture_output():  # the engine's progress lines are no business of a view
                self.sink.update()
        except vorn.UpdateError as error:
            self._set(previous)
            raise ViewError(_describe(error)) from None
        ms = (time.perf_counter() - start) * 1000
        if changes:
            self.cache.clear()
        result = self._store(axis, index)
        recomputed = list(self.counter.names)
        pixels = sum(self._pixels(name, boxes) for name in recomputed)
        return result, {"operators": len(recomputed), "recomputed": recomputed,
                        "pixels": pixels, "ms": ms, "cached": False}

    def input_slice(self, axis, index):
        return np.take(self.pixels.reshape(self.shape3[::-1]), index, axis=2 - axis)

    def held_bytes(self):
        """What the view keeps: the operators' images and the slices kept."""
        held = sum(np.asarray(s.op.getOutputPort(0).getData()).nbytes
                   for s in self.stages if s.name in self.boxes)
        return held + sum(a.nbytes for a in self.cache.values())

    # -- inside --------------------------------------------------------------------------

    def _set(self, changes):
        for (name, parameter), value in changes.items():
            self.stage(name).op.setParameterValue(parameter, value)
            self.values[(name, parameter)] = value

    def _box(self, axis, index):
        start, size = [0, 0, 0], list(self.shape3)
        start[axis], size[axis] = index, 1
        dims = len(self.size)
        return start[:dims], size[:dims]

    def _upstream(self):
        """The stages that feed the sink, readers after the stages they read."""
        order, seen = [], set()

        def visit(op):
            name = op.getName()
            if name in seen:
                return
            seen.add(name)
            for parent in self._readers_of(op):
                visit(parent)
            order.append(name)

        visit(self.sink)
        return order[::-1]

    def _readers_of(self, op):
        """The stages feeding `op`'s inputs (the source is no stage)."""
        parents = []
        for i in range(op.getNumberOfInputPorts()):
            port = op.getInputPort(i).getConnection()
            parent = port.getParent() if port is not None else None
            if parent is not None and parent.getName() != _SOURCE:
                parents.append(parent)
        return parents

    def _request(self, box):
        """Requests on each stage the box its readers need; only changed boxes invalidate."""
        wanted = {self.sink.getName(): box}
        by_name = {s.name: s for s in self.stages}
        order = self._upstream()
        for name in order:
            stage = by_name[name]
            needs = reach.needed(stage.kind, stage.op, wanted[name], self.size)
            for parent in self._readers_of(stage.op):
                wanted[parent.getName()] = reach.union(wanted.get(parent.getName()), needs)
        for name in order:
            if self.boxes.get(name) != wanted[name]:
                start, size = wanted[name]
                by_name[name].op.setRequestedRegionOfInterest(0, vorn.BoxRoi(vorn.Box(size, start)))
                self.boxes[name] = wanted[name]
        return wanted

    def _pixels(self, name, boxes):
        kind = self.stage(name).kind
        if kind in reach.REGIONAL and name in boxes:
            return reach.volume(boxes[name])
        return reach.volume(reach.whole(self.size))

    def _store(self, axis, index):
        out = np.asarray(self.sink.getOutputPort(0).getData())
        result = np.take(out.reshape(out.shape if out.ndim == 3 else (1,) + out.shape),
                         index, axis=2 - axis).copy()
        self.cache[(axis, index)] = result
        while len(self.cache) > 1 and sum(a.nbytes for a in self.cache.values()) > self.cache_bytes:
            self.cache.popitem(last=False)
        return result
