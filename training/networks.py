"""The networks that ship. Only what the engine can run; tensors are [batch, channels, time, frequency]."""

from __future__ import annotations

import bisect
from copy import deepcopy
from dataclasses import dataclass
from pathlib import Path

import places  # noqa: F401 (finds the package zevrant)
import torch
from torch import Tensor, nn
from torch.nn import functional
from zevrant.torch import (
    CausalConv2d,
    CausalConvTranspose2d,
    ChannelGain,
    FrequencyRescale,
    LevelFollower,
    Magnitudes,
    Spectra,
)


@dataclass(frozen=True)
class Shape:
    """All that a network and its framing are made from; stands in every checkpoint."""

    busses: tuple[str, ...]  # the residual last
    frames: tuple[int, int, int]  # transform, window and hop in samples
    runs: tuple[tuple[int, int], ...]  # (bands, bins in each), from the lowest bin up
    channels: int
    look_ahead: int  # frames
    strides: tuple[int, ...]  # over frequency, from bands downward
    widths: tuple[int, ...]  # channels behind each stride
    times: tuple[int, ...]  # slices that each of these convolutions sees
    dilations: tuple[int, ...]  # of the residual blocks at the narrowest place
    knees: tuple[float, ...] = (30.0, 1.0)  # features are x / (x + 1) of so many times the level
    tilt: float = 0.5  # exponent of the gain over frequency that evens out the spectrum of music
    attack: float = 0.9
    release: float = 0.998
    sample_rate: float = 48000.0

    @property
    def bands(self) -> int:
        return sum(count for count, _ in self.runs)

    @property
    def bins(self) -> int:
        """That the network sees, from the lowest."""
        return sum(count * width for count, width in self.runs)

    def spectra(self) -> Spectra:
        return Spectra(
            self.frames,
            Magnitudes(self.bins),
            channels=self.channels,
            busses=self.busses,
            sample_rate=self.sample_rate,
        )


# Every bin to 4.5 kHz, pairs to 9 kHz, and four at a time above: fine enough for treble.
MUSIC = ((192, 1), (96, 2), (160, 4))
# Speech of the synthesizers ends at 8 kHz; above, masks follow those below.
SPEECH = ((52, 1), (60, 2))
SHAPES = {
    "drums": Shape(
        ("Drums", "Rest"),
        (2048, 2048, 512),
        MUSIC,
        2,
        look_ahead=2,
        strides=(4, 4, 2),
        widths=(32, 64, 96),
        times=(5, 2, 1),
        dilations=(1, 2, 5, 12, 27),
    ),
    "band": Shape(
        ("Drums", "Bass", "Rest"),
        (2048, 2048, 512),
        MUSIC,
        2,
        look_ahead=4,
        strides=(4, 4, 2),
        widths=(48, 80, 112),
        times=(5, 2, 1),
        dilations=(1, 2, 5, 12, 27),
    ),
    "speech": Shape(
        ("Speech", "Background"),
        (1024, 1024, 256),
        SPEECH,
        1,
        look_ahead=3,
        strides=(4, 2, 2),
        widths=(32, 48, 80),
        times=(6, 2, 1),
        dilations=(1, 2, 5, 12, 27, 54),
        tilt=0.4,
    ),
    "speech-fast": Shape(
        ("Speech", "Background"),
        (512, 512, 256),
        ((40, 1), (24, 2)),
        1,
        look_ahead=0,
        strides=(4, 2, 2),
        widths=(32, 48, 80),
        times=(4, 2, 1),
        dilations=(1, 2, 5, 12, 27, 54),
        tilt=0.4,
    ),
    # Small and quick: for the tutorial and the tests.
    "small": Shape(
        ("Drums", "Rest"),
        (2048, 2048, 512),
        MUSIC,
        2,
        look_ahead=2,
        strides=(4, 4, 2),
        widths=(8, 16, 32),
        times=(3, 2, 1),
        dilations=(1, 3),
    ),
}


