"""Every python block of the Python guide is a whole program that must run."""
import os
import re
import subprocess
import sys

import pytest

GUIDE = os.environ.get("QEL_DOCS", os.path.join(os.path.dirname(__file__), "../../docs/python.md"))
BLOCKS = re.findall(r"```python\n(.*?)```", open(GUIDE).read(), re.S)


@pytest.mark.parametrize("number", range(len(BLOCKS)))
def test_guide_example_runs(number, tmp_path):
    script = tmp_path / f"example_{number + 1}.py"
    script.write_text(BLOCKS[number])
    run = subprocess.run([sys.executable, str(script)], capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stdout + run.stderr
