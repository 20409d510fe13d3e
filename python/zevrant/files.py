"""Where models are found by name."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Union

from . import _core

ModelPath = Union[str, os.PathLike[str]]

_shipped = Path(__file__).with_name("models")


def shipped_models() -> list[str]:
    """Names that a model can be asked for by, sorted.

    They come with the package, or lie in the folders of the variable ZEVRANT_MODEL_PATH.
    """
    return sorted({*_core.list_models(), *(file.stem for file in _shipped.glob("*.zevrant"))})


def find_model(model: ModelPath) -> str:
    """What the engine opens for a path or a name. FileNotFoundError where there is neither."""
    name = os.fspath(model)
    if os.sep in name or Path(name).exists() or name in _core.list_models():
        return name
    shipped = _shipped / f"{name}.zevrant"
    if not shipped.is_file():
        raise FileNotFoundError(f"{name}: no such file, and the models are {', '.join(shipped_models())}")
    return str(shipped)
