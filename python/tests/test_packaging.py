"""What a pip user relies on beyond the API: help texts from the catalog, the version, and vorn
working without Dask until a Dask run is asked for."""
import os
import re
import subprocess
import sys

import pytest

import vorn


@pytest.mark.parametrize("name", vorn.operatorNames())
def test_every_catalog_operator_class_has_its_help(name):
    kind = type(vorn.createOperator(name))
    assert kind is not vorn.ProcessObject and f"In pipeline text: '{name}'" in kind.__doc__


@pytest.mark.parametrize("name, line", [
    ("gaussian", "sigma = '1': in pixels"),
    ("threshold", "inside = '1': value of the pixels inside"),
    ("stats", "threads = '': threads for its pixel work"),
])
def test_operator_docs_give_defaults(name, line):
    assert line in type(vorn.createOperator(name)).__doc__


def test_version_is_the_projects():
    cmake = open(os.path.join(os.environ["VORN_SOURCE_DIR"], "CMakeLists.txt")).read()
    assert re.search(r"project\(vorn VERSION ([0-9.]+)", cmake).group(1) == vorn.__version__


def test_vorn_imports_without_dask_and_a_dask_run_names_the_package(tmp_path):
    script = f"""
import sys
sys.modules["dask"] = None  # as if Dask were not installed
import vorn
from vorn.batch import run_batch
try:
    run_batch("read file={{input}} ! write file={{output}}", [], {str(tmp_path)!r}, client=object())
except ImportError as error:
    print(error)
"""
    out = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, check=True)
    assert "pip install 'vorn[dask]'" in out.stdout
