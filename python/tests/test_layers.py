"""Every kind of layer, on random shapes and parameters: exported, run slice by slice, held against PyTorch.

`export` itself compares each layer; what is asked here is that it finds nothing to refuse, that the file
gives as many slices as the module, and that the last layer was among those compared.
"""

from __future__ import annotations

import random
from collections.abc import Callable
from pathlib import Path

import pytest

torch = pytest.importorskip("torch")
import zevrant.torch as zt  # noqa: E402
from torch import Tensor, nn  # noqa: E402
from torch.nn import functional as F  # noqa: E402

Make = Callable[[random.Random, int, int], nn.Module]


class Function(nn.Module):
    def __init__(self, function: Callable[..., Tensor], *inner: nn.Module) -> None:
        super().__init__()
        self.function, self.inner = function, nn.ModuleList(inner)

    def forward(self, x: Tensor) -> Tensor:
        return self.function(x, *self.inner)


class Front(nn.Module):
    """Zeros in front of the time axis, so that what follows is causal."""

    def __init__(self, slices: int, inner: nn.Module) -> None:
        super().__init__()
        self.slices, self.inner = slices, inner

    def forward(self, x: Tensor) -> Tensor:
        return self.inner(F.pad(x, (0, 0, self.slices, 0)))


def make_conv(r: random.Random, channels: int, _: int) -> nn.Module:
    groups = r.choice([1, 1, channels])
    rows, dilation = r.randint(1, 4), r.randint(1, 3)
    conv = nn.Conv2d(
        channels,
        groups * r.randint(1, 3),
        (rows, r.randint(1, 5)),
        stride=(1, r.randint(1, 3)),
        padding=(0, r.randint(0, 3)),
        dilation=(dilation, r.randint(1, 2)),
        groups=groups,
        bias=r.random() < 0.5,
    )
    return Front(dilation * (rows - 1), conv)


