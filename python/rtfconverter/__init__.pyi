from dataclasses import dataclass
from typing import List, Optional, Sequence, Tuple, Union

__all__ = ["Attachment", "ConversionError", "old_to_rtf", "rtf_to_old", "rtf_to_text", "text_to_rtf"]

class ConversionError(ValueError):
    reason: str
    offset: int
    def __init__(self, reason: str, offset: int) -> None: ...

@dataclass
class Attachment:
    kind: str
    data: bytes = b""
    picture: bytes = b""

def rtf_to_text(data: Union[bytes, str], *, codepage: Optional[int] = None, newline: str = "\n") -> str: ...
def text_to_rtf(text: Union[str, bytes], *, codepage: int = 1252) -> bytes: ...
def rtf_to_old(data: Union[bytes, str], *, table_tags: bool = False,
               exact: bool = False) -> Tuple[bytes, List[Attachment]]: ...
def old_to_rtf(data: bytes, attachments: Optional[Sequence[Optional[Attachment]]] = None, *,
               exact: bool = False) -> bytes: ...
