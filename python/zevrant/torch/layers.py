"""The engine's own kinds of layer over whole sequences, differentiable.

Every module takes [batch, channels, time, frequency] and streams: slice t of a result depends on slices up
to t + look-ahead alone. A module that looks ahead gives fewer slices than it takes, and slice k of its
result belongs to slice k of its input; `align` cuts what is merged with it to the same length.
`docs/model-format.md` holds the formulas.
"""

from __future__ import annotations

import math
from collections.abc import Sequence
from typing import cast

import torch
from torch import Tensor, fx, nn
from torch.nn import functional

Pair = tuple[int, int]


def align(*tensors: Tensor) -> tuple[Tensor, ...]:
    """Cuts tensors [batch, channels, time, frequency] to the shortest in time, from the end.

    The engine pairs slices by count, so merging needs no delay for a branch that looks ahead less.
    """
    proxy = next((tensor for tensor in tensors if isinstance(tensor, fx.Proxy)), None)
    if proxy is not None:  # while a module is followed
        return cast("tuple[Tensor, ...]", proxy.tracer.create_proxy("call_function", align, tensors, {}))
    length = min(tensor.shape[2] for tensor in tensors)
    return tuple(tensor[:, :, :length] for tensor in tensors)


def frequency_start(kernel: int, stride: int) -> int:
    """The input frequency that tap 0 of a convolution meets for output 0."""
    reach = kernel - stride
    return -(reach // 2) if reach >= 0 else (-reach) // 2


class CausalConv2d(nn.Module):
    """Convolution that sees the newest slice and the past, centred and zero-padded in frequency.

    Parameters
    ----------
    in_channels, out_channels : int
    kernel_size, stride : (int, int)
        Time and frequency. The result has frequency // stride frequencies, and every stride-th slice.
    time_dilation : int
        Slices between kernel rows.
    look_ahead : int
        Slices of the input to wait for: 1 lets the network see one slice of the future, and the engine
        reports one frame more of latency.
    channelwise : bool
        Each output channel sees one input channel, as with groups=in_channels.
    bias : bool
    """

    def __init__(
        self,
        in_channels: int,
        out_channels: int,
        kernel_size: Pair,
        stride: Pair = (1, 1),
        *,
        time_dilation: int = 1,
        look_ahead: int = 0,
        channelwise: bool = False,
        bias: bool = True,
    ) -> None:
        super().__init__()
        if channelwise and out_channels % in_channels:
            raise ValueError(f"channel-wise: {out_channels} outputs are no multiple of {in_channels} inputs")
        self.in_channels, self.out_channels = in_channels, out_channels
        self.kernel_size, self.stride = kernel_size, stride
        self.time_dilation, self.look_ahead, self.channelwise = time_dilation, look_ahead, channelwise
        self.groups = in_channels if channelwise else 1
        inputs = 1 if channelwise else in_channels
        self.weight = nn.Parameter(torch.empty(out_channels, inputs, *kernel_size))
        self.bias = nn.Parameter(torch.zeros(out_channels)) if bias else None
        nn.init.kaiming_uniform_(self.weight, a=math.sqrt(5.0))

    def forward(self, x: Tensor) -> Tensor:
        rows, taps = self.kernel_size
        stride = self.stride[1]
        start = frequency_start(taps, stride)
        frequencies = x.shape[3] // stride
        end = (frequencies - 1) * stride + start + taps - x.shape[3]
        front = self.time_dilation * (rows - 1) - self.look_ahead
        x = functional.pad(x, (-start, end, front, 0))
        return functional.conv2d(
            x, self.weight, self.bias, self.stride, dilation=(self.time_dilation, 1), groups=self.groups
        )


class CausalConvTranspose2d(nn.Module):
    """The upsampling counterpart: each slice gives stride[0] slices, each stride[1] times as wide.

    Parameters
    ----------
    in_channels, out_channels, kernel_size, stride, channelwise, bias
        As for `CausalConv2d`.
    look_ahead : int
        Slices of the output to drop at the start.
    """

    def __init__(
        self,
        in_channels: int,
        out_channels: int,
        kernel_size: Pair,
        stride: Pair = (1, 1),
        *,
        look_ahead: int = 0,
        channelwise: bool = False,
        bias: bool = True,
    ) -> None:
        super().__init__()
        if channelwise and out_channels != in_channels:
            raise ValueError("channel-wise: as many outputs as inputs")
        self.in_channels, self.out_channels = in_channels, out_channels
        self.kernel_size, self.stride = kernel_size, stride
        self.look_ahead, self.channelwise = look_ahead, channelwise
        self.groups = in_channels if channelwise else 1
        self.weight = nn.Parameter(torch.empty(in_channels, out_channels // self.groups, *kernel_size))
        self.bias = nn.Parameter(torch.zeros(out_channels)) if bias else None
        nn.init.kaiming_uniform_(self.weight, a=math.sqrt(5.0))

    def forward(self, x: Tensor) -> Tensor:
        taps = self.kernel_size[1]
        start = frequency_start(taps, self.stride[1])
        length, width = x.shape[2] * self.stride[0], x.shape[3] * self.stride[1]
        y = functional.conv_transpose2d(x, self.weight, None, self.stride, groups=self.groups)
        # Cuts, or fills where the kernel is shorter than the stride; then the bias reaches every value.
        y = functional.pad(y, (start, width - start - y.shape[3], -self.look_ahead, length - y.shape[2]))
        return y if self.bias is None else y + self.bias[:, None, None]


class ChannelGain(nn.Module):
    """Gain and offset for each channel: what is left of a BatchNorm after training."""

    def __init__(self, channels: int) -> None:
        super().__init__()
        self.gain = nn.Parameter(torch.ones(channels))
        self.offset = nn.Parameter(torch.zeros(channels))

    def forward(self, x: Tensor) -> Tensor:
        return x * self.gain[:, None, None] + self.offset[:, None, None]


class RMSNorm(nn.Module):
    """Divides by the root mean square over the channels of each time and frequency, then gain and offset."""

    def __init__(self, channels: int, offset: bool = True) -> None:
        super().__init__()
        self.gain = nn.Parameter(torch.ones(channels))
        self.offset = nn.Parameter(torch.zeros(channels)) if offset else None

    def forward(self, x: Tensor) -> Tensor:
        y = x / (_root_mean_square(x, (1,)) + 1e-12) * self.gain[:, None, None]
        return y if self.offset is None else y + self.offset[:, None, None]


def _root_mean_square(x: Tensor, axes: tuple[int, ...]) -> Tensor:
    """With the axes kept. Where all is 0 so is the gradient, which a bare root would make infinite."""
    power = x.square().mean(axes, keepdim=True)
    silent = power == 0.0
    return torch.where(silent, power, torch.where(silent, torch.ones_like(power), power).sqrt())


class LevelNorm(nn.Module):
    """Divides each slice by a weighted sum of the levels of the latest slices.

    A level is the root mean square over all frequencies and channels of a slice. `weight[j]` meets the level
    j slices ago. At the start all past levels count as the first.

    Parameters
    ----------
    levels : int
        How many levels are looked at; they start as the plain mean.
    trainable : bool
    """

    def __init__(self, levels: int, trainable: bool = True) -> None:
        super().__init__()
        self.weight = nn.Parameter(torch.full((levels,), 1.0 / levels), requires_grad=trainable)

    def forward(self, x: Tensor) -> Tensor:
        levels = _root_mean_square(x, (1, 3))[:, 0, :, 0]
        count = self.weight.shape[0]
        padded = torch.cat([levels[:, :1].expand(-1, count - 1), levels], 1)
        smoothed = functional.conv1d(padded[:, None], self.weight.flip(0)[None, None])
        return x / (smoothed[:, :, :, None] + 1e-12)


class LevelFollower(nn.Module):
    """Divides each slice by a level that follows the sound with separate speeds for rise and fall.

    Parameters
    ----------
    attack, release : float
        How much of the level stays from one slice to the next while the sound is louder, or not louder, than
        it: 0 follows at once, near 1 is slow.
    epsilon : float
        Added to the level before dividing.
    scale : float
        Factor of the level; `Spectra.level_scale` is what the engine uses.
    """

    def __init__(self, attack: float, release: float, epsilon: float = 1e-5, scale: float = 1.0) -> None:
        super().__init__()
        self.attack, self.release, self.epsilon, self.scale = attack, release, epsilon, scale

    def forward(self, x: Tensor) -> Tensor:
        levels = _root_mean_square(x, (1, 3))[:, 0, :, 0] * self.scale  # [batch, time]
        level = torch.zeros_like(levels[:, 0])
        followed = []
        for newest in levels.unbind(1):
            keep = torch.where(newest > level, self.attack, self.release).to(levels.dtype)
            level = (1.0 - keep) * newest + keep * level
            followed.append(level)
        return x / (torch.stack(followed, 1)[:, None, :, None] + self.epsilon)


class FrequencyRescale(nn.Module):
    """A sparse matrix across frequency: each output is a weighted sum of a run of inputs.

    Parameters
    ----------
    bands : sequence of (int, sequence of float)
        For each output the first input frequency, and the taps for it and those above; at least one tap.
    input_frequencies : int
    trainable : bool
        Whether the taps are parameters. Where they start does not change.
    """

    taps: Tensor
    place: Tensor

    def __init__(
        self,
        bands: Sequence[tuple[int, Sequence[float]]],
        input_frequencies: int,
        trainable: bool = False,
    ) -> None:
        super().__init__()
        self.input_frequencies, self.output_frequencies = input_frequencies, len(bands)
        self.first = [int(first) for first, _ in bands]
        self.counts = [len(taps) for _, taps in bands]
        for number, (first, count) in enumerate(zip(self.first, self.counts)):
            if count < 1 or first < 0 or first + count > input_frequencies:
                raise ValueError(
                    f"band {number}: {count} taps from {first} on, but there are {input_frequencies} inputs"
                )
        taps = torch.tensor([float(tap) for _, run in bands for tap in run])
        place = torch.tensor(
            [
                (first + k) * len(bands) + number
                for number, (first, count) in enumerate(zip(self.first, self.counts))
                for k in range(count)
            ]
        )
        self.register_buffer("place", place, persistent=False)
        if trainable:
            self.taps = nn.Parameter(taps)
        else:
            self.register_buffer("taps", taps)

    @classmethod
    def from_matrix(cls, matrix: Tensor, trainable: bool = False) -> FrequencyRescale:
        """From [outputs, inputs], each row cut to the run from its first to its last value that is not 0."""
        bands = []
        for row in matrix.detach().cpu():
            used = row.nonzero().flatten().tolist() or [0]
            bands.append((used[0], row[used[0] : used[-1] + 1].tolist()))
        return cls(bands, matrix.shape[1], trainable)

    def matrix(self) -> Tensor:
        """[input_frequencies, output_frequencies]"""
        size = self.input_frequencies * self.output_frequencies
        empty = torch.zeros(size, dtype=self.taps.dtype, device=self.taps.device)
        return empty.index_put((self.place,), self.taps).view(self.input_frequencies, self.output_frequencies)

    def forward(self, x: Tensor) -> Tensor:
        return x @ self.matrix()


class FrequencyDense(nn.Module):
    """A full matrix across frequency for each channel, without mixing channels."""

    def __init__(self, frequencies: int, channels: int, bias: bool = True) -> None:
        super().__init__()
        self.weight = nn.Parameter(torch.empty(frequencies, frequencies, channels))  # [out, in, channel]
        self.bias = nn.Parameter(torch.zeros(frequencies, channels)) if bias else None
        nn.init.uniform_(self.weight, -1.0 / math.sqrt(frequencies), 1.0 / math.sqrt(frequencies))

    def forward(self, x: Tensor) -> Tensor:
        y = torch.einsum("bctf,gfc->bctg", x, self.weight)
        return y if self.bias is None else y + self.bias.t()[:, None, :]


class SeparableChannelConv(nn.Module):
    """One kernel along time and one along frequency, the same for all channels.

    `time_kernel[j]` meets the slice that is `look_ahead - j` slices ahead, with a look-ahead of half of the
    kernel, so the result is centred in time and so many slices shorter. The engine does not report that
    look-ahead as latency. The frequency kernel is a convolution's: its first tap meets the highest frequency.
    """

    def __init__(self, time_taps: int, frequency_taps: int) -> None:
        super().__init__()
        self.time_kernel = nn.Parameter(torch.full((time_taps,), 1.0 / time_taps))
        self.frequency_kernel = nn.Parameter(torch.full((frequency_taps,), 1.0 / frequency_taps))

    @property
    def look_ahead(self) -> int:
        return (self.time_kernel.shape[0] + 1) // 2 - 1

    def forward(self, x: Tensor) -> Tensor:
        times, taps = self.time_kernel.shape[0], self.frequency_kernel.shape[0]
        centre = (taps - 1) // 2
        x = functional.pad(x, (taps - 1 - centre, centre, times - 1 - self.look_ahead, 0))
        batch, channels, time, frequency = x.shape
        x = x.reshape(batch * channels, 1, time, frequency)
        x = functional.conv2d(x, self.time_kernel.flip(0)[None, None, :, None])
        x = functional.conv2d(x, self.frequency_kernel.flip(0)[None, None, None, :])
        return x.reshape(batch, channels, *x.shape[2:])


class SelfAttention(nn.Module):
    """A causal filter for each channel, then a matrix across channels and a fixed term for each frequency.

    Parameters
    ----------
    channels, frequencies : int
    history : int
        Slices that the filter sees, 0 for none; `time_weight[history - 1]` meets the newest.
    look_ahead : int
        Slices to drop at the start.
    """

    def __init__(self, channels: int, frequencies: int, history: int = 0, look_ahead: int = 0) -> None:
        super().__init__()
        self.look_ahead = look_ahead
        self.channel_matrix = nn.Parameter(torch.eye(channels))  # [in, out]
        self.position_bias = nn.Parameter(torch.zeros(frequencies, channels))
        self.time_weight = nn.Parameter(torch.full((history, channels), 1.0 / history)) if history else None

    def forward(self, x: Tensor) -> Tensor:
        if self.time_weight is not None:
            history, channels = self.time_weight.shape
            kernel = self.time_weight.t()[:, None, :, None]
            padded = functional.pad(x, (0, 0, history - 1, 0))
            x = functional.conv2d(padded, kernel, groups=channels)
        y = torch.einsum("bctf,co->botf", x, self.channel_matrix)
        return (y + self.position_bias.t()[:, None, :])[:, :, self.look_ahead :]


class DilatedMemory(nn.Module):
    """What a network remembers, by dilated convolutions instead of recurrence.

    Called as a GRU with batch_first is, so it takes its place in one line:

    >>> self.memory = DilatedMemory(input_size, hidden_size)      # was nn.GRU(..., batch_first=True)
    >>> y, _ = self.memory(x)                                     # [batch, time, input_size]

    Level k sees the slice 2**k slices ago beside the newest and adds what it makes of both to what it was
    given, so the result sees 2**levels slices: 64 for 6 levels. A recurrence has no such end.

    Parameters
    ----------
    input_size, hidden_size : int
    levels : int
        1 to 7.
    """

    def __init__(self, input_size: int, hidden_size: int, levels: int = 6) -> None:
        super().__init__()
        if not 1 <= levels <= 7:
            raise ValueError("a memory has 1 to 7 levels")
        self.entry = nn.Conv1d(input_size, hidden_size, 1)
        self.levels = nn.ModuleList(
            nn.Conv1d(hidden_size, hidden_size, 2, dilation=2**level) for level in range(levels)
        )
        self.activation = nn.ELU()

    def forward(self, x: Tensor) -> tuple[Tensor, None]:
        """[batch, time, input_size] -> [batch, time, hidden_size], and no state."""
        y = self.entry(x.transpose(1, 2))
        for number, level in enumerate(self.levels):
            y = y + self.activation(level(functional.pad(y, (2**number, 0))))
        return y.transpose(1, 2), None
