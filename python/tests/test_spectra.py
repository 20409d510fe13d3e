"""What `Spectra` computes is what the engine computes, judged by the engine on the same network."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

torch = pytest.importorskip("torch")
import zevrant  # noqa: E402
import zevrant.torch as zt  # noqa: E402
from zevrant.packings import ComplexBins, ComplexGroups, Magnitudes, Packing, RectifiedParts  # noqa: E402


class Rough(torch.nn.Module):
    """Masks or spectra that differ in every row and column."""

    def __init__(self, spectra: zt.Spectra) -> None:
        super().__init__()
        self.conv = torch.nn.Conv2d(spectra.input_shape[0], spectra.output_shape[0], (1, 3), padding=(0, 1))

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        return self.conv(x) * 0.3


def make_music(channels: int, samples: int) -> np.ndarray:
    """Tones that glide, noise, and a click."""
    random = np.random.default_rng(7)
    time = np.arange(samples) / 48000.0
    tones = sum(np.sin(2 * np.pi * f * (1 + 0.1 * time) * time) for f in (110.0, 830.0, 5400.0))
    audio = 0.1 * tones + 0.05 * random.standard_normal((channels, samples))
    audio[:, samples // 3] += 0.8
    return audio.astype(np.float32)


frames = [(256, 256, 128), (512, 256, 128), (256, 256, 64), (256, 200, 64)]
packings: list[tuple[Packing, Packing | None]] = [
    (Magnitudes(129), None),
    (Magnitudes(90), ComplexBins(90)),
    (RectifiedParts(20, 109), None),
    (RectifiedParts(30, 40), None),
    (ComplexBins(129), None),
    (ComplexBins(100), Magnitudes(100)),
    (ComplexGroups(9, 120, 4), None),
    (ComplexGroups(5, 60, 3), None),
]


@pytest.mark.parametrize("packing", packings, ids=str)
@pytest.mark.parametrize("mode", ["mask", "spectrum"])
def test_engine_and_spectra_agree(packing: tuple[Packing, Packing | None], mode: str, tmp_path: Path) -> None:
    torch.manual_seed(3)
    for sizes in frames:
        for extrapolates in (True, False):
            spectra = zt.Spectra(
                sizes,
                packing[0],
                output_packing=packing[1],
                channels=2,
                busses=["A", "B", "Rest"],
                mode=mode,
                mask_extrapolation=extrapolates,
            )
            network = Rough(spectra)
            zt.export(network, tmp_path / "rough", spectra=spectra, quiet=True)
            for channels in (2, 1, 3):  # other than the model's are averaged for the network
                audio = make_music(channels, 3001)
                stems = zevrant.separate(audio, 48000, tmp_path / "rough", mask_extrapolation=extrapolates)
                with torch.no_grad():
                    wanted = spectra(torch.from_numpy(audio)[None], network)[0].numpy()
                got = np.stack(list(stems.values()))
                assert np.abs(got - wanted).max() < 1e-5, (sizes, extrapolates, channels)


def test_gradients_reach_the_network_through_silence() -> None:
    spectra = zt.Spectra((256, 256, 128), RectifiedParts(20, 60), busses=["A", "Rest"])
    network = torch.nn.Sequential(zt.LevelFollower(0.5, 0.9), zt.LevelNorm(3), zt.RMSNorm(1), Rough(spectra))
    audio = torch.zeros(1, 1, 1000)
    audio[..., 500:] = 0.1 * torch.randn(500)
    spectra(audio, network).square().sum().backward()
    assert all(torch.isfinite(p.grad).all() for p in network.parameters() if p.grad is not None)


def test_what_no_engine_could_run_is_refused() -> None:
    for arguments in (
        {"frames": (100, 100, 50)},
        {"frames": (256, 128, 100)},
        {"frames": (256, 512, 128)},
        {"packing": Magnitudes(2000)},
        {"packing": ComplexGroups(0, 10, 3)},
        {"packing": ComplexGroups(0, 12, 3), "output_packing": Magnitudes(12)},
        {"packing": zevrant.packings.FrameHistory(1, 2, 3)},
        {"busses": []},
        {"mode": "other"},
    ):
        with pytest.raises(ValueError, match=r"\w"):
            zt.Spectra(**arguments)
