"""Mixes on the fly: excerpts of songs, recombined, coloured and levelled anew for every batch.

A song is a folder of audio files. What is named drums*.* or bass*.* belongs to that stem, anything else to
the rest; `mixture.*` is passed over. Generated songs and recordings lie in the same layout, treated alike.
"""

from __future__ import annotations

from abc import ABC, abstractmethod
from dataclasses import dataclass, field
from math import gcd
from pathlib import Path

import numpy as np
import numpy.typing as npt
import soundfile
from material import effects, songs
from scipy.signal import resample_poly

RATE = 48000
Audio = npt.NDArray[np.float32]  # [samples, 2]
Chance = np.random.Generator
KINDS = {f".{name.lower()}" for name in soundfile.available_formats()} | {".aif", ".mp3"}


class Source:
    """One audio file of any rate and channel count, read in excerpts at 48 kHz stereo."""

    def __init__(self, path: Path) -> None:
        self.path = path
        info = soundfile.info(path)
        self.rate = int(info.samplerate)
        self.samples = int(info.frames * RATE / self.rate)
        self._level: float | None = None

    def read(self, begin: int, length: int, speed: float = 1.0) -> Audio:
        """Silence beyond the end. Played so much faster, which raises pitch and formants alike."""
        if speed == 1.0:
            return self.original(begin, length)
        return effects.change_speed(self.original(begin, int(np.ceil(length * speed))), speed)[:length]

    def original(self, begin: int, length: int) -> Audio:
        ratio = self.rate / RATE
        sound, _ = soundfile.read(
            self.path,
            frames=int(np.ceil(length * ratio)),
            start=int(max(0, begin) * ratio),
            dtype="float32",
            always_2d=True,
            fill_value=0.0,
        )
        sound = sound[:, [0, -1]]
        if self.rate != RATE:
            divisor = gcd(self.rate, RATE)
            sound = resample_poly(sound, RATE // divisor, self.rate // divisor, axis=0)
        return np.asarray(sound[:length], np.float32)

    @property
    def level(self) -> float:
        if self._level is None:
            self._level = songs.loudness(self.read(0, self.samples)) + 1e-6
        return self._level


@dataclass
class Song:
    name: str
    stems: dict[str, list[Source]] = field(default_factory=dict)  # by target, and "rest"

    @property
    def samples(self) -> int:
        return max(source.samples for sources in self.stems.values() for source in sources)


def find_songs(folder: Path, targets: tuple[str, ...]) -> list[Song]:
    """All folders with audio in them, in the order of their names."""
    found = []
    for path in sorted(path for path in folder.iterdir() if path.is_dir() and path.suffix != ".part"):
        song = Song(path.name)
        for file in sorted(path.iterdir()):
            if file.suffix.lower() in KINDS and not file.stem.lower().startswith("mixture"):
                target = next((name for name in targets if file.stem.lower().startswith(name)), "rest")
                song.stems.setdefault(target, []).append(Source(file))
        if song.stems:
            found.append(song)
    if not found:
        raise SystemExit(f"{folder}: no folders with audio files in it")
    return found


def random_speed(c: Chance, slowest: int, fastest: int) -> float:
    """In sixteenths; a ratio that resampling does quickly."""
    return int(c.integers(slowest, fastest + 1)) / 16


class Mixer(ABC):
    """Draws excerpts [stems, samples, channels], the rest last; they add up to the mix."""

    @abstractmethod
    def draw(self, c: Chance) -> Audio: ...

    def batch(self, seed: int, step: int, count: int) -> npt.NDArray[np.float32]:
        """[count, stems, channels, samples]; the same for the same seed and step."""
        items = [self.draw(np.random.default_rng([seed, step, item])) for item in range(count)]
        return np.stack(items).transpose(0, 1, 3, 2).copy()


class SongMixer(Mixer):
    """Songs as they were written, and bands whose players never met."""

    def __init__(
        self, collections: list[tuple[list[Song], float]], targets: tuple[str, ...], samples: int
    ) -> None:
        self.collections, self.targets, self.samples = collections, targets, samples
        shares = np.array([share for _, share in collections])
        self.shares = shares / shares.sum()

    def song(self, c: Chance, having: str | None = None) -> Song:
        for _ in range(50):
            choices = self.collections[c.choice(len(self.collections), p=self.shares)][0]
            song = choices[c.integers(len(choices))]
            if having is None or having in song.stems:
                return song
        raise SystemExit(f"no song has a stem {having}")

    def begin(self, song: Song, c: Chance) -> int:
        return int(c.integers(max(1, song.samples - self.samples)))

    def part(self, source: Source, begin: int, c: Chance, coherent: bool, speed: float = 1.0) -> Audio:
        """One file's excerpt with a level, a place and sometimes a width of its own."""
        if not coherent and c.random() < 0.4:
            speed = random_speed(c, 12, 18)
        sound = source.read(begin, self.samples, speed)
        sound = sound * np.float32(0.1 / source.level * 10 ** (c.uniform(-5, 5) / 20))
        if not coherent and c.random() < 0.5:
            sound = sound[:, ::-1]
        if c.random() < 0.3:
            sound = effects.place(effects.widen(sound, c.uniform(0, 1.2)), c.uniform(-0.8, 0.8))
        return sound

    def stem(self, name: str, song: Song, begin: int, c: Chance, coherent: bool) -> Audio:
        """At times drums or strings of another size: one instrument of the samples becomes many."""
        out = np.zeros((self.samples, 2), np.float32)
        speed = random_speed(c, 12, 18) if coherent and c.random() < 0.3 else 1.0
        for source in song.stems.get(name, []):
            out += self.part(source, begin, c, coherent, speed)
        return out

    def draw(self, c: Chance) -> Audio:
        names = (*self.targets, "rest")
        if c.random() < 0.6:  # a song as it was written
            song = self.song(c)
            begin = self.begin(song, c)
            stems = [self.stem(name, song, begin, c, True) for name in names]
        else:  # stems that never met
            stems = []
            for name in names:
                song = self.song(c, name)
                stems.append(self.stem(name, song, self.begin(song, c), c, False))
            if c.random() < 0.5:
                stems[-1] = self.band(c)
        for number in range(len(stems)):
            if c.random() < 0.5:
                stems[number] = -stems[number]
        return self.level(stems, c)

    def band(self, c: Chance) -> Audio:
        """A rest of parts from anywhere."""
        out = np.zeros((self.samples, 2), np.float32)
        for _ in range(c.integers(1, 5)):
            song = self.song(c, "rest")
            sources = song.stems["rest"]
            out += self.part(sources[c.integers(len(sources))], self.begin(song, c), c, False)
        return out

    def level(self, stems: list[Audio], c: Chance) -> Audio:
        """Balance, pauses, mastering, the level of the whole."""
        powers = [float(np.mean(stem**2)) for stem in stems]
        for number in range(len(stems) - 1):
            rest = sum(powers) - powers[number]
            if powers[number] > 1e-6 and rest > 1e-6:
                gain = 10 ** (c.uniform(-12, 6) / 20) * np.sqrt(rest / powers[number])
                stems[number] = stems[number] * np.float32(np.clip(gain, 0.1, 4.0))
        if c.random() < 0.12:
            stems[c.integers(len(stems))][:] = 0
        for stem in stems:
            if c.random() < 0.08:  # a pause within the excerpt
                edge = int(c.integers(self.samples))
                fade = np.clip((np.arange(self.samples) - edge) / 2400, 0, 1)[:, None].astype(np.float32)
                stem *= fade if c.random() < 0.5 else 1 - fade
        if c.random() < 0.2:
            stems = effects.master(stems, c)
        if c.random() < 0.08:
            stems = [effects.widen(stem, 0.0) for stem in stems]
        if c.random() < 0.5:
            stems = [stem[:, ::-1] for stem in stems]
        peak = float(np.abs(np.sum(stems, axis=0)).max()) + 1e-9
        return np.stack(stems) * np.float32(10 ** (c.uniform(-26, 0) / 20) / peak)


@dataclass
class Voices:
    """A folder of speech/SPEAKER/*.* and noise/KIND/*.*; files right below the two count as well."""

    speakers: list[list[Source]]
    noises: list[list[Source]]


def find_voices(folder: Path) -> Voices:
    def groups(root: Path) -> list[list[Source]]:
        files: dict[Path, list[Source]] = {}
        for path in sorted(root.rglob("*")):
            if path.suffix.lower() in KINDS:
                files.setdefault(path.parent, []).append(Source(path))
        if not files:
            raise SystemExit(f"{root}: no audio files")
        return list(files.values())

    return Voices(groups(folder / "speech"), groups(folder / "noise"))


class SpeechMixer(Mixer):
    """A voice with pauses in some room, and noise of one or two kinds. Mono."""

    def __init__(self, collections: list[tuple[Voices, float]], samples: int) -> None:
        self.collections, self.samples = collections, samples
        shares = np.array([share for _, share in collections])
        self.shares = shares / shares.sum()

    def voice(self, speaker: list[Source], c: Chance, speed: float = 1.0) -> Audio:
        samples = int(np.ceil(self.samples * speed))
        out = np.zeros((samples, 2), np.float32)
        begin = -int(c.integers(2 * RATE))
        while begin < samples:
            source = speaker[c.integers(len(speaker))]
            first = max(0, -begin)
            if first < source.samples:
                sound = source.read(first, source.samples - first)[: samples - max(begin, 0)]
                out[max(begin, 0) : max(begin, 0) + len(sound)] += (
                    sound / np.float32(source.level) * np.float32(0.1)
                )
            begin += source.samples + int(c.exponential(0.5) * RATE)
        return out if speed == 1.0 else effects.change_speed(out, speed)[: self.samples]

    def noise(self, kinds: list[list[Source]], c: Chance) -> Audio:
        kind = kinds[c.integers(len(kinds))]
        source = kind[c.integers(len(kind))]
        sound = source.read(int(c.integers(max(1, source.samples - self.samples))), self.samples)
        if len(sound) < self.samples:
            sound = np.resize(sound, (self.samples, 2))
        return sound * np.float32(0.1 / source.level)

    def draw(self, c: Chance) -> Audio:
        voices = self.collections[c.choice(len(self.collections), p=self.shares)][0]
        # From a throat a quarter longer to one a quarter shorter: voices are few, and listeners many.
        speed = random_speed(c, 13, 20) if c.random() < 0.6 else 1.0
        speech = self.voice(voices.speakers[c.integers(len(voices.speakers))], c, speed)
        noise = self.noise(voices.noises, c)
        if c.random() < 0.4:
            noise = noise + self.noise(voices.noises, c) * np.float32(10 ** (c.uniform(-10, 5) / 20))
        if c.random() < 0.3:
            speech = effects.reverberate(speech, c, c.choice([0.03, 0.06, 0.12]))
        return self.level(speech, noise, c)

    def level(self, speech: Audio, noise: Audio, c: Chance) -> Audio:
        noise = noise * np.float32(10 ** (-c.uniform(-6, 18) / 20))
        silent = c.random()
        if silent < 0.04:
            speech = np.zeros_like(speech)
        elif silent < 0.16:
            noise = np.zeros_like(noise)
        stems = np.stack([speech, noise])[:, :, :1] * np.float32(1.0 if c.random() < 0.5 else -1.0)
        return stems * np.float32(10 ** (c.uniform(-30, 0) / 20) / (np.abs(stems.sum(axis=0)).max() + 1e-9))


def fixed_speech(voices: Voices, samples: int) -> list[Audio]:
    """Speakers, kinds of noise and the levels of the tables in turn."""
    mixer = SpeechMixer([(voices, 1.0)], samples)
    excerpts = []
    for number in range(max(24, len(voices.noises))):
        c = np.random.default_rng([12, number])
        speech = mixer.voice(voices.speakers[number * 7 % len(voices.speakers)], c)[:, :1]
        noise = mixer.noise([voices.noises[number % len(voices.noises)]], c)[:, :1]
        balance = np.sqrt(np.mean(speech**2) / np.mean(noise**2)) * 10 ** (-(0, 5, 10)[number % 3] / 20)
        excerpts.append(np.stack([speech, noise * np.float32(balance)]))
    return excerpts


def fixed_excerpts(collection: list[Song], targets: tuple[str, ...], samples: int) -> list[Audio]:
    """One excerpt of each song, mixed as it would be released, always the same: to validate with."""
    excerpts = []
    for number, song in enumerate(collection):
        c = np.random.default_rng([11, number])
        begin = int(c.integers(max(1, song.samples - samples)))
        stems = {
            name: np.sum(
                [source.read(begin, samples) * np.float32(0.1 / source.level) for source in sources], axis=0
            )
            for name, sources in song.stems.items()
        }
        mixed = songs.mix_levels(stems, c, targets)
        silence = np.zeros((samples, 2), np.float32)
        excerpts.append(np.stack([mixed.get(name, silence) for name in (*targets, "rest")]))
    return excerpts
