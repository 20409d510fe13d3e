"""Songs as lists of notes, from a seed: tempo, swing, chords, bass lines, melodies, grooves, fills."""

from __future__ import annotations

import random
from dataclasses import dataclass, field

# Keys of the General MIDI percussion map.
KICK, KICK2, STICK, SNARE, CLAP, SNARE2 = 36, 35, 37, 38, 39, 40
TOMS = (41, 43, 45, 47, 48, 50)
CLOSED_HAT, PEDAL_HAT, OPEN_HAT, CRASH, RIDE, CHINA, RIDE_BELL, SPLASH, CRASH2 = (
    42,
    44,
    46,
    49,
    51,
    52,
    53,
    55,
    57,
)
TAMBOURINE, COWBELL, HIGH_BONGO, LOW_BONGO, MUTE_CONGA, HIGH_CONGA, LOW_CONGA = 54, 56, 60, 61, 62, 63, 64
(
    HIGH_TIMBALE,
    LOW_TIMBALE,
    CABASA,
    MARACAS,
    SHAKER_GUIRO,
    CLAVES,
    WOOD_HIGH,
    WOOD_LOW,
    TRIANGLE_MUTE,
    TRIANGLE,
) = (65, 66, 69, 70, 73, 75, 76, 77, 80, 81)
SHAKER = 82


@dataclass(frozen=True, order=True)
class Note:
    start: float  # seconds
    length: float  # seconds
    key: int  # MIDI, 60 is the middle C
    velocity: int  # 1 to 127


@dataclass
class Part:
    role: str  # drums, percussion, bass, or any other instrument's: chords, pad, lead, arpeggio, riff, voice
    notes: list[Note] = field(default_factory=list)


@dataclass
class Song:
    seed: int
    style: str
    tempo: float  # quarter notes per minute
    seconds: float
    parts: list[Part] = field(default_factory=list)


