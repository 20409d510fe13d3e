"""Convolutions and matrices."""

from __future__ import annotations

from dataclasses import replace
from typing import Any, Optional

import numpy as np
from torch import Tensor, nn

from ... import layers as records
from .. import layers as ours
from .lowering import Lowering
from .registry import for_functions, for_modules, unknown_operation
from .tracing import Obstacle
from .values import Array, Role, Value, numbers, pair, weights_of


def _engine_start(kernel: int, stride: int) -> int:
    return ours.frequency_start(kernel, stride)


def _extend_kernel(taps: int, stride: int, start: int) -> tuple[int, int]:
    """Zeros below and above a kernel that bring its tap 0 to this input frequency for output 0."""
    for total in range(2 * (taps + abs(start) + stride) + 2):
        for below in range(total + 1):
            if _engine_start(taps + total, stride) == start - below:
                return below, total - below
    raise Obstacle("a kernel that no padding brings to its place")


def _spread_taps(kernel: Array, axis: int, dilation: int) -> Array:
    if dilation == 1 or kernel.shape[axis] == 1:
        return kernel
    shape = list(kernel.shape)
    shape[axis] = dilation * (shape[axis] - 1) + 1
    spread = np.zeros(shape, np.float32)
    spread[tuple(slice(None, None, dilation) if a == axis else slice(None) for a in range(kernel.ndim))] = (
        kernel
    )
    return spread


