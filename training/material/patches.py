"""A synthesizer of random patches without samples: plucked, struck, bowed, blown, electronic and sung."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

from material.scores import Note

RATE = 48000
SIZE = 2048  # samples of a wave table
Audio = npt.NDArray[np.float32]  # [samples, 2]
Chance = np.random.Generator
# Formants (hertz) of five vowels, for a middle-sized throat.
VOWELS = ((730, 1090, 2440), (530, 1840, 2480), (270, 2290, 3010), (570, 840, 2410), (300, 870, 2240))


class Patch:
    """One instrument. Its spectrum runs from bright to dark, or from vowel to vowel, through wave tables."""

    def __init__(self, seed: int, role: str) -> None:
        c = np.random.default_rng(seed)
        self.seed, self.role = seed, role
        kinds = {
            "bass": ["pluck", "analog", "fm"],
            "pad": ["analog", "bowed", "organ", "voice"],
            "voice": ["voice"],
            "lead": ["analog", "blown", "bowed", "fm", "pluck", "voice"],
        }
        self.kind = str(c.choice(kinds.get(role, ["pluck", "analog", "fm", "organ", "struck", "bowed"])))
        held = self.kind in ("bowed", "organ", "blown", "voice") or (
            self.kind in ("analog", "fm") and c.random() < 0.5
        )
        self.attack = float(
            c.uniform(0.03, 0.25)
            if role == "pad" or self.kind in ("bowed", "voice")
            else c.uniform(0.001, 0.02)
        )
        self.decay = 20.0 if held else float(np.exp(c.uniform(np.log(0.15), np.log(4.0))))  # to -60 dB
        self.release = float(c.uniform(0.03, 0.4))
        self.slope = c.uniform(0.5, 2.0)
        self.odd = c.random() < 0.25
        self.ripple = c.uniform(0.3, 1.0, 64)
        self.drawbars = c.choice([0, 0, 0.3, 0.6, 1.0], 9) + np.eye(9)[0]
        self.cutoff = float(np.exp(c.uniform(np.log(2), np.log(40))))  # harmonics, when bright
        self.dark = float(np.exp(c.uniform(np.log(0.5), np.log(8))))  # harmonics, when dark
        self.darkening = float(np.exp(c.uniform(np.log(0.05), np.log(1.5))))  # seconds
        self.resonance = float(c.choice([0, 0, c.uniform(0, 3)]))
        self.stretch = float(c.choice([0, c.uniform(0, 3e-4)]))
        self.vibrato = float(c.uniform(0, 0.4) if held and c.random() < 0.6 else 0), float(c.uniform(4, 7))
        self.detune = float(c.choice([0, c.uniform(0, 0.2)]))  # semitones between the copies
        self.copies = int(c.choice([1, 2, 3])) if self.detune else 1
        self.glide = float(c.uniform(0, 0.12)) if c.random() < 0.3 else 0.0
        self.breath = float(c.uniform(0, 0.15)) if self.kind in ("blown", "voice", "bowed") else 0.0
        self.chiff = float(c.uniform(0, 0.4)) if self.kind in ("pluck", "struck", "blown") else 0.0
        self.ratio, self.index = float(c.choice([0.5, 1, 1, 2, 3, 3.5, 1.41, 7])), float(c.uniform(0.5, 8))
        self.width = float(c.uniform(0, 1))
        self.throat = float(c.uniform(0.85, 1.25))

    def tables(self, frequency: float, c: Chance) -> npt.NDArray[np.float32]:
        """[tables, SIZE + 1]: single periods without any harmonic above the treble's end."""
        count = max(1, min(SIZE // 2 - 1, int(20000 / frequency)))
        h = np.arange(1, count + 1)
        level = h**-self.slope * np.where(self.odd & (h % 2 == 0), 0.05, 1.0) * self.ripple[h % 64]
        spectra = []
        for number in range(5):
            if self.kind == "organ":
                level = np.zeros(count)
                for harmonic, bar in zip((1, 2, 3, 4, 5, 6, 8, 10, 12), self.drawbars):
                    if harmonic <= count:
                        level[harmonic - 1] = bar
                spectra.append(level)
            elif self.kind == "voice":
                formants = VOWELS[c.integers(5)]
                f = h * frequency / self.throat
                shape = sum(
                    gain / (1 + ((f - formant) / (60 + 0.06 * formant)) ** 2)
                    for formant, gain in zip((*formants, 3400), (1, 0.6, 0.35, 0.2))
                )
                spectra.append(h**-0.7 * (shape + 0.01))
            else:
                cutoff = self.cutoff * (self.dark / self.cutoff) ** (number / 4)
                peak = 1 + self.resonance * np.exp(-(((h / cutoff - 1) / 0.2) ** 2))
                spectra.append(level * peak / (1 + (h / cutoff) ** 4))
        half = np.zeros((5, SIZE // 2 + 1), complex)
        half[:, 1 : count + 1] = np.array(spectra) * np.exp(
            2j * np.pi * np.random.default_rng(self.seed).random(count)
        )
        waves = np.fft.irfft(half, SIZE)
        waves /= np.abs(waves[0] if self.kind != "voice" else waves).max() + 1e-12
        return np.concatenate([waves, waves[:, :1]], axis=1).astype(np.float32)

    def note(self, note: Note, c: Chance, previous: float) -> Audio:
        sounding = min(note.length, self.decay) + self.release
        t = np.arange(int(sounding * RATE), dtype=np.float32) / RATE
        frequency = 440 * 2 ** ((note.key - 69) / 12)
        bend = (
            self.vibrato[0]
            * np.sin(2 * np.pi * self.vibrato[1] * t + c.uniform(0, 6))
            * np.minimum(1, t / 0.3)
        )
        if self.glide:
            bend = bend + (previous - note.key) * np.exp(-t / (self.glide / 3))
        if self.kind == "voice":
            bend = bend + 0.1 * np.interp(t, np.linspace(0, sounding, 12), c.standard_normal(12))
        out = np.zeros((len(t), 2), np.float32)
        tables = None if self.kind == "fm" else self.tables(frequency * 2 ** (abs(self.detune) / 12), c)
        # Where between the tables a sample stands: falls with time, or wanders between vowels.
        if self.kind == "voice":
            position = np.interp(t, np.linspace(0, max(sounding, 0.3), 5), c.uniform(0, 4, 5))
        else:
            start = 2.5 * (1 - note.velocity / 127)
            position = np.minimum(3.999, start + (4 - start) * (1 - np.exp(-t / self.darkening)))
        for copy in range(self.copies):
            offset = (copy - (self.copies - 1) / 2) * self.detune
            phase = np.cumsum(frequency * 2 ** ((bend + offset) / 12) / RATE) + c.random()
            if tables is None:
                depth = self.index * np.exp(-t / self.darkening) * note.velocity / 127
                wave = np.sin(2 * np.pi * phase + depth * np.sin(2 * np.pi * self.ratio * phase))
            else:
                place = (phase % 1.0) * SIZE
                low = place.astype(np.int32)
                row = np.minimum(position.astype(np.int32), 3)
                share = (position - row).astype(np.float32)
                wave = tables[row, low] * (1 - share) + tables[row + 1, low] * share
            angle = (
                (1 + self.width * (copy / max(1, self.copies - 1) * 2 - 1) * (self.copies > 1)) * np.pi / 4
            )
            out += (wave[:, None] * [np.cos(angle), np.sin(angle)]).astype(np.float32)
        if self.breath or self.chiff:
            noise = c.standard_normal(len(t))
            noise[1:] -= 0.6 * noise[:-1]
            amount = self.breath + self.chiff * np.exp(-t / 0.012)
            if self.kind == "voice" and c.random() < 0.4:  # a consonant in front of the vowel
                amount = amount + 0.6 * np.exp(-(((t - 0.04) / 0.03) ** 2))
            out += (noise * amount * 0.3)[:, None].astype(np.float32)
        shape = np.minimum(1, t / self.attack) * np.exp(-6.9 / self.decay * t)
        held = max(1, int(min(note.length, sounding - self.release) * RATE))
        shape[held:] *= np.exp(-6.9 / self.release * t[: len(t) - held])
        fade = min(len(t), 96)
        shape[-fade:] *= np.linspace(1, 0, fade)
        return out * (shape * (note.velocity / 127) ** 1.5)[:, None].astype(np.float32)

    def play(self, notes: list[Note], length: float) -> Audio:
        c = np.random.default_rng([self.seed, 1])
        out = np.zeros((int(length * RATE), 2), np.float32)
        previous = float(notes[0].key) if notes else 60.0
        for note in notes:
            begin = int(note.start * RATE)
            if begin < len(out):
                sound = self.note(note, c, previous)[: len(out) - begin]
                out[begin : begin + len(sound)] += sound
                previous = float(note.key)
        return out
