import threading

import numpy as np
import pytest

import vorn
from conftest import ArraySource


@pytest.mark.parametrize("count, error", [
    (-1, ValueError), (1025, ValueError), (2 ** 70, ValueError),
    (2.0, TypeError), ("2", TypeError), (True, TypeError), (None, TypeError),
])
def test_set_threads_refuses_what_is_not_a_count(count, error):
    before = vorn.thread_count()
    with pytest.raises(error, match="set_threads"):
        vorn.set_threads(count)
    assert vorn.thread_count() == before


def test_set_threads_sets_the_count_and_zero_means_every_core():
    try:
        vorn.set_threads(3)
        assert vorn.thread_count() == 3
        vorn.set_threads(0)
        assert vorn.thread_count() >= 1
    finally:
        vorn.set_threads(0)


class Started(vorn.IObserver):
    """Marks when the operator it listens to starts computing; nothing in Python marks the end."""

    def __init__(self):
        super().__init__()
        self.event = threading.Event()

    def onStartComputingData(self, op):
        self.event.set()


def smoothing(array, sigma):
    source, smooth = ArraySource(array), vorn.GaussianSmoothing()
    smooth.setParameterValue("sigma", str(sigma))
    smooth.getInputPort(0).connectTo(source.getOutputPort(0))
    return source, smooth


def test_two_threads_update_two_pipelines_while_python_runs():
    rng = np.random.default_rng(7)
    arrays = [rng.random((160, 160, 160), np.float32) * 100 for _ in range(2)]
    expected = []
    for array in arrays:
        _, smooth = smoothing(array, 4)
        smooth.update()
        expected.append(np.array(smooth.getOutputPort(0).getData()))
    pipelines = [smoothing(array, 4) for array in arrays]
    started = Started()
    watched = pipelines[0][1]
    watched.attachObserver(started)
    failures = []

    def update(smooth):
        try:
            smooth.update()
        except Exception as error:  # reported by the main thread
            failures.append(error)

    threads = [threading.Thread(target=update, args=(smooth,)) for _, smooth in pipelines]
    for thread in threads:
        thread.start()
    assert started.event.wait(30)
    # This thread runs Python while the smoothing computes: update() let go of the lock. Held,
    # it would come back only once the update is over and the operator validated.
    assert watched.isInvalidated()
    for thread in threads:
        thread.join(60)
    assert failures == []
    for (_, smooth), want in zip(pipelines, expected):
        np.testing.assert_array_equal(np.asarray(smooth.getOutputPort(0).getData()), want)
