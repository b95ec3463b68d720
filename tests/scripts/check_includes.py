#!/usr/bin/env python3
"""scripts/check-includes on small trees: what it must refuse, and what it must let pass."""
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]

# A file, the line that it begins with, and a word of the complaint; none where it may stand.
CASES = [
    ("driver/frame/nt.h", "#include <ntifs.h>", None),
    ("driver/create/open.cpp", '#include "frame/nt.h"', None),
    ("driver/create/open.cpp", '#include "gvnd/plugin.h"', None),
    ("driver/create/open.cpp", "#include <ntifs.h>", "only frame/nt.h"),
    ("driver/create/open.cpp", "#include <vector>", "not the plugin boundary"),
    ("driver/create/open.h", '  #  include "missing.h"', "no header below driver/"),
    ("plugins/memfs/node.cpp", "#include <ntifs.h>", None),
    ("plugins/memfs/node.cpp", "#include <cstring>", "no header below plugins/memfs/"),
    ("nthost/io/irp.cpp", "#include <vector>", None),
    ("nthost/io/irp.cpp", '#include "gvnd/plugin.h"', "nthost knows nothing of the driver"),
    ("nthost/io/irp.cpp", '#include "frame/nt.h"', "nthost knows nothing of the driver"),
    ("nthost/mm/pages.cpp", '#include "io/irp.h"', None),
    ("nthost/ke/wait.cpp", '#include "io/irp.h"', "io is not below ke"),
    ("nthost/zw/view.cpp", '#include "cc/cc.h"', "cc is not below zw"),
    ("nthost/odd/file.cpp", '#include "io/irp.h"', "nthost/odd stands on no floor"),
]


class CheckIncludes(unittest.TestCase):
    def run_on(self, files):
        with tempfile.TemporaryDirectory() as name:
            tree = pathlib.Path(name)
            for path, text in files.items():
                (tree / path).parent.mkdir(parents=True, exist_ok=True)
                (tree / path).write_text(text)
            shutil.copytree(ROOT / "scripts", tree / "scripts")
            return subprocess.run([tree / "scripts" / "check-includes"], capture_output=True, text=True, check=False)

    def test_each_rule(self):
        for path, line, complaint in CASES:
            with self.subTest(path=path, line=line):
                headers = ("include/gvnd/plugin.h", "driver/frame/nt.h", "nthost/io/irp.h", "nthost/cc/cc.h")
                files = {**dict.fromkeys(headers, ""), path: f"// Comment.\n{line}\n"}
                result = self.run_on(files)
                self.assertEqual(result.returncode, 1 if complaint else 0, result.stderr)
                if complaint:
                    self.assertIn(f"{path}:2: ", result.stderr)
                    self.assertIn(complaint, result.stderr)


if __name__ == "__main__":
    sys.exit(unittest.main())
