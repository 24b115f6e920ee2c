"""Common parts of the generator's tests."""

import os
import subprocess
import sys
import tempfile
import textwrap
from pathlib import Path

SOURCE = Path(os.environ.get("VLM_SOURCE_DIR", Path(__file__).resolve().parents[3]))
GENERATE = SOURCE / "codegen" / "generate.py"

sys.path.insert(0, str(SOURCE / "codegen"))


def generate(folder, *arguments):
    return subprocess.run([sys.executable, "-B", str(GENERATE), "--interfaces", str(folder), *map(str, arguments)],
                          capture_output=True, text=True, check=False)


class Folder(tempfile.TemporaryDirectory):
    """A temporary folder `interfaces` of descriptions, from texts."""

    def __enter__(self):
        self.path = Path(super().__enter__()) / "interfaces"
        self.path.mkdir()
        return self

    def write(self, name, text):
        (self.path / name).write_text(textwrap.dedent(text), encoding="utf-8")
