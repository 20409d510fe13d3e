"""Speech by the text-to-speech programs of Debian. A speaker belongs to one split, in whatever program."""

from __future__ import annotations

import random
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path

import numpy as np
import numpy.typing as npt
import soundfile

Mono = npt.NDArray[np.float32]


@dataclass(frozen=True)
class Voice:
    speaker: str  # one throat: a person's, or one setting of a synthesizer without a person behind it
    program: str  # espeak, festival or flite
    name: str  # the program's word for it
    woman: bool
    english: bool
    split: str
    faster: float = 1.0  # played so much faster, which shortens the throat and raises the voice
    vocoded: bool = False  # each sentence gets another throat and another pitch


PEOPLE = (
    ("kal", "festival", "kal_diphone"),
    ("kal", "flite", "kal16"),
    ("ked", "festival", "ked_diphone"),
    ("nsh", "festival", "msu_ru_nsh_clunits"),
)
VOICES = (
    # kal and slt are the same people in festival and in flite. To train on: recordings on permissive terms,
    # and a synthesizer that computes its voices. Those under the GPL and LGPL judge. No woman is among the
    # people to train on; shorter throats of the men, and what a vocoder makes of them, stand in for women.
    *(
        Voice(f"{name}{faster * 100:.0f}", program, voice, faster > 1.2, name != "nsh", "train", faster)
        for faster in (1.0, 1.125, 1.25, 1.375)
        for name, program, voice in PEOPLE
    ),
    *(
        Voice(f"{name}-{throats}", program, voice, False, name != "nsh", "train", vocoded=True)
        for throats in ("a", "b", "c", "d")
        for name, program, voice in PEOPLE
    ),
    Voice("pc", "festival", "pc_diphone", False, False, "test"),
    Voice("dita", "festival", "czech_dita", True, False, "test"),
    Voice("mv", "festival", "hy_fi_mv_diphone", False, False, "test"),
    Voice("ona", "festival", "upc_ca_ona_hts", True, False, "valid"),
    Voice("machac", "festival", "czech_machac", False, False, "valid"),
    Voice("slt", "festival", "cmu_us_slt_arctic_hts", True, True, "test"),
    Voice("slt", "flite", "slt", True, True, "test"),
    Voice("awb", "flite", "awb", False, True, "test"),
    Voice("rms", "flite", "rms", False, True, "test"),
    Voice("lp", "festival", "lp_diphone", True, False, "test"),
    Voice("lj", "festival", "suo_fi_lj_diphone", True, False, "test"),
    Voice("ph", "festival", "czech_ph", False, False, "valid"),
    *(
        Voice(
            f"espeak-{variant}",
            "espeak",
            f"{language}+{variant}",
            variant.startswith("f"),
            language.startswith("en"),
            "valid" if variant in ("f4", "m6") else "train",
        )
        for language in ("en-us", "en-gb", "de", "fr", "it", "pl", "sv", "es", "nl", "tr")
        for variant in ("f1", "f2", "f3", "f4", "f5", "m1", "m2", "m3", "m4", "m5", "m6", "m7")
    ),
)
SUBJECTS = (
    "the old captain",
    "my sister",
    "a young engineer",
    "nobody",
    "the whole village",
    "every third visitor",
    "a quiet neighbour",
    "the orchestra",
    "our teacher",
    "somebody from the harbour",
    "the judge",
    "she",
    "they",
)
VERBS = (
    "measures",
    "forgot",
    "was looking for",
    "will carry",
    "has never seen",
    "brought back",
    "sold",
    "hears",
    "chooses",
    "could hardly recognise",
    "shouts at",
    "painted",
    "is waiting for",
    "throws away",
    "fixed",
)
OBJECTS = (
    "seven green bottles",
    "the broken clock",
    "a pile of old newspapers",
    "fresh bread and cheese",
    "his keys",
    "the first snow",
    "a question without an answer",
    "three hundred sheep",
    "the last train to Oxford",
    "a very strange whistle",
    "their summer house",
    "the judge's umbrella",
    "charcoal",
    "an enormous fish",
)
ENDINGS = (
    "on Thursday",
    "behind the church",
    "with both hands",
    "before it was too late",
    "in spite of the weather",
    "as usual",
    "for sixteen pounds",
    "because of the noise",
    "near the bridge",
    "and went to sleep",
    "",
    "again",
)


# What a Russian voice is given to read.
CYRILLIC = str.maketrans("bdfghklmnprstvzaeiou", "бдфгхклмнпрствзаеиоу")