# A groove: for each voice sixteen letters per bar (twelve in waltzes and shuffles): x a hit, X an accent,
# o a ghost, ? a hit by chance.
GROOVES: dict[str, list[dict[int, str]]] = {
    "rock": [
        {KICK: "X.......X.x.....", SNARE: "....X.......X...", CLOSED_HAT: "x.x.x.x.x.x.x.x."},
        {KICK: "X.....x.X.......", SNARE: "....X..o....X..?", CLOSED_HAT: "X.x.X.x.X.x.X.x."},
        {KICK: "X..x....X.x..?..", SNARE: "....X.......X...", RIDE: "x.x.x.x.x.x.x.x."},
        {KICK: "X.x...x.X.x...x.", SNARE: "....X.......X...", OPEN_HAT: "x...x...x...x..."},
        {KICK: "X.......X.......", SNARE: "....X.......X...", TOMS[0]: "x.x.x.x.x.x.x.x."},
    ],
    "pop": [
        {
            KICK: "X.....x.X.....?.",
            SNARE: "....X.......X...",
            CLOSED_HAT: "x.x.x.x.x.x.x.x.",
            TAMBOURINE: "....x.......x...",
        },
        {
            KICK: "X..x..x...x.....",
            CLAP: "....X.......X...",
            CLOSED_HAT: "x.xxx.x.x.xxx.x.",
            SHAKER: "xxxxxxxxxxxxxxxx",
        },
        {KICK: "X...X...X...X...", SNARE: "....X.......X...", OPEN_HAT: "..x...x...x...x."},
    ],
    "funk": [
        {KICK: "X..x......x..x..", SNARE: "....X..o.o..X..o", CLOSED_HAT: "xxxxxxxxxxxxxxxx"},
        {
            KICK: "X.x.......xx....",
            SNARE: "....X..o.o.oX.o.",
            CLOSED_HAT: "x.xxx.x.x.xxx.x.",
            COWBELL: "x...x...x...x...",
        },
        {
            KICK: "X..X..X...x.....",
            SNARE: "....X..?....X..?",
            CLOSED_HAT: "xxxxxx.xxxxxxx.x",
            OPEN_HAT: "......x.......x.",
        },
    ],
    "dance": [
        {
            KICK: "X...X...X...X...",
            CLAP: "....X.......X...",
            OPEN_HAT: "..x...x...x...x.",
            CLOSED_HAT: "xx.xxx.xxx.xxx.x",
        },
        {
            KICK: "X...X...X...X..?",
            SNARE: "....x.......x...",
            CLOSED_HAT: "xxxxxxxxxxxxxxxx",
            SHAKER: "..x...x...x...x.",
        },
        {
            KICK: "X...X...X...X...",
            CLAP: "....X.......X..?",
            RIDE: "..x...x...x...x.",
            LOW_CONGA: "?..x..?...x..?..",
        },
    ],
    "hiphop": [
        {KICK: "X.....x...x.....", SNARE: "....X.......X...", CLOSED_HAT: "x.x.x.xxx.x.x.xx"},
        {
            KICK: "X..x...x..x.....",
            CLAP: "....X.......X...",
            CLOSED_HAT: "x?x?x?x?xxx?x?xx",
            STICK: "......?......?..",
        },
        {
            KICK: "X......xX.......",
            SNARE: "........X.......",
            CLOSED_HAT: "xxx.xxxxxxx.xxxx",
            OPEN_HAT: "..............x.",
        },
    ],
    "breaks": [
        {KICK: "X.x.......xx....", SNARE: "....X..x.x..X..x", CLOSED_HAT: "x.x.x.x.x.x.x.x."},
        {
            KICK: "X.........x.....",
            SNARE: "....X.......X...",
            CLOSED_HAT: "xxx.xxxxxxx.xxxx",
            RIDE: "x...x...x...x...",
        },
    ],
    "jazz": [
        {
            RIDE: "X...X..xX...X..x",
            PEDAL_HAT: "....x.......x...",
            SNARE: "o..?...o..?...?o",
            KICK: "o...o...o...o...",
        },
        {
            RIDE: "X...X..xX...X..x",
            PEDAL_HAT: "....x.......x...",
            STICK: "............x...",
            KICK: "x.....?.....?...",
        },
    ],
    "latin": [
        {
            SHAKER: "xxXxxxXxxxXxxxXx",
            MUTE_CONGA: "x.x...x.x.x...x.",
            HIGH_CONGA: "....X.......X...",
            LOW_CONGA: "......xx......xx",
        },
        {
            CLAVES: "x..x..x...x.x...",
            HIGH_BONGO: "x.xxx.x.x.xxx.x.",
            LOW_BONGO: "......x.......x.",
            KICK: "x.....x.x.....x.",
        },
        {
            COWBELL: "x...x.x.x...x.x.",
            HIGH_TIMBALE: "..x..x....x..x..",
            LOW_CONGA: "......xx......xx",
            MUTE_CONGA: "x.x.x...x.x.x...",
            CABASA: "x.x.x.x.x.x.x.x.",
        },
        {
            KICK: "X.....x.X.....x.",
            STICK: "x..x..x...x..x..",
            CLOSED_HAT: "x.x.x.x.x.x.x.x.",
            SHAKER: "xxxxxxxxxxxxxxxx",
        },
        {
            MARACAS: "x.x.x.x.x.x.x.x.",
            HIGH_CONGA: "x..x..x.x..x..x.",
            LOW_CONGA: "..x...xx..x...x.",
            WOOD_HIGH: "x...x...x...x...",
        },
    ],
    "reggae": [
        {KICK: "........X.......", STICK: "........X.......", CLOSED_HAT: "x.x.x.x.x.x.x.x."},
        {
            KICK: "X...x...X...x...",
            STICK: "........X.....?.",
            CLOSED_HAT: "x.xxx.x.x.xxx.x.",
            COWBELL: "..........?.....",
        },
    ],
    "metal": [
        {
            KICK2: "xxxxxxxxxxxxxxxx",
            SNARE: "....X.......X...",
            CRASH: "x.......x.......",
            RIDE: "..x...x...x...x.",
        },
        {KICK2: "x.xxx.xxx.xxx.xx", SNARE: "....X.......X...", CHINA: "x...x...x...x..."},
        {KICK2: "x.x.x.x.x.x.x.x.", SNARE: ".x.x.x.x.x.x.x.x", CLOSED_HAT: "x.x.x.x.x.x.x.x."},
    ],
    "march": [
        {
            KICK: "X.......X.......",
            SNARE: "X...x...X.x.xxxx",
            TAMBOURINE: "....x.......x...",
            CRASH2: "x...............",
        },
        {KICK: "X...x...X...x...", SNARE: "x.xxx.xxx.xxxxxx", TRIANGLE: "....x.......x..."},
    ],
    "ballad": [
        {KICK: "X.........x.....", SNARE: "....X.......X...", CLOSED_HAT: "x.x.x.x.x.x.x.x."},
        {
            KICK: "X.......x.......",
            STICK: "....x.......x...",
            RIDE: "x...x...x...x...",
            SHAKER: "..x...x...x...x.",
        },
        {KICK: "x...............", SNARE: "........X.......", CLOSED_HAT: "x...x...x...x..."},
    ],
    "electro": [
        {
            KICK: "X..x..x...x.....",
            SNARE2: "....X.......X...",
            CLOSED_HAT: "x.xxx.xxx.xxx.xx",
            COWBELL: "?..x..?....x..?.",
        },
        {
            KICK: "X.....X...X..x..",
            CLAP: "....X.......X...",
            CLOSED_HAT: "xxxxxxxxxxxxxxxx",
            HIGH_CONGA: "...x..x....x....",
        },
    ],
    "waltz": [
        {KICK: "X...........", SNARE: "....x...x...", CLOSED_HAT: "x...x...x..."},
        {KICK: "X.........?.", PEDAL_HAT: "....x...x...", RIDE: "X...x..xx..x", SNARE: "....?..o...o"},
    ],
    "shuffle": [
        {KICK: "X.....x..?..", SNARE: "...X.....X..", CLOSED_HAT: "x.xx.xx.xx.x"},
        {KICK: "X..x..X..x..", SNARE: "..oX.o..oX.o", RIDE: "x.xx.xx.xx.x"},
    ],
}
TEMPOS = {
    "rock": (95, 170),
    "pop": (85, 135),
    "funk": (85, 120),
    "dance": (115, 140),
    "hiphop": (65, 105),
    "breaks": (130, 178),
    "jazz": (90, 220),
    "latin": (80, 130),
    "reggae": (65, 90),
    "metal": (110, 190),
    "march": (85, 125),
    "ballad": (55, 85),
    "electro": (100, 132),
    "waltz": (80, 170),
    "shuffle": (80, 150),
}
STYLES = tuple(GROOVES)
SCALES = {
    "major": (0, 2, 4, 5, 7, 9, 11),
    "minor": (0, 2, 3, 5, 7, 8, 10),
    "dorian": (0, 2, 3, 5, 7, 9, 10),
    "mixolydian": (0, 2, 4, 5, 7, 9, 10),
    "harmonic": (0, 2, 3, 5, 7, 8, 11),
}
PROGRESSIONS = (
    (0, 3, 4, 0),
    (0, 5, 3, 4),
    (0, 4, 5, 3),
    (5, 3, 0, 4),
    (1, 4, 0, 0),
    (0, 0, 3, 4),
    (0, 6, 5, 4),
    (0, 2, 3, 4),
    (0, 0, 0, 0),
    (0, 3, 0, 4),
    (3, 4, 2, 5),
    (0, 5, 1, 4),
    (0, 0, 5, 5),
)
RHYTHMS = (
    "x...............",
    "x.......x.......",
    "x...x...x...x...",
    "x..x..x...x.x...",
    "x.....x.....x...",
    "..x...x...x...x.",
    "x.x.x.x.x.x.x.x.",
    "x..x..x.x..x..x.",
    "....x.......x...",
    "x..x....x..x....",
    "xxx.xxx.xxx.xxx.",
    "x.xx..x.x.xx..x.",
)
# Hand drums and rattles laid over a kit.
PERCUSSION = (
    {TAMBOURINE: "x.x.x.x.x.x.x.x."},
    {SHAKER: "xxXxxxXxxxXxxxXx"},
    {CABASA: "x.xxx.xxx.xxx.xx"},
    {HIGH_CONGA: "....x..x....x.x.", LOW_CONGA: "..x...x...x...xx"},
    {HIGH_BONGO: "x.xxx.x.x.xxx.x.", LOW_BONGO: "......x.......x."},
    {COWBELL: "x...x...x...x..."},
    {TRIANGLE_MUTE: "x.x.x.x.x.x.x.x.", TRIANGLE: "...x.......x...."},
    {CLAVES: "x..x..x...x.x..."},
    {WOOD_HIGH: "x.....x...x.....", WOOD_LOW: "...x.........x.."},
    {SHAKER_GUIRO: "x...x.x.x...x.x."},
    {HIGH_TIMBALE: "x.xx.xx.x.xx.x.x", LOW_TIMBALE: "...?..x.......?."},
)


