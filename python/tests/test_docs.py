"""The sessions in docs/python.md, run under the virtual adapter: each `python` block of the
family sections must print exactly the `text` block that follows it."""

import os
import re

import pytest

import veltrix

DOC = os.path.join(os.path.dirname(__file__), *[os.pardir] * 2, "docs", "python.md")
FIRST_SECTION = "### UART, GPIO, PWM and ADC"
END = "## Examples"
_BLOCK = re.compile(r"```python\n(.*?)```\n+```text\n(.*?)```", re.S)


def sessions():
    with open(DOC, encoding="utf-8") as f:
        text = f.read()
    part = text[text.index(FIRST_SECTION):text.index(END)]
    found = []
    for heading in re.split(r"\n(?=### )", part):
        title = heading.splitlines()[0].lstrip("# ")
        for i, (code, output) in enumerate(_BLOCK.findall(heading)):
            found.append(pytest.param(code, output, id=f"{title}-{i}"))
    return found


def test_every_family_section_has_a_session():
    titles = {p.id.rsplit("-", 1)[0] for p in sessions()}
    assert titles == {"UART, GPIO, PWM and ADC", "SMBus, SPI flash and SPI slave",
                      "UDS over LIN", "CAN schedules and relay"}


@pytest.mark.parametrize("code, output", sessions())
def test_the_session_prints_what_the_doc_shows(sim, capsys, code, output):
    veltrix.scan()
    exec(compile(code, "<docs/python.md>", "exec"), {"__name__": "docs"})  # noqa: S102 - our own doc
    assert capsys.readouterr().out == output
