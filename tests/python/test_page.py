"""The sessions of the page on Python, one after the other in a loop, as its reader types them; and
the wheel."""

from __future__ import annotations

import ast
import asyncio
import doctest
import inspect
import pathlib
import re
import shutil
import subprocess
import sys
import types
import zipfile
from typing import Any

import pytest

from conftest import SECONDS

PAGE = pathlib.Path(__file__).parents[2] / "docs" / "python.md"


async def outputs(source: str, names: dict[str, Any]) -> str:
    """What the prompt prints, with `await` allowed at it."""
    code = compile(source, "<page>", "single", ast.PyCF_ALLOW_TOP_LEVEL_AWAIT)
    try:
        result = types.FunctionType(code, names)()
        if inspect.iscoroutine(result):
            await result
    except Exception as error:
        kind = type(error)
        return f"Traceback (most recent call last):\nconvey.{kind.__name__}: {error}\n"
    return ""


def test_sessions(echo: object, capsys: pytest.CaptureFixture[str]) -> None:
    async def run() -> None:
        text = PAGE.read_text(encoding="utf-8")
        sessions = re.findall(r"^```pycon\n(.*?)^```", text, re.MULTILINE | re.DOTALL)
        examples = [example for session in sessions
                    for example in doctest.DocTestParser().get_examples(session)]
        assert len(examples) > 15
        names: dict[str, Any] = {}
        for example in examples:
            raised = await outputs(example.source, names)
            assert capsys.readouterr().out + raised == example.want, example.source

    asyncio.run(asyncio.wait_for(run(), SECONDS))


def test_the_wheel_holds_the_package(tmp_path: pathlib.Path) -> None:
    source = tmp_path / "python"
    shutil.copytree(PAGE.parents[1] / "python", source)
    subprocess.run([sys.executable, "-c", "from setuptools import build_meta\n"
                    f"build_meta.build_wheel({str(tmp_path)!r})"], cwd=source, check=True,
                   capture_output=True)
    (wheel,) = tmp_path.glob("convey-*-py3-none-any.whl")
    kept = {path.name for path in (PAGE.parents[1] / "python" / "convey").iterdir()
            if path.is_file()}
    assert {name.removeprefix("convey/") for name in zipfile.ZipFile(wheel).namelist()
            if name.startswith("convey/")} == kept  # the marker of types, too
