#!/usr/bin/env python3
"""Convert a tree of RTF files to UTF-8 text with Dask, on one machine or a cluster.

    python3 examples/dask_batch.py INPUT... OUTPUT_DIR [--scheduler tcp://HOST:8786] [--workers N]

INPUT is a folder (converted with its subfolders), a glob ("mail/**/*.rtf") or
files. Each output is OUTPUT_DIR/<path relative to the input folder>, .rtf
replaced by .txt, the same bytes `rtfconv rtf2txt` writes. Without
--scheduler a local cluster of N single-threaded worker processes is started;
with it, the workers of that cluster convert, and must see the same input and
output folders and have the rtfconverter module installed.

Files go to the workers in batches, so that each task converts many files and
the scheduler is not the bottleneck. The summary tells files, bytes, failures
by reason and throughput.
"""
import argparse
import collections
import glob
import os
import sys
import time


def find_inputs(inputs):
    """(path, path relative to its root) for every RTF file the arguments name."""
    found = []
    for item in inputs:
        if os.path.isdir(item):
            for folder, _, names in os.walk(item):
                for name in sorted(names):
                    if name.lower().endswith(".rtf"):
                        path = os.path.join(folder, name)
                        found.append((path, os.path.relpath(path, item)))
        else:
            paths = sorted(glob.glob(item, recursive=True)) if glob.has_magic(item) else [item]
            root = os.path.dirname(os.path.commonpath([os.path.abspath(p) for p in paths])) if paths else ""
            if len(paths) > 1:
                root = os.path.commonpath([os.path.dirname(os.path.abspath(p)) for p in paths])
            found.extend((p, os.path.relpath(os.path.abspath(p), root)) for p in paths)
    return sorted(found)


def output_path(output_dir, relative):
    stem, ext = os.path.splitext(relative)
    return os.path.join(output_dir, (stem if ext.lower() == ".rtf" else relative) + ".txt")


def convert_batch(jobs):
    """Runs on a worker: converts (input, output) pairs; returns counts and failures."""
    import rtfconverter

    done, cb_in, cb_out, failures = 0, 0, 0, []
    for source, target in jobs:
        try:
            with open(source, "rb") as f:
                rtf = f.read()
            text = rtfconverter.rtf_to_text(rtf).encode("utf-8")
            os.makedirs(os.path.dirname(target) or ".", exist_ok=True)
            partial = target + ".part"
            with open(partial, "wb") as f:
                f.write(text)
            os.replace(partial, target)  # a failed run leaves no half file
            done += 1
            cb_in += len(rtf)
            cb_out += len(text)
        except rtfconverter.ConversionError as e:
            failures.append((source, e.reason))
        except OSError as e:
            failures.append((source, e.strerror or type(e).__name__))
    return {"files": done, "bytes_in": cb_in, "bytes_out": cb_out, "failures": failures}


def batches_of(jobs, count):
    size = max(1, -(-len(jobs) // count))
    return [jobs[i:i + size] for i in range(0, len(jobs), size)]


def draw_progress(done, total, files, started):
    if not sys.stderr.isatty():
        return
    width = 30
    filled = width * done // max(total, 1)
    rate = files / max(time.monotonic() - started, 1e-9)
    sys.stderr.write(f"\r[{'#' * filled}{'.' * (width - filled)}] {done}/{total} batches, {files} files, {rate:.0f} files/s")
    sys.stderr.flush()


def print_summary(totals, failures, seconds, out=sys.stdout):
    mb = totals["bytes_in"] / 1e6
    print(f"files:    {totals['files']} converted, {len(failures)} failed", file=out)
    print(f"bytes:    {totals['bytes_in']} in, {totals['bytes_out']} out", file=out)
    print(f"time:     {seconds:.2f} s, {totals['files'] / seconds:.1f} files/s, {mb / seconds:.2f} MB/s", file=out)
    for reason, count in collections.Counter(reason for _, reason in failures).most_common():
        print(f"failed:   {count} x {reason}", file=out)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("inputs", nargs="+", metavar="INPUT", help="a folder, a glob or RTF files")
    parser.add_argument("output_dir", metavar="OUTPUT_DIR")
    parser.add_argument("--scheduler", help="address of a running scheduler, e.g. tcp://HOST:8786")
    parser.add_argument("--workers", type=int, default=os.cpu_count() or 2,
                        help="worker processes of the local cluster (default: the number of cores)")
    parser.add_argument("--batches-per-worker", type=int, default=4,
                        help="batches each worker gets, so that a slow batch does not hold the others up")
    args = parser.parse_args(argv)

    from dask.distributed import Client, LocalCluster, as_completed

    jobs = [(path, output_path(args.output_dir, rel)) for path, rel in find_inputs(args.inputs)]
    if not jobs:
        parser.error("no RTF file found")
    starting = time.monotonic()
    if args.scheduler:
        cluster, client = None, Client(args.scheduler)
    else:
        cluster = LocalCluster(n_workers=args.workers, threads_per_worker=1, processes=True,
                               dashboard_address=None)
        client = Client(cluster)
    started = time.monotonic()
    print(f"cluster:  {len(client.scheduler_info()['workers'])} workers, ready in {started - starting:.2f} s")
    try:
        workers = max(1, len(client.scheduler_info()["workers"]))
        batches = batches_of(jobs, workers * args.batches_per_worker)
        futures = client.map(convert_batch, batches, pure=False)
        totals = collections.Counter()
        failures = []
        for done, future in enumerate(as_completed(futures), 1):
            result = future.result()
            failures.extend(result.pop("failures"))
            totals.update(result)
            draw_progress(done, len(batches), totals["files"], started)
        if sys.stderr.isatty():
            sys.stderr.write("\n")
    finally:
        client.close()
        if cluster is not None:
            cluster.close()
    print_summary(totals, failures, time.monotonic() - started)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
