#!/usr/bin/env python3
"""Mutation runs over real HFS+ images: damage each image's metadata at
random and run the command line's readers on every mutant, under a time and
memory limit, with the sanitizer build.

Metadata regions are read from each volume's header: both volume headers,
the catalog, extents-overflow and attributes B-tree files, and the journal.
A mutant flips bits in one of them, zeroes one of its sectors, or copies one
of its sectors over another. Every mutant goes through tree, tree --advanced,
deleted and recover; a run that dies by a signal, reports a sanitizer
finding, exits outside the documented statuses, writes outside its
destination or changes the image is a crash; one still running at the time
limit is a hang. Each finding is kept (mutant, command, stderr) under
--keep.

  tools/mutate.py --cli build/dev/app/cli/ambrel-cli --minutes 25
  tools/mutate.py --cli ... --mutants 6 --images small   # the short run of `make test`
"""
import argparse
import gzip
import hashlib
import json
import lzma
import os
import random
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time

DATA = os.environ.get("AMBREL_SHARED_TESTDATA") or os.path.join(
    os.path.dirname(os.path.abspath(__file__)), "..", "..", "shared", "testdata")

# (file under hfs_images/, how it is packed)
IMAGES = [
    ("hfsplus-forensic/hfs_plus_volume.bin", "raw"),
    ("hfsplus-forensic/hfs_plus_nested.bin", "raw"),
    ("dfvfs/hfsplus.raw", "raw"),
    ("dfvfs/hfsplus_zlib.DERIVED.raw.gz", "gz"),
    ("disktype-sampler/hfs-plus.image.gz", "gz"),
    ("disktype-sampler/hfs-plus-wrapped.image.gz", "gz"),
    ("disktype-sampler/udif-udrw.image.gz", "gz"),
    ("go-filesystems-hfsplus/hfsplus.dmg.gz", "gz"),
    ("hfsinspect/test.img.gz", "gz"),
    ("hfsinspect/MBR.dmg.7z", "7z"),
    ("hfsinspect/hfsj.bin.7z", "7z"),
    ("hfsplus-rs/hfsp-small.img.xz", "xz"),
    ("hfsplus-rs/hfsp-many2.img.xz", "xz"),
    ("shockpkg-archive-files/test-archive-hfsp.DERIVED.raw.gz", "gz"),
    ("shockpkg-archive-files/test-archive-hfsp-j.DERIVED.raw.gz", "gz"),
    ("shockpkg-archive-files/test-archive-hfsp-j-c.DERIVED.raw.gz", "gz"),
]
# A few small ones, one of them journaled, for the short run.
SMALL = ["hfsplus-rs/hfsp-small.img.xz", "hfsinspect/hfsj.bin.7z", "disktype-sampler/hfs-plus-wrapped.image.gz"]

COMMANDS = [
    ["tree", "{img}"],
    ["tree", "--advanced", "{img}"],
    ["deleted", "{img}"],
    ["recover", "{img}", "--out", "{out}"],
]
# Documented exit statuses: done, failed, cannot start, read errors, drive gone.
STATUSES = {0, 1, 2, 3, 4}
SECTOR = 512


def unpack(source, kind, dest):
    if kind == "raw":
        shutil.copyfile(source, dest)
    elif kind == "gz":
        with gzip.open(source, "rb") as f, open(dest, "wb") as o:
            shutil.copyfileobj(f, o)
    elif kind == "xz":
        with lzma.open(source, "rb") as f, open(dest, "wb") as o:
            shutil.copyfileobj(f, o)
    else:
        with open(dest, "wb") as o:
            subprocess.run(["7z", "e", "-so", source], stdout=o, stderr=subprocess.DEVNULL, check=True)


def u16(b, at):
    return struct.unpack_from(">H", b, at)[0]


def u32(b, at):
    return struct.unpack_from(">I", b, at)[0]


