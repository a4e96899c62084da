"""Rich text conversion between RTF, plain text and old-format text.

    >>> import rtfconverter
    >>> rtfconverter.rtf_to_text(rb"{\\rtf1\\ansi caf\\'e9\\par}")
    'café\\n'
    >>> rtfconverter.rtf_to_text(rtfconverter.text_to_rtf("Grüße, Ελλάδα"))
    'Grüße, Ελλάδα'

Malformed RTF is not an error: it converts as the library's readers convert
it. What cannot be converted raises ConversionError, which tells the byte
offset in the input where the conversion stopped. Every function releases the
interpreter lock while it converts, so threads convert in parallel.
"""

from dataclasses import dataclass
from typing import List, Optional, Sequence, Tuple, Union

from . import _rtfconverter

__all__ = ["Attachment", "ConversionError", "old_to_rtf", "rtf_to_old", "rtf_to_text", "text_to_rtf"]


class ConversionError(ValueError):
    """An input that could not be converted.

    ``offset`` is the byte offset in the input at which the conversion
    stopped, ``reason`` the sentence saying why.
    """

    def __init__(self, reason: str, offset: int):
        super().__init__(f"{reason} (at byte offset {offset})")
        self.reason = reason
        self.offset = offset


@dataclass
class Attachment:
    """A picture or object that travels beside old-format text.

    ``kind`` is one of "png", "jpeg", "emf", "wmf", "dib" (a packed
    device-independent bitmap), "object" (an embedded object's data), "link"
    (a linked object's data), "picture" (a bitmap alone, in ``data`` or
    ``picture``) or "placeholder" (nothing). ``picture`` is what an object
    shows in its place (a packed DIB or a .bmp file), used by old_to_rtf.
    """

    kind: str
    data: bytes = b""
    picture: bytes = b""


def _as_bytes(data: Union[bytes, bytearray, memoryview, str], name: str) -> bytes:
    if isinstance(data, str):
        return data.encode("utf-8")
    if isinstance(data, bytes):
        return data
    if isinstance(data, (bytearray, memoryview)):
        return bytes(data)
    raise TypeError(f"{name} must be bytes or str, not {type(data).__name__}")


def rtf_to_text(data: Union[bytes, str], *, codepage: Optional[int] = None, newline: str = "\n") -> str:
    """The text of an RTF document.

    The text is decoded from \\uN, the document's \\ansicpgN and each font's
    character set; ``codepage`` (a Windows code page number such as 1251)
    overrides the document's own. Paragraph marks, \\line and \\page become
    ``newline`` ("\\n", "\\r\\n" or "\\r"). Hidden text, field instructions,
    pictures and objects are left out. A str is taken as its UTF-8 bytes.
    """
    return _rtfconverter.rtf_to_text(_as_bytes(data, "data"), codepage or 0, newline)


def text_to_rtf(text: Union[str, bytes], *, codepage: int = 1252) -> bytes:
    """An RTF document holding the text, each line a paragraph.

    Characters of ``codepage`` are written as themselves and every other one
    as \\uN, so that rtf_to_text gives the text back. bytes are read as UTF-8.
    A NUL character raises ConversionError.
    """
    return _rtfconverter.text_to_rtf(_as_bytes(text, "text"), codepage)


def rtf_to_old(data: Union[bytes, str], *, table_tags: bool = False,
               exact: bool = False) -> Tuple[bytes, List[Attachment]]:
    """RTF to old-format text and the pictures and objects it holds.

    The text is the host's 8-bit format: markup commands between the bytes
    0x01 and 0x02, CR paragraph marks. The attachment command NN in it refers
    to the NNth attachment of the list. ``table_tags`` marks table rows and
    cells with table tag commands; ``exact`` asks for the converter's bytes as
    its hosts get them rather than the form that loses nothing.
    """
    text, attachments = _rtfconverter.rtf_to_old(_as_bytes(data, "data"), table_tags, exact)
    return text, [Attachment(kind, body, picture) for kind, body, picture in attachments]


def old_to_rtf(data: bytes, attachments: Optional[Sequence[Optional[Attachment]]] = None, *,
               exact: bool = False) -> bytes:
    """Old-format text to RTF.

    The attachment command NN is answered by ``attachments[NN]``: "object"
    and "link" are written with their picture, "picture" and "dib" as the
    bitmap; a missing entry or None leaves it out. A NUL byte raises
    ConversionError.
    """
    if isinstance(data, str):
        raise TypeError("old-format text is the host's 8-bit bytes: pass bytes, not str")
    entries = [None if a is None else (a.kind, bytes(a.data), bytes(a.picture)) for a in (attachments or [])]
    return _rtfconverter.old_to_rtf(_as_bytes(data, "data"), entries, exact)
