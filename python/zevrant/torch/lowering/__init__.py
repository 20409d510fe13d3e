"""From a module to layers: traced node by node, and each node said in what the engine has.

tracing       follows a module
values        what a result is in the engine: a layer, and where its dimensions lie
registry      who turns which operation into layers
lowering      the walk, and layers that several operations need
convolutions, pointwise, arithmetic, layout      the operations
"""

from . import arithmetic, convolutions, layout, pointwise
from .lowering import Lowering
from .tracing import Obstacle, Problem, record, trace
from .values import Lowered, to_engine_layout

__all__ = [
    "Lowered",
    "Lowering",
    "Obstacle",
    "Problem",
    "arithmetic",
    "convolutions",
    "layout",
    "pointwise",
    "record",
    "to_engine_layout",
    "trace",
]
