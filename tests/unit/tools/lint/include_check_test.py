"""The includes that the check refuses, with the tree's own layers and files of the test."""
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SOURCE = Path(sys.argv.pop(1))


class IncludeCheck(unittest.TestCase):
    def check(self, file, *includes):
        """The check's output for a tree with this file and every file that it includes."""
        with tempfile.TemporaryDirectory() as folder:
            root = Path(folder)
            shutil.copy(SOURCE / "layers.txt", root)
            for name in includes:
                (root / name).parent.mkdir(parents=True, exist_ok=True)
                (root / name).touch()
            (root / file).parent.mkdir(parents=True, exist_ok=True)
            spelled = [name.removeprefix("platform/api/").removeprefix("platform/linux/") for name in includes]
            lines = [("#include <%s>" if at % 2 else '#include "%s"') % name for at, name in enumerate(spelled)]
            (root / file).write_text("\n".join(["#pragma once", *lines]))
            done = subprocess.run([SOURCE / "tools/lint/check-includes", "--root", root], capture_output=True, text=True)
            self.assertEqual(done.returncode, 1 if done.stdout else 0, done.stderr)
            return done.stdout.splitlines()

    def test_includes_downward_pass_and_others_are_named_with_file_and_line(self):
        self.assertEqual(self.check("bus/A.h", "base/B.h", "report/C.h"), ['bus/A.h:3: bus/ may not include "report/C.h"'])
        for refused, *files in (
                (0, "config/A.cpp", "config/A.h", "services/B.h", "bus/C.h", "platform/api/kyo/D.h"),
                (0, "platform/linux/com/A.cpp", "platform/linux/someip/B.h", "platform/api/ac/C.h"),
                (0, "tools/vehicle/A.cpp", "tools/check/B.h", "platform/linux/machine/C.h", "json/D.h"),
                (0, "platform/linux/machine/A.cpp", "json/B.h"),
                (1, "catalog/A.cpp", "bus/B.h"),  # of one layer
                (1, "platform/linux/backend/A.cpp", "platform/linux/state/B.h"),
                (1, "app/A.cpp", "platform/linux/machine/Manifest.h"),
                (1, "platform/linux/log/A.cpp", "base/VlmLog.h"),
                (2, "json/A.cpp", "base/VlmLog.h", "qdr/services/x/proxy.h"),
                (2, "platform/api/kyo/A.h", "json/B.h", "platform/linux/machine/Manifest.h"),
                (1, "tools/state/A.cpp", "report/VlmReport.h"),
                (1, "base/A.cpp", "base/../app/B.h"),
                (1, "tools/newtool/A.cpp"), (1, "platform/linux/new/A.cpp"), (1, "platform/api/A.h")):  # in no folder
            self.assertEqual(len(self.check(*files)), refused, files)


if __name__ == "__main__":
    unittest.main()
