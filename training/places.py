"""Where things lie. An installed zevrant package comes first; this tree's own serves without one."""

import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.append(str(ROOT / "python"))