def make_transposed(r: random.Random, channels: int, _: int) -> nn.Module:
    groups = r.choice([1, 1, channels])
    stride = (r.randint(1, 2), r.randint(1, 3))
    taps = r.randint(stride[1], 6)
    return nn.Sequential(
        nn.Conv2d(channels, channels, 1, stride=(stride[0], 1)),
        nn.ConvTranspose2d(
            channels,
            channels if groups > 1 else r.randint(1, 4),
            (r.randint(1, 4), taps),
            stride,
            (0, r.randint(0, taps // 2)),
            (stride[0] - 1, r.randint(0, stride[1] - 1)),
            groups,
            bias=r.random() < 0.5,
        ),
    )


def make_causal(r: random.Random, channels: int, frequencies: int) -> nn.Module:
    stride = r.randint(1, 3)
    channelwise = r.random() < 0.3
    outputs = channels * r.randint(1, 2) if channelwise else r.randint(1, 5)
    return nn.Sequential(
        zt.CausalConv2d(
            channels,
            outputs,
            (r.randint(1, 3), r.randint(1, 6)),
            (2, stride),
            time_dilation=r.randint(1, 3),
            channelwise=channelwise,
        ),
        zt.CausalConvTranspose2d(outputs, r.randint(1, 4), (r.randint(1, 4), r.randint(1, 6)), (2, stride)),
    )


def make_rescale(r: random.Random, channels: int, frequencies: int) -> nn.Module:
    bands = []
    for _ in range(r.randint(1, 20)):
        first = r.randrange(frequencies)
        bands.append((first, [r.uniform(-1, 1) for _ in range(r.randint(1, min(9, frequencies - first)))]))
    return zt.FrequencyRescale(bands, frequencies, trainable=r.random() < 0.5)


def make_norm(r: random.Random, channels: int, _: int) -> nn.Module:
    norm = nn.BatchNorm2d(channels)
    norm.running_mean.normal_(0, 0.2)
    norm.running_var.uniform_(0.5, 2)
    return nn.Sequential(nn.Conv2d(channels, channels, 1), norm) if r.random() < 0.5 else norm


def make_constants(r: random.Random, c: int, f: int) -> nn.Module:
    a, b, d = torch.rand(c, 1, f), torch.rand(f), torch.rand(c, 1, 1)
    return Function(lambda x: (x * a + b) * b / (d + 1) - a)


def make_pads(r: random.Random, channels: int, frequencies: int) -> nn.Module:
    low, high, front = r.randint(0, 3), r.randint(0, 3), r.randint(1, 5)
    return Function(lambda x: 2.0 * F.pad(x, (low, high, front, 0), value=0.0)[:, :, : x.shape[2], 1:-1])


kinds: dict[str, Make] = {
    "Conv2d": make_conv,
    "ConvTranspose2d": make_transposed,
    "CausalConv2d": make_causal,
    "BatchNorm2d": make_norm,
    "Linear over frequency": lambda r, c, f: nn.Linear(f, r.choice([f, r.randint(1, 30)]), r.random() < 0.5),
    "Linear over channels": lambda r, c, f: Function(
        lambda x, layer: layer(x.permute(0, 2, 3, 1)).permute(0, 3, 1, 2), nn.Linear(c, r.randint(1, 5))
    ),
    "Linear over both": lambda r, c, f: Function(
        lambda x, layer: layer(x.transpose(1, 2).flatten(2)).unsqueeze(1), nn.Linear(c * f, r.randint(1, 9))
    ),
    "FrequencyRescale": make_rescale,
    "FrequencyDense": lambda r, c, f: zt.FrequencyDense(f, c),
    "RMSNorm": lambda r, c, f: zt.RMSNorm(c, r.random() < 0.5),
    "ChannelGain": lambda r, c, f: zt.ChannelGain(c),
    "LevelNorm": lambda r, c, f: zt.LevelNorm(r.randint(1, 6)),
    "LevelFollower": lambda r, c, f: zt.LevelFollower(r.random(), r.random(), 1e-3),
    "SeparableChannelConv": lambda r, c, f: zt.SeparableChannelConv(r.randint(1, 6), r.randint(1, 6)),
    "SelfAttention": lambda r, c, f: zt.SelfAttention(c, f, r.randint(0, 5)),
    "constants": make_constants,
    "PReLU": lambda r, c, f: nn.PReLU(r.choice([1, c])),
    "AvgPool2d": lambda r, c, f: nn.AvgPool2d((1, r.randint(1, 3))),
    "pads and cuts": make_pads,
}
functions: dict[str, Callable[[Tensor], Tensor]] = {
    "relu": torch.relu,
    "elu": lambda x: F.elu(x - 0.5, 0.7),
    "leaky": lambda x: F.leaky_relu(0.3 - x, 0.1),
    "softplus": lambda x: F.softplus(x, beta=2.0),
    "sigmoid": lambda x: torch.sigmoid((4 * x - 2).clamp(-10, 10)),
    "hardsigmoid": lambda x: F.hardsigmoid(9 * x - 4),
    "tanh": lambda x: torch.tanh(3 * x - 1),
    "silu": lambda x: F.silu(1 - x),
    "abs": lambda x: (x - 0.4).abs(),
    "clamp": lambda x: x.clamp(0.1, 0.6),
    "softmax": lambda x: F.softmax(torch.cat([x, -x, x * x], 1), dim=1),
    "arithmetic": lambda x: 1 / (x + 0.5) - x * 3 + x / (2 + x) - (1 - x) * x,
    "reductions": lambda x: x - x.mean(3, keepdim=True) * x.sum(1, keepdim=True),
    "chunks": lambda x: torch.cat([x[..., :], *list(torch.cat([x, 2 * x], 1).chunk(2, 1))[::-1]], 1),
    "bands": lambda x: torch.cat([x[..., 5:], x[..., :5] * 2], 3),
    "layouts": lambda x: x.permute(0, 3, 2, 1).transpose(1, 3).contiguous().flatten(0, 0),
    "nearest": lambda x: F.interpolate(x, scale_factor=(1.0, 2.0)),
}
kinds.update({name: lambda r, c, f, g=function: Function(g) for name, function in functions.items()})


@pytest.mark.parametrize("name", kinds)
def test_streams_as_pytorch_computes_it(name: str, tmp_path: Path) -> None:
    for seed in range(6):
        r = random.Random(f"{name} {seed}")
        torch.manual_seed(seed)
        channels = r.choice([1, 2, 3, 5])
        packing = zt.Magnitudes(r.choice([9, 20, 33]))
        spectra = zt.Spectra((64, 64, 32), packing, channels=channels)
        module = kinds[name](r, channels, packing.rows)
        for parameter in module.parameters():
            parameter.data.uniform_(0.1 if name == "LevelNorm" else -0.5, 1.0)
        with torch.no_grad():
            shape = module(torch.rand(1, channels, 32, packing.rows)).shape
        # Whatever comes out is brought to the form of a mask by layers that other cases judge.
        fit = nn.Conv2d(shape[1], channels, 1), nn.Linear(shape[3], packing.rows, bias=False)
        report = zt.export(nn.Sequential(module, *fit), tmp_path / "layer", spectra=spectra, quiet=True)
        assert report.parity is not None
        waits = 32 - shape[2] if isinstance(module, zt.SeparableChannelConv) else 0
        last = report.parity.layers[-1]
        assert last.slices == report.parity.frames - waits, seed
        assert len(report.parity.layers) > 1, seed


def test_future_is_allowed_slice_by_slice(tmp_path: Path) -> None:
    """Symmetric kernels and skips beside them: paired by count, refused unless the latency is accepted."""

    class Symmetric(nn.Module):
        def __init__(self) -> None:
            super().__init__()
            self.first, self.second = nn.Conv2d(1, 4, 5, padding=2), nn.Conv2d(5, 1, 3, padding=1)

        def forward(self, x: Tensor) -> Tensor:
            return self.second(torch.cat([x, F.relu(self.first(x))], 1))

    class Aligned(nn.Module):
        def __init__(self) -> None:
            super().__init__()
            self.ahead = zt.CausalConv2d(1, 3, (4, 3), look_ahead=2)
            self.attend = zt.SelfAttention(3, 33, 4, look_ahead=1)
            self.last = nn.Conv2d(4, 1, 1)

        def forward(self, x: Tensor) -> Tensor:
            y, x = zt.align(self.attend(self.ahead(x)), x)
            return self.last(torch.cat([y, x], 1))

    for module in (Symmetric(), Aligned()):
        file = tmp_path / type(module).__name__
        options = {"frames": (64, 64, 32), "quiet": True}
        with pytest.raises(zt.ExportError, match="future"):
            zt.export(module, file, look_ahead=2, **options)
        assert len(zt.explain(module, **options)) == 2
        assert not file.exists()
        report = zt.export(module, file, look_ahead=3, **options)
        assert report.parity is not None
        assert report.parity.layers[-1].slices == report.parity.frames - 3
        assert report.parity.audio_error < -100


def test_obstacles_are_told_all_at_once_with_their_lines(tmp_path: Path) -> None:
    class Impossible(nn.Module):
        def __init__(self) -> None:
            super().__init__()
            self.memory = nn.LSTM(33, 33, batch_first=True)
            self.norm = nn.LayerNorm(33)
            self.over_time = nn.Conv1d(1, 1, 1)

        def forward(self, x: Tensor) -> Tensor:
            y = self.norm(torch.log(x + 1))
            y = y + self.memory(x.squeeze(1))[0].unsqueeze(1)
            return torch.exp(y) * x.sum(2, keepdim=True)

    problems = zt.explain(Impossible(), frames=(64, 64, 32), quiet=True)
    assert [problem.operation for problem in problems] == ["log", "LayerNorm", "LSTM", "exp", "sum"]
    lines = Path(__file__).read_text().splitlines()
    for problem in problems:
        file, line = problem.place.rsplit(":", 1)
        assert file == __file__ and problem.node.split("_")[0] in lines[int(line) - 1]
        assert problem.why and problem.instead

    class Branches(nn.Module):
        def forward(self, x: Tensor) -> Tensor:
            return x if x.sum() > 0 else -x

    (problem,) = zt.explain(Branches(), frames=(64, 64, 32), quiet=True)
    assert "control flow" in problem.why and problem.place
    with pytest.raises(zt.ExportError, match="cannot become"):
        zt.export(Branches(), tmp_path / "file", frames=(64, 64, 32))


def test_a_file_that_is_too_far_off_is_not_left(tmp_path: Path) -> None:
    """The engine limits a sigmoid's input to 10, so one that goes far beyond differs by 4.5e-5."""
    far = Function(lambda x: torch.sigmoid(x * 0 - 30.0))
    with pytest.raises(zt.ExportError, match="clamp"):
        zt.export(far, tmp_path / "file", frames=(64, 64, 32), quiet=True)
    assert not list(tmp_path.iterdir())
    zt.export(
        Function(lambda x: torch.sigmoid((x * 0 - 30.0).clamp(-10, 10))),
        tmp_path / "file",
        frames=(64, 64, 32),
        quiet=True,
    )


def test_half_precision_has_a_tolerance_of_its_own(tmp_path: Path) -> None:
    torch.manual_seed(0)
    module = nn.Sequential(nn.Conv2d(1, 8, 1), nn.ReLU(), nn.Conv2d(8, 1, 1))
    whole = zt.export(module, tmp_path / "whole", frames=(64, 64, 32), quiet=True)
    half = zt.export(module, tmp_path / "half", frames=(64, 64, 32), quiet=True, half_precision=True)
    assert whole.parity and half.parity and whole.parity.worst and half.parity.worst
    assert whole.parity.worst.relative_error < 1e-5 < half.parity.worst.relative_error < 2e-3
    again = zt.check_parity(module, tmp_path / "whole")
    assert str(again).splitlines()[0].startswith("layer") and len(again.layers) == 3
