#!/usr/bin/env python3
"""Makes the manual pages of the library from its header, which holds the contract of each function.

function_pages.py HEADER OVERVIEW FOLDER
OVERVIEW: the page about the library as a whole. @CODES@, @CONSTANTS@ and @FUNCTIONS@ are replaced by those of the header,
@REMARKS@ by its comments without a declaration below them.
FOLDER: receives the pages. Each function has a page of its own name, which includes the page of its group.

How the header is read: a comment in the first column describes the declarations below it. A comment that begins with a
title of one or two words ("Notification: ...") begins a topic, whose page also holds everything that follows. Before the
first topic, each comment makes a page. Within a comment, a blank line ends a paragraph; columns at least two blanks apart
form a list of terms; a line that begins with "Returns" or "Return," begins the description of the return value.
"""
import pathlib
import re
import shutil
import sys

BLOCK = re.compile(r"^/\*(.*?)\*/\n(.*?)(?=^/\*|\Z)", re.M | re.S)
FUNCTION = re.compile(r"^TVS_EXPORT (\w+) TVS_CALL (\w+)\((.*?)\);", re.M | re.S)
DECLARATION = re.compile(r"^(?:typedef .*?;|#define \w+ .*?$)", re.M | re.S)
CODE = re.compile(r"^#define (TVS_OK|TVS_E_\w+) \(?(-?\d+)\)?(?: +/\* (.*?) \*/)?$", re.M)
TITLE = re.compile(r"[A-Z]\w+(?: \w+)?: ")
TERM = re.compile(r" *(\S.*?) {2,}(\S.*)")


class Block:
    """A comment and the declarations that it describes."""

    def __init__(self, comment, code):
        self.lines = [re.sub(r"^ \* ?", "", line) for line in comment.strip().split("\n")]
        self.functions = [(kind, name, split_parameters(parameters)) for kind, name, parameters in FUNCTION.findall(code)]
        self.declarations = [re.sub(r"\s+", " ", text) for text in DECLARATION.findall(code)]
        self.names = [name for _, name, _ in self.functions]
        self.heading = ", ".join(self.names) or ", ".join(re.findall(r"typedef .*?(\w+)(?:;|\)\()", code))
        at = next((at for at, line in enumerate(self.lines) if re.match(r"Returns |Return, ", line)), len(self.lines))
        self.description, self.returned = self.lines[:at], self.lines[at:]
        self.is_topic = bool(TITLE.match(self.lines[0]))


def split_parameters(text):
    return [re.sub(r" *\* *", " *", " ".join(parameter.split())) for parameter in text.split(",")]


def read_pages(text):
    """A list of blocks for each page. A block without declarations is on no page."""
    pages, topic = [], None
    for comment, code in BLOCK.findall(text):
        block = Block(comment, code)
        if block.is_topic:
            pages.append(topic := [block])
        elif topic is not None:
            topic.append(block)
        elif block.functions:
            pages.append([block])
    return pages


def escape(text):
    text = text.replace("\\", "\\e")
    return "\\&" + text if text[:1] in ".'" else text


class Writer:
    def __init__(self, functions):
        self.functions = re.compile(r"\b(" + "|".join(sorted(functions, key=len, reverse=True)) + r")\b")
        self.lines = []

    def put(self, *lines):
        self.lines += lines

    def text(self, text):
        """Running text, one sentence per line."""
        for sentence in re.split(r"(?<=[.!?]) +(?=[A-Z*\"])", text.strip()):
            self.put(self.functions.sub(r"\\fB\1\\fP", escape(sentence)))

    def paragraphs(self, lines, between=".Pp"):
        """Paragraphs and lists of terms; `between` precedes each paragraph but the first."""
        first, terms, paragraph = True, [], []

        def flush():
            nonlocal first
            if paragraph:
                if not first:
                    self.put(between)
                self.text(" ".join(line.strip() for line in paragraph))
                first = False
            if terms:
                self.put(".Bl -tag -width Ds")
                for term, meaning in terms:
                    self.put(".It " + " ".join("\\&" + word for word in escape(term).split()))
                    self.text(" ".join(meaning))
                self.put(".El")
                first = False
            paragraph.clear()
            terms.clear()

        for line in lines:
            term = TERM.fullmatch(line)
            if term:
                if paragraph:
                    flush()
                terms.append((term[1], [term[2]]))
            elif terms and line.startswith("   "):
                terms[-1][1].append(line.strip())
            elif line.strip():
                if terms:
                    flush()
                paragraph.append(line)
            else:
                flush()
        flush()


