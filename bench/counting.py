"""Counts what one sample costs on its way without threads, with the program sample_path: figures that are the same
in each run and under any load."""
import re
import subprocess
import tempfile
from dataclasses import dataclass

SAMPLES = 200


@dataclass
class Cost:
    instructions: float
    allocations: float


def cost(program, kind, level, collectors=1, history=0):
    """Of one sample, on average."""
    with tempfile.TemporaryDirectory(prefix="vlm-instructions-") as folder:
        done = subprocess.run(
            ["valgrind", "--tool=callgrind", "--toggle-collect=countedSample", f"--callgrind-out-file={folder}/out",
             str(program), kind, str(level), str(SAMPLES), str(collectors), str(history)],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
    counted = re.search(r"Collected : (\d+)", done.stderr)
    allocated = re.search(r"([\d.]+) allocations", done.stdout)
    if done.returncode != 0 or counted is None or int(counted.group(1)) == 0 or allocated is None:
        raise RuntimeError(f"nothing was counted:\n{done.stdout}{done.stderr}")
    return Cost(int(counted.group(1)) / SAMPLES, float(allocated.group(1)))
