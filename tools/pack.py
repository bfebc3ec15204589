"""Packs zancgi-request and its modules into one file, which can be copied.

    pack.py VERSION FILE

The same modules give the same file, byte for byte: it contains no times and
modes of this machine, and its names are sorted.
"""

import io
import pathlib
import sys
import zipapp
import zipfile

TOOLS = pathlib.Path(__file__).parent


def members(version):
    """The texts in the archive, by name."""
    found = {"__main__.py": (TOOLS / "zancgi-request").read_text("utf-8")}
    for package in ("zancgi_request", "zancgi_tools"):
        for path in (TOOLS / package).glob("*.py"):
            found[f"{package}/{path.name}"] = path.read_text("utf-8")
    name = "zancgi_tools/version.py"
    found[name] = found[name].replace("@PROJECT_VERSION@", version)
    return found


def archive(version):
    stream = io.BytesIO()
    with zipfile.ZipFile(stream, "w") as file:
        for name, text in sorted(members(version).items()):
            entry = zipfile.ZipInfo(name)  # dated 1980, the earliest possible year
            entry.external_attr = 0o644 << 16
            file.writestr(entry, text)
    stream.seek(0)
    return stream


def main():
    version, target = sys.argv[1:]
    zipapp.create_archive(archive(version), target, interpreter="/usr/bin/python3 -I")
    pathlib.Path(target).chmod(0o755)


if __name__ == "__main__":
    main()