def summary(block):
    text = TITLE.sub("", " ".join(block.lines), count=1) if block.is_topic else " ".join(block.lines)
    text = re.split(r"[.,:;]", text)[0]
    return text[0].lower() + text[1:]


def names_of(page):
    return [name for block in page for name in block.names]


def make_page(page, day, functions):
    out = Writer(functions)
    names = names_of(page)
    out.put(f".Dd {day}", f".Dt {names[0].upper()} 3", ".Os", ".Sh NAME")
    out.put(*(f".Nm {name} ," for name in names[:-1]), f".Nm {names[-1]}", f".Nd {summary(page[0])}")
    out.put(".Sh LIBRARY", "libtvsqdz (\\-ltvsqdz;", ".Li pkg-config tvsqdz )", ".Sh SYNOPSIS", ".In tvsqdz.h")
    for block in page:
        for text in block.declarations:
            out.put(f".Fd {text}" if text.startswith("#") else f".Vt {escape(text)}")
        for kind, name, parameters in block.functions:
            out.put(f".Ft {kind}", f".Fo {name}", *(f'.Fa "{parameter}"' for parameter in parameters), ".Fc")
    out.put(".Sh DESCRIPTION")
    for number, block in enumerate(page):
        if number > 0:
            out.put(".Ss " + block.heading)
        out.paragraphs(block.description)
    returned = [block for block in page if block.returned]
    if returned:
        out.put(".Sh RETURN VALUES")
        for block in returned:
            if len(returned) > 1:
                out.put(".Ss " + block.heading)
            out.paragraphs(block.returned)
        out.put(".Pp", ".Xr tvsqdz 3", "explains the codes.")
    out.put(".Sh SEE ALSO", ".Xr oriel 1 ,", ".Xr tvsqdz 3")
    return "\n".join(out.lines) + "\n"


def main(header, overview, folder):
    text = pathlib.Path(header).read_text()
    pages = [page for page in read_pages(text) if names_of(page)]
    functions = [name for page in pages for name in names_of(page)]
    if sorted(functions) != sorted(name for _, name, _ in FUNCTION.findall(text)):
        sys.exit(f"{header}: a function has no comment above it")
    template = pathlib.Path(overview).read_text()
    day = re.search(r"^\.Dd (.*)$", template, re.M)[1]

    folder = pathlib.Path(folder)
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    for page in pages:
        first, *others = names_of(page)
        (folder / f"{first}.3").write_text(make_page(page, day, functions))
        for name in others:
            (folder / f"{name}.3").write_text(f".so man3/{first}.3\n")
    codes = [f".It Dv {name} Ta {number} Ta {meaning or 'done'}" for name, number, meaning in CODE.findall(text)]
    listed = []
    for page in pages:
        listed += [".It " + " , ".join(f"Xr {name} 3" for name in names_of(page)), summary(page[0])]
    constants, remarks = Writer(functions), Writer(functions)
    for comment, code in BLOCK.findall(text)[1:]:  # the first one is about the file
        if not code.strip():
            remarks.put(".Pp")
            remarks.paragraphs(Block(comment, code).lines)
        elif not FUNCTION.search(code) and not CODE.search(code) and "#define TVS_" in code:
            constants.put(".Pp")
            constants.paragraphs(Block(comment, code).lines)
            constants.put(".Bd -literal -offset indent", escape(code.strip()), ".Ed")
    for name, lines in (("@CODES@", codes), ("@FUNCTIONS@", listed), ("@CONSTANTS@", constants.lines),
                        ("@REMARKS@", remarks.lines)):
        template = template.replace(name + "\n", "".join(line + "\n" for line in lines))
    (folder / "tvsqdz.3").write_text(template)


if __name__ == "__main__":
    main(*sys.argv[1:])
