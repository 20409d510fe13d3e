"""What Python adds: blocks beside the C calls, files beside the program, two threads beside one.

Usage: overhead.py BUILD       BUILD: a release build of the project, with the program and the shared library
"""

from __future__ import annotations

import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

import numpy as np
import zevrant
from zevrant.layers import Conv, Magnitudes

root = Path(__file__).resolve().parents[2]
rounds, calls = 400, 100  # the fastest round counts: short ones find a quiet moment

c_source = r"""
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include "zevrant.h"
int main(int argc, char** argv) {
    struct ProcessorState* p = argc < 4 ? NULL : zevrantCreateProcessor(argv[1], 2, 48000.0);
    static float left[480], right[480];
    float* channels[] = {left, right};
    if (!p) return 1;
    int calls = atoi(argv[2]);
    double fastest = 1e9;
    for (int round = 0; round < atoi(argv[3]); ++round) {
        struct timespec a, b;
        clock_gettime(CLOCK_MONOTONIC, &a);
        for (int i = 0; i < calls; ++i) {
            zevrantAddAudio(p, (const float**)channels, 480);
            zevrantGetAudio(p, channels, 480);
        }
        clock_gettime(CLOCK_MONOTONIC, &b);
        double seconds = (b.tv_sec - a.tv_sec) + 1e-9 * (b.tv_nsec - a.tv_nsec);
        if (seconds < fastest) fastest = seconds;
    }
    printf("%.9f\n", fastest / calls);
    return 0;
}
"""


def time_blocks(folder: Path, build: Path) -> None:
    """A model whose network costs next to nothing, so that the calls are seen."""
    writer = (
        zevrant.ModelWriter("small").set_channels(2)
    writer.set_frames(1024, 1024, 480).set_packing(Magnitudes(1))
    )
    writer.add_layer("gain", "input", Conv(np.ones((1, 1, 1, 2)))).set_output("gain")
    writer.write(folder / "small.zevrant")
    (folder / "calls.c").write_text(c_source)
    library = next(build.rglob("libzevrant.so")).parent
    links = [f"-L{library}", f"-Wl,-rpath,{library}", "-lzevrant"]
    compile_command = ["cc", "-O2", "calls.c", f"-I{root}/engine/interface", "-o", "calls", *links]
    subprocess.run(compile_command, cwd=folder, check=True)
    processor = zevrant.Processor(folder / "small.zevrant", 2, 48000)
    block = np.zeros((2, 480), np.float32)

    def run_python() -> float:
        start = time.perf_counter()
        for _ in range(calls):
            processor.process(block)
        return (time.perf_counter() - start) / calls

    def run_c() -> float:
        command = [folder / "calls", folder / "small.zevrant", str(calls), str(rounds)]
        return float(subprocess.run(command, check=True, capture_output=True, text=True).stdout)

    python = 1e6 * min(run_python() for _ in range(rounds))
    c = 1e6 * run_c()
    print(f"480 samples: {python:.2f} us in Python, {c:.2f} us in C, {python - c:.2f} us more")


def time_files(folder: Path, build: Path) -> None:
    mixture, model = root / "demo/mixture.flac", "harmonic-percussive"

    def run_python() -> float:
        start = time.perf_counter()
        zevrant.separate_file(mixture, model, folder / "python")
        return time.perf_counter() - start

    def run_program() -> float:
        start = time.perf_counter()
        command = [build / "bin/zevrant", "stems", mixture, "-m", root / f"models/{model}.zevrant"]
        subprocess.run([*command, "-q", "-d", folder / "program"], check=True, capture_output=True)
        return time.perf_counter() - start

    pairs = [(run_python(), run_program()) for _ in range(5)]
    python, program = (min(column) for column in zip(*pairs))
    print(f"file: {python:.2f} s in Python, {program:.2f} s by the program, ratio {program / python:.2f}")


def time_threads() -> None:
    audio = 0.1 * np.random.default_rng(0).standard_normal((2, 4 * 48000)).astype(np.float32)

    def work() -> None:
        processor = zevrant.Processor("harmonic-percussive", 2, 48000)
        for start in range(0, audio.shape[1], 480):
            processor.process(audio[:, start : start + 480])

    def run(count: int) -> float:
        threads = [threading.Thread(target=work) for _ in range(count)]
        start = time.perf_counter()
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        return time.perf_counter() - start

    pairs = [(run(1), run(2)) for _ in range(5)]
    one, two = (min(column) for column in zip(*pairs))
    print(f"threads: two do {2 * one / two:.2f} times the work of one")


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    with tempfile.TemporaryDirectory() as name:
        time_blocks(Path(name), Path(sys.argv[1]).resolve())
        time_files(Path(name), Path(sys.argv[1]).resolve())
        time_threads()
