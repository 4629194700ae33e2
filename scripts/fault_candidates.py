#!/usr/bin/env python3
"""Prints rows for plant_faults.tsv: faults that fit the expressions and statements of sources.

fault_candidates.py FILE... [--seed N] [--count FAULTS]: operators and constants change, a check or a
statement is lost, errors and byte orders are mixed up. The same seed gives the same rows.
"""
import argparse
import random
import re

from fault_list import ROOT, Source, read_list

SWAPS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||", "||": "&&",
         "+": "-", "-": "+", "min": "max", "max": "min", "be16": "le16", "le16": "be16", "be32": "le32",
         "le32": "be32", "IMG_ERR_READ": "IMG_ERR_CORRUPT", "IMG_ERR_CORRUPT": "IMG_ERR_READ",
         "IMG_ERR_SUBTYPE": "IMG_ERR_FORMAT", "IMG_ERR_WRITE": "IMG_ERR_READ", "errno": "1",
         "IMG_ERR_SIZE": "IMG_ERR_READ", "true": "false", "false": "true"}
KEYWORDS = {"const", "auto", "static", "using", "case", "break", "continue", "delete", "return", "goto",
            "template", "struct", "public", "static_assert", "if", "for", "while", "else", "switch",
            "do", "default"}
BEFORE_BODY = {")", "const", "override", "noexcept"}
CLOSING = {"(": ")", "[": "]", "{": "}"}


def closing(words, at):
    """The word that closes the bracket at a word."""
    depth = 0
    for i in range(at, len(words)):
        if words[i].text in CLOSING:
            depth += 1
        elif words[i].text in CLOSING.values():
            depth -= 1
            if depth == 0:
                return i
    return len(words)


def regions(source):
    """Expressions and statements: (first word, one behind the last, is a statement)."""
    words = source.words
    text = [word.text for word in words]
    brackets = 0
    depth = []  # whether the brackets around are those of a function's body
    for i, word in enumerate(text):
        if word == "{":
            depth.append(bool(depth and depth[-1]) or text[i - 1] in BEFORE_BODY)
        elif word == "}" and depth:
            depth.pop()
        brackets += (word == "(") - (word == ")")
        if not depth or not depth[-1]:
            continue
        if word in ("if", "while") and text[i + 1] == "(":
            yield i + 2, closing(words, i + 1), False
        if word == "for" and text[i + 1] == "(":
            parts = [j for j in range(i, closing(words, i + 1)) if text[j] == ";"]
            if len(parts) == 2 and parts[0] + 1 < parts[1]:
                yield parts[0] + 1, parts[1], False
        if word in (";", "{", "}", ")", "else") and brackets == 0 and i + 1 < len(text):
            end = next((j for j in range(i + 1, len(text)) if text[j] in (";", "{", "}")), 0)
            if end > i + 2 and text[end] == ";":
                if text[i + 1] == "return":
                    yield i + 2, end, False
                elif word != ")" or text[i + 1] not in ("{", ";"):
                    yield i + 1, end + 1, True


def mutations(source, first, end, is_statement):
    """(first, end, new text, reason) of what can be done to a region."""
    words = [word.text for word in source.words[first:end]]
    if "[" == words[0] or "{" in words or "constexpr" in words:
        return
    old = source.text[source.words[first].start:source.words[end - 1].end]
    base = source.words[first].start

    def spaced(i):  # an operator of two operands, no bracket of a template
        word = source.words[first + i]
        return source.text[word.start - 1] == " " and source.text[word.end] in " \n"

    if is_statement:
        is_assignment = any(text in ("=", "+=", "-=", "|=", "++", "--") for text in words)
        is_declaration = re.match(r"[A-Za-z_][\w:<>, *&]*[ *&]+\w+( = |;|\(|, |\[)", old)
        is_expression = re.match(r"[A-Za-z_]|\+\+|--", old) and words[0] not in KEYWORDS
        if is_expression and not is_declaration and (is_assignment or "(" in words):
            yield first, end, ";", "lost statement"
        return
    has_lambda = re.search(r"\[(&|=|this|)\w*\]", old)
    if words == ["1"] or "=" in words or ";" in words or has_lambda:
        return
    before = source.words[first - 2].text
    if before == "if" and source.words[end + 1].text == "return":
        yield first, end, "false", "missing check"
    for i, word in enumerate(words):
        at = source.words[first + i]
        new = SWAPS.get(word)
        if word in ("<", ">", "<=", ">=", "+", "-", "&&", "||", "==", "!=") and not spaced(i):
            new = None
        if word in ("min", "max") and words[i - 1] != "::":
            new = None
        if word == "!" and words[i + 1] != "=":
            new = "!!"
        if re.fullmatch(r"\d+", word) and word != "0" and (i == 0 or words[i - 1] not in ("<", ",")):
            new = str(int(word) + 1)
        if source.words[first - 1].text == ";" and i == 1 and word == "<":
            new = "+ 1 <"  # a loop that leaves the last one out
        if new is not None:
            text = old[:at.start - base] + new + old[at.end - base:]
            yield first, end, " ".join(text.split()), f"{word} is {new}"


def without_comments(text):
    bare = re.sub(r"//[^\n]*|/\*.*?\*/", " ", text, flags=re.S)
    return " ".join(bare.split()) + " " * text[-1:].isspace()


def anchor_of(source, first, end):
    """The region with as many words in front of it as make it unique."""
    index = {at: i for i, (_, at) in enumerate(source.plain)}
    while first not in index:
        first += 1
    if end - 1 not in index:
        return None
    a, b = index[first], index[end - 1]
    for more in range(0, 41):
        if a - more < 0:
            return None
        if more and len(source.find(source.key[a - more:b + 1])) == 1:
            cut, begin = source.offsets(a, b)[0], source.offsets(a - more, b)[0]
            before = without_comments(source.text[begin:cut])
            return before + "«" + without_comments(source.text[cut:source.words[end - 1].end]) + "»"
    return None


def candidates(name, rng, per_line):
    """(anchor, new text, reason) for a file, no two in one place, seldom statements."""
    source = Source(ROOT / name)
    rows = {}
    for region in regions(source):
        for first, end, new, reason in mutations(source, *region):
            anchor = anchor_of(source, first, end)
            if anchor and len(anchor) < 400:
                rows.setdefault(anchor, []).append((new, reason))
    count = max(1, round(len(source.text.splitlines()) * per_line))
    for _ in range(min(count, len(rows))):
        weights = [1 if "statement" in rows[anchor][0][1] else 4 for anchor in sorted(rows)]
        anchor = rng.choices(sorted(rows), weights)[0]
        yield anchor, *rng.choice(rows.pop(anchor))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("files", nargs="+")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=float, default=12, help="faults for 1000 lines")
    options = parser.parse_args()
    rng = random.Random(options.seed)
    number = max((fault.number for fault in read_list()), default=0)
    for name in options.files:
        for anchor, new, reason in candidates(name, rng, options.count / 1000):
            number += 1
            print(number, name, anchor, new, reason, sep="\t")


if __name__ == "__main__":
    main()
