#!/usr/bin/env bash
# Regenerates the three large benchmark inputs in bench/data/ (or in
# $RTFCONV_BENCH_DATA):
#   text-heavy.rtf     Word-like document: font/colour tables, stylesheet, many
#                      paragraphs of mixed \b \i \fsN \cfN runs, tabs, a few
#                      \'hh escapes and \uN? fallbacks (CRLF line ends, as Word).
#   markup-heavy.rtf   dense control words: a formatting change every few
#                      characters, \trowd..\cell..\row tables, \pn lists,
#                      HYPERLINK fields (LF line ends).
#   picture-heavy.rtf  a few paragraphs of text around \pict groups holding
#                      valid PNG images as long hex data (CRLF, 128 hex/line).
# Deterministic: own PRNG (xorshift64*) and sha256-counter bytes, PNG written
# with stored (uncompressed) deflate blocks, so the output is byte-identical on
# every machine and Python 3 version. Only bash, coreutils and python3 stdlib.
# Usage: ./make_bench.sh [size-in-MB]   (default 20; each file is ~that size)
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
out="${RTFCONV_BENCH_DATA:-$here/data}"
mkdir -p "$out"
MB="${1:-20}"
python3 - "$out" "$MB" <<'PY'
import sys, os, struct, zlib, hashlib

OUT, MB = sys.argv[1], float(sys.argv[2])
TARGET = int(MB * 1000 * 1000)

class Rng:                                  # xorshift64*, fixed seed
    def __init__(self, seed): self.s = seed & 0xFFFFFFFFFFFFFFFF or 1
    def next(self):
        s = self.s
        s ^= (s >> 12); s ^= (s << 25) & 0xFFFFFFFFFFFFFFFF; s ^= (s >> 27)
        self.s = s
        return (s * 0x2545F4914F6CDD1D) & 0xFFFFFFFFFFFFFFFF
    def below(self, n): return (self.next() >> 11) % n
    def pick(self, seq): return seq[self.below(len(seq))]
    def chance(self, pct): return self.below(100) < pct

WORDS = ("the of and to in is that for it as was with be by on not he this are or "
 "his from at which but have an had they you were their one all we can her has "
 "there been if more when will would who so no time report market system "
 "contract section paragraph agreement customer delivery invoice payment price "
 "quality service product schedule meeting project budget review summary "
 "figure table appendix chapter result method analysis value data sample "
 "process control quarter annual period increase decrease forecast estimate "
 "account balance revenue expense department manager committee proposal "
 "document version draft final approval signature company office address "
 "telephone number reference attachment condition requirement stipulation "
 "performance standard procedure operation maintenance equipment material "
 "supplier purchase order shipment warehouse inventory").split()
ACCENTED = [("caf", "\\'e9"), ("na", "\\'efve"), ("r", "\\'e9sum\\'e9"), ("Gr", "\\'fc\\'dfe"),
            ("Z", "\\'fcrich"), ("se", "\\'f1or"), ("fa", "\\'e7ade"), ("co", "\\'f6perate")]
UNI = ["\\u8212\\'97", "\\u8220\\'93", "\\u8221\\'94", "\\u8364\\'80", "\\u8230\\'85",
       "\\u945 ?", "\\u1078 ?", "\\u20013 ?", "\\u-3913 ?", "\\u8226\\'95"]

def word(r):
    if r.chance(1):
        a, b = r.pick(ACCENTED); return a + b
    if r.chance(1):
        return r.pick(UNI)
    return r.pick(WORDS)

def sentence(r, nmin=6, nmax=18):
    n = nmin + r.below(nmax - nmin + 1)
    w = [word(r) for _ in range(n)]
    w[0] = w[0][:1].upper() + w[0][1:]
    s = " ".join(w)
    if r.chance(8): s = s.replace(" ", ", ", 1)
    if r.chance(3): s += " \\{ref " + str(r.below(999)) + "\\}"
    if r.chance(2): s += " C:\\\\data\\\\file" + str(r.below(99)) + ".txt"
    return s + r.pick([".", ".", ".", "?", "!", ":"])

