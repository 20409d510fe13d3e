"""Tensors joined and combined, with each other and with constants."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import replace
from typing import Any, Optional

import numpy as np
from torch import Tensor

from ... import layers as records
from .lowering import Lowering
from .registry import for_functions
from .tracing import Obstacle
from .values import Array, Value, numbers


@for_functions("cat", "concat", "concatenate")
def _cat(low: Lowering, tensors: Sequence[Any], dim: int = 0, axis: Optional[int] = None) -> Value:
    dim = dim if axis is None else axis
    values = [low.settle(_live(tensor)) for tensor in tensors]
    place = dim % len(values[0].axes)
    roles = {value.axes[place] for value in values}
    sole = values[0].axes[place]
    if len(values) == 1:
        return values[0]
    if roles <= {("c",), ("1",)} and all(v.frequencies == values[0].frequencies for v in values):
        if any(low.size_of(v, v.axes[place]) != v.channels for v in values if v.axes[place] == ("1",)):
            raise Obstacle("tensors are joined along a dimension that is neither channels nor frequency")
        channels = sum(value.channels for value in values)
        distinct: list[Value] = []
        for value in values:
            taken = any(value.layer == other.layer for other in distinct)
            distinct.append(low.add(value, "same", low._identity(value)) if taken else value)
        result = low.add(distinct, "", records.Concat(), channels=channels)
        return replace(result, axes=tuple(("c",) if k == place else a for k, a in enumerate(values[0].axes)))
    if sole == ("f",) and roles == {sole}:
        total = sum(value.frequencies for value in values)
        below, parts = 0, []
        for value in values:
            parts.append(low.resize(value, below, total - below - value.frequencies))
            below += value.frequencies
        return low.arithmetic(2, parts)
    raise Obstacle(
        f"tensors are joined along {' and '.join(sorted('x'.join(r) for r in roles))}",
        "join along channels or frequency",
    )


def _live(value: Any) -> Value:
    if not isinstance(value, Value):
        raise Obstacle("a constant takes the place of a tensor that depends on the input")
    return value


def _constant_over(low: Lowering, value: Value, constant: Any) -> Optional[Array]:
    """A constant as [frequencies or 1, channels or 1] beside a value; None for one number."""
    if isinstance(constant, (int, float)) or (isinstance(constant, Tensor) and constant.numel() == 1):
        return None
    if not isinstance(constant, Tensor):
        raise Obstacle(f"an operand of type {type(constant).__name__}")
    array = numbers(constant)
    array = array.reshape((1,) * (len(value.axes) - array.ndim) + array.shape)
    table = {("c",): 1, ("f",): 0}
    out = np.ones((1, 1), np.float32)
    order: list[tuple[int, int]] = []
    for place, axis in enumerate(value.axes):
        if array.shape[place] == 1:
            continue
        if axis not in table:
            first = array.take([0], place)
            if not np.all(array == first):
                raise Obstacle(f"a constant that differs along {'x'.join(axis)}")
            array = first
            continue
        order.append((table[axis], place))
    array = array.transpose(
        [p for _, p in sorted(order)] + [p for p in range(array.ndim) if p not in [q for _, q in order]]
    )
    kept = dict(order)
    shape = (
        array.shape[0] if 0 in kept else 1,
        (array.shape[1] if 0 in kept else array.shape[0]) if 1 in kept else 1,
    )
    out = array.reshape(shape)
    return out


def _whole(value: Value, array: Array) -> Array:
    return np.ascontiguousarray(np.broadcast_to(array, (value.frequencies, value.channels)), np.float32)


@for_functions("add", "iadd")
def _add(low: Lowering, first: Any, second: Any, alpha: float = 1.0) -> Value:
    if alpha != 1.0:
        raise Obstacle("add with alpha", "a + alpha * b")
    if not isinstance(first, Value):
        first, second = second, first
    if isinstance(second, Value):
        return low.arithmetic(2, low.align_layout(first, second))
    array = _constant_over(low, first, second)
    if array is None:
        return first if float(second) == 0.0 else low.affine(first, 1.0, float(second))
    first = low.settle(first)
    return low.offset(first, _whole(first, array), "")


@for_functions("mul", "imul", "multiply")
def multiply_values(low: Lowering, first: Any, second: Any) -> Value:
    if not isinstance(first, Value):
        first, second = second, first
    if isinstance(second, Value):
        return low.arithmetic(0, low.align_layout(first, second))
    array = _constant_over(low, first, second)
    first = low.settle(first)
    if array is None:
        return low.affine(first, float(second), 0.0)
    if array.shape[0] == 1:
        return low.affine(first, array[0], 0.0)
    if array.shape[1] == 1:
        bands: list[tuple[int, records.Weights]] = [(k, array[k]) for k in range(first.frequencies)]
        return low.add(
            first, "", records.FrequencyRescale(bands), multiply_adds=first.frequencies * first.channels
        )
    return low.arithmetic(0, [first, low.constant(first, _whole(first, array))])


@for_functions("sub", "isub", "subtract")
def _subtract(low: Lowering, first: Any, second: Any, alpha: float = 1.0) -> Value:
    if alpha != 1.0:
        raise Obstacle("subtract with alpha", "a - alpha * b")
    if isinstance(first, Value) and isinstance(second, Value):
        first, second = low.align_layout(first, second)
        return low.arithmetic(3, [second, first])
    if isinstance(first, Value):
        return _add(low, first, -second)
    return _add(low, low.affine(second, -1.0, 0.0, "negative"), first)


@for_functions("rsub")
def _reverse_subtract(low: Lowering, first: Any, second: Any) -> Value:
    return _subtract(low, second, first)


@for_functions("truediv", "div", "divide", "itruediv")
def _divide(low: Lowering, first: Any, second: Any) -> Value:
    if isinstance(first, Value) and isinstance(second, Value):
        first, second = low.align_layout(first, second)
        return low.arithmetic(1, [second, first])
    if isinstance(first, Value):
        return multiply_values(low, first, 1.0 / second)
    second = low.settle(second)
    array = _constant_over(low, second, first)
    table = np.full((1, 1), float(first), np.float32) if array is None else array
    return low.arithmetic(1, [second, low.constant(second, _whole(second, table))])


@for_functions("neg", "negative")
def _negative(low: Lowering, value: Value) -> Value:
    return low.affine(value, -1.0, 0.0)


@for_functions("mean", "sum")
def _reduce(low: Lowering, value: Value, dim: Any = None, keepdim: bool = False, **_: Any) -> Value:
    value = low.settle(value)
    if dim is None:
        raise Obstacle("a sum over everything sees the future", "sums over channels or frequency")
    name = str(getattr(low.node.target, "__name__", low.node.target))
    places = sorted(d % len(value.axes) for d in ([dim] if isinstance(dim, int) else dim))
    for place in places:
        role = value.axes[place]
        if role == ("c",):
            factor = 1.0 / value.channels if name == "mean" else 1.0
            value = low.mix_channels(value, np.full((1, value.channels), factor, np.float32), None, name)
        elif role == ("f",):
            factor = 1.0 / value.frequencies if name == "mean" else 1.0
            value = low.mix_frequencies(value, np.full((1, value.frequencies), factor, np.float32), name)
        elif role == ("t",):
            raise Obstacle("a sum over all of time sees the future", "a causal convolution, or LevelNorm")
        elif role != ("1",):
            raise Obstacle(f"a sum over {'x'.join(role)}")
    if keepdim:
        axes = value.axes
    else:
        axes = tuple(axis for place, axis in enumerate(value.axes) if place not in places)
    return replace(value, axes=axes)
