#!/usr/bin/env python3
# Zips the current folder's tree with zipfile: argv[1] "deflated" or "stored"; argv[2] a path,
# or "-" for standard output, which in a pipe cannot seek, so every member gets a data descriptor.
import os, sys, zipfile
method = zipfile.ZIP_STORED if sys.argv[1] == 'stored' else zipfile.ZIP_DEFLATED
out = sys.stdout.buffer if sys.argv[2] == '-' else sys.argv[2]
with zipfile.ZipFile(out, 'w', method) as z:
    for root, dirs, files in os.walk('.'):
        dirs.sort()
        for name in dirs + sorted(files):
            path = os.path.join(root, name)
            z.write(path, os.path.relpath(path, '.'))
