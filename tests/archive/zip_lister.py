#!/usr/bin/env python3
# Lists an archive the way zipfile reads it: one member a line (name bytes in hex, sizes,
# external attributes, method, UTF-8 flag, date and time), the comment, and testzip()'s CRC
# verdict; writes each member's bytes to <argv[2]>/<index> when given.
import os, sys, zipfile
z = zipfile.ZipFile(sys.argv[1])
for n, i in enumerate(z.infolist()):
    raw = i.filename.encode('utf-8' if i.flag_bits & 0x800 else 'cp437')
    print('n' + raw.hex(), i.file_size, i.compress_size, i.external_attr, i.compress_type,
          1 if i.flag_bits & 0x800 else 0, *i.date_time)
    if len(sys.argv) > 2:
        with open(os.path.join(sys.argv[2], str(n)), 'wb') as f:
            f.write(z.read(i))
print('comment', 'x' + z.comment.hex())
bad = z.testzip()
print('testzip', 'ok' if bad is None else 'bad')
