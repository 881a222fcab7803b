"""Every Python example runs on a simulated board and writes its picture."""

import os
import pathlib
import re
import subprocess

import pytest

import chronotick

EXAMPLES = pathlib.Path(os.environ.get("CT_EXAMPLES_DIR", pathlib.Path(__file__).parents[2] / "examples" / "python"))


def lifetime_close(out):
    fitted, simulated = map(float, re.search(r"fitted ([\d.]+) ns, simulated ([\d.]+) ns", out).groups())
    return fitted == pytest.approx(simulated, rel=0.05)


def g2_bunched(out):
    return float(re.search(r"peak ([\d.]+)", out).group(1)) > 5


# Each example, its picture, and what its printout must show.
EXPECTED = {
    "lifetime.py": ("lifetime.png", lifetime_close),
    "g2.py": ("g2.png", g2_bunched),
    "count_rates.py": ("count_rates.png", lambda out: True),
    "record_replay.py": ("record_replay.png", lambda out: "agree: True" in out),
}


def test_every_example_is_covered():
    assert sorted(p.name for p in EXAMPLES.glob("*.py")) == sorted(EXPECTED)


@pytest.mark.parametrize("script", sorted(EXPECTED))
def test_example_writes_its_picture(script, tmp_path):
    package_root = str(pathlib.Path(chronotick.__file__).parents[1])
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(filter(None, [package_root, os.environ.get("PYTHONPATH")])))
    # Run from an empty directory, so that nothing lands beside the sources.
    done = subprocess.run(["/usr/bin/python3", str(EXAMPLES / script), str(tmp_path)], cwd=tmp_path, env=env,
                          capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    picture_name, result_ok = EXPECTED[script]
    picture = tmp_path / picture_name
    assert picture.read_bytes().startswith(b"\x89PNG")
    assert picture.stat().st_size > 10_000
    assert sorted(p.name for p in tmp_path.iterdir()) == [picture_name], "the example leaves no other files"
    assert result_ok(done.stdout), done.stdout
