"""Other noise suppressions on the same cases: each at its best setting, and aligned by its delay."""

from __future__ import annotations

import subprocess
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from itertools import product

import numpy as np
from cases import Case
from measures import RATE, Signal, si_sdr
from places import ROOT
from scipy.fft import irfft, next_fast_len, rfft, rfftfreq

PROGRAMS = ROOT / "build" / "peers"
FINER = 8  # delays are found to an eighth of a sample
LONGEST = RATE // 5  # samples of delay


@dataclass(frozen=True)
class Peer:
    """Filters that take and give mono floats at 48 kHz on standard streams, one for each setting."""

    name: str
    settings: tuple[tuple[str, ...], ...]
    command: Callable[[tuple[str, ...]], list[str]]

    def run(self, setting: tuple[str, ...], sound: Signal) -> Signal:
        """As long as the input and a tail, in which a delayed end comes out."""
        padded = np.concatenate([sound[:, 0], np.zeros(LONGEST + RATE // 10, np.float32)])
        done = subprocess.run(self.command(setting), input=padded.tobytes(), capture_output=True, check=True)
        out = np.frombuffer(done.stdout, np.float32)
        return np.pad(out, (0, max(0, len(padded) - len(out))))[: len(padded), None]


def denoise(setting: tuple[str, ...]) -> list[str]:
    reduction, floor, tracking = setting
    stream = ["-f", "f32le", "-ar", str(RATE), "-ac", "1"]
    chain = f"afftdn=nr={reduction}:nf={floor}:tn={tracking}"
    return ["ffmpeg", "-v", "error", *stream, "-i", "-", "-af", chain, *stream, "-"]


PEERS = (
    Peer("WebRTC", tuple((level,) for level in "0123"), lambda s: [str(PROGRAMS / "webrtc"), *s]),
    Peer(
        "speexdsp",
        tuple(product(("-10", "-15", "-25", "-40"), ("10", "20"))),
        lambda s: [str(PROGRAMS / "speexdsp"), *s],
    ),
    Peer("afftdn", tuple(product(("12", "20", "30"), ("-50", "-35", "-20"), ("0", "1"))), denoise),
)


def delay_of(output: Signal, sound: Signal) -> float:
    """In samples: where the two correlate best."""
    size = next_fast_len(len(output) + len(sound), real=True)
    cross = rfft(output[:, 0], size) * np.conj(rfft(sound[:, 0], size))
    return int(np.argmax(irfft(cross, size * FINER)[: LONGEST * FINER])) / FINER


def advance(sound: Signal, delay: float, length: int) -> Signal:
    size = next_fast_len(len(sound) + LONGEST, real=True)
    turned = rfft(sound[:, 0], size) * np.exp(2j * np.pi * rfftfreq(size) * delay)
    return irfft(turned, size)[:length, None].astype(np.float32)


@dataclass(frozen=True)
class Tuned:
    peer: Peer
    setting: tuple[str, ...]
    delay: float
    clean: float  # SI-SDR at which a clean voice passes

    def run(self, mix: Signal) -> Signal:
        return advance(self.peer.run(self.setting, mix), self.delay, len(mix))

    @property
    def description(self) -> str:
        delay = f"{1000 * self.delay / RATE:.1f} ms of delay"
        return (
            f"{self.peer.name}: best setting {' '.join(self.setting)}, {delay}, clean speech passes at"
            f" {self.clean:.1f} dB  "
        )


def tune(peer: Peer, cases: Sequence[Case]) -> Tuned:
    """The setting with the best mean SI-SDR over the cases. It is judged on them, too, which favours it."""
    voice = cases[0].stems["speech"]
    found = []
    for setting in peer.settings:
        passed = peer.run(setting, voice)
        delay = delay_of(passed, voice)
        tuned = Tuned(peer, setting, delay, si_sdr(advance(passed, delay, len(voice)), voice))
        values = [si_sdr(tuned.run(case.mix), case.stems["speech"]) for case in cases]
        found.append((float(np.mean(values)), tuned))
    return max(found, key=lambda pair: pair[0])[1]