def volume_starts(image):
    """Byte offsets of the image's HFS+ volumes: bare, in any partition
    table, or inside an HFS wrapper."""
    found = []
    with open(image, "rb") as f:
        data = f.read()
    size = len(data)
    # Table-free: every sector two sectors before a volume header.
    for start in range(0, min(size, 64 * 1024 * 1024) - 1536, SECTOR):
        sig = data[start + 1024:start + 1026]
        if sig in (b"H+", b"HX") and u16(data, start + 1026) in (4, 5):
            bs = u32(data, start + 1024 + 40)
            # The volume must fit the image: this leaves out the alternate
            # header and the header copies a journal holds.
            if bs >= 512 and bs & (bs - 1) == 0 and start + u32(data, start + 1024 + 44) * bs <= size:
                found.append(start)
        elif sig == b"BD" and u16(data, start + 1024 + 0x7C) == 0x482B:
            al = u32(data, start + 1024 + 0x14)
            first = u16(data, start + 1024 + 0x1C)
            embed = u16(data, start + 1024 + 0x7E)
            inner = start + first * SECTOR + embed * al
            if inner + 1536 <= size and data[inner + 1024:inner + 1026] in (b"H+", b"HX"):
                found.append(inner)
        if len(found) >= 4:
            break
    return sorted(set(found)), data


def metadata_regions(data, start):
    """(name, byte offset, length) of a volume's metadata."""
    h = start + 1024
    bs = u32(data, h + 40)
    total = u32(data, h + 44)
    regions = [("header", h, 512)]
    alt = start + total * bs - 1024
    if 0 < alt < len(data) - 512:
        regions.append(("alternate header", alt, 512))

    def fork(name, at):
        for i in range(8):
            sb, bc = struct.unpack_from(">II", data, h + at + 16 + 8 * i)
            if bc == 0:
                break
            off, ln = start + sb * bs, bc * bs
            if off < len(data):
                regions.append((name, off, min(ln, len(data) - off)))

    fork("extents", 192)
    fork("catalog", 272)
    fork("attributes", 352)
    attrs = u32(data, h + 4)
    jib = u32(data, h + 12)
    if attrs & 0x2000 and jib:
        info = start + jib * bs
        if info + 52 <= len(data):
            regions.append(("journal info", info, 512))
            joff, jlen = struct.unpack_from(">QQ", data, info + 36)
            joff += start
            if joff < len(data) and jlen:
                # The journal's header and its first transactions.
                regions.append(("journal", joff, min(jlen, len(data) - joff, 1 << 20)))
    return [r for r in regions if r[2] >= SECTOR]


