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
            (root / file).write_text("#pragma once\n" + "".join(f'#include "{name}"\n' for name in spelled))
            done = subprocess.run([SOURCE / "tools/lint/check-includes", "--root", root], capture_output=True, text=True)
            self.assertEqual(done.returncode, 1 if done.stdout else 0, done.stderr)
            return done.stdout.splitlines()

    def test_includes_downward_pass(self):
        self.assertEqual(self.check("config/A.cpp", "config/A.h", "services/B.h", "bus/C.h", "platform/api/kyo/D.h"), [])
        self.assertEqual(self.check("platform/linux/com/A.cpp", "platform/linux/someip/B.h", "platform/api/ac/C.h"), [])
        self.assertEqual(self.check("tools/vehicle/A.cpp", "tools/check/B.h", "platform/linux/machine/C.h", "json/D.h"), [])
        self.assertEqual(self.check("platform/linux/machine/A.cpp", "json/B.h"), [])

    def test_an_include_upward_is_named_with_file_and_line(self):
        self.assertEqual(self.check("bus/A.h", "base/B.h", "report/C.h"), ['bus/A.h:3: bus/ may not include "report/C.h"'])

    def test_folders_of_one_layer_may_not_include_each_other(self):
        self.assertEqual(len(self.check("catalog/A.cpp", "bus/B.h")), 1)
        self.assertEqual(len(self.check("platform/linux/backend/A.cpp", "platform/linux/state/B.h")), 1)

    def test_the_application_may_include_only_the_platform_interface(self):
        self.assertEqual(len(self.check("app/A.cpp", "platform/linux/machine/Manifest.h")), 1)
        self.assertEqual(len(self.check("platform/linux/log/A.cpp", "base/VlmLog.h")), 1)
        self.assertEqual(len(self.check("json/A.cpp", "base/VlmLog.h", "qdr/services/x/proxy.h")), 2)
        self.assertEqual(len(self.check("platform/api/kyo/A.h", "json/B.h", "platform/linux/machine/Manifest.h")), 2)
        self.assertEqual(len(self.check("tools/state/A.cpp", "report/VlmReport.h")), 1)


if __name__ == "__main__":
    unittest.main()
