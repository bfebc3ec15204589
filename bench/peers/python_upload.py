"""fronts/upload.cpp with Python's cgi module. The module stores the upload in a
file without a name in $TMPDIR, so the content must be copied."""

import cgi
import os
import shutil
import sys

form = cgi.FieldStorage()
with open(os.environ["STORE"], "wb") as store:
    shutil.copyfileobj(form["u"].file, store)
    size = store.tell()
sys.stdout.write(f"Content-Type: text/plain\r\n\r\n{size}\n")