def sentence(chance: random.Random, english: bool) -> str:
    if english:
        return " ".join(
            filter(
                None,
                (
                    chance.choice(SUBJECTS),
                    chance.choice(VERBS),
                    chance.choice(OBJECTS),
                    chance.choice(ENDINGS),
                ),
            )
        ) + chance.choice(".?.!")
    syllables = [
        "".join(
            (
                chance.choice("bdfghklmnprstvz"),
                chance.choice("aeiou"),
                chance.choice(("", "", "n", "r", "s", "l")),
            )
        )
        for _ in range(chance.randint(8, 24))
    ]
    words, text = iter(syllables), ""
    for syllable in words:
        text += syllable + chance.choice(("", "", " "))
    return text.strip() + "."


def speak(voice: Voice, text: str, chance: random.Random) -> tuple[Mono, int]:
    """Samples and their rate, at a random pace and, where the program can, pitch."""
    with tempfile.TemporaryDirectory() as folder:
        out = Path(folder) / "speech.wav"
        pace = chance.uniform(0.8, 1.3) * voice.faster
        if voice.program == "espeak":
            command = [
                "espeak-ng",
                "-v",
                voice.name,
                "-s",
                f"{165 / pace:.0f}",
                "-p",
                str(chance.randint(20, 80)),
                "-w",
                out,
                text,
            ]
            subprocess.run(command, check=True, capture_output=True)
        elif voice.program == "flite":
            command = [
                "flite",
                "-voice",
                voice.name,
                "--setf",
                f"duration_stretch={pace:.2f}",
                "-t",
                text,
                "-o",
                out,
            ]
            subprocess.run(command, check=True, capture_output=True)
        else:
            subprocess.run(
                [
                    "text2wave",
                    "-eval",
                    f"(voice_{voice.name})",
                    "-eval",
                    f"(Parameter.set 'Duration_Stretch {pace:.2f})",
                    "-o",
                    out,
                ],
                input=text,
                text=True,
                check=True,
                capture_output=True,
            )
        sound, rate = soundfile.read(out, dtype="float32", always_2d=True)
    return sound[:, 0], int(rate * voice.faster)


def with_another_throat(sound: Mono, rate: int, chance: random.Random) -> Mono:
    """The same words by somebody else: pitch, liveliness and formants by chance, through the WORLD vocoder.

    At times the envelope keeps a few dozen coefficients only, as in voices that are modelled statistically.
    """
    import pyworld

    samples = sound.astype(np.float64)
    coarse, times = pyworld.dio(samples, rate)
    pitch = pyworld.stonemask(samples, coarse, times, rate)
    envelope = pyworld.cheaptrick(samples, pitch, times, rate)
    noisiness = pyworld.d4c(samples, pitch, times, rate)
    if chance.random() < 0.4:
        count = chance.randint(24, 60)
        coded = pyworld.code_spectral_envelope(envelope, rate, count)
        envelope = pyworld.decode_spectral_envelope(coded, rate, 2 * (envelope.shape[1] - 1))
    higher = 2 ** chance.uniform(-0.5, 1.2)
    shorter = chance.uniform(0.85, 1.0) if higher < 1 else chance.uniform(0.95, 1.3)
    bins = np.arange(envelope.shape[1])
    for frames in (envelope, noisiness):
        frames[:] = [np.interp(bins / shorter, bins, frame) for frame in frames]
    voiced = pitch > 0
    if voiced.any():
        middle = np.exp(np.log(pitch[voiced]).mean())
        pitch[voiced] = middle * higher * (pitch[voiced] / middle) ** chance.uniform(0.3, 1.8)
    return np.asarray(pyworld.synthesize(pitch, envelope, noisiness, rate), np.float32)


def voices(split: str) -> dict[str, list[Voice]]:
    """By speaker."""
    found: dict[str, list[Voice]] = {}
    for voice in VOICES:
        if voice.split == split:
            found.setdefault(voice.speaker, []).append(voice)
    return found


def write_speech(folder: Path, split: str, files: int, seed: int) -> None:
    """FOLDER/SPEAKER/NUMBER.wav, two sentences each."""
    for speaker, choices in voices(split).items():
        target = folder / speaker
        target.mkdir(parents=True, exist_ok=True)
        for number in range(files):
            path = target / f"{number:04d}.wav"
            if path.exists():
                continue
            chance = random.Random(f"{seed} {speaker} {number}")
            voice = chance.choice(choices)
            text = " ".join(sentence(chance, voice.english) for _ in range(2))
            if voice.name == "msu_ru_nsh_clunits":
                text = text.translate(CYRILLIC)
            sound, rate = speak(voice, text, chance)
            if voice.vocoded:
                sound = with_another_throat(sound, rate, chance)
            if len(sound) > rate:
                soundfile.write(path, sound * (0.9 / (np.abs(sound).max() + 1e-9)), rate, subtype="PCM_16")
