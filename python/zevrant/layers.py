"""One record for each kind of layer that a model file can hold, and how spectra lie around them.

Fields are what the engine reads, in its units; `docs/model-format.md` says what each layer computes. Axes of
weights are written outermost first. Tensors may be any arrays of numbers, and `None` where they are optional.
"""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any, Optional, Union

import numpy as np
import numpy.typing as npt

from .packings import ComplexBins as ComplexBins
from .packings import ComplexGroups as ComplexGroups
from .packings import FrameHistory as FrameHistory
from .packings import Magnitudes as Magnitudes
from .packings import Packing as Packing
from .packings import RectifiedParts as RectifiedParts

Floats = npt.NDArray[np.float32]
Weights = Union[npt.NDArray[Any], Sequence[Any]]


@dataclass(eq=False)
class Conv:
    """Convolution, causal in time; channel-wise where inputs is 1 and there are more channels."""

    weights: Weights  # [kernel_time, kernel_frequency, inputs, outputs]
    bias: Optional[Weights] = None  # [outputs]
    time_stride: int = 1
    frequency_stride: int = 1
    time_dilation: int = 1
    reserved: int = 0  # stored and not used
    time_offset: int = 0  # slices to wait before the first output


@dataclass(eq=False)
class TransposedConv:
    """The upsampling counterpart: each slice gives time_stride slices, frequency_stride times as wide."""

    weights: Weights  # [kernel_time, kernel_frequency, outputs, inputs]
    bias: Optional[Weights] = None  # [output_channels]
    output_channels: Optional[int] = None  # outputs, unless given
    time_stride: int = 1
    frequency_stride: int = 1
    time_dilation: int = 1  # stored and not used
    reserved: int = 0  # stored and not used
    time_offset: int = 0  # slices of the output to drop at the start


@dataclass(eq=False)
class ReLU:
    """max(x, 0)"""


@dataclass(eq=False)
class ELU:
    """max(x, 0) + exp(min(x, 0)) - 1"""


@dataclass(eq=False)
class Sigmoid:
    """exp(y) / (1 + exp(y)) with y = x limited to -10 and 10"""


@dataclass(eq=False)
class HardSigmoid:
    """x / 6 + 0.5 limited to 0 and 1"""


@dataclass(eq=False)
class Softplus:
    """ln(1 + exp(x)), infinite above 88.7"""


@dataclass(eq=False)
class LeakyReLU:
    """max(x, 0) + alpha min(x, 0)"""

    alpha: float = 0.01


@dataclass(eq=False)
class Norm:
    """Gain and offset for each channel; in mode 1 behind a division by the level across channels."""

    gain: Weights  # [channels]
    offset: Optional[Weights] = None  # [channels]; needed in mode 0
    mode: int = 0


@dataclass(eq=False)
class PreNorm:
    """Division by a weighted sum of levels: weight 0 meets the newest, weight 1 the oldest."""

    level_weights: Weights  # [levels]


@dataclass(eq=False)
class ARPreNorm:
    """Division by a level follower. A coefficient of 0 follows at once, near 1 is slow."""

    attack: float
    release: float
    epsilon: float


@dataclass(eq=False)
class Dense:
    """A full matrix across frequency for each channel."""

    weights: Weights  # [frequencies, frequencies, channels], output frequency first
    bias: Optional[Weights] = None  # [frequencies, channels]


@dataclass(eq=False)
class SeparableChannelConv:
    """One kernel along time, whose last tap meets the newest slice, and one along frequency."""

    time_kernel: Weights  # [taps]
    frequency_kernel: Weights  # [taps]


@dataclass(eq=False)
class SelfAttention:
    """A causal filter for each channel, a channel matrix and a fixed term."""

    channel_matrix: Weights  # [inputs, outputs], both alike
    position_bias: Weights  # [frequencies, channels]
    start_delay: int = 0  # slices to drop at the start
    time_weights: Optional[Weights] = None  # [slices, channels], the newest slice last


@dataclass(eq=False)
class FrequencyRescale:
    """A sparse matrix across frequency."""

    bands: Sequence[tuple[int, Weights]]  # for each output the first input and the taps from there on


@dataclass(eq=False)
class Concat:
    """Joins its sources along the channel axis."""


@dataclass(eq=False)
class Arithmetic:
    """Combines its sources in turn: with r what is combined so far and x the next, by `operation`.

    0 gives r * x, 1 x / r, 2 r + x and 3 x - r.
    """

    operation: int = 2


SingleSourceLayer = Union[
    Conv,
    TransposedConv,
    ReLU,
    ELU,
    Sigmoid,
    HardSigmoid,
    Softplus,
    LeakyReLU,
    Norm,
    PreNorm,
    ARPreNorm,
    Dense,
    SeparableChannelConv,
    SelfAttention,
    FrequencyRescale,
]
MergingLayer = Union[Concat, Arithmetic]
Layer = Union[SingleSourceLayer, MergingLayer]
