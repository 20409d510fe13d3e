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
from material import scores, speech  # noqa: E402
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
    wanted = 0.5 * np.sin(2 * np.pi * 1000 * np.arange(2000) / 48000)
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
    step("evaluate", model, "--songs", tmp_path / "valid", "--into", tmp_path / "told", "--alone")
    (told_song,) = json.loads((tmp_path / "told" / "evaluation.json").read_text())
    assert told_song["drums"]["input"] < told_song["drums"]["model"] < told_song["drums"]["mask"]
    again = networks.load(model, networks.SHAPES["small"])
    x = torch.rand(1, 2, 20, again.shape.bins)
    assert torch.allclose(again(x), networks.load(tmp_path / "run" / "small.pt")(x), atol=1e-4)