class Upsample(CausalConvTranspose2d):
    """The same numbers as its parent, by a plain convolution over neighbours: far faster to train."""

    def __init__(self, in_channels: int, out_channels: int, stride: int) -> None:
        super().__init__(in_channels, out_channels, (1, 2 * stride), (1, stride))

    def forward(self, x: Tensor) -> Tensor:
        stride, width = self.stride[1], x.shape[3]
        # weight [in, out, 1, 2 * stride] -> [stride * out, in, 1, 2]: an output sees the row below, too.
        own, below = self.weight[:, :, 0].split(stride, dim=2)
        weight = torch.stack([below, own], -1).permute(2, 1, 0, 3).flatten(0, 1)
        y = functional.conv2d(x, weight[:, :, None], padding=(0, 1))
        y = y.unflatten(1, (stride, self.out_channels)).permute(0, 2, 3, 4, 1).flatten(3)
        y = y[..., stride // 2 : stride // 2 + stride * width]
        return y if self.bias is None else y + self.bias[:, None, None]


def band_tables(s: Shape) -> tuple[list[tuple[int, list[float]]], list[tuple[int, list[float]]]]:
    """Bins to bands, as means with a gain that rises with frequency; and bands to bins, in straight lines."""
    bands, centres, first = [], [], 0
    for count, width in s.runs:
        for _ in range(count):
            centre = first + (width - 1) / 2
            gain = ((centre + 1) / 64) ** s.tilt
            bands.append((first, [gain / width] * width))
            centres.append(centre)
            first += width
    spread = []
    for bin in range(s.bins):
        above = min(max(bisect.bisect(centres, bin), 1), len(centres) - 1)
        share = min(max((bin - centres[above - 1]) / (centres[above] - centres[above - 1]), 0.0), 1.0)
        spread.append((above - 1, [1 - share, share]))
    return bands, spread


def convolution(
    inputs: int,
    outputs: int,
    kernel: tuple[int, int],
    stride: int = 1,
    dilation: int = 1,
    look_ahead: int = 0,
) -> nn.Sequential:
    return nn.Sequential(
        CausalConv2d(
            inputs, outputs, kernel, (1, stride), time_dilation=dilation, look_ahead=look_ahead, bias=False
        ),
        nn.BatchNorm2d(outputs, momentum=0.02),
        nn.ReLU(),
    )


class Separator(nn.Module):
    """Magnitudes to masks between 0 and 1: an encoder and a decoder over frequency, time seen by dilation.

    Features are m / (m + c) for some c, behind a follower of the song's level.
    """

    def __init__(self, shape: Shape) -> None:
        super().__init__()
        s = self.shape = shape
        self.spectra = shape.spectra()
        bands, spread = band_tables(s)
        self.bands = FrequencyRescale(bands, s.bins)
        self.level = LevelFollower(s.attack, s.release, 1e-3, self.spectra.level_scale)
        inputs = s.channels * len(s.knees)
        self.knees = CausalConv2d(s.channels, inputs, (1, 1), bias=False)
        self.one = ChannelGain(inputs)
        self.knees.weight.data = (torch.tensor(s.knees)[:, None, None] * torch.eye(s.channels)).reshape(
            inputs, -1, 1, 1
        )
        self.one.offset.data.fill_(1.0)
        for parameter in (*self.knees.parameters(), *self.one.parameters()):
            parameter.requires_grad_(False)
        encoder, decoder, skips = [], [], []
        before = inputs
        for number, (stride, width, time) in enumerate(zip(s.strides, s.widths, s.times)):
            encoder.append(
                convolution(
                    before, width, (time, 2 * stride), stride, look_ahead=s.look_ahead if number == 0 else 0
                )
            )
            before = width
        self.encoder = nn.ModuleList(encoder)
        self.blocks = nn.ModuleList(convolution(before, before, (3, 3), dilation=d) for d in s.dilations)
        for stride, width in zip(reversed(s.strides[1:]), reversed(s.widths[:-1])):
            decoder.append(Upsample(before, width, stride))
            skips.append(convolution(2 * width, width, (1, 3)))
            before = width
        self.decoder, self.skips = nn.ModuleList(decoder), nn.ModuleList(skips)
        self.masks = Upsample(before, s.channels * (len(s.busses) - 1), s.strides[0])
        self.spread = FrequencyRescale(spread, s.bands)

    def features(self, magnitudes: Tensor) -> Tensor:
        y = self.knees(self.level(self.bands(magnitudes)))
        return y / self.one(y)

    def logits(self, features: Tensor) -> Tensor:
        """Of the masks, in bands: nearly all of the arithmetic, and at ease in half precision."""
        x, levels = features, []
        for encode in self.encoder:
            x = encode(x)
            levels.append(x)
        for block in self.blocks:
            x = x + block(x)
        for upsample, skip, level in zip(self.decoder, self.skips, reversed(levels[:-1])):
            x = skip(torch.cat([upsample(x), level], 1))
        return self.masks(x)

    def forward(self, magnitudes: Tensor) -> Tensor:
        return self.spread(torch.sigmoid(self.logits(self.features(magnitudes))))


def exportable(network: Separator) -> Separator:
    """A copy in which every layer is one that the exporter knows."""
    copy = deepcopy(network).eval()
    for parent in list(copy.modules()):
        for name, child in parent.named_children():
            if isinstance(child, Upsample):
                plain = CausalConvTranspose2d(
                    child.in_channels, child.out_channels, child.kernel_size, child.stride
                )
                plain.load_state_dict(child.state_dict())
                setattr(parent, name, plain)
    return copy


def load(path: Path, shape: Shape | None = None) -> Separator:
    """The averaged network of a checkpoint, or, for a known shape, what a model file holds."""
    if path.suffix == ".zevrant":
        return load_model(path, shape)
    state = torch.load(path, map_location="cpu")
    network = Separator(Shape(**state["shape"]))
    network.load_state_dict(state["average"])
    return network.eval()


def load_model(path: Path, shape: Shape | None) -> Separator:
    """From a file that `export` wrote. What was folded into a convolution stays there; see settle_norms."""
    import zevrant

    layers = zevrant.Model(path).layers
    if shape is None:
        raise ValueError(f"{path}: a model file does not tell its network's shape")
    network = Separator(shape)

    def take(name: str, module: CausalConv2d | CausalConvTranspose2d, norm: nn.BatchNorm2d | None) -> None:
        record = layers[name.replace(".", "_")].record
        # [time, frequency, in, out], or [..., out, in] where transposed, to PyTorch's order.
        weight = torch.from_numpy(record.weights.transpose(3, 2, 0, 1).copy())
        if weight.shape != module.weight.shape:
            raise ValueError(f"{path}: {name} is {list(weight.shape)} and not {list(module.weight.shape)}")
        module.weight.data = weight
        bias = (
            torch.zeros(module.out_channels) if record.bias is None else torch.from_numpy(record.bias.copy())
        )
        if norm is not None:
            norm.running_var.fill_(1.0 - norm.eps)
            norm.bias.data = bias
        elif module.bias is not None:
            module.bias.data = bias

    for name, module in network.named_modules():
        if isinstance(module, nn.Sequential):
            convolution, norm = module[0], module[1]
            take(f"{name}.0", convolution, norm)
        elif isinstance(module, Upsample):
            take(name, module, None)
    return network.eval()


def settle_norms(network: Separator, features: Tensor) -> None:
    """Gives norms that a model file left empty the statistics of some features, and changes no output.

    Without that the first steps of training would normalise what the weights expect to find as it is.
    """

    def settle(norm: nn.Module, inputs: tuple[Tensor]) -> None:
        assert isinstance(norm, nn.BatchNorm2d)
        scale = norm.weight / torch.sqrt(norm.running_var + norm.eps)
        shift = norm.bias - norm.running_mean * scale
        norm.running_var, norm.running_mean = torch.var_mean(inputs[0], (0, 2, 3), unbiased=False)
        norm.weight.data = scale * torch.sqrt(norm.running_var + norm.eps)
        norm.bias.data = shift + norm.running_mean * scale

    norms = [module for module in network.modules() if isinstance(module, nn.BatchNorm2d)]
    hooks = [norm.register_forward_pre_hook(settle) for norm in norms]
    with torch.no_grad():
        network.eval().logits(features)
    for hook in hooks:
        hook.remove()


def multiply_adds(network: Separator) -> int:
    """Per frame, all convolutions counted."""
    counted = 0

    def count(module: nn.Module, _: object, result: Tensor) -> None:
        nonlocal counted
        weight = getattr(module, "weight", None)
        if isinstance(weight, Tensor) and weight.dim() == 4:
            places = result.shape[3] // (module.stride[1] if isinstance(module, Upsample) else 1)
            counted += weight.numel() * places

    hooks = [module.register_forward_hook(count) for module in network.modules()]
    with torch.no_grad():
        network.eval()(
            torch.rand(1, network.shape.channels, 1 + network.shape.look_ahead, network.shape.bins)
        )
    for hook in hooks:
        hook.remove()
    return counted
