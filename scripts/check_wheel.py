"""Run by test_wheel.sh with the Python of a venv the wheel was installed into, outside the source
tree: everything must come from that venv. Argument: the build's vorn-config-version.cmake."""
import filecmp
import importlib.metadata
import os
import re
import subprocess
import sys

import numpy as np
from distributed import Client, LocalCluster

import vorn
from vorn.batch import run_batch

PACKAGE = os.path.dirname(vorn.__file__)


def loaded_libraries():
    with open("/proc/self/maps") as maps:
        return {line.split()[-1] for line in maps if "/libvorn" in line or "/libzel" in line}


def where_workers_find_vorn():
    import vorn

    return vorn.__file__, sorted(loaded_libraries())


def check(condition, what):
    if not condition:
        sys.exit(f"check_wheel: {what}")


def check_module_and_pipeline():
    check(PACKAGE.startswith(sys.prefix), f"vorn imported from {PACKAGE}, not the venv")
    check(all(path.startswith(PACKAGE) for path in loaded_libraries()),
          f"libraries from outside the wheel: {loaded_libraries()}")
    ramp = np.tile(np.arange(0, 250, 10, dtype=np.uint8), (20, 1))
    vorn.writeImageFile(vorn.ImageObject.from_array(ramp), "ramp.png")
    with vorn.capture_output():
        report = vorn.run("read file=ramp.png ! gaussian sigma=1 ! stats ! cast type=uchar ! "
                          "write file=smooth.png")
    smooth = np.asarray(vorn.readImageFile("smooth.png"))
    check("count=500" in report and smooth.shape == ramp.shape, f"pipeline: {report}")
    check(np.array_equal(smooth[:, 3:-3], ramp[:, 3:-3]), "a ramp is not kept by smoothing")


def check_vorn_run_and_versions(cmake_version_file):
    help_text = subprocess.run(["vorn-run", "--help"], capture_output=True, text=True, check=True)
    check(all(name in help_text.stdout for name in vorn.operatorNames()), "vorn-run --help")
    said = subprocess.run(["vorn-run", "--version"], capture_output=True, text=True, check=True)
    cmake = re.search(r'PACKAGE_VERSION "([^"]+)"', open(cmake_version_file).read()).group(1)
    versions = {"vorn.__version__": vorn.__version__,
                "wheel metadata": importlib.metadata.version("vorn"),
                "vorn-run --version": said.stdout.split()[-1], "CMake package": cmake}
    check(len(set(versions.values())) == 1, f"versions disagree: {versions}")


def check_local_cluster():
    inputs = []
    for k in range(4):
        inputs.append(f"in{k}.png")
        pixels = np.full((16, 24), 40 * k, dtype=np.uint8)
        vorn.writeImageFile(vorn.ImageObject.from_array(pixels), inputs[-1])
    text = "read file={input} ! gaussian sigma=2 ! stats ! cast type=uchar ! write file={output}"
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                      dashboard_address=":0") as cluster, Client(cluster) as client:
        results = run_batch(text, inputs, "out", client)
        workers = client.run(where_workers_find_vorn)
    check(all(not r.error and filecmp.cmp(r.input, r.output, shallow=False) for r in results),
          f"batch on the cluster: {results}")
    for address, (module, libraries) in workers.items():
        check(module.startswith(PACKAGE) and all(p.startswith(PACKAGE) for p in libraries),
              f"worker {address} uses {module}, {libraries}")


if __name__ == "__main__":  # not again in the cluster's worker processes, which import this file
    check_module_and_pipeline()
    check_vorn_run_and_versions(sys.argv[1])
    check_local_cluster()
    print("check_wheel: module, pipeline, vorn-run, versions, LocalCluster batch: all from the wheel")
