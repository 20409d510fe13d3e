"""The road from seeds to a model file, and what its steps promise each other."""

from __future__ import annotations

import json
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

ROAD = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROAD))
import soundfile  # noqa: E402

torch = pytest.importorskip("torch")
import mixing  # noqa: E402
import networks  # noqa: E402
from material import scores, songs, speech  # noqa: E402
from measures import si_sdr  # noqa: E402


def step(name: str, *arguments: object) -> str:
    command = [sys.executable, str(ROAD / name), *map(str, arguments)]
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def test_fast_upsampling_is_the_transposed_convolution() -> None:
    for stride in (2, 4, 8):
        module = networks.Upsample(3, 5, stride)
        x = torch.rand(2, 3, 4, 7)
        wanted = networks.CausalConvTranspose2d.forward(module, x)
        assert torch.allclose(module(x), wanted, atol=1e-6)


def test_every_network_looks_no_further_ahead_than_it_says() -> None:
    for name, shape in networks.SHAPES.items():
        torch.manual_seed(1)
        network = networks.Separator(shape).eval()
        x = torch.rand(1, shape.channels, 12, shape.bins)
        changed = x.clone()
        changed[:, :, 9:] += 1.0
        with torch.no_grad():
            same = (network(x) == network(changed)).all(dim=3).all(dim=1)[0]
        first = int(same.int().cumprod(0).sum())
        assert first == 9 - shape.look_ahead, name
        assert shape.bands % int(np.prod(shape.strides)) == 0, name


def test_seeds_decide_everything_and_splits_share_no_speaker() -> None:
    for seed, style in enumerate(scores.STYLES):
        assert scores.compose(seed, 8.0, style) == scores.compose(seed, 8.0, style)
        assert (
            scores.compose(seed, 8.0, style).parts[0].notes
            != scores.compose(seed + 1, 8.0, style).parts[0].notes
        )
        assert all(
            0 <= note.start < 8.0 and 0 <= note.key <= 127 and 1 <= note.velocity <= 127
            for part in scores.compose(seed, 8.0, style).parts
            for note in part.notes
        )
    people = [set(speech.voices(split)) for split in ("train", "valid", "test")]
    assert not people[0] & people[1] and not people[0] & people[2] and not people[1] & people[2]
    assert sum(choices[0].woman for choices in speech.voices("test").values()) >= 4


def test_recordings_of_any_rate_lie_beside_generated_songs(tmp_path: Path) -> None:
    """A tone of 1 kHz stays one, in stereo, at 48 kHz; names tell drums and bass from the rest."""
    for rate, channels, name in ((44100, 1, "drums"), (48000, 2, "bass-left"), (96000, 2, "guitar")):
        tone = np.sin(2 * np.pi * 1000 * np.arange(2 * rate) / rate)
        (tmp_path / "song").mkdir(exist_ok=True)
        soundfile.write(tmp_path / "song" / f"{name}.flac", 0.5 * np.tile(tone[:, None], channels), rate)
    (song,) = mixing.find_songs(tmp_path, ("drums", "bass"))
    assert {stem: len(sources) for stem, sources in song.stems.items()} == {"drums": 1, "bass": 1, "rest": 1}
    wanted = 0.5 * np.sin(2 * np.pi * 1000 * np.arange(14800, 16800) / 48000)
    for sources in song.stems.values():
        sound = sources[0].read(4800, 48000)[10000:12000]
        assert sound.shape == (2000, 2)
        assert si_sdr(sound[:, 0], wanted.astype(np.float32)) > 40
    mixer = mixing.SongMixer([([song], 1.0)], ("drums", "bass"), 24000)
    batch = mixer.batch(5, 1, 3)
    assert (
        batch.shape == (3, 3, 2, 24000)
        and np.isfinite(batch).all()
        and np.abs(batch.sum(axis=1)).max() <= 1.001
    )
    assert (batch == mixer.batch(5, 1, 3)).all() and not (batch == mixer.batch(5, 2, 3)).all()


def test_what_was_played_before_changes_no_note() -> None:
    first = songs.render(6, 4.0, "test", "jazz")
    songs.render(9, 3.999, "test", "latin")  # ends within a block of the synthesizer's
    again = songs.render(6, 4.0, "test", "jazz")
    assert first.keys() == again.keys()
    assert all((first[name] == again[name]).all() for name in first)


class Rendered(mixing.Source):
    """A stem as the generator hands it over, without a file between."""

    def __init__(self, name: str, sound: mixing.Audio) -> None:
        self.path, self.sound, self.samples, self._level = Path(name), sound, len(sound), None

    def original(self, begin: int, length: int) -> mixing.Audio:
        return np.pad(self.sound, ((0, max(0, begin + length - self.samples)), (0, 0)))[
            begin : begin + length
        ]


