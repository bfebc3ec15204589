"""fronts/upload.cpp on Python's cgi module, which spools the file in $TMPDIR
without a name, so that it has to be copied."""

import cgi
import os
import shutil
import sys

form = cgi.FieldStorage()
with open(os.environ["STORE"], "wb") as store:
    shutil.copyfileobj(form["u"].file, store)
    size = store.tell()
sys.stdout.write(f"Content-Type: text/plain\r\n\r\n{size}\n")