class Composer:
    """Writes one song. All chance comes from the seed."""

    def __init__(self, seed: int, seconds: float, style: str | None = None) -> None:
        self.chance = random.Random(f"song {seed}")
        r = self.chance
        self.style = style or r.choice(STYLES)
        self.steps = 12 if self.style in ("waltz", "shuffle") else 16
        self.tempo = r.uniform(*TEMPOS[self.style])
        beats_per_bar = 3 if self.style == "waltz" else 4
        self.step = 60 / self.tempo * beats_per_bar / self.steps  # seconds
        self.seconds = seconds
        self.bars = int(seconds / (self.step * self.steps)) + 1
        swing = {"jazz": r.uniform(0.2, 0.33), "hiphop": r.uniform(0, 0.25)}
        self.swing = swing.get(self.style, r.choice((0, 0, 0, r.uniform(0, 0.2))))
        self.sloppiness = r.choice((0.0, 0.003, 0.006, 0.01))  # seconds
        self.root = r.randrange(12)
        self.scale = SCALES[r.choice(tuple(SCALES))]
        self.progression = list(r.choice(PROGRESSIONS))
        self.bars_per_chord = r.choice((1, 1, 2))
        self.sevenths = r.random() < (0.9 if self.style == "jazz" else 0.25)
        self.offset = r.uniform(0, 1) * self.step * self.steps  # the excerpt begins anywhere in a bar

    def compose(self) -> Song:
        r = self.chance
        song = Song(0, self.style, self.tempo, self.seconds)
        roles = ["drums", "bass"]
        if r.random() < (0.2 if self.style in ("latin", "march") else 0.35):
            roles.append("percussion")
        roles += r.choice(
            (
                ["chords"],
                ["chords", "lead"],
                ["pad", "lead"],
                ["chords", "pad", "lead"],
                ["riff", "lead"],
                ["arpeggio", "pad"],
                ["chords", "arpeggio", "lead"],
                ["riff", "chords"],
                ["chords", "voice"],
                ["pad", "arpeggio", "voice"],
                ["riff", "chords", "pad", "lead"],
            )
        )
        for role in roles:
            part = Part(role, sorted(getattr(self, role)()))
            if part.notes:
                song.parts.append(part)
        return song

    # ---- time ----

    def at(self, bar: int, step: float) -> float:
        late = (
            self.swing * self.step * 2
            if self.steps == 16 and step % 4 == 2 and self.style != "hiphop"
            else 0.0
        )
        if self.style == "hiphop" and step % 2 == 1:
            late = self.swing * self.step * 2
        time = (bar * self.steps + step) * self.step + late + self.chance.gauss(0, self.sloppiness)
        return max(0.0, time - self.offset)

    def force(self, velocity: float, spread: float = 6) -> int:
        return max(1, min(127, round(velocity + self.chance.gauss(0, spread))))

    def pauses(self, probability: float) -> list[bool]:
        """For each bar whether the part plays: now and then it rests for some bars."""
        plays, bar = [True] * (self.bars + 1), 0
        while bar <= self.bars:
            if self.chance.random() < probability:
                rest = self.chance.choice((1, 1, 2, 4))
                plays[bar : bar + rest] = [False] * len(plays[bar : bar + rest])
                bar += rest
            bar += self.chance.choice((1, 2, 4))
        return plays

    # ---- drums ----

    def drums(self) -> list[Note]:
        r = self.chance
        groove = dict(r.choice(GROOVES[self.style]))
        if r.random() < 0.15 and self.steps == 16:  # the feet of one style, the hands of another
            groove |= {
                voice: pattern
                for voice, pattern in r.choice(GROOVES[r.choice(STYLES[:-2])]).items()
                if len(pattern) == 16 and voice not in (KICK, KICK2)
            }
        return self.beat(groove, r.choice((0.0, 0.06, 0.15)), fills=self.style != "latin" or r.random() < 0.4)

    def percussion(self) -> list[Note]:
        return self.beat(dict(self.chance.choice(PERCUSSION)), 0.2, fills=False)

    def beat(self, groove: dict[int, str], rests: float, fills: bool) -> list[Note]:
        r = self.chance
        notes: list[Note] = []
        plays = self.pauses(rests)
        loudness = r.uniform(0.75, 1.05)
        mutation = r.uniform(0, 0.08)
        phrase = r.choice((2, 4, 4, 8))
        for bar in range(self.bars + 1):
            if not plays[bar]:
                continue
            fill_from = self.steps
            if fills and bar % phrase == phrase - 1 and r.random() < 0.7:
                fill_from = r.choice((self.steps // 4 * 3, self.steps // 2, self.steps // 4 * 3, 0))
            for voice, pattern in groove.items():
                for step in range(min(self.steps, fill_from)):
                    letter = pattern[step % len(pattern)]
                    if letter == "." and r.random() < mutation * 0.5:
                        letter = "o"
                    elif letter != "." and r.random() < mutation:
                        letter = "."
                    if letter == "." or (letter == "?" and r.random() < 0.5):
                        continue
                    velocity = {"X": 112, "x": 92, "o": 48, "?": 80}[letter] * loudness
                    notes.append(Note(self.at(bar, step), 0.2, voice, self.force(velocity)))
            if fill_from < self.steps:
                notes += self.fill(bar, fill_from, loudness)
            if fills and bar % phrase == 0 and r.random() < 0.5:
                notes.append(
                    Note(
                        self.at(bar, 0),
                        1.5,
                        r.choice((CRASH, CRASH2, SPLASH, CHINA)),
                        self.force(100 * loudness),
                    )
                )
        return notes

    def fill(self, bar: int, begin: int, loudness: float) -> list[Note]:
        r = self.chance
        voices = r.choice(
            (
                (SNARE,),
                tuple(reversed(TOMS)),
                (SNARE, TOMS[4], TOMS[1]),
                (KICK, SNARE),
                (HIGH_CONGA, LOW_CONGA),
            )
        )
        grid = r.choice((1, 1, 2, 0.5))
        notes, step = [], float(begin)
        while step < self.steps:
            if r.random() < 0.85:
                voice = voices[min(len(voices) - 1, int((step - begin) / (self.steps - begin) * len(voices)))]
                notes.append(
                    Note(self.at(bar, step), 0.2, voice, self.force((70 + 3 * (step - begin)) * loudness, 9))
                )
            step += grid
        return notes

    # ---- harmony ----

    def chord(self, bar: int) -> list[int]:
        """Degrees of the chord that sounds in this bar, as semitones above the song's root."""
        degree = self.progression[bar // self.bars_per_chord % len(self.progression)]
        count = 4 if self.sevenths else 3
        return [self.pitch(degree + 2 * i) for i in range(count)]

    def pitch(self, degree: int) -> int:
        octave, index = divmod(degree, 7)
        return 12 * octave + self.scale[index]

    def rhythm(self) -> str:
        pattern = self.chance.choice(RHYTHMS)
        return pattern if self.steps == 16 else "".join(pattern[i] for i in range(16) if i % 4 != 3)

    def hits(self, pattern: str, articulation: float) -> list[tuple[int, float]]:
        """(step, length in steps) of each x; a note ends with the next one or earlier."""
        steps = [i for i, letter in enumerate(pattern) if letter == "x"]
        return [
            (step, max(0.25, (after - step) * articulation))
            for step, after in zip(steps, [*steps[1:], self.steps])
        ]

    def bass(self) -> list[Note]:
        r = self.chance
        notes = []
        plays = self.pauses(r.choice((0.0, 0.05, 0.15)))
        walking = self.style == "jazz" or r.random() < 0.1
        kind = r.choice(("root", "octaves", "fifths", "line"))
        hits = self.hits("x..." * (self.steps // 4) if walking else self.rhythm(), r.uniform(0.4, 1.0))
        base = 36 + (self.root - 8) % 12 - 5
        velocity = r.uniform(75, 115)
        for bar in range(self.bars + 1):
            if not plays[bar]:
                continue
            chord = self.chord(bar)
            for number, (step, length) in enumerate(hits):
                tone = chord[0] % 12
                if walking or kind == "line":
                    tone = r.choice([*chord, self.pitch(r.randrange(7))]) % 12 if number else tone
                elif kind == "octaves":
                    tone += 12 * (number % 2)
                elif kind == "fifths" and number % 3 == 2:
                    tone = chord[2] % 12
                notes.append(Note(self.at(bar, step), length * self.step, base + tone, self.force(velocity)))
        return notes

    def chords(self) -> list[Note]:
        r = self.chance
        return self.strike(
            self.hits(self.rhythm(), r.uniform(0.3, 1.0)),
            r.choice((48, 52, 55, 60)),
            r.uniform(60, 105),
            strum=r.choice((0, 0, 0.01, 0.02)),
        )

    def pad(self) -> list[Note]:
        return self.strike(
            [(0, float(self.steps))], self.chance.choice((48, 55, 60, 67)), self.chance.uniform(55, 95)
        )

    def strike(
        self, hits: list[tuple[int, float]], lowest: int, velocity: float, strum: float = 0.0
    ) -> list[Note]:
        notes = []
        plays = self.pauses(0.1)
        for bar in range(self.bars + 1):
            if not plays[bar]:
                continue
            keys = sorted(lowest + (self.root + tone - lowest) % 12 for tone in self.chord(bar))
            for step, length in hits:
                begin = self.at(bar, step)
                notes += [
                    Note(begin + i * strum, length * self.step, key, self.force(velocity))
                    for i, key in enumerate(keys)
                ]
        return notes

    def arpeggio(self) -> list[Note]:
        r = self.chance
        grid, lowest, velocity = r.choice((1, 2, 2, 4)), r.choice((55, 60, 67, 72)), r.uniform(60, 100)
        order = r.choice((1, -1, 0))
        notes = []
        plays = self.pauses(0.12)
        articulation = r.uniform(0.4, 1.5)
        for bar in range(self.bars + 1):
            keys = sorted(lowest + (self.root + tone - lowest) % 12 for tone in self.chord(bar))
            keys += [keys[0] + 12]
            for number, step in enumerate(range(0, self.steps, grid)):
                if plays[bar]:
                    key = r.choice(keys) if order == 0 else keys[order * number % len(keys)]
                    notes.append(
                        Note(self.at(bar, step), grid * articulation * self.step, key, self.force(velocity))
                    )
        return notes

    def riff(self) -> list[Note]:
        """A phrase of a bar that comes again and again, shifted with the chords."""
        r = self.chance
        hits = self.hits(self.rhythm(), r.uniform(0.3, 1.0))
        degrees = [r.choice((0, 0, 0, 2, 4, 3, 6, 7)) for _ in hits]
        lowest, velocity, power = r.choice((40, 45, 52, 60)), r.uniform(75, 115), r.random() < 0.5
        notes = []
        plays = self.pauses(0.1)
        for bar in range(self.bars + 1):
            if not plays[bar]:
                continue
            degree = self.progression[bar // self.bars_per_chord % len(self.progression)]
            for (step, length), shift in zip(hits, degrees):
                key = lowest + (self.root + self.pitch(degree + shift) - lowest) % 24
                notes += [
                    Note(self.at(bar, step), length * self.step, key + interval, self.force(velocity))
                    for interval in ((0, 7, 12) if power else (0,))
                ]
        return notes

    def lead(self, low: int = 60, high: int = 86, rest: float = 0.25) -> list[Note]:
        r = self.chance
        notes = []
        degree, velocity = r.randrange(7, 14), r.uniform(70, 110)
        lengths = r.choice(((1, 2, 2, 4), (2, 4, 4, 8), (2, 2, 2, 4), (4, 8, 8, 12)))
        articulation = r.uniform(0.6, 1.05)
        position, end = 0.0, float((self.bars + 1) * self.steps)
        while position < end:
            length = r.choice(lengths)
            if r.random() < rest * 0.4:
                position += r.choice((4, 8, 16))
                continue
            degree = max(0, min(20, degree + r.choice((-2, -1, -1, 0, 1, 1, 2, r.randint(-5, 5)))))
            key = low + (self.root - low) % 12 + self.pitch(degree) - 12
            key = min(max(key, low), high)
            bar, step = divmod(position, self.steps)
            notes.append(
                Note(self.at(int(bar), step), length * articulation * self.step, key, self.force(velocity))
            )
            position += length
        return notes

    def voice(self) -> list[Note]:
        return self.lead(*self.chance.choice(((43, 67), (52, 74), (57, 79))), rest=0.4)


def compose(seed: int, seconds: float, style: str | None = None) -> Song:
    song = Composer(seed, seconds, style).compose()
    song.seed = seed
    for part in song.parts:
        part.notes = [note for note in part.notes if note.start < seconds]
    return song