def _ungroup(weight: Array, groups: int) -> Array:
    """[outputs, inputs / groups, ...] -> [outputs, inputs, ...] with zeros between the groups."""
    outputs, inputs = weight.shape[:2]
    full = np.zeros((outputs, inputs * groups, *weight.shape[2:]), np.float32)
    for group in range(groups):
        rows = slice(group * (outputs // groups), (group + 1) * (outputs // groups))
        full[rows, group * inputs : (group + 1) * inputs] = weight[rows]
    return full


def _spatial_order(value: Value, channel: int, first: int, second: int) -> tuple[Value, bool]:
    """Checks a Conv2d's layout; True where frequency comes before time."""
    time = [place for place in (first, second) if value.axes[place] == ("t",)]
    if len(time) != 1:
        raise Obstacle(
            "a convolution over two dimensions of which none is time",
            "tensors laid out as [batch, channels, time, frequency]",
        )
    return value, time[0] == second


def _time_offset(low: Lowering, value: Value, padding: int, reach: int) -> tuple[Value, int]:
    """The slices to wait for, when a kernel reaches so far back and so many zeros stand in front."""
    padding += value.front
    if padding > reach:
        value = low.delay(replace(value, front=0, low=0, high=0), padding - reach)
        padding = reach
    offset = reach - padding
    if offset > 127:
        raise Obstacle(f"a convolution waits for {offset} slices; a layer holds back up to 127")
    return value, offset


def _convolve(
    low: Lowering,
    value: Value,
    weight: Array,
    bias: Optional[Array],
    stride: tuple[int, int],
    padding: tuple[tuple[int, int], tuple[int, int]],
    dilation: tuple[int, int],
    groups: int,
) -> Value:
    """weight [outputs, inputs / groups, time, frequency], padding ((front, end), (below, above))."""
    inputs, outputs = weight.shape[1] * groups, weight.shape[0]
    if value.channels != inputs:
        raise Obstacle(f"{value.channels} channels meet a convolution of {inputs}")
    channelwise = groups == inputs and groups > 1
    if groups > 1 and not channelwise:
        weight = _ungroup(weight, groups)
        low.notes.append(f"{low.node.name}: {groups} groups are written as one, with zeros between them")
    kernel = np.ascontiguousarray(weight.transpose(2, 3, 1, 0))  # [time, frequency, inputs, outputs]
    kernel = _spread_taps(kernel, 1, dilation[1])
    time_dilation = dilation[0] if kernel.shape[0] > 1 else 1
    reach = time_dilation * (kernel.shape[0] - 1)

    start = -(padding[1][0] + value.low)
    width = value.frequencies + value.low + value.high + sum(padding[1])
    frequencies = (width - kernel.shape[1]) // stride[1] + 1
    if frequencies < 1:
        raise Obstacle(f"a kernel of {weight.shape[3]} frequencies is wider than what it meets")
    # Above the band there are zeros as well, so rows that are missing there can be laid out as zeros. A
    # band that is cut has to be cut before.
    if value.low < 0 or value.high < 0:
        value = replace(
            low.resize(value, min(value.low, 0), min(value.high, 0)),
            low=max(value.low, 0),
            high=max(value.high, 0),
        )
        start = -(padding[1][0] + value.low)
    needed = frequencies * stride[1] - value.frequencies
    value, offset = _time_offset(low, value, padding[0][0], reach)
    if needed > 0:
        value = low.resize(value, 0, needed)
    below, above = _extend_kernel(kernel.shape[1], stride[1], start)
    kernel = np.pad(kernel, ((0, 0), (below, above), (0, 0), (0, 0)))
    value = replace(value, front=0, low=0, high=0)
    produced = value.frequencies // stride[1]
    layer = records.Conv(kernel, bias, stride[0], stride[1], time_dilation, time_offset=offset)
    result = low.add(
        value, "", layer, frequencies=produced, channels=outputs, multiply_adds=produced * int(kernel.size)
    )
    if produced > frequencies:
        result = low.resize(result, 0, frequencies - produced)
    return result


def _conv_padding(module: Any, count: int) -> list[tuple[int, int]]:
    if module.padding_mode != "zeros":
        raise Obstacle(f"padding by {module.padding_mode}", 'padding_mode="zeros"')
    if module.padding == "valid":
        return [(0, 0)] * count
    if module.padding == "same":
        totals = [d * (k - 1) for d, k in zip(module.dilation, module.kernel_size)]
        return [(total // 2, total - total // 2) for total in totals]
    return [(int(p), int(p)) for p in module.padding]


def _as_channels(low: Lowering, value: Value, place: int, frequency: Optional[int]) -> Value:
    """Makes the dimension that a convolution takes as channels the engine's channels."""
    role = value.axes[place]
    if role == ("c",) or (role == ("1",) and value.channels == 1):
        if frequency is not None and value.axes[frequency] not in (("f",), ("1",)):
            raise Obstacle("a convolution whose last dimension is not frequency")
        return value
    if frequency is None or low.size_of(value, value.axes[frequency]) == 1:
        return low.to_channels(value, role)
    raise Obstacle("a convolution takes frequencies as channels and channels as frequencies")


def _as_frequency(low: Lowering, value: Value, place: int, channel: int) -> Value:
    """Where a dimension of channels is now meant as frequency."""
    if value.axes[place] == ("c",) and value.channels > 1 and low.size_of(value, value.axes[channel]) == 1:
        return low.channels_to_frequency(value)
    return value


@for_modules(nn.Conv2d)
def _conv2d(low: Lowering, module: nn.Conv2d, value: Value) -> Value:
    weight, bias = weights_of(module)
    value, swapped = _spatial_order(value, 1, 2, 3)
    place = 2 if swapped else 3
    value = _as_frequency(low, value, place, 1)
    value = _as_channels(low, value, 1, place)
    padding, stride, dilation = _conv_padding(module, 2), pair(module.stride), pair(module.dilation)
    if swapped:
        weight, padding = weight.transpose(0, 1, 3, 2), padding[::-1]
        stride, dilation = stride[::-1], dilation[::-1]
    result = _convolve(low, value, weight, bias, stride, (padding[0], padding[1]), dilation, module.groups)
    axes = list(value.axes)
    axes[1], axes[place] = ("c",), ("f",)
    return replace(result, axes=tuple(axes))


@for_modules(nn.Conv1d)
def _conv1d(low: Lowering, module: nn.Conv1d, value: Value) -> Value:
    weight, bias = weights_of(module)
    if value.axes[2] != ("t",):
        raise Obstacle(
            "a convolution over one dimension that is not time",
            "Conv2d over [batch, channels, time, frequency]",
        )
    padding = _conv_padding(module, 1)[0]
    role = value.axes[1]
    axes: tuple[Role, ...] = (value.axes[0], ("c",), ("t",))
    if module.groups == 1 and role == ("f",) and value.channels == 1 and module.stride[0] == 1:
        dilation = module.dilation[0] if module.kernel_size[0] > 1 else 1
        if value.low or value.high:
            value = replace(low.resize(value, value.low, value.high), low=0, high=0)
        value, offset = _time_offset(low, value, padding[0], dilation * (module.kernel_size[0] - 1))
        kernel = np.ascontiguousarray(weight.transpose(2, 1, 0))[:, :, None]
        result = low.gather(
            replace(value, front=0), kernel, bias, "", time_dilation=dilation, time_offset=offset
        )
        return replace(result, axes=axes)
    if role != ("c",):
        value = low.to_channels(value, role)
    result = _convolve(
        low,
        value,
        weight[..., None],
        bias,
        (module.stride[0], 1),
        (padding, (0, 0)),
        (module.dilation[0], 1),
        module.groups,
    )
    return replace(result, axes=axes)


def _convolve_transposed(
    low: Lowering,
    value: Value,
    weight: Array,
    bias: Optional[Array],
    stride: tuple[int, int],
    padding: tuple[int, int],
    dilation: tuple[int, int],
    groups: int,
    frequencies: int,
) -> Value:
    """weight [inputs, outputs / groups, time, frequency]"""
    value = low.settle(value)
    inputs, outputs = weight.shape[0], weight.shape[1] * groups
    if value.channels != inputs:
        raise Obstacle(f"{value.channels} channels meet a transposed convolution of {inputs}")
    weight = _spread_taps(_spread_taps(weight, 2, dilation[0]), 3, dilation[1])
    channelwise = groups == inputs == outputs and groups > 1
    if channelwise:
        kernel = weight.transpose(2, 3, 1, 0)  # [time, frequency, 1, channels]
    else:
        if groups > 1:
            swapped = weight.reshape(groups, inputs // groups, outputs // groups, *weight.shape[2:])
            weight = _ungroup(
                swapped.transpose(0, 2, 1, 3, 4).reshape(outputs, inputs // groups, *weight.shape[2:]), groups
            )
            weight = weight.transpose(1, 0, 2, 3)
        kernel = weight.transpose(2, 3, 1, 0)  # [time, frequency, outputs, inputs]
    kernel = np.ascontiguousarray(kernel)
    if kernel.shape[0] < stride[0]:
        kernel = np.pad(kernel, ((0, stride[0] - kernel.shape[0]), (0, 0), (0, 0), (0, 0)))
    needed = -(-frequencies // stride[1]) - value.frequencies
    if needed > 0:
        value = low.resize(value, 0, needed)
    below, above = _extend_kernel(kernel.shape[1], stride[1], -padding[1])
    kernel = np.pad(kernel, ((0, 0), (below, above), (0, 0), (0, 0)))
    produced = value.frequencies * stride[1]
    layer = records.TransposedConv(kernel, bias, outputs, stride[0], stride[1], time_offset=padding[0])
    result = low.add(
        value,
        "",
        layer,
        frequencies=produced,
        channels=outputs,
        multiply_adds=value.frequencies * int(kernel.size) // stride[0],
    )
    if produced > frequencies:
        result = low.resize(result, 0, frequencies - produced)
    return result


@for_modules(nn.ConvTranspose2d)
def _conv_transpose2d(low: Lowering, module: nn.ConvTranspose2d, value: Value) -> Value:
    weight, bias = weights_of(module)
    value, swapped = _spatial_order(value, 1, 2, 3)
    place = 2 if swapped else 3
    value = _as_channels(low, _as_frequency(low, value, place, 1), 1, place)
    stride, padding, dilation = pair(module.stride), pair(module.padding), pair(module.dilation)
    if swapped:
        weight = weight.transpose(0, 1, 3, 2)
        stride, padding, dilation = stride[::-1], padding[::-1], dilation[::-1]
    frequencies = low.results[low.node.name].shape[place]
    result = _convolve_transposed(
        low, value, weight, bias, stride, padding, dilation, module.groups, frequencies
    )
    axes = list(value.axes)
    axes[1], axes[place] = ("c",), ("f",)
    return replace(result, axes=tuple(axes))


@for_modules(nn.ConvTranspose1d)
def _conv_transpose1d(low: Lowering, module: nn.ConvTranspose1d, value: Value) -> Value:
    weight, bias = weights_of(module)
    if value.axes[2] != ("t",):
        raise Obstacle("a convolution over one dimension that is not time")
    if value.axes[1] != ("c",):
        value = low.to_channels(value, value.axes[1])
    result = _convolve_transposed(
        low,
        value,
        weight[..., None],
        bias,
        (module.stride[0], 1),
        (int(module.padding[0]), 0),
        (module.dilation[0], 1),
        module.groups,
        1,
    )
    return replace(result, axes=(value.axes[0], ("c",), ("t",)))


@for_modules(ours.CausalConv2d)
def _causal_conv2d(low: Lowering, module: ours.CausalConv2d, value: Value) -> Value:
    value = low.settle(_as_channels(low, value, 1, 3))
    weight, bias = weights_of(module)
    kernel = np.ascontiguousarray(weight.transpose(2, 3, 1, 0))
    produced = value.frequencies // module.stride[1]
    layer = records.Conv(
        kernel, bias, module.stride[0], module.stride[1], module.time_dilation, time_offset=module.look_ahead
    )
    result = low.add(
        value,
        "",
        layer,
        frequencies=produced,
        channels=module.out_channels,
        multiply_adds=produced * int(kernel.size),
    )
    return replace(result, axes=(value.axes[0], ("c",), ("t",), ("f",)))


@for_modules(ours.CausalConvTranspose2d)
def _causal_conv_transpose2d(low: Lowering, module: ours.CausalConvTranspose2d, value: Value) -> Value:
    value = low.settle(_as_channels(low, value, 1, 3))
    weight, bias = weights_of(module)
    kernel = np.ascontiguousarray(weight.transpose(2, 3, 1, 0))
    layer = records.TransposedConv(
        kernel, bias, module.out_channels, module.stride[0], module.stride[1], time_offset=module.look_ahead
    )
    result = low.add(
        value,
        "",
        layer,
        frequencies=value.frequencies * module.stride[1],
        channels=module.out_channels,
        multiply_adds=value.frequencies * int(kernel.size) // module.stride[0],
    )
    return replace(result, axes=(value.axes[0], ("c",), ("t",), ("f",)))


@for_modules(nn.Linear)
def _linear(low: Lowering, module: nn.Linear, value: Value) -> Value:
    weight, bias = weights_of(module)
    return apply_linear(low, value, weight, bias)


def apply_linear(low: Lowering, value: Value, weight: Array, bias: Optional[Array]) -> Value:
    """[outputs, inputs] over the last dimension."""
    value = low.settle(value)
    role = value.axes[-1]
    if role == ("t",) or "t" in role or "b" in role:
        raise Obstacle("a matrix across time sees the future", "a convolution over time")
    if low.size_of(value, role) == 1 and role != ("c",):
        role = ("c",) if value.channels == 1 and value.frequencies == 1 else role
    if role in (("c",), ("1",)) and value.channels == weight.shape[1]:
        result = low.mix_channels(value, weight, bias, "")
        return replace(result, axes=(*value.axes[:-1], ("c",)))
    if role == ("f",):
        square = weight.shape[0] == weight.shape[1] and value.channels == 1
        if square:
            layer = records.Dense(weight[:, :, None], None if bias is None else bias[:, None])
            return low.add(value, "", layer, multiply_adds=int(weight.size))
        result = low.mix_frequencies(value, weight, "" if bias is None else "matrix")
        if bias is None:
            return result
        return low.offset(result, np.repeat(bias[:, None], value.channels, 1), "")
    if set(role) == {"c", "f"}:
        outputs = weight.shape[0]
        if role == ("c", "f"):
            kernel = weight.reshape(outputs, value.channels, value.frequencies).transpose(2, 1, 0)
        else:
            kernel = weight.reshape(outputs, value.frequencies, value.channels).transpose(1, 2, 0)
        result = low.gather(value, np.ascontiguousarray(kernel)[None], bias, "")
        return replace(result, axes=(*value.axes[:-1], ("c",)))
    raise Obstacle(f"a matrix across {' and '.join(role)}")


@for_functions("matmul")
def _matmul(low: Lowering, first: Any, second: Any) -> Value:
    if isinstance(first, Value) and isinstance(second, Tensor) and second.dim() == 2:
        return apply_linear(low, first, numbers(second).T, None)
    raise unknown_operation("matmul")


@for_functions("linear")
def _functional_linear(low: Lowering, value: Value, weight: Any, bias: Any = None) -> Value:
    return apply_linear(low, value, numbers(weight), None if bias is None else numbers(bias))
