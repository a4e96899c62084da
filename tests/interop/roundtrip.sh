#!/usr/bin/env bash
# Does a document survive rtf2old and old2rtf? For each corpus RTF file that
# LibreOffice can read, the tool converts it to old-format text (pictures to
# an attachments folder) and back to RTF; LibreOffice reads the original and
# ours to text, and the words of the two are compared.
#
# Usage: tests/interop/roundtrip.sh path/to/rtfconv OUTDIR [CORPUS_DIR...]
#
# Agreement of a file: the words the two texts share (counted with their
# repetitions) over the word count of the longer one; two empty texts agree.
# Prints one line per file, then the mean and the share of files at >= 0.95.
# Exit status 1 when that share is below RTFCONV_ROUNDTRIP_TARGET (default
# 0.95) or a conversion failed.
set -u
RTFCONV=${1:?usage: $0 path/to/rtfconv OUTDIR [CORPUS_DIR...]}
OUT=${2:?usage: $0 path/to/rtfconv OUTDIR [CORPUS_DIR...]}
shift 2
[ $# -gt 0 ] || set -- "$(dirname "$0")/../corpus/rtf"
TARGET=${RTFCONV_ROUNDTRIP_TARGET:-0.95}
rm -rf "$OUT"
mkdir -p "$OUT/orig" "$OUT/old" "$OUT/ours" "$OUT/att" "$OUT/lo-orig" "$OUT/lo-ours"

# The corpus, each file name once.
for dir in "$@"; do
    for rtf in "$dir"/*.rtf; do
        [ -e "$OUT/orig/$(basename "$rtf")" ] || cp "$rtf" "$OUT/orig/"
    done
done

status=0
failed=()
for rtf in "$OUT"/orig/*.rtf; do
    name=$(basename "$rtf" .rtf)
    mkdir -p "$OUT/att/$name"
    if ! timeout 60 "$RTFCONV" -q rtf2old --attachments "$OUT/att/$name" -o "$OUT/old/$name.old" "$rtf" ||
        ! timeout 60 "$RTFCONV" -q old2rtf --attachments "$OUT/att/$name" -o "$OUT/ours/$name.rtf" "$OUT/old/$name.old"; then
        failed+=("$name")
        rm -f "$OUT/ours/$name.rtf"
    fi
done

# One LibreOffice start for each side: starting it per file takes longer than
# the conversions. A profile of its own lets runs go side by side.
to_text() {
    timeout 1800 nice soffice -env:UserInstallation="file://$(realpath "$OUT")/lo-profile" --headless \
        --convert-to 'txt:Text (encoded):UTF8' --outdir "$1" "${@:2}" >/dev/null 2>&1
}
to_text "$OUT/lo-orig" "$OUT"/orig/*.rtf
to_text "$OUT/lo-ours" "$OUT"/ours/*.rtf

python3 - "$OUT" "$TARGET" "${failed[@]}" <<'PY' || status=1
import collections, os, re, sys

out, target, failed = sys.argv[1], float(sys.argv[2]), set(sys.argv[3:])
word = re.compile(r"\w+", re.UNICODE)

def words(path):
    with open(path, encoding="utf-8", errors="replace") as f:
        return collections.Counter(word.findall(f.read()))

rows = []
for txt in sorted(os.listdir(os.path.join(out, "lo-orig"))):
    name = txt[:-4]
    ours = os.path.join(out, "lo-ours", txt)
    if name in failed or not os.path.exists(ours):
        rows.append((name, 0.0, "conversion failed"))
        continue
    a, b = words(os.path.join(out, "lo-orig", txt)), words(ours)
    longer = max(sum(a.values()), sum(b.values()))
    agreement = 1.0 if longer == 0 else sum((a & b).values()) / longer
    rows.append((name, agreement, "%d/%d words" % (sum(b.values()), sum(a.values()))))

for name, agreement, note in rows:
    print("%-60s %.3f  %s" % (name, agreement, note))
n = len(rows)
mean = sum(r[1] for r in rows) / n if n else 0.0
good = sum(1 for r in rows if r[1] >= 0.95)
share = good / n if n else 0.0
print("files LibreOffice reads: %d; mean agreement %.3f; %d at >= 0.95 (%.1f%%)" % (n, mean, good, 100 * share))
sys.exit(0 if share >= target else 1)
PY
[ ${#failed[@]} -eq 0 ] || { echo "conversions failed: ${failed[*]}"; status=1; }
exit $status
