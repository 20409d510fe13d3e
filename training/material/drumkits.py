"""Drum kits without samples: damped modes, swept tones and shaped noise, every size and skin by chance."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

from material import scores
from material.effects import band_pass
from material.scores import Note

RATE = 48000
Mono = npt.NDArray[np.float32]
Audio = npt.NDArray[np.float32]  # [samples, 2]
Chance = np.random.Generator


def seconds(length: float) -> npt.NDArray[np.float32]:
    return np.arange(int(length * RATE), dtype=np.float32) / RATE


def modes(
    frequencies: npt.ArrayLike, levels: npt.ArrayLike, decays: npt.ArrayLike, length: float, c: Chance
) -> Mono:
    """A sum of damped sines; decays are the times to fall by 60 dB."""
    t = seconds(length)
    out = np.zeros_like(t)
    for frequency, level, decay in zip(
        np.atleast_1d(frequencies), np.atleast_1d(levels), np.atleast_1d(decays)
    ):
        if frequency < 0.45 * RATE:
            n = min(len(t), int(1.2 * decay * RATE) + 1)
            phase = 2 * np.pi * float(frequency) * t[:n] + c.uniform(0, 2 * np.pi)
            out[:n] += np.float32(level) * np.exp(-6.9 / float(decay) * t[:n]) * np.sin(phase)
    return out


def hiss(low: float, high: float, decay: float, length: float, c: Chance, attack: float = 0.0005) -> Mono:
    """Noise between two frequencies that falls by 60 dB within decay seconds."""
    t = seconds(length)
    noise = band_pass(c.standard_normal(len(t)).astype(np.float32), low, high)
    shape = np.exp(-6.9 / decay * t) * np.minimum(1.0, t / attack + 0.02)
    return (noise * shape / (np.abs(noise).max() + 1e-9)).astype(np.float32)


def sweep(low: float, high: float, speed: float, decay: float, length: float) -> Mono:
    """A sine that falls from high to low within about speed seconds."""
    t = seconds(length)
    phase = 2 * np.pi * (low * t + (high - low) * speed * (1 - np.exp(-t / speed)))
    return (np.sin(phase) * np.exp(-6.9 / decay * t) * np.minimum(1.0, t / 0.001)).astype(np.float32)


def metal(base: float, count: int, decay: float, length: float, c: Chance, spread: float = 8.0) -> Mono:
    """Inharmonic partials, the higher the denser and shorter, as of plates."""
    frequencies = base * (1 + spread * c.uniform(0, 1, count) ** 0.8) * c.uniform(0.98, 1.02, count)
    return modes(
        frequencies, c.uniform(0.2, 1, count), decay * c.uniform(0.3, 1.2, count), length, c
    ) / np.sqrt(count)


def squares(base: float, decay: float, low: float, length: float, c: Chance) -> Mono:
    """Six square waves that do not fit together, as in machines."""
    t = seconds(length)
    ratios = (1.0, 1.342, 1.2312, 1.6532, 1.9523, 2.1523)
    out = sum(np.sign(np.sin(2 * np.pi * base * c.uniform(0.97, 1.03) * ratio * t)) for ratio in ratios)
    return (band_pass(np.asarray(out, np.float32), low, 18000) * np.exp(-6.9 / decay * t) / 4).astype(
        np.float32
    )


def kick(c: Chance) -> Mono:
    decay = c.choice([c.uniform(0.12, 0.35), c.uniform(0.3, 0.9)])
    low = c.uniform(38, 75)
    out = sweep(low, low * c.uniform(1.8, 7), c.uniform(0.008, 0.05), decay, decay * 1.2)
    out += np.float32(c.uniform(0, 0.5)) * hiss(
        c.uniform(800, 3000), c.uniform(4000, 12000), c.uniform(0.01, 0.05), decay * 1.2, c
    )
    if c.random() < 0.4:  # the shell and the skin
        out += modes(c.uniform(90, 300, 3), c.uniform(0.05, 0.25, 3), c.uniform(0.05, 0.2, 3), decay * 1.2, c)
    return np.tanh(out * c.choice([1.0, c.uniform(1, 4)])) if c.random() < 0.5 else out


def snare(c: Chance) -> Mono:
    length, tone = c.uniform(0.15, 0.5), c.uniform(140, 280)
    body = modes(
        tone * np.array([1, c.uniform(1.4, 1.7), c.uniform(1.9, 2.4), c.uniform(2.5, 3.2)]),
        [1, 0.6, 0.35, 0.2] * c.uniform(0.4, 1, 4),
        length * c.uniform(0.3, 1.0, 4),
        length,
        c,
    )
    body += 0.5 * sweep(tone, tone * 2, 0.01, 0.1, length)
    wires = hiss(c.uniform(300, 2000), c.uniform(6000, 17000), length * c.uniform(0.5, 1.0), length, c)
    return body * np.float32(c.uniform(0.2, 0.9)) + wires * np.float32(c.uniform(0.4, 1.2))


def clap(c: Chance) -> Mono:
    low, high, length = c.uniform(500, 1200), c.uniform(2000, 9000), c.uniform(0.15, 0.4)
    out = hiss(low, high, length, length, c)
    for number in range(1, c.integers(2, 5)):
        begin = int(number * c.uniform(0.007, 0.014) * RATE)
        out[begin:] += hiss(low, high, 0.02 + 0.02 * number, length, c)[: len(out) - begin]
    return out


def hat(c: Chance, length: float) -> Mono:
    low = c.uniform(3000, 8000)
    noise = hiss(low, c.uniform(12000, 20000), length, length, c)
    if c.random() < 0.4:
        return squares(c.uniform(250, 600), length, low, length, c) + 0.4 * noise
    ring = metal(c.uniform(2500, 5000), 24, length, length, c, spread=3.5)
    return noise * np.float32(c.uniform(0.2, 1)) + ring * np.float32(c.uniform(0.2, 1))


def cymbal(c: Chance, length: float, ping: float) -> Mono:
    base = c.uniform(280, 700)
    out = metal(base, 70, length, length, c, spread=c.uniform(15, 26))
    out += np.float32(c.uniform(0.2, 1.0)) * hiss(
        c.uniform(2500, 6000), 18000, length * c.uniform(0.3, 0.8), length, c, 0.003
    )
    if ping > 0:
        out += np.float32(ping) * modes(
            c.uniform(2500, 6000, 4), c.uniform(0.3, 1, 4), c.uniform(0.1, 0.6, 4), length, c
        )
    return out


def tom(c: Chance, low: float) -> Mono:
    length = c.uniform(0.2, 0.7)
    out = sweep(low, low * c.uniform(1.1, 1.8), c.uniform(0.02, 0.1), length, length)
    out += modes(
        low * c.uniform(1.3, 3.5, 4), c.uniform(0.05, 0.4, 4), length * c.uniform(0.2, 0.7, 4), length, c
    )
    return out + np.float32(c.uniform(0, 0.4)) * hiss(300, 6000, 0.04, length, c)


def hand_drum(c: Chance, low: float, mute: bool) -> Mono:
    length = c.uniform(0.05, 0.12) if mute else c.uniform(0.15, 0.5)
    ratios = np.array([1, 1.59, 2.14, 2.3, 2.65]) * c.uniform(0.96, 1.04, 5)
    out = modes(
        low * ratios, c.uniform(0.2, 1, 5) * [1, 0.5, 0.4, 0.3, 0.2], length * c.uniform(0.3, 1, 5), length, c
    )
    out += 0.3 * sweep(low, low * c.uniform(1, 1.3), 0.02, length, length)
    return out + np.float32(c.uniform(0.1, 0.8)) * hiss(
        c.uniform(500, 1500), c.uniform(3000, 9000), c.uniform(0.01, 0.04), length, c
    )


def shaker(c: Chance, length: float) -> Mono:
    return hiss(
        c.uniform(2500, 6000), c.uniform(9000, 18000), length, length, c, attack=c.uniform(0.005, 0.04)
    )


def tambourine(c: Chance) -> Mono:
    length = c.uniform(0.1, 0.4)
    ring = modes(
        c.uniform(4000, 14000, 16), c.uniform(0.1, 0.5, 16), length * c.uniform(0.3, 1, 16), length, c
    )
    return ring + hiss(5000, 18000, length * 0.6, length, c)


def block(c: Chance, low: float, length: float) -> Mono:
    """Wood and bells: a few inharmonic partials."""
    count = c.integers(2, 5)
    ratios = np.concatenate([[1.0], c.uniform(1.4, 4.5, count - 1)])
    out = modes(low * ratios, c.uniform(0.3, 1, count), length * c.uniform(0.4, 1, count), length, c)
    return out + 0.2 * hiss(1000, 8000, 0.01, length, c)


def strike(c: Chance, key: int) -> Mono:
    """One sound of the General MIDI percussion map."""
    s = scores
    if key in (s.KICK, s.KICK2):
        return kick(c)
    if key in (s.SNARE, s.SNARE2):
        return snare(c)
    if key == s.STICK:
        return block(c, c.uniform(400, 1700), c.uniform(0.03, 0.1))
    if key == s.CLAP:
        return clap(c)
    if key in (s.CLOSED_HAT, s.PEDAL_HAT):
        return hat(c, c.uniform(0.03, 0.12))
    if key == s.OPEN_HAT:
        return hat(c, c.uniform(0.25, 0.9))
    if key in (s.RIDE, s.RIDE_BELL):
        return cymbal(c, c.uniform(0.8, 2.5), c.uniform(0.4, 1.5))
    if key in (s.CRASH, s.CRASH2, s.CHINA, s.SPLASH):
        return cymbal(c, c.uniform(0.3, 0.8) if key == s.SPLASH else c.uniform(1.0, 3.0), 0)
    if key in s.TOMS:
        return tom(c, c.uniform(55, 75) * 1.22 ** s.TOMS.index(key))
    if key == s.TAMBOURINE:
        return tambourine(c)
    if key in (
        s.HIGH_BONGO,
        s.LOW_BONGO,
        s.MUTE_CONGA,
        s.HIGH_CONGA,
        s.LOW_CONGA,
        s.HIGH_TIMBALE,
        s.LOW_TIMBALE,
    ):
        low = {
            s.HIGH_BONGO: 380,
            s.LOW_BONGO: 290,
            s.LOW_CONGA: 170,
            s.HIGH_TIMBALE: 330,
            s.LOW_TIMBALE: 230,
        }.get(key, 230)
        return hand_drum(c, low * c.uniform(0.8, 1.25), key == s.MUTE_CONGA)
    if key in (s.CABASA, s.MARACAS, s.SHAKER, s.SHAKER_GUIRO):
        return shaker(c, c.uniform(0.03, 0.25))
    if key in (s.TRIANGLE, s.TRIANGLE_MUTE):
        return block(c, c.uniform(1500, 4500), 1.2 if key == s.TRIANGLE else 0.15)
    if key == s.COWBELL:
        return block(c, c.uniform(400, 900), c.uniform(0.08, 0.4))
    return block(c, c.uniform(600, 2600), c.uniform(0.03, 0.12))


class Kit:
    """One set of drums: every voice in three slightly different strikes, with its place and level."""

    def __init__(self, seed: int) -> None:
        self.seed = seed
        self.voices: dict[int, tuple[list[Mono], float, float]] = {}
        self.width = np.random.default_rng([seed, 0]).choice([0.0, 0.3, 0.6, 0.9])

    def voice(self, key: int) -> tuple[list[Mono], float, float]:
        if key not in self.voices:
            c = np.random.default_rng([self.seed, key])
            sound = strike(c, key)
            sound = sound / (np.abs(sound).max() + 1e-9)
            # The same instrument, struck with less and less force: duller.
            strikes = [sound] + [band_pass(sound, 20, float(c.uniform(5000, 18000))) for _ in range(2)]
            centred = key in (scores.KICK, scores.KICK2, scores.SNARE, scores.SNARE2)
            place = 0.0 if centred else float(c.uniform(-self.width, self.width))
            self.voices[key] = (
                strikes,
                place,
                float(10 ** (c.uniform(-8, 2) / 20)) * (1.0 if centred else 0.6),
            )
        return self.voices[key]

    def play(self, notes: list[Note], length: float) -> Audio:
        c = np.random.default_rng([self.seed, 999])
        out = np.zeros((int(length * RATE), 2), np.float32)
        for note in notes:
            strikes, place, level = self.voice(note.key)
            sound = strikes[c.integers(3)]
            begin = int(note.start * RATE)
            count = min(len(sound), len(out) - begin)
            if count <= 0:
                continue
            gain = level * (note.velocity / 100) ** 2
            angle = (place + 1) * np.pi / 4
            out[begin : begin + count, 0] += np.float32(gain * np.cos(angle)) * sound[:count]
            out[begin : begin + count, 1] += np.float32(gain * np.sin(angle)) * sound[:count]
        return out
