"""The slice view: its slices against vorn-run's whole-volume result, its refusals, its
superseding of queued changes, and the page in a real headless browser."""
import asyncio
import io
import json
import os
import shutil
import signal
import subprocess
import sys
import urllib.error
import urllib.parse
import urllib.request

import numpy as np
import pytest

import vorn

tornado = pytest.importorskip("tornado")
from tornado.websocket import websocket_connect  # noqa: E402

SHAPE = (9, 14, 12)  # NumPy order: 9 slices along vorn's axis 2
TEXTS = {
    "chain": "gaussian sigma=1.5 ! threshold lower=100",
    "twice": "gaussian sigma=2,1,0.5 ! gaussian sigma=0.7 ! cast type=short",
    "branch": "gaussian sigma=1 as=s ! threshold lower=120 as=m ; @s ! mask in1=m",
}


def volume(dtype):
    values = np.random.default_rng(7).integers(0, 250, SHAPE)
    return (values - (50 if dtype == np.int16 else 0)).astype(dtype)


def whole(path, text, changes, tmp_path):
    """The whole-volume result of vorn-run, parameters changed as the view was asked."""
    out = tmp_path / "whole.nii"
    pipeline = vorn.TextPipeline.build("read file=%s ! %s ! write file=%s" % (path, text, out))
    for (stage, parameter), value in changes.items():
        pipeline.find(stage).setParameterValue(parameter, value)
    with vorn.capture_output():
        pipeline.run()
    return np.asarray(vorn.readImageFile(str(out))).copy()


@pytest.fixture
def served(tmp_path):
    """Starts views on saved volumes; stops them all at the end."""
    views = []

    def start(dtype, text):
        path = tmp_path / ("source-%s.nii" % np.dtype(dtype).name)
        vorn.writeImageFile(vorn.ImageObject.from_array(volume(dtype)), str(path))
        views.append(vorn.view(path, text))
        return views[-1], path

    yield start
    for handle in views:
        handle.close()


def get(handle, path="api/slice", token=True, **query):
    if token:
        query["token"] = handle.token if token is True else token
    url = handle.url.split("?")[0] + path + "?" + urllib.parse.urlencode(query)
    try:
        with urllib.request.urlopen(url, timeout=30) as answer:
            return answer.status, answer.headers, answer.read()
    except urllib.error.HTTPError as error:
        return error.code, error.headers, error.read()


def sliced(handle, axis, index, **changes):
    status, headers, body = get(handle, axis=axis, index=index, **changes)
    assert status == 200, body
    return np.load(io.BytesIO(body)), headers


@pytest.mark.parametrize("dtype,name,changes", [
    (np.uint8, "chain", {}),
    (np.int16, "chain", {"threshold.lower": "-20", "gaussian.sigma": "0.6"}),
    (np.float32, "chain", {"gaussian.sigma": "3"}),
    (np.uint8, "twice", {"gaussian#2.sigma": "1.5"}),
    (np.float32, "twice", {"gaussian.sigma": "0"}),
    (np.int16, "branch", {"s.sigma": "2.5"}),
])
def test_slices_equal_the_whole_volume_bit_for_bit(served, tmp_path, dtype, name, changes):
    handle, path = served(dtype, TEXTS[name])
    reference = whole(path, TEXTS[name], {tuple(k.split(".")): v for k, v in changes.items()},
                      tmp_path)
    for axis, index in [(2, 4), (0, 0), (1, 13), (0, 11), (2, 0), (2, 8), (2, 4)]:
        result, _ = sliced(handle, axis, index, **changes)
        expected = np.take(reference, index, axis=2 - axis)
        assert result.dtype == expected.dtype
        assert result.tobytes() == expected.tobytes(), (axis, index)


# Each step after the one before, on the same view.
STEPS = [
    ({"axis": 2, "index": 3}, "gaussian,threshold"),
    ({"axis": 2, "index": 3, "threshold.lower": "90"}, "threshold"),
    ({"axis": 2, "index": 3, "threshold.lower": "90"}, ""),
    ({"axis": 2, "index": 5}, "gaussian,threshold"),
    ({"axis": 2, "index": 3}, ""),  # kept since the last change
    ({"axis": 2, "index": 3, "gaussian.sigma": "2"}, "gaussian,threshold"),
    ({"axis": 0, "index": 3}, "gaussian,threshold"),
]


