#!/usr/bin/env python3
"""Reads a recovery report and checks it against the saved files.

Usage: report_reader.py REPORT.xml SAVED_ROOT IMAGE

One line per file object, tab-separated: filename, name_type, filesize,
origin, saved, data byte runs as offset+len joined by ",", hashes (ok,
missing, or wrong), and whether the bytes at the data runs of the image
equal the saved file (same, differs, or "-" for a symlink or compressed
file). A "._name" sidecar's object gives its resource runs instead, and
"same" when its bytes after the AppleDouble header are those at the runs.
Then "log" lines with the scan log's counts.
"""
import hashlib
import os
import sys
import xml.etree.ElementTree as ET

NS = {"d": "http://www.forensicswiki.org/wiki/Category:Digital_Forensics_XML", "a": "urn:tarnwell:ambrel:report"}


def text(node, path):
    found = node.find(path, NS)
    return found.text if found is not None and found.text is not None else ""


def main():
    report, saved_root, image = sys.argv[1:4]
    root = ET.parse(report).getroot()
    with open(image, "rb") as img:
        for fo in root.iter("{%s}fileobject" % NS["d"]):
            name = text(fo, "d:filename")
            kind = text(fo, "d:name_type")
            sidecar = fo.find("a:sidecar_of", NS) is not None
            runs = []
            for br in fo.findall("d:byte_runs", NS):
                if br.get("facet") != ("resource" if sidecar else "data"):
                    continue
                for r in br.findall("d:byte_run", NS):
                    runs.append((int(r.get("file_offset")), int(r.get("img_offset")), int(r.get("len"))))
            path = os.path.join(saved_root, name)
            digests = {h.get("type"): h.text for h in fo.findall("d:hashdigest", NS)}
            if kind == "l":
                hashes = "missing" if not digests else "unexpected"
                same = "-"
            else:
                with open(path, "rb") as f:
                    data = f.read()
                if set(digests) != {"md5", "sha1"}:
                    hashes = "missing"
                elif digests["md5"] == hashlib.md5(data).hexdigest() and digests["sha1"] == hashlib.sha1(data).hexdigest():
                    hashes = "ok"
                else:
                    hashes = "wrong"
                if fo.find("a:compression", NS) is not None:
                    same = "-"
                else:
                    pieces = []
                    expected_offset = 0
                    for file_offset, img_offset, length in runs:
                        if file_offset != expected_offset:
                            break
                        img.seek(img_offset)
                        pieces.append(img.read(length))
                        expected_offset += length
                    fork = b"".join(pieces)
                    if sidecar:
                        same = "same" if len(data) > len(fork) and data.endswith(fork) else "differs"
                    else:
                        same = "same" if fork == data else "differs"
            run_text = ",".join("%d+%d" % (o, n) for _, o, n in runs)
            print("\t".join([name, kind, text(fo, "d:filesize"), text(fo, "a:origin"), text(fo, "a:saved"), run_text,
                             hashes, same]))
    log = root.find("a:scan_log", NS)
    errors = log.find("a:read_errors", NS)
    print("log\tread_errors\t%s\t%s" % (errors.get("sectors"), errors.get("nodes")))
    print("log\tunreadable\t%s" % ",".join(u.get("sector") for u in log.findall("a:unreadable", NS)))
    print("log\tdamaged_nodes\t%s" % log.find("a:damaged_nodes", NS).get("count"))
    print("log\tbridged_chains\t%s" % text(log, "a:bridged_chains"))


if __name__ == "__main__":
    main()