def test_songs_on_disk_give_the_generators_batches(tmp_path: Path) -> None:
    """16 bits lie between the two, and a lossless format of recordings changes nothing more."""
    generated = []
    for seed in (0, 3):
        stems = songs.render(seed, 6.0, "train")
        peak = max(float(np.abs(sound).max()) for sound in stems.values())
        songs.write_song(tmp_path / "wav" / f"{seed}", stems)
        song = mixing.Song(f"{seed}")
        for name in sorted(stems):
            target = name if name in ("drums", "bass") else "rest"
            sound = stems[name] * np.float32(min(1.0, 0.98 / peak))
            song.stems.setdefault(target, []).append(Rendered(name, sound))
            (tmp_path / "flac" / song.name).mkdir(parents=True, exist_ok=True)
            written, rate = soundfile.read(tmp_path / "wav" / song.name / f"{name}.wav", dtype="int16")
            soundfile.write(tmp_path / "flac" / song.name / f"{name}.flac", written, rate)
        generated.append(song)
    targets = ("drums", "bass")
    of_generator, of_wav, of_flac = (
        mixing.SongMixer([(collection, 1.0)], targets, 48000).batch(1, 2, 8)
        for collection in (
            generated,
            *(mixing.find_songs(tmp_path / kind, targets) for kind in ("wav", "flac")),
        )
    )
    assert (of_wav == of_flac).all()
    assert si_sdr(of_wav, of_generator) > 50


def test_weights_of_a_model_file_go_on_as_they_were() -> None:
    """With its norms settled a network gives the same in training as in use, and the same as before."""
    torch.manual_seed(2)
    network = networks.Separator(networks.SHAPES["small"]).eval()
    for parameter in network.parameters():
        parameter.data *= 1.5
    features = network.features(torch.rand(4, 2, 60, network.shape.bins) * 10)
    with torch.no_grad():
        before = network.logits(features)
        networks.settle_norms(network, features)
        assert torch.allclose(network.logits(features), before, atol=1e-3)
        assert torch.allclose(network.train().logits(features), before, atol=1e-2)


def test_from_seeds_to_a_file_that_separates(tmp_path: Path) -> None:
    pytest.importorskip("zevrant._core")
    step("make-data", "songs", tmp_path / "train", "--songs", 3, "--seconds", 6)
    step("make-data", "songs", tmp_path / "valid", "--songs", 1, "--seconds", 6, "--split", "valid")
    run = (
        "train",
        "small",
        "--data",
        tmp_path / "train",
        "--valid",
        tmp_path / "valid",
        "--into",
        tmp_path / "run",
        "--batch",
        2,
        "--frames",
        96,
        "--look",
        0.1,
        "--cool",
        0.05,
        "--valid-seconds",
        4,
    )
    step(*run, "--minutes", 0.2)
    step(*run, "--minutes", 0.4)  # goes on from before the rate came down
    looks = [json.loads(line) for line in (tmp_path / "run" / "small.jsonl").read_text().splitlines()]
    assert looks[-1]["loss"] < looks[0]["loss"] - 0.5
    assert looks[-1]["rate"] < 0.2 * looks[0]["rate"]
    model = tmp_path / "small.zevrant"
    told = step("export", tmp_path / "run" / "small.pt", "-o", model, "--single")
    assert float(told.split(" dB between")[0].split()[-1]) < -60
    page = tmp_path / "page.md"
    page.write_text("Before <!-- small --> stale <!-- end of small --> behind")
    fill = ("--page", page, "--mark", "small")
    step("evaluate", model, "--songs", tmp_path / "valid", "--into", tmp_path / "told", "--alone", *fill)
    (told_song,) = json.loads((tmp_path / "told" / "evaluation.json").read_text())
    drums = told_song["stems"]["drums"]
    assert drums["input"] < drums["si_sdr"]["small"] < drums["si_sdr"]["ideal mask"]
    gain = f"{drums['si_sdr']['small'] - drums['input']:.1f}"
    assert f"| {gain} |" in page.read_text() and "stale" not in page.read_text()
    fresh = tmp_path / "tuned"
    step(*run[:6], "--into", fresh, "--from", model, *run[8:], "--minutes", 0.1, "--rate", 1e-4)
    tuned = json.loads((fresh / "small.jsonl").read_text().splitlines()[0])
    assert tuned["loss"] < looks[0]["loss"] - 1.5  # the first batches of both are the same
    again = networks.load(model, networks.SHAPES["small"])
    x = torch.rand(1, 2, 20, again.shape.bins)
    assert torch.allclose(again(x), networks.load(tmp_path / "run" / "small.pt")(x), atol=1e-4)
