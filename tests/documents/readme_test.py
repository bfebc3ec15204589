"""The README's program answers as the README shows."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

SOURCE = pathlib.Path(os.environ["SOURCE"])
README = (SOURCE / "README.md").read_text()


class ReadmeTest(unittest.TestCase):
    def test_the_program_answers_as_shown(self):
        shown = re.findall(r"^```console\n\$ (.*)\n(.*)\n```$", README, re.MULTILINE)
        self.assertEqual(len(shown), 1)
        command, answer = shown[0]
        with tempfile.TemporaryDirectory() as folder:
            (pathlib.Path(folder) / "whoami").symlink_to(os.environ["README_FRONT"])
            # The folder of the system may be there, and serve somebody.
            command = command.replace("./whoami", f"--run-dir {folder} ./whoami")
            played = subprocess.run(
                ["bash", "-c", command],
                cwd=folder,
                env={"PATH": f"{SOURCE / 'tools'}:{os.environ['PATH']}"},
                stdout=subprocess.PIPE,
                text=True,
                timeout=60,
            ).stdout
        self.assertEqual(played.replace(folder, "/run/tov"), answer)


if __name__ == "__main__":
    unittest.main()
