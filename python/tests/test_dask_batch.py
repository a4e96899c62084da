"""examples/dask_batch.py on the corpus, with a 2-worker local cluster, gives
the same bytes as `rtfconv rtf2txt` for every file."""
import os
import subprocess
import sys

import pytest

pytest.importorskip("dask.distributed")

HERE = os.path.dirname(os.path.abspath(__file__))
EXAMPLE = os.path.join(HERE, "..", "..", "examples", "dask_batch.py")
CORPUS = os.environ.get("RTFCONV_CORPUS_DIR", os.path.join(HERE, "..", "..", "tests", "corpus", "rtf"))
TOOL = os.environ.get("RTFCONV_TOOL")


@pytest.mark.skipif(not TOOL, reason="RTFCONV_TOOL names no rtfconv to compare with")
def test_dask_batch_matches_rtfconv(tmp_path):
    # A nested copy of part of the corpus shows that the output mirrors the tree.
    nested = tmp_path / "in" / "sub" / "deeper"
    nested.mkdir(parents=True)
    names = sorted(os.listdir(CORPUS))
    for name in names[:5]:
        (nested / name).write_bytes(open(os.path.join(CORPUS, name), "rb").read())

    out = tmp_path / "dask"
    run = subprocess.run([sys.executable, EXAMPLE, CORPUS, str(out), "--workers", "2"],
                         capture_output=True, text=True, timeout=600)
    assert run.returncode == 0, run.stdout + run.stderr
    assert f"files:    {len(names)} converted, 0 failed" in run.stdout

    expected = tmp_path / "rtfconv"
    expected.mkdir()
    # The tool may refuse an input that is not RTF at all; every file it
    # converts must be the same.
    subprocess.run([TOOL, "rtf2txt", "-q", "--output-dir", str(expected), "-j", "2"]
                   + [os.path.join(CORPUS, n) for n in names], timeout=600)
    compared = 0
    for name in names:
        txt = os.path.splitext(name)[0] + ".txt"
        if (expected / txt).exists():
            assert (out / txt).read_bytes() == (expected / txt).read_bytes(), name
            compared += 1
    assert compared >= len(names) * 9 // 10

    tree_out = tmp_path / "tree"
    run = subprocess.run([sys.executable, EXAMPLE, str(tmp_path / "in"), str(tree_out), "--workers", "2"],
                         capture_output=True, text=True, timeout=600)
    assert run.returncode == 0, run.stdout + run.stderr
    for name in names[:5]:
        txt = os.path.splitext(name)[0] + ".txt"
        assert (tree_out / "sub" / "deeper" / txt).read_bytes() == (out / txt).read_bytes(), name


def test_dask_batch_reports_unreadable_files(tmp_path):
    missing = tmp_path / "missing.rtf"
    good = tmp_path / "good.rtf"
    good.write_bytes(rb"{\rtf1 fine\par}")
    run = subprocess.run([sys.executable, EXAMPLE, str(good), str(missing), str(tmp_path / "out"), "--workers", "1"],
                         capture_output=True, text=True, timeout=600)
    assert run.returncode == 1
    assert "1 converted, 1 failed" in run.stdout and "No such file or directory" in run.stdout
    assert (tmp_path / "out" / "good.txt").read_bytes() == b"fine\n"
