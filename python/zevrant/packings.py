"""How a spectrum lies in the tensors of a network. `docs/model-format.md` holds the formulas."""

from __future__ import annotations

from dataclasses import dataclass
from typing import ClassVar


class Packing:
    """What all packings answer.

    Attributes
    ----------
    code : int
        The number of the packing in a model file.
    all_bins, fine_bins, group_size : int
        Bins that the network sees; of these the lowest, kept in detail; bins for each row above them.
    rows : int
        Frequencies of the network's input.
    columns_per_channel : int
        Channels of the network's input for each channel of audio: 2 where the values are complex, else 1.
    """

    code: ClassVar[int]
    columns_per_channel: ClassVar[int] = 1

    @property
    def all_bins(self) -> int:
        raise NotImplementedError

    @property
    def fine_bins(self) -> int:
        return 0

    @property
    def group_size(self) -> int:
        return 1

    @property
    def rows(self) -> int:
        return 3 * self.fine_bins + self.all_bins


@dataclass(frozen=True)
class Magnitudes(Packing):
    """One row of magnitudes for each bin."""

    bins: int
    code: ClassVar[int] = 1

    @property
    def all_bins(self) -> int:
        return self.bins


@dataclass(frozen=True)
class RectifiedParts(Packing):
    """Four rows of rectified parts for each fine bin, and above them one magnitude for each bin."""

    fine: int
    rest: int
    code: ClassVar[int] = 2

    @property
    def all_bins(self) -> int:
        return self.fine + self.rest

    @property
    def fine_bins(self) -> int:
        return self.fine


@dataclass(frozen=True)
class ComplexBins(Packing):
    """Real and imaginary part of each bin, side by side in two channels."""

    bins: int
    code: ClassVar[int] = 4
    columns_per_channel: ClassVar[int] = 2

    @property
    def all_bins(self) -> int:
        return self.bins


@dataclass(frozen=True)
class FrameHistory(Packing):
    """A packing that no conversion is defined for: such a model loads and never runs."""

    fine: int
    rest: int
    frames: int
    code: ClassVar[int] = 5

    @property
    def all_bins(self) -> int:
        return self.fine + self.rest

    @property
    def fine_bins(self) -> int:
        return self.fine


@dataclass(frozen=True)
class ComplexGroups(Packing):
    """As `ComplexBins` for the fine bins; above them one row for each group of bins, holding their mean."""

    fine: int
    rest: int
    group: int
    code: ClassVar[int] = 6
    columns_per_channel: ClassVar[int] = 2

    @property
    def all_bins(self) -> int:
        return self.fine + self.rest

    @property
    def fine_bins(self) -> int:
        return self.fine

    @property
    def group_size(self) -> int:
        return self.group

    @property
    def rows(self) -> int:
        return self.rest // self.group + self.fine
