#!/usr/bin/env python3
"""How closely does `rtfconv rtf2txt` read RTF as LibreOffice does?

Usage: tests/interop/text_agreement.py path/to/rtfconv CORPUS_DIR OUTDIR [--threshold 0.98]

LibreOffice converts every .rtf of CORPUS_DIR to UTF-8 text in one batch
(soffice --headless --convert-to txt; its results are kept in OUTDIR/lo and
reused when newer than the RTF), rtfconv rtf2txt converts each file to
OUTDIR/ours, and the two texts are compared by their words: the agreement of a
file is 2 * (words in common, counted with their multiplicity) / (words of
both texts), 1 when both have none. Files LibreOffice cannot read are left
out, and so are those it shows as their RTF source (it takes a file it does
not recognise as RTF for plain text). Prints each file below the threshold,
then the mean and the count below it; exit status 1 when the mean is below
the threshold.
"""
import collections
import os
import re
import subprocess
import sys

WORD = re.compile(r"\w+", re.UNICODE)


def words(path):
    with open(path, encoding="utf-8", errors="replace") as f:
        return collections.Counter(WORD.findall(f.read()))


def shown_as_source(rtf, theirs):
    """True when LibreOffice's text is the RTF itself: it did not read it as RTF."""
    def squeezed(data):
        return re.sub(r"\s+", "", data.lstrip("\ufeff"))[:16]
    with open(rtf, encoding="latin-1") as f:
        head = squeezed(f.read(4096))
    with open(theirs, encoding="utf-8", errors="replace") as f:
        return bool(head) and squeezed(f.read(4096)) == head


def agreement(ours, theirs):
    total = sum(ours.values()) + sum(theirs.values())
    if total == 0:
        return 1.0
    return 2.0 * sum((ours & theirs).values()) / total


def libreoffice_texts(rtfs, lo_dir):
    stale = [r for r in rtfs
             if not os.path.exists(lo_text(lo_dir, r))
             or os.path.getmtime(lo_text(lo_dir, r)) < os.path.getmtime(r)]
    if stale:
        subprocess.run(["nice", "soffice", "--headless", "--convert-to", "txt:Text (encoded):UTF8",
                        "--outdir", lo_dir] + stale,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)


def lo_text(lo_dir, rtf):
    return os.path.join(lo_dir, os.path.splitext(os.path.basename(rtf))[0] + ".txt")


def main():
    args = [a for a in sys.argv[1:] if not a.startswith("--")]
    threshold = 0.98
    if "--threshold" in sys.argv:
        threshold = float(sys.argv[sys.argv.index("--threshold") + 1])
        args.remove(str(sys.argv[sys.argv.index("--threshold") + 1]))
    if len(args) != 3:
        sys.exit(__doc__)
    rtfconv, corpus, out = args
    lo_dir, ours_dir = os.path.join(out, "lo"), os.path.join(out, "ours")
    os.makedirs(lo_dir, exist_ok=True)
    os.makedirs(ours_dir, exist_ok=True)
    rtfs = sorted(os.path.join(corpus, n) for n in os.listdir(corpus) if n.endswith(".rtf"))
    libreoffice_texts(rtfs, lo_dir)

    # --force reads files whose first bytes do not look like RTF, as LibreOffice does.
    help_text = subprocess.run([rtfconv, "rtf2txt", "--help"], capture_output=True, text=True).stdout
    force = ["--force"] if "--force" in help_text else []
    scores = []
    for rtf in rtfs:
        theirs = lo_text(lo_dir, rtf)
        if not os.path.exists(theirs):
            continue
        if shown_as_source(rtf, theirs):
            print(f"  -    {os.path.basename(rtf)} (LibreOffice shows it as plain text)")
            continue
        ours = os.path.join(ours_dir, os.path.basename(theirs))
        with open(ours, "wb") as f:
            subprocess.run([rtfconv, "rtf2txt"] + force + [rtf], stdout=f, stderr=subprocess.DEVNULL, check=False)
        scores.append((agreement(words(ours), words(theirs)), os.path.basename(rtf)))

    low = sorted(s for s in scores if s[0] < threshold)
    for score, name in low:
        print(f"{score:.3f}  {name}")
    mean = sum(s for s, _ in scores) / len(scores) if scores else 0.0
    print(f"files: {len(scores)}  mean agreement: {mean:.4f}  below {threshold}: {len(low)}")
    return 0 if mean >= threshold else 1


if __name__ == "__main__":
    sys.exit(main())
