"""The code on docs/python.md runs, in the order in which it stands there."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

root = Path(__file__).resolve().parents[2]
blocks = re.findall(r"^```(\w+)\n(.*?)^```", (root / "docs/python.md").read_text(), re.M | re.S)


def test_code_of_the_page_runs(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    pytest.importorskip("torch")
    pytest.importorskip("matplotlib").use("agg")
    pytest.importorskip("soundfile")
    monkeypatch.chdir(tmp_path)
    shutil.copy(root / "demo/mixture.flac", tmp_path)
    program = os.environ.get("ZEVRANT_PROGRAM") or shutil.which("zevrant")
    ran = set()
    for language, code in blocks:
        ran.add(language)
        if language == "python":
            exec(compile(code, "docs/python.md", "exec"), {})
        elif program:
            subprocess.run(code.replace("zevrant", program, 1), shell=True, check=True)
    assert ran == {"python", "bash"}
    assert (tmp_path / "stems.png").exists()
