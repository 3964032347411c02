#!/usr/bin/env python3
"""An independent reader of scan info files (struct + plistlib only).

Prints one JSON line: the marker, the version, the volume's keys, the list,
the drive bytes' length, and every entry in file order as
[depth, name, path, fileType, fileID, parentID, dataSize, rscSize,
 childrenCount, selected, dataExtents, rscExtents].
"""
import json
import plistlib
import struct
import sys

sys.path.insert(0, __file__.rsplit("/", 1)[0])
from keyed_archive_reader import decode  # noqa: E402

RECORD = struct.Struct(">HHHIIIIQQQIiBiiii")
assert RECORD.size == 71


def unarchive(blob):
    p = plistlib.loads(blob)
    assert p["$archiver"] == "NSKeyedArchiver" and p["$version"] == 100000
    assert p["$objects"][0] == "$null"
    return decode(p["$objects"], p["$top"]["root"], frozenset(), False)


def main(path):
    data = open(path, "rb").read()
    (m,) = struct.unpack_from(">I", data, 0)
    marker = unarchive(data[4:4 + m])
    (v,) = struct.unpack_from(">I", data, 4 + m)
    version = unarchive(data[8 + m:8 + m + v]) if v else None
    assert all(b == 0 for b in data[8 + m + v:1024])
    pos = 1024
    (n,) = struct.unpack_from(">I", data, pos)
    volume = unarchive(data[pos + 4:pos + 4 + n])
    pos += 4 + n
    plist = None
    kind = volume["volumeScanType"]
    if kind in (0, 1):
        (n,) = struct.unpack_from(">I", data, pos)
        plist = unarchive(data[pos + 4:pos + 4 + n])
        pos += 4 + n
    drive = 0
    if kind != 2:
        drive = len(data[pos:pos + 2560])
        pos += 2560
    entries = []
    stack = [1]  # entries still to read at each depth
    while stack:
        if stack[-1] == 0:
            stack.pop()
            continue
        stack[-1] -= 1
        f = RECORD.unpack_from(data, pos)
        pos += RECORD.size
        (nlen, plen, ftype, _cd, _md, parent, fid, _fsize, dsize, rsize, _fcount, _bs, sel,
         ccount, crec, dext, rext) = f
        name = data[pos:pos + 2 * nlen].decode("utf-16-be", "surrogatepass")
        pos += 2 * nlen
        p = data[pos:pos + 2 * plen].decode("utf-16-be", "surrogatepass")
        pos += 2 * plen
        dpairs, rpairs = [], []
        if dsize:
            dpairs = [list(struct.unpack_from(">II", data, pos + 8 * i)) for i in range(dext)]
            pos += 8 * dext
        if rsize:
            rpairs = [list(struct.unpack_from(">II", data, pos + 8 * i)) for i in range(rext)]
            pos += 8 * rext
        entries.append([len(stack) - 1, name, p, ftype, fid, parent, dsize, rsize, ccount, sel, dpairs, rpairs])
        stack.append(crec)
    out = {"marker": marker, "version": version, "volume": volume, "list": plist, "drive": drive,
           "entries": entries, "trailing": len(data) - pos}
    print(json.dumps(out, sort_keys=True, separators=(",", ":"), ensure_ascii=False))


if __name__ == "__main__":
    main(sys.argv[1])
