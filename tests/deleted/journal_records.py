#!/usr/bin/env python3
"""Every file and folder record of the catalog leaf nodes in a volume's
journal, as tab-separated cnid, type, parent, name (hex of UTF-8), create,
content-mod, access dates, data size, resource size. The leaf nodes are found
with the shared hfsjournal.py's own node parser; only the record bodies are
read here."""
import os, sys
sys.path.insert(0, sys.argv[2])
import hfsjournal as hj

def main(fn):
    d = open(fn, 'rb').read()
    vh = d[1024:1536]
    bs = hj.u32(vh, 40); jib = hj.u32(vh, 12)
    cat = vh[0x110:0x160]
    start = hj.u32(cat, 16) * bs
    nodesize = hj.u16(d, start + 14 + 18)
    ji = d[jib * bs:jib * bs + 512]
    joff = hj.u64(ji, 0x24); jsize = hj.u64(ji, 0x2c)
    j = d[joff:joff + jsize]
    for o in range(0, len(j) - nodesize + 1, 512):
        node = j[o:o + nodesize]
        if not hj.parse_leaf(node, nodesize):
            continue
        for i in range(hj.u16(node, 10)):
            off = hj.u16(node, nodesize - 2 * (i + 1))
            kl = hj.u16(node, off); parent = hj.u32(node, off + 2); nl = hj.u16(node, off + 6)
            name = node[off + 8:off + 8 + 2 * nl].decode('utf-16-be').encode('utf-8').hex()
            b = off + 2 + kl
            rt = hj.u16(node, b)
            if rt not in (1, 2):
                continue
            cnid = hj.u32(node, b + 8)
            created, modified, accessed = hj.u32(node, b + 12), hj.u32(node, b + 16), hj.u32(node, b + 24)
            data = hj.u64(node, b + 88) if rt == 2 else 0
            rsrc = hj.u64(node, b + 168) if rt == 2 else 0
            print('\t'.join(str(x) for x in (cnid, rt, parent, name, created, modified, accessed, data, rsrc)))

main(sys.argv[1])