FONTTBL = ("{\\fonttbl{\\f0\\froman\\fcharset0\\fprq2{\\*\\panose 02020603050405020304}Times New Roman;}"
           "{\\f1\\fswiss\\fcharset0\\fprq2{\\*\\panose 020b0604020202020204}Arial;}"
           "{\\f2\\fmodern\\fcharset0\\fprq1{\\*\\panose 02070309020205020404}Courier New;}"
           "{\\f3\\froman\\fcharset2\\fprq2{\\*\\panose 05050102010706020507}Symbol;}"
           "{\\f4\\fswiss\\fcharset0\\fprq2 Calibri;}{\\f5\\froman\\fcharset238\\fprq2 Times New Roman CE;}"
           "{\\f6\\froman\\fcharset204\\fprq2 Times New Roman Cyr;}{\\f7\\fnil\\fcharset128\\fprq2 MS Mincho;}}")
COLORTBL = ("{\\colortbl;\\red0\\green0\\blue0;\\red0\\green0\\blue255;\\red0\\green255\\blue255;"
            "\\red0\\green255\\blue0;\\red255\\green0\\blue255;\\red255\\green0\\blue0;\\red255\\green255\\blue0;"
            "\\red255\\green255\\blue255;\\red0\\green0\\blue128;\\red0\\green128\\blue128;\\red0\\green128\\blue0;"
            "\\red128\\green0\\blue128;\\red128\\green0\\blue0;\\red128\\green128\\blue0;\\red128\\green128\\blue128;"
            "\\red192\\green192\\blue192;}")
STYLES = ("{\\stylesheet{\\ql \\li0\\ri0\\sa160\\sl259\\slmult1\\widctlpar\\aspalpha\\aspnum\\faauto\\adjustright\\rin0\\lin0\\itap0 "
          "\\rtlch\\fcs1 \\af0\\afs22\\alang1025 \\ltrch\\fcs0 \\f4\\fs22\\lang1033\\langfe1033\\cgrid\\langnp1033\\langfenp1033 "
          "\\snext0 \\sqformat \\spriority0 Normal;}"
          "{\\s1\\ql \\li0\\ri0\\sb240\\sa60\\keepn\\widctlpar\\outlinelevel0\\adjustright\\rin0\\lin0\\itap0 "
          "\\rtlch\\fcs1 \\ab\\af1\\afs32 \\ltrch\\fcs0 \\b\\f1\\fs32\\kerning32 \\sbasedon0 \\snext0 \\slink15 \\sqformat heading 1;}"
          "{\\s2\\ql \\li0\\ri0\\sb240\\sa60\\keepn\\widctlpar\\outlinelevel1\\adjustright\\rin0\\lin0\\itap0 "
          "\\rtlch\\fcs1 \\ab\\ai\\af1\\afs28 \\ltrch\\fcs0 \\b\\i\\f1\\fs28 \\sbasedon0 \\snext0 \\sqformat heading 2;}"
          "{\\*\\cs10 \\additive \\ssemihidden Default Paragraph Font;}"
          "{\\*\\cs15 \\additive \\rtlch\\fcs1 \\ab\\af1\\afs32 \\ltrch\\fcs0 \\b\\f1\\fs32\\kerning32 \\sbasedon10 \\slink1 Heading 1 Char;}"
          "{\\*\\cs16 \\additive \\ul\\cf2 \\sbasedon10 Hyperlink;}}")
INFO = ("{\\info{\\title Benchmark document}{\\author make_bench.sh}{\\operator make_bench.sh}"
        "{\\creatim\\yr2024\\mo1\\dy2\\hr3\\min4}{\\revtim\\yr2024\\mo1\\dy2\\hr3\\min4}{\\version1}{\\edmins0}"
        "{\\nofpages1}{\\nofwords0}{\\nofchars0}{\\vern49275}}")
DOCFMT = ("\\paperw12240\\paperh15840\\margl1440\\margr1440\\margt1440\\margb1440\\gutter0\\ltrsect "
          "\\deftab720\\widowctrl\\ftnbj\\aenddoc\\trackmoves0\\trackformatting1\\donotembedsysfont1"
          "\\formshade\\horzdoc\\dgmargin\\dghspace180\\dgvspace180\\viewkind1\\viewscale100"
          "\\sectd \\ltrsect\\linex0\\endnhere\\sectlinegrid360\\sectdefaultcl\\sftnbj ")

def header(cpg=1252):
    return ("{\\rtf1\\adeflang1025\\ansi\\ansicpg%d\\uc1\\adeff0\\deff0\\stshfdbch0\\stshfloch4\\stshfhich4\\stshfbi0"
            "\\deflang1033\\deflangfe1033\\themelang1033\\themelangfe0\\themelangcs0" % cpg
            + FONTTBL + "\r\n" + COLORTBL + "\r\n" + STYLES + "\r\n"
            + "{\\*\\generator make_bench.sh;}" + INFO + "\r\n" + DOCFMT + "\r\n")

