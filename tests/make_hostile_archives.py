#!/usr/bin/env python3
"""Writes the hostile-archive corpus into the folder given as argument.

Each archive tries one way out of the target folder or one way to exhaust the unpacker:
  dotdot.zip          an entry named ../suc-escape-dotdot.txt
  absolute.zip        an entry named /tmp/suc-escape-absolute.txt
  symlink-through.zip a link "out" to /tmp, then a file written as out/suc-escape-link.txt
  symlink-outside.zip a link "etc" pointing at /etc (a link out of the target)
  symlink-relative.zip a link "up" pointing at ../../.. and a file up/suc-escape-rel.txt
  bomb.zip            200 MiB of zeros in one entry (about 200 KiB packed)
  many-entries.zip    5,000 empty entries
  duplicate.zip       the same name twice
  truncated.zip       a valid archive cut in half
  corrupt.zip         a valid archive with damaged compressed data
  not-utf8.zip        a name in Latin-1 bytes without the UTF-8 flag (allowed, must stay inside)
  good.zip            a small valid package: bin/app (executable), share/readme.txt
"""
import os
import stat
import sys
import zipfile


def link(zf, name, target):
    info = zipfile.ZipInfo(name)
    info.create_system = 3
    info.external_attr = (stat.S_IFLNK | 0o777) << 16
    zf.writestr(info, target)


def good(path):
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as zf:
        app = zipfile.ZipInfo("bin/app")
        app.create_system = 3
        app.external_attr = (stat.S_IFREG | 0o755) << 16
        zf.writestr(app, "#!/bin/sh\necho new version\n")
        zf.writestr("share/readme.txt", "Viewer 2.10\n" * 200)


def main(out):
    os.makedirs(out, exist_ok=True)
    p = lambda name: os.path.join(out, name)
    with zipfile.ZipFile(p("dotdot.zip"), "w") as zf:
        zf.writestr("ok.txt", "fine")
        zf.writestr("../suc-escape-dotdot.txt", "escaped")
    with zipfile.ZipFile(p("absolute.zip"), "w") as zf:
        zf.writestr(zipfile.ZipInfo("/tmp/suc-escape-absolute.txt"), "escaped")
    with zipfile.ZipFile(p("symlink-through.zip"), "w") as zf:
        link(zf, "out", "/tmp")
        zf.writestr("out/suc-escape-link.txt", "escaped")
    with zipfile.ZipFile(p("symlink-outside.zip"), "w") as zf:
        link(zf, "etc", "/etc")
    with zipfile.ZipFile(p("symlink-relative.zip"), "w") as zf:
        link(zf, "up", "../../..")
        zf.writestr("up/suc-escape-rel.txt", "escaped")
    with zipfile.ZipFile(p("bomb.zip"), "w", zipfile.ZIP_DEFLATED, compresslevel=9) as zf:
        with zf.open("zeros.bin", "w", force_zip64=True) as entry:
            block = bytes(1 << 20)
            for _ in range(200):
                entry.write(block)
    with zipfile.ZipFile(p("many-entries.zip"), "w") as zf:
        for i in range(5000):
            zf.writestr("e/%05d" % i, "")
    with zipfile.ZipFile(p("duplicate.zip"), "w") as zf:
        zf.writestr("same.txt", "first")
        import warnings
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            zf.writestr("same.txt", "second")
    good(p("good.zip"))
    data = open(p("good.zip"), "rb").read()
    open(p("truncated.zip"), "wb").write(data[: len(data) // 2])
    damaged = bytearray(data)
    for i in range(60, 90):
        damaged[i] ^= 0x5A
    open(p("corrupt.zip"), "wb").write(bytes(damaged))
    with zipfile.ZipFile(p("not-utf8.zip"), "w") as zf:
        zf.writestr("cafX.txt", "latin-1 name")
    raw = open(p("not-utf8.zip"), "rb").read().replace(b"cafX.txt", b"caf\xe9.txt")
    open(p("not-utf8.zip"), "wb").write(raw)


if __name__ == "__main__":
    main(sys.argv[1])
