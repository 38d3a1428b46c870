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
  bad-crc.zip         a stored entry whose data no longer matches its CRC
  empty.zip           an empty file
  format-*.zip        tar, tar.gz, cpio, 7z, ISO 9660, ar, xar, warc and mtree archives renamed
  fifo.zip, device.zip a FIFO entry, a character-device entry
  setuid.zip          a program with mode 4777
  link-chain.zip      l2 -> ".", then l1 -> "l2/.." (escapes where it finally resolves)
  link-chain-late.zip l1 -> "d/..", then d -> "." (escapes once the later link exists)
  file-then-folder.zip, folder-then-file.zip, file-under-file.zip: one name, folder and file
  good.zip            a small valid package: bin/app (executable), share/readme.txt
"""
import io
import os
import shutil
import stat
import subprocess
import sys
import tarfile
import zipfile


def link(zf, name, target):
    info = zipfile.ZipInfo(name)
    info.create_system = 3
    info.external_attr = (stat.S_IFLNK | 0o777) << 16
    zf.writestr(info, target)


def special(path, name, kind):
    with zipfile.ZipFile(path, "w") as zf:
        info = zipfile.ZipInfo(name)
        info.create_system = 3
        info.external_attr = (kind | 0o644) << 16
        zf.writestr(info, "")


def other_formats(out):
    """The same two files in every other format libarchive reads, each named .zip."""
    src = os.path.join(out, "format-src")
    os.makedirs(src, exist_ok=True)
    open(os.path.join(src, "a.txt"), "w").write("not a zip\n")
    with tarfile.open(os.path.join(out, "format-tar.zip"), "w") as tf:
        tf.add(os.path.join(src, "a.txt"), "a.txt")
    with tarfile.open(os.path.join(out, "format-targz.zip"), "w:gz") as tf:
        tf.add(os.path.join(src, "a.txt"), "a.txt")
    bsdtar = shutil.which("bsdtar")
    for fmt in ("cpio", "7zip", "iso9660", "ar", "xar", "warc", "mtree"):
        target = os.path.join(out, "format-%s.zip" % fmt)
        if bsdtar:
            subprocess.run([bsdtar, "--format", fmt, "-cf", target, "-C", src, "a.txt"],
                           check=False, stderr=subprocess.DEVNULL)
    shutil.rmtree(src)


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

    with zipfile.ZipFile(p("bad-crc.zip"), "w", zipfile.ZIP_STORED) as zf:
        zf.writestr("data.txt", "0123456789" * 100)
    raw = bytearray(open(p("bad-crc.zip"), "rb").read())
    at = raw.index(b"0123456789")
    raw[at + 500] ^= 0x01
    open(p("bad-crc.zip"), "wb").write(bytes(raw))
    open(p("empty.zip"), "wb").close()
    other_formats(out)
    special(p("fifo.zip"), "pipe", stat.S_IFIFO)
    special(p("device.zip"), "tty", stat.S_IFCHR)
    with zipfile.ZipFile(p("setuid.zip"), "w") as zf:
        info = zipfile.ZipInfo("tool")
        info.create_system = 3
        info.external_attr = (stat.S_IFREG | 0o4777) << 16
        zf.writestr(info, "#!/bin/sh\n")
    with zipfile.ZipFile(p("link-chain.zip"), "w") as zf:
        link(zf, "l2", ".")
        link(zf, "l1", "l2/..")
    with zipfile.ZipFile(p("link-chain-late.zip"), "w") as zf:
        link(zf, "l1", "d/..")
        link(zf, "d", ".")
    with zipfile.ZipFile(p("file-then-folder.zip"), "w") as zf:
        zf.writestr("a", "file")
        zf.writestr(zipfile.ZipInfo("a/"), "")
    with zipfile.ZipFile(p("folder-then-file.zip"), "w") as zf:
        zf.writestr(zipfile.ZipInfo("a/"), "")
        zf.writestr("a", "file")
    with zipfile.ZipFile(p("file-under-file.zip"), "w") as zf:
        zf.writestr("a", "file")
        zf.writestr("a/b.txt", "below a file")


if __name__ == "__main__":
    main(sys.argv[1])
