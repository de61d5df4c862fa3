"""Batch runs: one vorn pipeline applied to many image files over Dask.

Each file is one task. A task runs the pipeline text, with {input} and {output} replaced by the
file's paths, in the worker that takes it. vorn is single-threaded and has one process-wide
repercussion switch, so the workers must be processes, one thread each: a
distributed.LocalCluster(processes=True, threads_per_worker=1), or a cluster given by its
scheduler address. A file that fails is reported in its result; the others go on.

    from distributed import Client, LocalCluster
    from vorn.batch import run_batch
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True) as cluster, \\
            Client(cluster) as client:
        results = run_batch("read file={input} ! gaussian sigma=2 ! stats ! write file={output}",
                            inputs, "out/", client)
"""
import os
from dataclasses import dataclass


@dataclass
class BatchResult:
    input: str
    output: str  # the file written, or "" when the task failed
    report: str  # the statistics lines the pipeline printed
    error: str  # why the task failed, or ""


def output_path(input_path, folder, suffix=None):
    """Where the result of `input_path` goes: same name in `folder`, extension `suffix` if given."""
    name = os.path.basename(input_path)
    if suffix is not None:
        name = name[: -len(".nii.gz")] if name.endswith(".nii.gz") else os.path.splitext(name)[0]
        name += suffix
    return os.path.join(folder, name)


def import_dask():
    """Dask, imported only when a batch runs on a cluster, so that vorn works without it."""
    try:
        import dask
    except ImportError as missing:
        raise ImportError("vorn.batch.run_batch needs Dask to run on a cluster: "
                          "pip install 'vorn[dask]' (on Debian: apt install python3-dask "
                          "python3-distributed)") from missing
    return dask


def run_one(text, input_path, output):
    """Runs the pipeline for one file in this process; never raises."""
    import vorn  # imported in the worker process

    try:
        with vorn.capture_output():
            report = vorn.run(text.format(input=input_path, output=output))
        return BatchResult(input_path, output, report.strip(), "")
    except Exception as failure:  # one file's failure is its result, not the batch's
        return BatchResult(input_path, "", "", f"{type(failure).__name__}: {failure}")


def run_batch(text, inputs, folder, client=None, suffix=None):
    """Runs `text` on every file of `inputs`, writing into `folder`; a list of BatchResult in the
    order of `inputs`. Without a client, runs the files one after the other in this process."""
    os.makedirs(folder, exist_ok=True)
    jobs = [(path, output_path(path, folder, suffix)) for path in inputs]
    if client is None:
        return [run_one(text, path, out) for path, out in jobs]
    dask = import_dask()
    tasks = [dask.delayed(run_one, pure=False)(text, path, out) for path, out in jobs]
    return list(client.compute(tasks, sync=True))