def wrap_crlf(s, width=255):
    # Word breaks long lines near 255 characters, only in front of a control
    # word or symbol; never between the two backslashes of an escaped "\\".
    out, start = [], 0
    while len(s) - start > width:
        cut, p = -1, start + width
        while True:
            p = s.rfind("\\", start + 1, p)
            if p <= start: break
            k = p
            while k > start and s[k - 1] == "\\": k -= 1
            if (p - k) % 2 == 0 and s[p + 1:p + 2] != "'": cut = p; break
        if cut < 0:
            nxt = s.find("\\", start + width)
            if nxt < 0: break
            cut = nxt
            k = cut
            while k > start and s[k - 1] == "\\": k -= 1
            if (cut - k) % 2: cut += 1
        out.append(s[start:cut]); start = cut
    out.append(s[start:])
    return "\r\n".join(out)

def text_run(r):
    """A run of words with one formatting change: group or toggle style."""
    words = " ".join(word(r) for _ in range(3 + r.below(12)))
    k = r.below(10)
    if k == 0: return "{\\b " + words + "}"
    if k == 1: return "{\\i " + words + "}"
    if k == 2: return "\\b " + words + "\\b0 "
    if k == 3: return "{\\cf%d %s}" % (1 + r.below(16), words)
    if k == 4: return "{\\fs%d %s}" % (r.pick([16, 18, 20, 24, 28, 32]), words)
    if k == 5: return "{\\ul " + words + "\\ulnone }"
    if k == 6: return "{\\b\\i\\cf%d %s}" % (r.pick([2, 6, 9, 11]), words)
    return words + " "

