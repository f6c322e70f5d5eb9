#!/usr/bin/env python3
# Lists an archive the way zipfile reads it: testzip()'s CRC verdict and the comment (hex), then
# one member a line (name bytes in hex, sizes, external attributes, method, UTF-8 flag, date and
# time); writes each member's bytes to <argv[2]>/<index> when argv[2] is not empty.
import os, sys, zipfile
z = zipfile.ZipFile(sys.argv[1])
print('ok' if z.testzip() is None else 'bad', 'x' + z.comment.hex())
for n, i in enumerate(z.infolist()):
    utf8 = i.flag_bits & 0x800
    print('n' + i.filename.encode('utf-8' if utf8 else 'cp437').hex(), i.file_size, i.compress_size,
          i.external_attr, i.compress_type, 1 if utf8 else 0, *i.date_time)
    if len(sys.argv) > 2 and sys.argv[2]:
        with open(os.path.join(sys.argv[2], str(n)), 'wb') as f:
            f.write(z.read(i))
