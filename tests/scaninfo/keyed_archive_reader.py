#!/usr/bin/env python3
"""An independent reader of keyed archives, built on plistlib alone.

  describe FILE         print one line of JSON: the archive's top level, its
                        object count, duplicated plain objects, and the root
                        decoded (class instances as {"$classes": [...], key: value})
  compare FILE JSONFILE exit 0 when the root, decoded as Foundation values,
                        equals the JSON our decoder produced
"""
import base64
import json
import math
import plistlib
import sys


def load(path):
    with open(path, "rb") as f:
        return plistlib.load(f)


def decode(objects, uid, seen, foundation_only):
    index = uid.data
    obj = objects[index]
    if index == 0 and obj == "$null":
        return None
    if isinstance(obj, (bytes, bytearray)):
        return obj.hex()
    if not isinstance(obj, dict):
        return obj
    if index in seen:
        raise ValueError("loop")
    seen = seen | {index}
    cls = objects[obj["$class"].data]
    classes = cls["$classes"]
    if "NSDictionary" in classes:
        keys = [decode(objects, k, seen, foundation_only) for k in obj.get("NS.keys", [])]
        vals = [decode(objects, v, seen, foundation_only) for v in obj.get("NS.objects", [])]
        return dict(zip(keys, vals))
    if "NSArray" in classes or "NSSet" in classes or "NSOrderedSet" in classes:
        return [decode(objects, v, seen, foundation_only) for v in obj.get("NS.objects", [])]
    if "NSString" in classes:
        s = obj["NS.string"]
        return decode(objects, s, seen, foundation_only) if isinstance(s, plistlib.UID) else s
    if "NSData" in classes:
        d = obj["NS.data"]
        return decode(objects, d, seen, foundation_only) if isinstance(d, plistlib.UID) else d.hex()
    if "NSDate" in classes:
        return obj["NS.time"]
    if foundation_only:
        raise ValueError("instance of " + cls["$classname"])
    out = {"$classes": classes}
    for k, v in obj.items():
        if k == "$class":
            continue
        out[k] = decode(objects, v, seen, foundation_only) if isinstance(v, plistlib.UID) else v
    return out


def describe(path):
    p = load(path)
    objects = p["$objects"]
    seen, dups = set(), []
    for o in objects:
        if isinstance(o, (str, int, float, bytes)) and not isinstance(o, bool):
            key = (type(o).__name__, o)
            if key in seen:
                dups.append(o if not isinstance(o, bytes) else o.hex())
            seen.add(key)
        if isinstance(o, dict) and "$classname" in o:
            key = ("class", o["$classname"])
            if key in seen:
                dups.append("class " + o["$classname"])
            seen.add(key)
    out = {
        "archiver": p["$archiver"],
        "version": p["$version"],
        "top": {k: v.data for k, v in p["$top"].items()},
        "objects": len(objects),
        "first": objects[0],
        "duplicates": dups,
        "classes": [o["$classes"] for o in objects if isinstance(o, dict) and "$classname" in o],
        "root": decode(objects, p["$top"]["root"], frozenset(), False),
    }
    print(json.dumps(out, sort_keys=True, separators=(",", ":"), ensure_ascii=False))


def same(a, b):
    if isinstance(a, bool) or isinstance(b, bool):
        return a == b
    if isinstance(a, float) or isinstance(b, float):
        return isinstance(a, (int, float)) and isinstance(b, (int, float)) and math.isclose(a, b, rel_tol=1e-12)
    if isinstance(a, dict):
        return isinstance(b, dict) and a.keys() == b.keys() and all(same(a[k], b[k]) for k in a)
    if isinstance(a, list):
        return isinstance(b, list) and len(a) == len(b) and all(same(x, y) for x, y in zip(a, b))
    return a == b


def compare(path, ours_path):
    p = load(path)
    theirs = decode(p["$objects"], p["$top"]["root"], frozenset(), True)
    with open(ours_path, encoding="utf-8") as f:
        ours = json.load(f)
    if not same(theirs, ours):
        print("plistlib:", json.dumps(theirs, sort_keys=True)[:2000])
        print("ours:    ", json.dumps(ours, sort_keys=True)[:2000])
        return 1
    return 0


if __name__ == "__main__":
    if sys.argv[1] == "describe":
        describe(sys.argv[2])
    elif sys.argv[1] == "compare":
        sys.exit(compare(sys.argv[2], sys.argv[3]))
