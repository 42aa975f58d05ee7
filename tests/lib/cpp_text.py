"""C++ as text, for those who look for something in it."""

import re


def without_comments_and_strings(text):
    """The C++ text with comments and the content of literals blanked out, line by line as long as before."""
    pattern = re.compile(
        r'//[^\n]*|/\*.*?\*/|R"(?P<d>[^()\\\s]*)\(.*?\)(?P=d)"|"(?:\\.|[^"\\\n])*"'
        r"|(?<![0-9A-Fa-f])'(?:\\.|[^'\\\n])+'", re.S)

    def blank(match):
        return re.sub(r"[^\n]", " ", match.group())
    return pattern.sub(blank, text)
