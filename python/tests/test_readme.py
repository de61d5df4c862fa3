"""The README's Python quick start runs as printed."""
import os
import pathlib
import re


def test_quick_start(tmp_path, capfd, monkeypatch):
    readme = pathlib.Path(os.environ["VORN_SOURCE_DIR"], "README.md").read_text()
    section = readme.split("## Python", 1)[1]
    snippet = re.search(r"```python\n(.*?)```", section, re.S).group(1)
    monkeypatch.chdir(tmp_path)
    exec(compile(snippet, "README.md", "exec"), {})
    printed = capfd.readouterr().out
    assert "[255 254 253]" in printed and "count=16384" in printed
    assert (tmp_path / "smooth.nii.gz").exists()
