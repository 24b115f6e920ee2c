"""vlm-soak distinguishes growth from the variation of ticks and from the filling of queues at the start."""
import contextlib
import importlib.machinery
import importlib.util
import io
import random
import sys
import unittest

loader = importlib.machinery.SourceFileLoader("vlm_soak", sys.argv.pop())
soak = importlib.util.module_from_spec(importlib.util.spec_from_loader("vlm_soak", loader))
loader.exec_module(soak)


def is_level(memory):
    """The evaluation of an hour's rows; `memory` gives the memory at a second."""
    rows = [{"seconds": s, "memoryKiB": memory(s), "threads": 17 + (s % 60 < 5) * 9, "descriptors": 21}
            for s in range(0, 3600, 5)]
    with contextlib.redirect_stdout(io.StringIO()):
        return soak.judge(rows)


class SoakJudgement(unittest.TestCase):
    def test_a_leak_of_a_megabyte_an_hour_is_found_beside_ticks_a_start_that_fills_up_and_noise(self):
        chance = random.Random(1)
        for level, memory in ((True, lambda s: 40000 + (s % 60) * 100), (True, lambda s: 24000 + min(s, 500) * 40),
                              (False, lambda s: 40000 + s * 1024 // 3600 + (s % 60) * 100)):
            self.assertEqual(is_level(lambda s: memory(s) + chance.randint(0, 300)), level)


if __name__ == "__main__":
    unittest.main()
