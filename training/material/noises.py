"""Noise of many kinds, synthesised. Each maker gives mono samples at 48 kHz."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

import numpy as np
import numpy.typing as npt
import soundfile
from scipy.fft import irfft, rfft, rfftfreq
from scipy.signal import resample_poly

from material import songs
from material.drumkits import hiss, modes
from material.effects import band_pass, equalise, reverberate

RATE = 48000
Mono = npt.NDArray[np.float32]
Chance = np.random.Generator


def slow(count: int, rate: float, c: Chance) -> Mono:
    """A curve between -1 and 1 that wanders so many times per second."""
    points = max(2, int(count / RATE * rate) + 2)
    return np.interp(np.linspace(0, points - 1, count), np.arange(points), c.uniform(-1, 1, points)).astype(
        np.float32
    )


def coloured(count: int, c: Chance) -> Mono:
    spectrum = rfft(c.standard_normal(count))
    f = rfftfreq(count, 1 / RATE)
    return np.asarray(irfft(spectrum * np.maximum(f, 30) ** -c.uniform(-0.5, 1.2), count), np.float32)


def wandering(count: int, c: Chance) -> Mono:
    """Wind and water: bands that swell and move."""
    out = 0.2 * coloured(count, c) / 10
    for _ in range(4):
        low = c.uniform(80, 5000)
        band = band_pass(c.standard_normal(count).astype(np.float32), low, low * c.uniform(1.2, 4))
        out = out / (out.std() + 1e-9) + 10 ** (slow(count, c.uniform(0.3, 3), c) * 0.8) * band / (
            band.std() + 1e-9
        )
    return np.asarray(out, np.float32)


def hum(count: int, c: Chance) -> Mono:
    t = np.arange(count) / RATE
    base, out = c.choice([50, 60, c.uniform(40, 400)]), np.zeros(count)
    for harmonic in range(1, 30):
        out += (
            c.uniform(0, 1)
            / harmonic ** c.uniform(0.3, 1.5)
            * np.sin(2 * np.pi * base * harmonic * t + c.uniform(0, 6))
        )
    return np.asarray(out + 0.05 * c.standard_normal(count), np.float32)


def fan(count: int, c: Chance) -> Mono:
    turn = c.uniform(8, 40) * np.arange(count) / RATE
    wind = equalise(coloured(count, c), c, 8)
    blades = 1 + c.uniform(0.1, 0.6) * np.sin(2 * np.pi * turn) + 0.2 * np.sin(4 * np.pi * turn)
    return np.asarray(wind / wind.std() * blades + 0.1 * hum(count, c), np.float32)


def events(count: int, c: Chance, per_second: float, make: Callable[[], Mono]) -> Mono:
    out = np.zeros(count, np.float32)
    sounds = [make() for _ in range(12)]
    for _ in range(max(1, c.poisson(per_second * count / RATE))):
        sound, begin = sounds[c.integers(12)], int(c.integers(count))
        sound = sound[: count - begin] * np.float32(c.uniform(0.3, 1))
        out[begin : begin + len(sound)] += sound
    return out


def clicks(count: int, c: Chance) -> Mono:
    return events(
        count,
        c,
        c.uniform(2, 25),
        lambda: hiss(c.uniform(200, 4000), c.uniform(5000, 18000), c.uniform(0.003, 0.05), 0.06, c),
    )


def keyboard(count: int, c: Chance) -> Mono:
    def key() -> Mono:
        press = hiss(1000, 9000, 0.02, 0.15, c) + 0.4 * modes(
            c.uniform(300, 3000, 4), c.uniform(0.1, 0.5, 4), [0.05] * 4, 0.15, c
        )
        return press + 0.4 * np.roll(press, int(c.uniform(0.05, 0.1) * RATE))

    return events(count, c, c.uniform(3, 9), key) + np.float32(0.002) * coloured(count, c)


def dishes(count: int, c: Chance) -> Mono:
    return events(
        count,
        c,
        c.uniform(1, 6),
        lambda: modes(c.uniform(800, 9000, 8), c.uniform(0.1, 1, 8), c.uniform(0.05, 0.6, 8), 0.7, c),
    )


def traffic(count: int, c: Chance) -> Mono:
    out = np.zeros(count)
    for _ in range(5):
        passing = np.exp(-(((np.arange(count) / RATE - c.uniform(0, count / RATE)) / c.uniform(1, 4)) ** 2))
        engine = band_pass(c.standard_normal(count).astype(np.float32), 30, c.uniform(300, 3000))
        out += (engine / engine.std() + 0.5 * hum(count, c)) * (passing + 0.1)
    return np.asarray(out, np.float32)


def rain(count: int, c: Chance) -> Mono:
    return events(count, c, 150, lambda: hiss(c.uniform(1000, 4000), 16000, 0.01, 0.02, c)) + np.float32(
        0.05
    ) * np.asarray(c.standard_normal(count), np.float32)


def alarm(count: int, c: Chance) -> Mono:
    t = np.arange(count) / RATE
    pitch = c.uniform(500, 2500) * 2 ** (c.uniform(0, 0.7) * np.sin(2 * np.pi * c.uniform(0.2, 4) * t))
    wave = np.sin(2 * np.pi * np.cumsum(pitch) / RATE) + 0.3 * np.sin(4 * np.pi * np.cumsum(pitch) / RATE)
    return np.asarray(wave * (np.sin(2 * np.pi * c.uniform(0.5, 4) * t) > c.uniform(-1, 0.5)), np.float32)


KINDS: dict[str, Callable[[int, Chance], Mono]] = {
    "coloured": coloured,
    "wandering": wandering,
    "hum": hum,
    "fan": fan,
    "clicks": clicks,
    "keyboard": keyboard,
    "dishes": dishes,
    "traffic": traffic,
    "rain": rain,
    "alarm": alarm,
}


def crowd(count: int, c: Chance, speech: list[Path]) -> Mono:
    """Many voices at once, in a room."""
    out = np.zeros((count, 2), np.float32)
    for _ in range(c.integers(6, 14)):
        begin = int(c.integers(count)) - RATE
        while begin < count:
            sound, rate = soundfile.read(speech[c.integers(len(speech))], dtype="float32")
            sound = resample_poly(sound, RATE // 100, rate // 100).astype(np.float32) * np.float32(
                c.uniform(0.3, 1)
            )
            first = max(0, -begin)
            piece = sound[first : first + count - max(begin, 0)]
            out[max(begin, 0) : max(begin, 0) + len(piece)] += piece[:, None]
            begin += len(sound)
    return reverberate(out, c, 0.7)[:, 0]


def write_noise(
    folder: Path, split: str, files: int, seed: int, speech: list[Path], seconds: float = 20.0
) -> None:
    """FOLDER/KIND/NUMBER.wav: every kind, a crowd of the split's own voices, and music."""
    count = int(seconds * RATE)
    for order, kind in enumerate((*KINDS, "crowd", "music")):
        (folder / kind).mkdir(parents=True, exist_ok=True)
        for number in range(files):
            path = folder / kind / f"{number:04d}.wav"
            if path.exists():
                continue
            song_seed = 3 * (900000 + number) + ("train", "valid", "test").index(split)
            c = np.random.default_rng([seed, order, song_seed])
            if kind == "crowd":
                sound = crowd(count, c, speech)
            elif kind == "music":
                sound = np.sum(list(songs.render(song_seed, seconds, split).values()), axis=0).mean(axis=1)
            else:
                sound = KINDS[kind](count, c)
            soundfile.write(path, sound * (0.7 / (np.abs(sound).max() + 1e-9)), RATE, subtype="PCM_16")