def gen_text(path):
    r = Rng(0x5EED0001)
    with open(path, "wb") as f:
        f.write(header().encode("ascii"))
        size, para = 0, 0
        while size < TARGET:
            para += 1
            if para % 40 == 1:
                p = ("\\pard\\plain \\ltrpar\\s1\\ql \\li0\\ri0\\sb240\\sa60\\keepn\\widctlpar\\outlinelevel0"
                     "\\adjustright\\rin0\\lin0\\itap0 \\rtlch\\fcs1 \\ab\\af1\\afs32 \\ltrch\\fcs0 \\b\\f1\\fs32\\kerning32 "
                     "{\\rtlch\\fcs1 \\af1 \\ltrch\\fcs0 \\insrsid%d %d. %s}\\par " % (1000000 + para, para // 40 + 1, sentence(r, 3, 7)[:-1]))
            else:
                parts = ["\\pard\\plain \\ltrpar\\ql \\li%d\\ri0\\sa160\\sl259\\slmult1\\widctlpar\\aspalpha\\aspnum\\faauto"
                         "\\adjustright\\rin0\\lin0\\itap0 \\rtlch\\fcs1 \\af0\\afs22\\alang1025 \\ltrch\\fcs0 "
                         "\\f4\\fs22\\lang1033\\langfe1033\\cgrid\\langnp1033\\langfenp1033 {\\rtlch\\fcs1 \\af0 \\ltrch\\fcs0 \\insrsid%d "
                         % (r.pick([0, 0, 0, 360, 720]), 2000000 + para)]
                for _ in range(3 + r.below(6)):
                    s = sentence(r)
                    if r.chance(35):
                        # re-format part of the sentence
                        cut = s.find(" ", len(s) // 3)
                        if cut > 0:
                            s = s[:cut] + " " + text_run(r) + s[cut:]
                    if r.chance(6): s = "\\tab " + s
                    if r.chance(3): s += "\\line "
                    parts.append(s + " ")
                parts.append("}{\\rtlch\\fcs1 \\af0 \\ltrch\\fcs0 \\insrsid%d \\par }" % (2000000 + para))
                p = "".join(parts)
            b = (wrap_crlf(p) + "\r\n").encode("ascii")
            f.write(b); size += len(b)
        f.write(b"{\\*\\themedata 504b0304}\r\n}\r\n")

def gen_markup(path):
    r = Rng(0x5EED0002)
    with open(path, "wb") as f:
        f.write(header().replace("\r\n", "\n").encode("ascii"))
        f.write(b"{\\*\\listtable{\\list\\listtemplateid1\\listhybrid{\\listlevel\\levelnfc23\\leveljc0\\levelfollow0"
                b"\\levelstartat1{\\leveltext\\'01\\u-3913 ?;}{\\levelnumbers;}\\f3\\fi-360\\li720\\lin720 }"
                b"{\\listname ;}\\listid100}}{\\*\\listoverridetable{\\listoverride\\listid100\\listoverridecount0\\ls1}}\n")
        size, blk = 0, 0
        def dense(n):
            out = []
            for _ in range(n):
                w = r.pick(WORDS)[: 2 + r.below(5)]
                k = r.below(12)
                if k == 0: out.append("\\b " + w + "\\b0 ")
                elif k == 1: out.append("\\i " + w + "\\i0 ")
                elif k == 2: out.append("\\cf%d %s\\cf0 " % (1 + r.below(16), w))
                elif k == 3: out.append("\\fs%d %s\\fs22 " % (r.pick([16, 20, 24, 28, 36]), w))
                elif k == 4: out.append("{\\ul\\b %s}" % w)
                elif k == 5: out.append("\\f%d %s\\f4 " % (r.below(4), w))
                elif k == 6: out.append("{\\super %s}{\\sub %s}" % (w[:2], w[2:]))
                elif k == 7: out.append("\\highlight%d %s\\highlight0 " % (1 + r.below(15), w))
                elif k == 8: out.append("\\strike %s\\strike0 \\tab " % w)
                elif k == 9: out.append("{\\*\\bkmkstart b%d}%s{\\*\\bkmkend b%d}" % (blk, w, blk))
                elif k == 10: out.append("\\'e4\\'f6\\'fc" + w + "\\u8226\\'95 ")
                else: out.append(w + " ")
            return "".join(out)
        while size < TARGET:
            blk += 1
            k = blk % 4
            if k == 0:   # table
                cols = 2 + r.below(5)
                rows = []
                for _ in range(2 + r.below(6)):
                    defs = "\\trowd \\irow0\\irowband0\\ltrrow\\ts11\\trgaph108\\trleft-108\\trbrdrt\\brdrs\\brdrw10 \\trbrdrl\\brdrs\\brdrw10 \\trbrdrb\\brdrs\\brdrw10 \\trbrdrr\\brdrs\\brdrw10 \\trftsWidth1\\trautofit1\\tblind0\\tblindtype3 "
                    for c in range(cols):
                        defs += ("\\clvertalt\\clbrdrt\\brdrs\\brdrw10 \\clbrdrl\\brdrs\\brdrw10 \\clbrdrb\\brdrs\\brdrw10 "
                                 "\\clbrdrr\\brdrs\\brdrw10 \\cltxlrtb\\clftsWidth3\\clwWidth%d \\cellx%d" % (9000 // cols, (c + 1) * 9000 // cols))
                    cells = "".join("\\pard\\plain \\ltrpar\\ql \\li0\\ri0\\widctlpar\\intbl\\aspalpha\\aspnum\\faauto\\adjustright\\rin0\\lin0 "
                                    "\\f4\\fs20 {%s}\\cell " % dense(2 + r.below(4)) for _ in range(cols))
                    rows.append(defs + "\n" + cells + "\\pard\\plain \\ltrpar\\intbl {" + defs + "\\row }\n")
                s = "".join(rows) + "\\pard\\plain \\ltrpar\\ql \\f4\\fs22 \\par\n"
            elif k == 1:  # \pn lists (old-style) and \ls lists
                s = ""
                for i in range(3 + r.below(5)):
                    if r.chance(50):
                        s += ("{\\pntext\\pard\\plain\\f3\\fs20 \\'b7\\tab}\\pard\\plain \\ltrpar\\ql \\fi-360\\li720\\ri0\\widctlpar"
                              "{\\*\\pn \\pnlvlblt\\ilvl0\\ls1\\pnrnot0\\pnf3\\pnstart1\\pnindent360\\pnhang {\\pntxtb \\'b7}}"
                              "\\ls1\\adjustright\\rin0\\lin720\\itap0 \\f4\\fs22 %s\\par\n" % dense(4 + r.below(6)))
                    else:
                        s += ("{\\pntext\\pard\\plain\\f4\\fs22 %d.\\tab}\\pard\\plain \\ltrpar\\ql \\fi-360\\li720\\ri0"
                              "{\\*\\pn \\pnlvlbody\\ilvl0\\ls2\\pnrnot0\\pndec\\pnstart1\\pnindent360\\pnhang {\\pntxta .}}"
                              "\\f4\\fs22 %s\\par\n" % (i + 1, dense(4 + r.below(6))))
            elif k == 2:  # hyperlinks in a paragraph
                s = "\\pard\\plain \\ltrpar\\ql \\li0\\ri0\\sa160\\f4\\fs22 "
                for _ in range(3 + r.below(4)):
                    s += dense(2 + r.below(4))
                    s += ('{\\field{\\*\\fldinst {\\rtlch\\fcs1 \\af0 \\ltrch\\fcs0 HYPERLINK "http://www.example.com/%s/%d.html" }'
                          '{\\rtlch\\fcs1 \\af0 \\ltrch\\fcs0 {\\*\\datafield 00d0c9ea79f9bace118c8200aa004ba90b02000000}}}'
                          '{\\fldrslt {\\rtlch\\fcs1 \\af0 \\ltrch\\fcs0 \\cs16\\ul\\cf2 %s}}}'
                          % (r.pick(WORDS), r.below(100000), dense(1 + r.below(3)).strip()))
                s += "\\par\n"
            else:         # plain dense paragraph
                s = "\\pard\\plain \\ltrpar\\q%s \\li0\\ri0\\sa120\\f4\\fs22 %s\\par\n" % (r.pick("lrcj"), dense(10 + r.below(20)))
            b = s.encode("ascii"); f.write(b); size += len(b)
        f.write(b"}\n")

def png(width, height, seed):
    # RGB noise from sha256 counter mode, stored-deflate IDAT: valid and deterministic
    raw = bytearray()
    rowlen = width * 3
    ctr = 0
    stream = bytearray()
    need = rowlen * height
    while len(stream) < need:
        stream += hashlib.sha256(b"%d:%d" % (seed, ctr)).digest(); ctr += 1
    for y in range(height):
        raw.append(0); raw += stream[y * rowlen:(y + 1) * rowlen]
    z = bytearray(b"\x78\x01")
    for i in range(0, len(raw), 65535):
        chunk = raw[i:i + 65535]
        final = 1 if i + 65535 >= len(raw) else 0
        z += struct.pack("<BHH", final, len(chunk), 0xFFFF ^ len(chunk)) + chunk
    z += struct.pack(">I", zlib.adler32(bytes(raw)) & 0xFFFFFFFF)
    def chunk(t, d): return struct.pack(">I", len(d)) + t + d + struct.pack(">I", zlib.crc32(t + d) & 0xFFFFFFFF)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", bytes(z)) + chunk(b"IEND", b""))

def gen_picture(path):
    r = Rng(0x5EED0003)
    dims = [(640, 480), (800, 600), (320, 240), (512, 512), (1024, 300), (200, 150)]
    with open(path, "wb") as f:
        f.write(header().encode("ascii"))
        size, n = 0, 0
        while size < TARGET:
            n += 1
            s = "\\pard\\plain \\ltrpar\\ql \\li0\\ri0\\sa160\\f4\\fs22 {\\b Figure %d.} %s\\par\r\n" % (n, " ".join(sentence(r) for _ in range(3)))
            w, h = dims[n % len(dims)]
            data = png(w, h, n)
            hx = data.hex()
            lines = "\r\n".join(hx[i:i + 128] for i in range(0, len(hx), 128))
            pict = ("{\\pict\\picscalex100\\picscaley100\\piccropl0\\piccropr0\\piccropt0\\piccropb0"
                    "\\picw%d\\pich%d\\picwgoal%d\\pichgoal%d\\pngblip\\bliptag%d{\\*\\blipuid %032x}\r\n"
                    % (w * 26, h * 26, w * 15, h * 15, 1000 + n, n))
            pict += lines + "}"
            if n % 2:   # Word 2000+ wraps pictures in \shppict
                body = "\\pard\\plain \\ltrpar\\qc \\f4\\fs22 {\\*\\shppict" + pict + "}\\par\r\n"
            else:
                body = "\\pard\\plain \\ltrpar\\qc \\f4\\fs22 " + pict + "\\par\r\n"
            b = (wrap_crlf(s) ).encode("ascii") + body.encode("ascii")
            f.write(b); size += len(b)
        f.write(b"}\r\n")

gen_text(os.path.join(OUT, "text-heavy.rtf"))
gen_markup(os.path.join(OUT, "markup-heavy.rtf"))
gen_picture(os.path.join(OUT, "picture-heavy.rtf"))
PY
ls -l "$out"/*.rtf
