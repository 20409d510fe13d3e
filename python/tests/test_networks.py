"""Networks of others, from module to file."""

from __future__ import annotations

from pathlib import Path

import pytest

torch = pytest.importorskip("torch")
import networks  # noqa: E402
import zevrant.torch as zt  # noqa: E402

frames = (128, 128, 64)
magnitudes, pairs = zt.Magnitudes(65), zt.ComplexBins(65)
cases = {
    "U-Net": (networks.UNet, zt.Spectra(frames, magnitudes)),
    "U-Net, two busses": (
        lambda: networks.UNet(2, busses=2),
        zt.Spectra(frames, magnitudes, channels=2, busses=["Voice", "Drums", "Rest"]),
    ),
    "temporal convolutions": (lambda: networks.TemporalConvNet(65), zt.Spectra(frames, magnitudes)),
    "temporal convolutions, wide": (lambda: networks.TemporalConvNet(257), zt.Spectra((512, 512, 256))),
    "complex masks": (networks.ComplexMaskNet, zt.Spectra(frames, pairs, mode="spectrum")),
    "separable": (networks.SeparableNet, zt.Spectra(frames, magnitudes, channels=2)),
    "attention": (lambda: networks.AttentionNet(65), zt.Spectra(frames, magnitudes)),
}


def make_lively(network: torch.nn.Module) -> torch.nn.Module:
    """Statistics as after some training, so that folding them is worth a test."""
    for module in network.modules():
        if isinstance(module, (torch.nn.BatchNorm1d, torch.nn.BatchNorm2d)):
            module.running_mean.normal_(0, 0.2)
            module.running_var.uniform_(0.5, 2)
            module.weight.data.uniform_(0.5, 2)
            module.bias.data.normal_(0, 0.2)
    return network.eval()


@pytest.mark.parametrize("name", cases)
def test_exports_unchanged_and_sounds_alike(name: str, tmp_path: Path) -> None:
    torch.manual_seed(5)
    make, spectra = cases[name]
    network = make_lively(make())
    assert zt.explain(network, spectra=spectra, quiet=True) == []
    report = zt.export(network, tmp_path / "network", spectra=spectra, quiet=True)
    assert report.parity is not None and report.parity.worst is not None
    assert report.parity.worst.relative_error < 2e-5
    assert report.parity.audio_error < -100


def test_recurrence_has_a_way_out(tmp_path: Path) -> None:
    torch.manual_seed(5)
    network = networks.RecurrentNet(65)
    with pytest.raises(zt.ExportError, match=r"networks.py:\d+: memory \(GRU\).*\n.*DilatedMemory"):
        zt.export(network, tmp_path / "network", frames=frames, quiet=True)
    network.memory = zt.DilatedMemory(24, 24)  # the one line that the message proposes
    report = zt.export(network, tmp_path / "network", frames=frames, quiet=True)
    assert report.parity is not None and len(report.parity.layers) > 15
