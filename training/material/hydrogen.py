"""Plays the sampled drum kits of Debian's hydrogen-drumkits, for testing: they are under the GPL and CC."""

from __future__ import annotations

import xml.etree.ElementTree as xml
from functools import lru_cache
from math import gcd
from pathlib import Path

import numpy as np
import numpy.typing as npt
import soundfile
from scipy.signal import resample_poly

from material import scores
from material.scores import Note

RATE = 48000
Audio = npt.NDArray[np.float32]  # [samples, 2]
FOLDER = Path("/usr/share/hydrogen/data/drumkits")
KITS = (
    "Audiophob",
    "BJA_Pacific",
    "ColomboAcousticDrumkit",
    "ElectricEmpireKit",
    "ForzeeStereo",
    "HardElectro1",
    "Millo-Drums_v.1",
    "Millo_MultiLayered2",
    "The Black Pearl 1.0",
    "VariBreaks",
    "circAfrique v4",
    "rumpf_kit_z01_h2",
)
s = scores
# Words in the names of a kit's instruments, by what General MIDI plays with them; the first that fits counts.
WORDS: tuple[tuple[tuple[int, ...], tuple[str, ...]], ...] = (
    ((s.KICK, s.KICK2), ("kick", "bass", "bd", "drum")),
    ((s.STICK,), ("stick", "rim", "side", "snare", "sn")),
    ((s.SNARE, s.SNARE2), ("snare", "sn", "clap")),
    ((s.CLAP,), ("clap", "snare", "sn")),
    ((s.CLOSED_HAT, s.PEDAL_HAT), ("closed", "hh c", "hat", "hh")),
    ((s.OPEN_HAT,), ("open", "hat", "hh")),
    ((s.CRASH, s.CRASH2, s.CHINA, s.SPLASH), ("crash", "splash", "china", "cym", "open")),
    ((s.RIDE, s.RIDE_BELL), ("ride", "cym", "hat", "hh")),
    (s.TOMS, ("tom", "conga", "djembe", "kick")),
    (
        (s.HIGH_BONGO, s.LOW_BONGO, s.MUTE_CONGA, s.HIGH_CONGA, s.LOW_CONGA, s.HIGH_TIMBALE, s.LOW_TIMBALE),
        ("conga", "bongo", "djembe", "djun", "tom", "perc", "stick"),
    ),
    ((s.COWBELL,), ("bell", "cow", "stick", "rim")),
    (
        (s.TAMBOURINE, s.CABASA, s.MARACAS, s.SHAKER, s.SHAKER_GUIRO),
        ("shak", "tamb", "marac", "cabas", "closed", "hat"),
    ),
)


class SampledKit:
    def __init__(self, name: str) -> None:
        folder = FOLDER / name
        root = xml.parse(folder / "drumkit.xml").getroot()
        for element in root.iter():
            element.tag = element.tag.split("}")[-1]
        self.folder = folder
        self.instruments: list[tuple[str, list[str]]] = []
        for instrument in root.iter("instrument"):
            files = [
                file.text
                for file in instrument.iter("filename")
                if file.text and (folder / file.text).exists()
            ]
            if files:
                self.instruments.append(((instrument.findtext("name") or "").lower(), files))

    @lru_cache(maxsize=256)  # noqa: B019 (kits live as long as the program)
    def sample(self, file: str) -> Audio:
        sound, rate = soundfile.read(self.folder / file, dtype="float32", always_2d=True)
        sound = sound[:, [0, -1]]
        if rate != RATE:
            divisor = gcd(rate, RATE)
            sound = resample_poly(sound, RATE // divisor, rate // divisor, axis=0)
        return np.asarray(sound[: 4 * RATE], np.float32)

    def files(self, key: int) -> list[str]:
        words = next(
            (words for keys, words in WORDS if key in keys),
            ("perc", "stick", "rim", "block", "bell", "closed"),
        )
        for word in words:
            fitting = [files for name, files in self.instruments if word in name]
            if fitting:
                return fitting[key % len(fitting)]
        return []

    def play(self, notes: list[Note], length: float) -> Audio:
        out = np.zeros((int(length * RATE), 2), np.float32)
        for note in notes:
            files = self.files(note.key)
            begin = int(note.start * RATE)
            if not files or begin >= len(out):
                continue
            # Layers stand from loud to soft or the other way round; either is a fair player.
            sound = self.sample(files[min(len(files) - 1, note.velocity * len(files) // 128)])[
                : len(out) - begin
            ]
            out[begin : begin + len(sound)] += sound * np.float32((note.velocity / 127) ** 1.5)
        return out


@lru_cache(maxsize=4)
def kit(name: str) -> SampledKit:
    return SampledKit(name)
