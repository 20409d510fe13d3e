"""Turns a song's notes into stems: who plays which part, and with what effects.

Instruments come in three sets that share nothing: those to train on, those to validate with, and those to
test with, which no training ever hears.
"""

from __future__ import annotations

from functools import lru_cache
from pathlib import Path

import numpy as np
import soundfile

from material import hydrogen
from material.drumkits import Kit
from material.effects import color_part, master
from material.patches import Audio, Patch
from material.scores import Note, Part, compose
from material.soundfont import DRUM_BANK, SoundFont

RATE = 48000
FONTS = {
    # The MIT licence lets the weights that learned from them be given away.
    "train": ("/usr/share/sounds/sf2/FluidR3_GM.sf2", "/usr/share/sounds/sf3/MuseScore_General_Full.sf3"),
    # GPL and CC licences: for testing only.
    "test": ("/usr/share/sounds/sf2/TimGM6mb.sf2", "/usr/share/sounds/sf2/OPL-3_FM_128M.sf2"),
}
FONTS["valid"] = FONTS["train"]
# General MIDI programs from 0 that suit a role. Those that drum (timpani, taiko, synth drum...) are left out.
PROGRAMS = {
    "bass": (32, 33, 34, 35, 36, 37, 38, 39, 33, 34, 38, 39, 43, 58),
    "chords": (*range(0, 8), *range(16, 32), 46, 48, 61, 62),
    "pad": (16, 18, 19, *range(48, 55), *range(88, 96)),
    "lead": (11, 22, 40, 41, 42, 56, 57, 59, 60, *range(64, 88), 26, 29, 30, 0, 4, 105, 110),
    "arpeggio": (0, 1, 4, 5, 6, *range(8, 15), 24, 25, 26, 27, 45, 46, 80, 81, 87, 98, 104, 106, 107, 108),
    "riff": (24, 25, 26, 27, 28, 29, 30, 7, 61, 62, 63, 80, 81, 84, 87, 36),
    "voice": (52, 53, 54, 85, 91),
}
ANY = tuple(program for program in range(112) if program != 47)
KITS = (0, 1, 2, 3, 4, 5, 8, 9, 10, 11, 12, 13, 14, 15, 16, 24, 25, 26, 32, 33, 34, 40, 41, 42)
VALID_KITS = (5, 12, 16, 24, 32, 40)


@lru_cache(maxsize=4)
def font(path: str) -> SoundFont:
    return SoundFont(path)


def allowed(program: int, split: str) -> bool:
    """A seventh of the programs is kept for validation."""
    return split == "test" or (program % 7 == 3) == (split == "valid")


def own_seed(c: np.random.Generator, split: str) -> int:
    """Seeds of our own instruments: the splits never meet."""
    return 3 * int(c.integers(1 << 28)) + ("train", "valid", "test").index(split)


def play_drums(parts: list[Part], seconds: float, split: str, c: np.random.Generator) -> Audio:
    """Kit and percussion through the same maker, the percussion a little softer or louder."""
    share = c.random()
    if split == "test":  # sampled kits and fonts only; our own drums would not be unheard
        kit = c.choice(len(hydrogen.KITS) + 8)
        if kit < len(hydrogen.KITS):
            player = hydrogen.kit(hydrogen.KITS[kit]).play
        else:
            path = FONTS["test"][int(c.random() < 0.25)]
            program = int(c.choice(font(path).drum_kits()[:7]))

            def player(notes: list[Note], length: float) -> Audio:
                return font(path).play(notes, DRUM_BANK, program, length)
    elif share < 0.5:
        path = FONTS[split][c.integers(2)]
        kits = [
            kit for kit in font(path).drum_kits() if kit in KITS and (kit in VALID_KITS) == (split == "valid")
        ]
        program = int(c.choice(kits))

        def player(notes: list[Note], length: float) -> Audio:
            return font(path).play(notes, DRUM_BANK, program, length)
    else:
        player = Kit(own_seed(c, split)).play
    out = np.zeros((int(seconds * RATE), 2), np.float32)
    for part in parts:
        out += player(part.notes, seconds) * np.float32(
            1.0 if part.role == "drums" else 10 ** (c.uniform(-8, 4) / 20)
        )
    return color_drums(out, c)


def color_drums(sound: Audio, c: np.random.Generator) -> Audio:
    return color_part(sound, c, "drums")


def play_instrument(part: Part, seconds: float, split: str, c: np.random.Generator) -> Audio:
    if split != "test" and c.random() < (0.7 if part.role == "voice" else 0.4):
        sound = Patch(own_seed(c, split), part.role).play(part.notes, seconds)
    else:
        path = FONTS[split][c.integers(2)]
        choices = [
            p
            for p in (PROGRAMS[part.role] if c.random() < 0.8 or part.role == "bass" else ANY)
            if allowed(p, split) and font(path).has(0, p)
        ] or [p for p in ANY if allowed(p, split)]
        sound = font(path).play(part.notes, 0, int(c.choice(choices)), seconds)
    return color_part(sound, c, part.role)


def render(seed: int, seconds: float, split: str, style: str | None = None) -> dict[str, Audio]:
    """The stems of a song by name: drums, bass, other-1-pad and so on, each at a loudness of -20 dB or so."""
    c = np.random.default_rng([seed, 7])
    song = compose(seed, seconds, style)
    stems: dict[str, Audio] = {}
    drums = [part for part in song.parts if part.role in ("drums", "percussion")]
    others = [part for part in song.parts if part not in drums]
    if drums:
        stems["drums"] = play_drums(drums, seconds, split, c)
    for number, part in enumerate(others):
        stems["bass" if part.role == "bass" else f"other-{number}-{part.role}"] = play_instrument(
            part, seconds, split, c
        )
    return {
        name: sound * np.float32(0.1 / loudness(sound))
        for name, sound in stems.items()
        if loudness(sound) > 1e-5
    }


def loudness(sound: Audio) -> float:
    """Root mean square of the louder half of the sound, in stretches of 0.1 s: pauses do not count."""
    blocks = np.square(sound[: len(sound) // 4800 * 4800]).reshape(-1, 4800 * 2).mean(axis=1)
    return float(np.sqrt(np.sort(blocks)[len(blocks) // 2 :].mean() + 1e-20))


def mix_levels(stems: dict[str, Audio], c: np.random.Generator, targets: tuple[str, ...]) -> dict[str, Audio]:
    """Levels as in real mixes: targets at +3 to -10 dB against the rest, one in three songs mastered."""
    names = list(stems)
    gains = {name: 10 ** (c.uniform(-6, 6) / 20) for name in names}
    sounds = {name: stems[name] * np.float32(gains[name]) for name in names}
    for target in targets:
        if target in sounds and len(sounds) > 1:
            rest = np.sum([sounds[name] for name in names if name != target], axis=0)
            wanted = 10 ** (c.uniform(-10, 3) / 20)
            sounds[target] = sounds[target] * np.float32(
                wanted * np.sqrt(np.mean(rest**2) / (np.mean(sounds[target] ** 2) + 1e-12))
            )
    if c.random() < 1 / 3:
        sounds = dict(zip(names, master([sounds[name] for name in names], c)))
    return sounds


def write_song(folder: Path, stems: dict[str, Audio]) -> None:
    folder.mkdir(parents=True, exist_ok=True)
    peak = max(float(np.abs(sound).max()) for sound in stems.values())
    for name, sound in stems.items():
        soundfile.write(
            folder / f"{name}.wav", sound * np.float32(min(1.0, 0.98 / peak)), RATE, subtype="PCM_16"
        )