def mutate(original, regions, rng):
    """The patches ((offset, bytes), ...) that make a mutant of the image file
    `original`, and a line saying what they do."""
    def read(at, n):
        with open(original, "rb") as f:
            f.seek(at)
            return f.read(n)

    name, off, ln = rng.choice(regions)
    kind = rng.choices(["flip", "zero", "dup", "value"], weights=[5, 2, 2, 2])[0]
    patches = []
    if kind == "flip":
        n = rng.choice([1, 1, 2, 4, 8, 32])
        flipped = {}
        # Most of a node's meaning is in its first bytes and its offset table.
        for _ in range(n):
            if rng.random() < 0.5:
                sec = off + rng.randrange(ln // SECTOR) * SECTOR
                at = sec + rng.choice([rng.randrange(64), SECTOR - 1 - rng.randrange(64)])
            else:
                at = off + rng.randrange(ln)
            flipped[at] = flipped.get(at, read(at, 1)[0]) ^ (1 << rng.randrange(8))
        patches = [(at, bytes([v])) for at, v in flipped.items()]
        what = f"flip {n} bits in {name} at {sorted(flipped)[:4]}"
    elif kind == "zero":
        sec = off + rng.randrange(ln // SECTOR) * SECTOR
        patches = [(sec, bytes(SECTOR))]
        what = f"zero sector {sec // SECTOR} of {name}"
    elif kind == "dup":
        _, off2, ln2 = rng.choice(regions)
        a = off + rng.randrange(ln // SECTOR) * SECTOR
        b = off2 + rng.randrange(ln2 // SECTOR) * SECTOR
        patches = [(b, read(a, SECTOR))]
        what = f"copy sector {a // SECTOR} of {name} over sector {b // SECTOR}"
    else:
        # A count, link or size field at a 2- or 4-byte boundary, set to an edge value.
        width = rng.choice([2, 4])
        sec = off + rng.randrange(ln // SECTOR) * SECTOR
        at = sec + rng.randrange(0, 128, width)
        value = rng.choice([0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0xFFFF, 0x8000, rng.getrandbits(32)])
        patches = [(at, (value & ((1 << (8 * width)) - 1)).to_bytes(width, "big"))]
        what = f"set {width} bytes of {name} at {at} to {value:#x}"
    return patches, what


def file_digest(path):
    with open(path, "rb") as f:
        return hashlib.file_digest(f, "sha256").digest()


def files_under(root):
    out = set()
    for d, dirs, files in os.walk(root):
        for n in dirs + files:
            out.add(os.path.relpath(os.path.join(d, n), root))
    return out


def run_one(cli, args, seconds, mem_mb, cwd):
    """Status (negative: the signal), stderr, whether it hung, seconds and
    peak RSS in kB of one command."""
    env = dict(os.environ)
    env["ASAN_OPTIONS"] = f"hard_rss_limit_mb={mem_mb}:detect_leaks=0:abort_on_error=0:exitcode=86"
    env["UBSAN_OPTIONS"] = "print_stacktrace=1:halt_on_error=1:exitcode=87"
    start = time.monotonic()
    p = subprocess.Popen([cli] + args, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, cwd=cwd, env=env,
                         start_new_session=True)
    chunks = []
    reader = threading.Thread(target=lambda: chunks.append(p.stderr.read()))
    reader.start()
    hung = False
    while True:
        pid, status, usage = os.wait4(p.pid, os.WNOHANG)
        if pid:
            break
        if time.monotonic() - start > seconds:
            hung = True
            os.killpg(p.pid, signal.SIGKILL)
            pid, status, usage = os.wait4(p.pid, 0)
            break
        time.sleep(0.02)
    p.returncode = os.waitstatus_to_exitcode(status)
    reader.join()
    p.stderr.close()
    return p.returncode, b"".join(chunks).decode("utf-8", "replace"), hung, time.monotonic() - start, usage.ru_maxrss


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--cli", required=True)
    ap.add_argument("--minutes", type=float, default=0, help="stop after this long (0: after --mutants per image)")
    ap.add_argument("--mutants", type=int, default=20, help="mutants per image per round")
    ap.add_argument("--images", default="all", help="all, small, or comma-separated names under hfs_images/")
    ap.add_argument("--seconds", type=int, default=60, help="time limit of one command")
    ap.add_argument("--mem-mb", type=int, default=2048, help="memory limit of one command (RSS)")
    ap.add_argument("--keep-rss-mb", type=int, default=0,
                    help="also keep (not as failures) the mutants whose command peaks above this RSS")
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--keep", default="build/mutate-findings", help="where findings are kept")
    ap.add_argument("--summary", help="also write the figures to this JSON file")
    a = ap.parse_args()
    a.cli = os.path.abspath(a.cli)

    if not os.path.isdir(os.path.join(DATA, "hfs_images")):
        print("mutate: shared test data not present; nothing run")
        return 77
    chosen = IMAGES if a.images == "all" else [i for i in IMAGES if i[0] in (SMALL if a.images == "small" else a.images.split(","))]
    rng = random.Random(a.seed)
    work = tempfile.mkdtemp(prefix="ambrel-mutate-")
    stats = {"mutants": 0, "runs": 0, "crashes": 0, "hangs": 0, "max_rss_kb": 0, "max_seconds": 0.0,
             "escapes": 0, "image_changed": 0, "per_image": {}}
    findings = []
    kept = 0
    deadline = time.monotonic() + a.minutes * 60 if a.minutes else None
    try:
        originals = []
        for rel, kind in chosen:
            src = os.path.join(DATA, "hfs_images", rel)
            dest = os.path.join(work, os.path.basename(rel) + ".orig")
            unpack(src, kind, dest)
            starts, data = volume_starts(dest)
            regions = [r for s in starts for r in metadata_regions(data, s)]
            # Not kept: every command is forked from this process, and its
            # peak RSS starts from what this process holds.
            del data
            if not regions:
                print(f"mutate: {rel}: no HFS+ volume found; skipped")
                continue
            originals.append((rel, dest, regions))
            stats["per_image"][rel] = {"mutants": 0, "crashes": 0, "hangs": 0}
        round_no = 0
        while True:
            for rel, original, regions in originals:
                for _ in range(a.mutants):
                    if deadline and time.monotonic() > deadline:
                        raise StopIteration
                    patches, what = mutate(original, regions, rng)
                    stats["mutants"] += 1
                    stats["per_image"][rel]["mutants"] += 1
                    case = os.path.join(work, "case")
                    shutil.rmtree(case, ignore_errors=True)
                    os.makedirs(case)
                    img = os.path.join(case, "drive.img")
                    shutil.copyfile(original, img)
                    with open(img, "r+b") as f:
                        for at, b in patches:
                            f.seek(at)
                            f.write(b)
                    digest = file_digest(img)
                    for cmd in COMMANDS:
                        out = os.path.join(case, "out")
                        args = [x.replace("{img}", img).replace("{out}", out) for x in cmd]
                        before = files_under(case)
                        status, err, hung, secs, rss = run_one(a.cli, args, a.seconds, a.mem_mb, case)
                        if rss > stats["max_rss_kb"]:
                            stats["max_rss_kb"] = rss
                            stats["max_rss_run"] = f"{rel}: {' '.join(cmd)}"
                        stats["max_seconds"] = max(stats["max_seconds"], secs)
                        stats["runs"] += 1
                        problem = None
                        if hung:
                            problem = "hang"
                        elif status < 0 or status not in STATUSES or "Sanitizer" in err or "runtime error" in err:
                            problem = "crash"
                        else:
                            new = {p for p in files_under(case) - before if p != "out" and not p.startswith("out/")}
                            if new:
                                problem = "escape"
                                stats["escapes"] += 1
                            elif file_digest(img) != digest:
                                problem = "image changed"
                                stats["image_changed"] += 1
                            elif a.keep_rss_mb and rss > a.keep_rss_mb * 1024:
                                problem = f"memory ({rss // 1024} MB)"
                        shutil.rmtree(out, ignore_errors=True)
                        if not problem:
                            continue
                        key = {"hang": "hangs", "crash": "crashes"}.get(problem)
                        if key:
                            stats[key] += 1
                            stats["per_image"][rel][key] += 1
                        kept += 1
                        n = kept
                        os.makedirs(a.keep, exist_ok=True)
                        keep = os.path.join(a.keep, f"{n:03}-{os.path.basename(rel)}")
                        shutil.copyfile(img, keep + ".img")
                        with open(keep + ".txt", "w") as f:
                            f.write(f"{problem}: status {status}, {secs:.1f} s\nmutation: {what}\n"
                                    f"command: ambrel-cli {' '.join(cmd)}\n\n{err[-20000:]}")
                        line = f"{problem}: {rel}: {what}: {' '.join(cmd)} (status {status}) -> {keep}.txt"
                        if problem.startswith("memory"):
                            print(line, flush=True)
                            continue
                        findings.append(line)
                        print(findings[-1], flush=True)
                        break
            round_no += 1
            if not deadline:
                break
    except StopIteration:
        pass
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print(json.dumps({k: v for k, v in stats.items() if k != "per_image"}))
    for rel, s in stats["per_image"].items():
        print(f"  {rel}: {s['mutants']} mutants, {s['crashes']} crashes, {s['hangs']} hangs")
    if a.summary:
        with open(a.summary, "w") as f:
            json.dump(dict(stats, findings=findings), f, indent=1)
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