def test_only_what_changed_is_recomputed(served):
    handle, _ = served(np.uint8, TEXTS["chain"])
    for query, recomputed in STEPS:
        status, headers, _ = get(handle, **query)
        assert status == 200
        assert headers["X-Vorn-Recomputed"] == recomputed, query
        assert headers["X-Vorn-Operators-Recomputed"] == str(len(recomputed.split(",")) if recomputed else 0)
    # The Gaussian and the threshold each computed one slice along axis 0.
    assert int(headers["X-Vorn-Pixels-Computed"]) == 2 * 14 * 9


@pytest.mark.parametrize("query,token,status,words", [
    ({"axis": 2, "index": 1}, False, 403, "token"),
    ({"axis": 2, "index": 1}, "guess", 403, "token"),
    ({"axis": 3, "index": 1}, True, 400, "axis 3"),
    ({"axis": 2, "index": 9}, True, 400, "slices 0 to 8"),
    ({"axis": 2, "index": "x"}, True, 400, "whole number"),
    ({"index": 1}, True, 400, "axis None"),
    ({"axis": 2, "index": 1, "blur.sigma": "2"}, True, 400, "no stage named 'blur'"),
    ({"axis": 2, "index": 1, "gaussian.radius": "2"}, True, 400, "no parameter 'radius'"),
    ({"axis": 2, "index": 1, "sigma": "2"}, True, 400, "STAGE.PARAMETER"),
    ({"axis": 2, "index": 1, "gaussian.sigma": "-1"}, True, 400, "negative"),
    ({"axis": 2, "index": 1, "threshold.inside": "300"}, True, 400, "0 to 255"),
])
def test_bad_requests_are_refused_and_the_server_goes_on(served, tmp_path, query, token, status,
                                                         words):
    handle, path = served(np.float32, TEXTS["chain"])
    code, _, body = get(handle, token=token, **query)
    assert code == status and words in body.decode(), body
    result, _ = sliced(handle, 2, 1)  # the last good parameters still hold
    assert result.tobytes() == whole(path, TEXTS["chain"], {}, tmp_path)[1].tobytes()


def test_the_page_and_socket_need_the_token(served):
    handle, _ = served(np.uint8, TEXTS["chain"])
    assert get(handle, path="", token=False)[0] == 403
    assert get(handle, path="")[0] == 200
    info = json.loads(get(handle, path="api/info")[2])
    assert [s["name"] for s in info["stages"]] == ["gaussian", "threshold"]
    lower = info["stages"][1]["parameters"][0]
    assert lower["name"] == "lower" and lower["range"][:2] == info["range"]
    ws = handle.url.replace("http", "ws").split("?")[0] + "ws"

    async def connect():
        await asyncio.wait_for(websocket_connect(ws), 10)

    with pytest.raises(tornado.httpclient.HTTPClientError, match="403"):
        asyncio.run(connect())


async def slider(url, count):
    """Sends `count` changes at once; answers what came back until the last one."""
    socket = await asyncio.wait_for(websocket_connect(url), 10)
    socket.write_message(json.dumps({"id": 0, "axis": 2, "index": 4,
                                     "set": {"threshold.lower": "60"}}))
    for i in range(1, count + 1):
        socket.write_message(json.dumps({"id": i, "axis": 2, "index": 4,
                                         "set": {"gaussian.sigma": str(0.5 + i / 10)}}))
    answers = []
    while not answers or answers[-1].get("id") != count:
        message = await asyncio.wait_for(socket.read_message(), 30)
        length = int.from_bytes(message[:4], "little")
        answers.append(json.loads(message[4:4 + length]))
    socket.close()
    return answers


def test_a_burst_of_changes_is_answered_once_with_all_of_them(served, tmp_path):
    handle, path = served(np.float32, TEXTS["chain"])
    answers = asyncio.run(slider(handle.url.replace("http", "ws").replace("/?", "/ws?"), 30))
    assert len(answers) < 31
    result, headers = sliced(handle, 2, 4)
    assert headers["X-Vorn-Recomputed"] == ""  # already computed with every change in
    reference = whole(path, TEXTS["chain"], {("gaussian", "sigma"): "3.5",
                                             ("threshold", "lower"): "60"}, tmp_path)
    assert result.tobytes() == reference[4].tobytes()


