"""What models are judged on: songs by stem, voices in noise, and sound of the wrong kind."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import numpy as np
from measures import RATE, Signal, band
from mixing import Song, SpeechMixer, Voices, find_songs, find_voices

SPEECH_SECONDS = 8
LEVELS = (0, 5, 10)  # of speech above the noise, in dB


@dataclass
class Case:
    name: str
    stems: dict[str, Signal]  # by target, and "rest"; they add up to the mix
    group: str  # means and intervals are over groups: songs, or voices
    kind: str = ""  # of noise
    level: int | None = None

    @property
    def mix(self) -> Signal:
        return np.asarray(np.sum(list(self.stems.values()), axis=0), np.float32)


def read_stems(song: Song, targets: tuple[str, ...]) -> dict[str, Signal]:
    stems = {}
    for name in (*targets, "rest"):
        stems[name] = np.zeros((song.samples, 2), np.float32)
        for source in song.stems.get(name, []):
            sound = source.read(0, song.samples)
            stems[name][: len(sound)] += sound
    return stems


def song_cases(folder: Path, targets: tuple[str, ...]) -> Iterator[Case]:
    for song in find_songs(folder, targets):
        yield Case(song.name, read_stems(song, targets), song.name)


def select(voices: Voices, kinds: list[str]) -> Voices:
    found = [noises for noises in voices.noises if not kinds or noises[0].path.parent.name in kinds]
    if not found:
        raise SystemExit(f"no noise of the kinds {', '.join(kinds)}")
    return Voices(voices.speakers, found)


def speech_cases(folder: Path, kinds: list[str]) -> Iterator[Case]:
    """Each voice, pauses included, in each kind of noise at each level. Mono."""
    voices = select(find_voices(folder), kinds)
    mixer = SpeechMixer([(voices, 1.0)], SPEECH_SECONDS * RATE)
    for number, speaker in enumerate(voices.speakers):
        for noises in voices.noises:
            kind, who = noises[0].path.parent.name, speaker[0].path.parent.name
            for level in LEVELS:
                c = np.random.default_rng([number, *kind.encode(), level])
                speech, noise = mixer.voice(speaker, c)[:, :1], mixer.noise([noises], c)[:, :1]
                balance = np.sqrt(np.mean(speech**2) / np.mean(noise**2)) * 10 ** (-level / 20)
                noise = noise * np.float32(balance)
                gain = np.float32(min(1.0, 0.9 / np.abs(speech + noise).max()))  # peers clip at 1
                yield Case(
                    f"{who} / {kind} / {level}",
                    {"speech": speech * gain, "rest": noise * gain},
                    who,
                    kind,
                    level,
                )


def wrong_kinds(folder: Path) -> Iterator[tuple[str, Signal]]:
    """One excerpt of each voice and of each kind of noise: nothing that a model of music looks for."""
    voices = find_voices(folder)
    mixer = SpeechMixer([(voices, 1.0)], SPEECH_SECONDS * RATE)
    for number, speaker in enumerate(voices.speakers):
        yield "speech", mixer.voice(speaker, np.random.default_rng([31, number]))
    for number, noises in enumerate(voices.noises):
        if noises[0].path.parent.name != "music":
            yield "noise", mixer.noise([noises], np.random.default_rng([32, number]))


TREBLE = (9000.0, 18000.0)


def treble_cases(folder: Path) -> Iterator[Case]:
    """Synthetic voices end below 12 kHz. These get a band of noise above where they hiss, as real ones have.

    The rest is white noise, 10 dB below the voice.
    """
    voices = find_voices(folder)
    mixer = SpeechMixer([(voices, 1.0)], SPEECH_SECONDS * RATE)
    for number, speaker in enumerate(voices.speakers):
        c = np.random.default_rng([33, number])
        speech = band(mixer.voice(speaker, c)[:, :1], 60, 7500)
        hisses = np.abs(band(speech, 4000, 7500))
        size = RATE // 100
        envelope = np.convolve(hisses[:, 0], np.hanning(2 * size) / size, "same").astype(np.float32)
        treble = band(c.standard_normal(speech.shape).astype(np.float32), *TREBLE)
        treble *= envelope[:, None] / np.float32(treble.std())
        noise = c.standard_normal(speech.shape).astype(np.float32)
        noise *= np.float32(np.sqrt(np.mean(speech**2)) * 10 ** (-10 / 20))
        yield Case(speaker[0].path.parent.name, {"speech": speech + treble, "rest": noise}, "treble")
