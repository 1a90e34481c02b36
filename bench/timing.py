"""Timing helpers the benchmark scripts' Python parts share."""
import os
import shutil
import subprocess
import sys
import time


def run_side_by_side(name, work, outdir, *cmds):
    """Runs the commands side by side into a fresh outdir; returns (their
    user+sys CPU seconds, wall seconds until the last ended). A command that
    fails ends the benchmark with its error output."""
    shutil.rmtree(outdir, ignore_errors=True)
    os.makedirs(outdir)
    cpu = 0.0
    errors = os.path.join(work, "stderr.txt")
    with open(errors, "wb") as err:
        start = time.perf_counter()
        procs = [subprocess.Popen(c, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                  stderr=err) for c in cmds]
        for c, proc in zip(cmds, procs):
            # wait4 gives the child's own resource use, every thread of it included.
            _, status, usage = os.wait4(proc.pid, 0)
            proc.returncode = os.waitstatus_to_exitcode(status)
            cpu += usage.ru_utime + usage.ru_stime
            if proc.returncode != 0:
                sys.stdout.write(open(errors).read())
                sys.exit(f"{name}: {' '.join(c)} exited with {proc.returncode}")
        wall = time.perf_counter() - start
    return cpu, wall
