import os
import re
import subprocess
import sys

import qxgroupmgr
from conftest import REPO, SAMPLES


def test_readme_python_example_prints_what_its_comments_say(tmp_path):
    readme = (REPO / "README.md").read_text()
    code = re.search(r"^## From Python\n.*?```python\n(.*?)```", readme, re.S | re.M).group(1)
    (tmp_path / "samples").symlink_to(SAMPLES)
    package = os.path.dirname(os.path.dirname(qxgroupmgr.__file__))
    run = subprocess.run([sys.executable, "-c", code], cwd=tmp_path, capture_output=True,
                         text=True, env={**os.environ, "PYTHONPATH": package})
    assert run.returncode == 0, run.stderr
    said = [line.split("#", 1)[1].strip() for line in code.splitlines() if line.startswith("print(")]
    assert run.stdout.splitlines() == said
    assert len(code.splitlines()) == 5