def test_python_handle_and_command_line(tmp_path):
    with vorn.view(np.linspace(0, 1, 600).reshape(6, 10, 10), "gaussian") as handle:
        assert handle.url.startswith("http://127.0.0.1:") and handle.token in handle.url
        assert "<iframe" in handle._repr_html_()
        assert sliced(handle, 1, 9)[0].shape == (6, 10)
    with pytest.raises(urllib.error.URLError):
        urllib.request.urlopen(handle.url, timeout=5)
    with pytest.raises(vorn.view.ViewError, match="leave read and write out"):
        vorn.view(np.zeros((4, 4), np.uint8), "gaussian ! write file=x.png")
    path = tmp_path / "v.nii"
    vorn.writeImageFile(vorn.ImageObject.from_array(volume(np.uint8)), str(path))
    command = [sys.executable, "-m", "vorn.view", str(path), "gaussian sigma=1", "--no-browser"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as process:
        try:
            url = process.stdout.readline().strip()
            with urllib.request.urlopen(url, timeout=30) as page:
                assert b"vorn view" in page.read()
        finally:
            process.send_signal(signal.SIGINT)
            assert process.wait(30) == 0
    refused = subprocess.run(command[:4] + ["gaussian ! nosuch"], capture_output=True, text=True,
                             timeout=60)
    assert refused.returncode == 2 and "nosuch" in refused.stderr


def browser():
    chromium = shutil.which("chromium") or shutil.which("chromium-browser")
    driver = shutil.which("chromedriver")
    if not chromium or not driver:
        pytest.skip("Debian's chromium and chromium-driver are not installed")
    webdriver = pytest.importorskip("selenium.webdriver")
    options = webdriver.ChromeOptions()
    options.binary_location = chromium
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=1200,720"):
        options.add_argument(flag)
    service = pytest.importorskip("selenium.webdriver.chrome.service").Service(driver)
    return webdriver.Chrome(options=options, service=service)


def phantom():
    """Two noisy balls, 96 x 96 x 24 floats."""
    z, y, x = np.mgrid[0:24, 0:96, 0:96]
    balls = 200.0 * ((x - 40) ** 2 + (y - 44) ** 2 + 4 * (z - 12) ** 2 < 900)
    balls += 120.0 * ((x - 70) ** 2 + (y - 64) ** 2 + 4 * (z - 10) ** 2 < 250)
    return (balls + np.random.default_rng(3).normal(20, 25, z.shape)).astype(np.float32)


def test_the_page_shows_what_the_api_computes():
    handle = vorn.view(phantom(), "gaussian sigma=1 ! threshold lower=120")
    chrome = browser()
    try:
        chrome.set_script_timeout(60)
        chrome.get(handle.url)
        run = "const done = arguments[arguments.length - 1];"
        chrome.execute_async_script(run + "vornView.started.then(() => done())")
        before = chrome.execute_script("return document.getElementById('output').toDataURL()")
        answer = chrome.execute_async_script(run + "vornView.set('gaussian', 'sigma', 2.5).then(done)")
        assert "error" not in answer and chrome.execute_script("return vornView.lastLatencyMs") > 0
        shown = chrome.execute_script("return vornView.output()")
        expected, _ = sliced(handle, 2, 12, **{"gaussian.sigma": "2.5"})
        assert np.array_equal(np.array(shown["values"]).reshape(shown["shape"]), expected)
        assert chrome.execute_script("return document.getElementById('output').toDataURL()") != before
        refused = chrome.execute_async_script(run + "vornView.set('gaussian', 'sigma', 'x').then(done)")
        assert "sigma" in refused["error"]
        assert chrome.execute_script("return vornView.output().values").count(1) == expected.sum()
        if os.environ.get("VORN_VIEW_SCREENSHOT"):
            chrome.execute_async_script(run + "vornView.set('gaussian', 'sigma', 1.5).then(done)")
            chrome.save_screenshot(os.environ["VORN_VIEW_SCREENSHOT"])
    finally:
        chrome.quit()
        handle.close()
