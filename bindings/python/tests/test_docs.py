"""The Python examples of docs/python.md, each run as written."""
import logging
import pathlib
import re

import pytest

GUIDE = pathlib.Path(__file__).resolve().parents[3] / "docs" / "python.md"
BLOCKS = re.findall(r"```python\n(.*?)```", GUIDE.read_text(), flags=re.S)


def test_the_guide_has_examples():
    assert len(BLOCKS) >= 6


@pytest.mark.parametrize("index", range(len(BLOCKS)))
def test_guide_example_runs(index, capsys):
    pytest.importorskip("scipy.optimize")
    root, ours = logging.getLogger(), logging.getLogger("lxopt")
    handlers, level = list(root.handlers), ours.level
    try:
        exec(compile(BLOCKS[index], f"{GUIDE.name} example {index + 1}", "exec"), {})
    finally:  # the examples may configure logging
        root.handlers[:] = handlers
        ours.setLevel(level)
