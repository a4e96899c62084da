"""The Python module: every converter, round trips, bad input, large input, threads."""
import os
import struct
from concurrent.futures import ThreadPoolExecutor

import pytest

import rtfconverter as rc

CORPUS = os.environ.get("RTFCONV_CORPUS_DIR", os.path.join(os.path.dirname(__file__), "..", "..", "tests", "corpus", "rtf"))


@pytest.mark.parametrize("rtf, kwargs, text", [
    (rb"{\rtf1\ansi caf\'e9\par}", {}, "café\n"),
    (r"{\rtf1\ansi caf\'e9\par}", {}, "café\n"),  # str is taken as its UTF-8 bytes
    (rb"{\rtf1\ansi \'e0\par}", {"codepage": 1251}, "а\n"),
    (rb"{\rtf1\ansi\ansicpg1251 \'e0\par}", {}, "а\n"),
    (rb"{\rtf1 a\par b\line c\par}", {"newline": "\r\n"}, "a\r\nb\r\nc\r\n"),
    (rb"{\rtf1 a\par}", {"newline": "\r"}, "a\r"),
    (rb"{\rtf1 \uc1\u945?\u-10179?\u-8704?\par}", {}, "α\U0001F600\n"),
    (rb"{\rtf1 {\v hidden}shown{\*\fldinst HYPERLINK x}\par}", {}, "shown\n"),
    (b"", {}, ""),
])
def test_rtf_to_text(rtf, kwargs, text):
    assert rc.rtf_to_text(rtf, **kwargs) == text


@pytest.mark.parametrize("codepage", [1252, 1251, 1253, 1250, 932, 936])
@pytest.mark.parametrize("text", ["Grüße, Ελλάδα", "日本語のテキスト", "emoji \U0001F600 and \t tab", "two\nlines"])
def test_text_round_trip(text, codepage):
    rtf = rc.text_to_rtf(text, codepage=codepage)
    assert isinstance(rtf, bytes) and rtf.startswith(rb"{\rtf1") and (b"\\ansicpg%d" % codepage) in rtf
    assert rc.rtf_to_text(rtf) == text + "\n"  # text read from RTF ends its last line
    assert rc.text_to_rtf(text.encode("utf-8"), codepage=codepage) == rtf  # bytes are read as UTF-8


RTF = rb"{\rtf1\ansi{\fonttbl{\f0 Arial;}}\f0 Hello {\b bold} caf\'e9\par}"


def test_rtf_to_old_and_back():
    old, attachments = rc.rtf_to_old(RTF)
    assert attachments == []
    assert b"\x01F" in old and b"bold" in old and old.endswith(b"caf\xe9\r")
    assert rc.rtf_to_text(rc.old_to_rtf(old)) == "Hello bold café\n"
    assert rc.rtf_to_text(rc.old_to_rtf(old, exact=True)) == "Hello bold café\n"
    table = rb"{\rtf1 \trowd\cellx100\cellx200 a\cell b\cell\row}"
    assert rc.rtf_to_old(table, table_tags=True)[0] != rc.rtf_to_old(table)[0]


PNG = bytes.fromhex("89504e470d0a1a0a")


def test_rtf_to_old_collects_pictures():
    rtf = rb"{\rtf1 a{\pict\pngblip " + PNG.hex().encode() + rb"}b\par}"
    old, attachments = rc.rtf_to_old(rtf)
    assert attachments == [rc.Attachment("png", PNG)]
    assert b"a\x01A00\x02b" in old


def packed_dib():
    header = struct.pack("<IiiHHIIiiII", 40, 1, 1, 1, 24, 0, 4, 0, 0, 0, 0)
    return header + b"\x00\x00\xff\x00"  # one red pixel, row padded to 4 bytes


@pytest.mark.parametrize("attachment, rtf_word", [
    (rc.Attachment("picture", packed_dib()), rb"\dibitmap0"),
    (rc.Attachment("dib", packed_dib()), rb"\dibitmap0"),
    (rc.Attachment("object", b"\x01\x02\x03", packed_dib()), rb"\objemb"),
    (rc.Attachment("link", b"\x01\x02\x03"), rb"\objlink"),
])
def test_old_to_rtf_writes_attachments(attachment, rtf_word):
    old = b"before\x01A00\x02after"
    assert rtf_word in rc.old_to_rtf(old, [attachment])
    assert rtf_word not in rc.old_to_rtf(old, [None])
    assert rtf_word not in rc.old_to_rtf(old)


@pytest.mark.parametrize("call, error, offset", [
    (lambda: rc.text_to_rtf("a\0b"), rc.ConversionError, 1),
    (lambda: rc.old_to_rtf(b"ab\0c"), rc.ConversionError, 2),
    (lambda: rc.rtf_to_old(rb"{\rtf1 \cf-1 x}", exact=True), rc.ConversionError, 13),
    (lambda: rc.rtf_to_text(b"{\\rtf1 x}", codepage=99999), ValueError, None),
    (lambda: rc.text_to_rtf("x", codepage=99999), ValueError, None),
    (lambda: rc.rtf_to_text(b"{\\rtf1 x}", newline="\t"), ValueError, None),
    (lambda: rc.rtf_to_text(42), TypeError, None),
    (lambda: rc.old_to_rtf("text"), TypeError, None),
    (lambda: rc.old_to_rtf(b"x", [42]), (TypeError, AttributeError), None),
])
def test_bad_input_raises(call, error, offset):
    with pytest.raises(error) as info:
        call()
    if offset is not None:
        assert info.value.offset == offset
        assert str(offset) in str(info.value) and info.value.reason in str(info.value)


def test_twenty_megabytes():
    paragraph = rb"word {\b bold}\b0  caf\'e9 \u945?\par" + b"\n"
    count = 20 * 1024 * 1024 // len(paragraph) + 1
    rtf = rb"{\rtf1\ansi " + paragraph * count + b"}"
    assert len(rtf) > 20 * 1024 * 1024
    text = rc.rtf_to_text(rtf)
    assert text == "word bold café α\n" * count
    back = rc.rtf_to_text(rc.text_to_rtf(text))
    assert back == text


def corpus_documents():
    names = sorted(os.listdir(CORPUS))[:60]
    return [open(os.path.join(CORPUS, name), "rb").read() for name in names]


def test_threads_convert_in_parallel():
    documents = corpus_documents()
    expected = [rc.rtf_to_text(d) for d in documents]
    expected_old = [rc.rtf_to_old(d)[0] for d in documents]
    with ThreadPoolExecutor(max_workers=8) as pool:
        texts = list(pool.map(rc.rtf_to_text, documents * 4))
        olds = list(pool.map(lambda d: rc.rtf_to_old(d)[0], documents * 4))
    assert texts == expected * 4
    assert olds == expected_old * 4
