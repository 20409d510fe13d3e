"""Parts of tensors, zeros around them, and the order of their dimensions."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import replace
from typing import Any, Optional

import numpy as np
from torch import nn

from ... import layers as records
from .lowering import Lowering
from .registry import for_functions, for_modules
from .tracing import Obstacle
from .values import Role, Value, pair


@for_modules(nn.AvgPool2d)
def _avg_pool(low: Lowering, module: nn.AvgPool2d, value: Value) -> Value:
    kernel, stride, padding = pair(module.kernel_size), pair(module.stride), pair(module.padding)
    if padding != (0, 0) or kernel[0] != 1 or stride[0] != 1 or value.axes[-1] != ("f",):
        raise Obstacle("an average over time or with padding", "a convolution, or AvgPool2d((1, n))")
    value = low.settle(value)
    count = (value.frequencies - kernel[1]) // stride[1] + 1
    matrix = np.zeros((count, value.frequencies), np.float32)
    for k in range(count):
        matrix[k, k * stride[1] : k * stride[1] + kernel[1]] = 1.0 / kernel[1]
    return low.mix_frequencies(value, matrix, "")


@for_modules(nn.Upsample)
def _upsample(low: Lowering, module: nn.Upsample, value: Value) -> Value:
    return _interpolate(low, value, module.size, module.scale_factor, module.mode)


@for_functions("interpolate")
def _interpolate(
    low: Lowering, value: Value, size: Any = None, scale_factor: Any = None, mode: str = "nearest", **_: Any
) -> Value:
    if mode != "nearest":
        raise Obstacle(f"interpolation by {mode}", 'mode="nearest", or ConvTranspose2d')
    shape = low.results[low.node.name].shape
    before = low.results[low.node.all_input_nodes[0].name].shape
    value = low.settle(value)
    if shape[2] != before[2] or value.axes[2] != ("t",):
        raise Obstacle("interpolation over time", "ConvTranspose2d, or interpolate frequency only")
    return low.pick_frequencies(value, [k * before[3] // shape[3] for k in range(shape[3])], "")


@for_modules(nn.ZeroPad2d, nn.ConstantPad2d, nn.ConstantPad1d)
def _zero_pad(low: Lowering, module: Any, value: Value) -> Value:
    return _pad(low, value, list(module.padding), "constant", getattr(module, "value", 0.0))


@for_functions("pad")
def _pad(
    low: Lowering, source: Value, /, pad: Sequence[int], mode: str = "constant", value: Any = 0.0
) -> Value:
    if mode != "constant" or value not in (None, 0, 0.0):
        raise Obstacle(f"padding by {mode}", "padding by zeros")
    padded = source
    for number in range(len(pad) // 2):
        below, above = int(pad[2 * number]), int(pad[2 * number + 1])
        role = padded.axes[-1 - number]
        if below == above == 0:
            continue
        if role == ("t",):
            padded = _shift_time(low, padded, below)
        elif role == ("f",):
            padded = replace(padded, low=padded.low + below, high=padded.high + above)
        elif role in (("c",), ("1",)) and below >= 0 and above >= 0:
            padded = low.settle(padded)
            place = np.eye(padded.channels + below + above, padded.channels, -below, dtype=np.float32)
            padded = low.mix_channels(padded, place, None, "pad")
            padded = replace(
                padded,
                axes=tuple(
                    ("c",) if k == len(padded.axes) - 1 - number else axis
                    for k, axis in enumerate(padded.axes)
                ),
            )
        else:
            raise Obstacle(f"padding of {'x'.join(role)}")
    return padded


def _shift_time(low: Lowering, value: Value, front: int) -> Value:
    """Slices behind the end do not matter: slice k of a result is compared with slice k."""
    if value.front + front >= 0:
        return replace(value, front=value.front + front)
    cut = -(value.front + front)
    value = low.settle(replace(value, front=0))
    if cut > 127:
        raise Obstacle(f"{cut} slices are cut off in front; one layer can drop up to 127")
    weights = np.ones((1, 1, 1, value.channels), np.float32)
    return low.add(
        value,
        "wait",
        records.Conv(weights, time_offset=cut),
        multiply_adds=value.frequencies * value.channels,
    )


@for_functions("getitem")
def _get_item(low: Lowering, value: Any, index: Any) -> Any:
    if not isinstance(value, Value):
        return value[index]
    index = index if isinstance(index, tuple) else (index,)
    if any(entry is Ellipsis for entry in index):
        place = next(k for k, entry in enumerate(index) if entry is Ellipsis)
        used = sum(entry is not None for entry in index) - 1
        index = index[:place] + (slice(None),) * (len(value.axes) - used) + index[place + 1 :]
    axes: list[Role] = []
    dim = 0
    before = low.results[low.node.all_input_nodes[0].name].shape
    for entry in index:
        if entry is None:
            axes.append(("1",))
            continue
        role, size = value.axes[dim], before[dim]
        if isinstance(entry, int):
            value = _cut(low, value, role, range(size)[entry], 1, 1, size)
        elif isinstance(entry, slice):
            start, stop, step = entry.indices(size)
            value = _cut(low, value, role, start, len(range(start, stop, step)), step, size)
            axes.append(role)
        else:
            raise Obstacle("a tensor is indexed by another", "slices")
        dim += 1
    return replace(value, axes=(*axes, *value.axes[dim:]))


def _cut(low: Lowering, value: Value, role: Role, start: int, count: int, step: int, size: int) -> Value:
    if (start == 0 and count == size and step == 1) or role in (("b",), ("1",)):
        return value
    if role == ("t",):
        if step != 1:
            raise Obstacle("every so many slices are taken", "a convolution with a stride in time")
        return _shift_time(low, value, -start)
    places = [start + k * step for k in range(count)]
    value = low.settle(value)
    if role == ("f",):
        return low.pick_frequencies(value, places, "cut")
    if role == ("c",):
        return low.mix_channels(value, np.eye(value.channels, dtype=np.float32)[places], None, "cut")
    raise Obstacle(f"a part of {'x'.join(role)} is taken")


@for_functions("chunk")
def _chunk(low: Lowering, value: Value, chunks: int, dim: int = 0) -> tuple[Value, ...]:
    size = low.results[low.node.all_input_nodes[0].name].shape[dim]
    return _split(low, value, -(-size // chunks), dim)


@for_functions("split")
def _split(low: Lowering, value: Value, split_size: Any, dim: int = 0) -> tuple[Value, ...]:
    size = low.results[low.node.all_input_nodes[0].name].shape[dim]
    sizes = (
        [min(split_size, size - start) for start in range(0, size, split_size)]
        if isinstance(split_size, int)
        else list(split_size)
    )
    starts = [sum(sizes[:k]) for k in range(len(sizes))]
    role = value.axes[dim]
    return tuple(_cut(low, value, role, start, count, 1, size) for start, count in zip(starts, sizes))


@for_functions("align")
def _align(low: Lowering, *values: Value) -> tuple[Value, ...]:
    return values


@for_functions("permute")
def _permute(low: Lowering, value: Value, *dims: Any) -> Value:
    order = dims[0] if len(dims) == 1 and not isinstance(dims[0], int) else dims
    return replace(value, axes=tuple(value.axes[d] for d in order))


@for_functions("transpose", "swapaxes", "swapdims")
def _transpose(low: Lowering, value: Value, first: int, second: int) -> Value:
    axes = list(value.axes)
    axes[first], axes[second] = axes[second], axes[first]
    return replace(value, axes=tuple(axes))


@for_functions("unsqueeze")
def _unsqueeze(low: Lowering, value: Value, dim: int) -> Value:
    axes = list(value.axes)
    axes.insert(dim if dim >= 0 else len(axes) + 1 + dim, ("1",))
    return replace(value, axes=tuple(axes))


@for_functions("squeeze")
def _squeeze(low: Lowering, value: Value, dim: Optional[int] = None) -> Value:
    shape = low.results[low.node.all_input_nodes[0].name].shape
    if dim is None:
        raise Obstacle("squeeze of all dimensions depends on the batch", "squeeze(dim)")
    if shape[dim] != 1:
        return value
    axes = list(value.axes)
    axes.pop(dim)
    return replace(value, axes=tuple(axes))


@for_functions("contiguous", "clone", "detach", "float", "to", "type_as")
def _same(low: Lowering, value: Value, *args: Any, **kwargs: Any) -> Value:
    return value


@for_functions("reshape", "view", "flatten", "unflatten")
def _reshape(low: Lowering, value: Value, *args: Any, **kwargs: Any) -> Value:
    """Follows which dimensions are joined, and takes joined ones apart again."""
    before = low.results[low.node.all_input_nodes[0].name].shape
    after = low.results[low.node.name].shape
    if value.low or value.high:
        value = low.settle(value)
    sizes = {"c": value.channels, "f": value.frequencies, "1": 1}
    parts: list[tuple[str, int]] = []
    for role, size in zip(value.axes, before):
        rest = size
        run: list[tuple[str, int]] = []
        for part in role[::-1]:
            here = rest if part == role[0] else sizes.get(part, rest)
            run.insert(0, (part, here))
            rest //= here
        parts += run
    parts = [part for part in parts if part[1] != 1 or part[0] == "b"]
    axes: list[Role] = []
    for size in after:
        if size == 1 and not (parts and parts[0] == ("b", 1)):
            axes.append(("1",))
            continue
        joined: list[str] = []
        product = 1
        while product < size or not joined:
            if not parts or size % (product * parts[0][1]):
                raise Obstacle("a dimension is taken apart", "slices, chunk, or layers of their own")
            product *= parts[0][1]
            joined.append(parts.pop(0)[0])
        axes.append(tuple(joined))
    return replace(value, axes=tuple(axes))
