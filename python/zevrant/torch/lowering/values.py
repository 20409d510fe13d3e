"""What the results of a module are in the engine."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, field
from typing import Any, Optional

import numpy as np
import torch
from torch import Tensor

from ... import layers as records
from .tracing import Problem

Array = np.ndarray[Any, np.dtype[np.float32]]
# What a dimension of a tensor stands for: "b" batch, "t" time, "c" channels, "f" frequencies, "1" a single
# value, and several of them where dimensions were flattened into one.
Role = tuple[str, ...]


@dataclass(frozen=True)
class Value:
    """What a node of the module is in the engine: a layer's result, and how its tensor is laid out.

    A module may pad a tensor that only its next convolution looks at, so zeros are held back until then.
    """

    layer: str
    frequencies: int
    channels: int
    axes: tuple[Role, ...]
    front: int = 0  # slices of zeros in front that are still to be laid out
    low: int = 0  # the same for frequencies, below and above; negative to cut
    high: int = 0

    @property
    def padded(self) -> bool:
        return bool(self.front or self.low or self.high)


@dataclass
class Step:
    """One layer of the file.

    `node` names the node of the module that has the same result, where there is one, and `value` tells how
    that result lies in the engine's tensor.
    """

    name: str
    sources: list[str]
    record: records.Layer
    frequencies: int
    channels: int
    multiply_adds: int  # for each slice of the result
    place: str = ""  # file and line that it comes from
    node: str = ""
    value: Optional[Value] = None


@dataclass
class Lowered:
    steps: list[Step]
    output: str
    problems: list[Problem]
    notes: list[str] = field(default_factory=list)


def numbers(tensor: Any) -> Array:
    return np.asarray(torch.as_tensor(tensor).detach().cpu().double().numpy(), dtype=np.float32)


def weights_of(module: Any) -> tuple[Array, Optional[Array]]:
    """Weight and bias."""
    return numbers(module.weight), None if module.bias is None else numbers(module.bias)


def pair(value: Any) -> tuple[int, int]:
    return (int(value[0]), int(value[1])) if isinstance(value, Sequence) else (int(value), int(value))


def to_engine_layout(value: Value, tensor: Tensor) -> Array:
    """A node's result as the engine's tensor [time, frequency, channels], of the first in the batch."""
    dims = list(range(tensor.dim()))
    flat: list[str] = []
    sizes: list[int] = []
    for dim in dims:
        if len(value.axes[dim]) == 1:
            flat.append(value.axes[dim][0])
            sizes.append(tensor.shape[dim])
            continue
        rest = tensor.shape[dim]
        for role in value.axes[dim][::-1]:
            known = {"c": value.channels, "f": value.frequencies}.get(role, rest)
            flat.insert(len(flat) - value.axes[dim][::-1].index(role), role)
            sizes.insert(len(sizes) - value.axes[dim][::-1].index(role), known)
            rest //= known
    tensor = tensor.reshape(sizes)
    for role in ("b", "t", "f", "c"):
        if role not in flat:
            tensor, flat = tensor.unsqueeze(-1), [*flat, role]
    order = [flat.index(role) for role in ("b", "t", "f", "c")]
    others = [place for place in range(len(flat)) if place not in order]
    moved = tensor.permute(*order, *others)
    return numbers(moved.reshape(moved.shape[:4])[0])
