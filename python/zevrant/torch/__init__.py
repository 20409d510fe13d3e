"""From PyTorch into a model file.

`Spectra` is what surrounds a network when it runs; the other modules are the engine's own kinds of layer.
Tensors are [batch, channels, time, frequency], as PyTorch's Conv2d takes them.
"""

from ..packings import ComplexBins, ComplexGroups, Magnitudes, Packing, RectifiedParts
from .export import ExportError, ExportReport, explain, export
from .layers import (
    CausalConv2d,
    CausalConvTranspose2d,
    ChannelGain,
    DilatedMemory,
    FrequencyDense,
    FrequencyRescale,
    LevelFollower,
    LevelNorm,
    RMSNorm,
    SelfAttention,
    SeparableChannelConv,
    align,
)
from .parity import LayerParity, ParityReport, check_parity
from .spectra import Spectra

__all__ = [
    "CausalConv2d",
    "CausalConvTranspose2d",
    "ChannelGain",
    "ComplexBins",
    "ComplexGroups",
    "DilatedMemory",
    "ExportError",
    "ExportReport",
    "FrequencyDense",
    "FrequencyRescale",
    "LayerParity",
    "LevelFollower",
    "LevelNorm",
    "Magnitudes",
    "Packing",
    "ParityReport",
    "RMSNorm",
    "RectifiedParts",
    "SelfAttention",
    "SeparableChannelConv",
    "Spectra",
    "align",
    "check_parity",
    "explain",
    "export",
]
